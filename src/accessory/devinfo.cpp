/*
 * The accessory information record g_corvel_devInfo (filled by the answer parsers), the two model
 * type texts, and the queries that ask the accessory for what the record holds. Queries run on
 * the caller's thread (the supervisor, or any caller of the exported functions) and only put a
 * line on Tx_head; they write no global.
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <array>

#include "accessory/accessory.h"
#include "device/device.h"
#include "engine/engine.h"
#include "log/atcmd_log.h"

corvel_devInfo_t g_corvel_devInfo;
char type_with_wifi[32] = "KV4410C";
char type_without_wifi[32] = "KV4410A";

namespace {

constexpr size_t kShortQueryBuf = 32;              // room of most query lines
constexpr size_t kLongQueryBuf = AT_LINE_BUF_SIZE; // mic mode and cast mode
constexpr useconds_t kInfoPauseUs = 10000;         // spacing of the start-up interrogation

struct QueryRow {
    const char *text;  // the line up to "#", or the whole line when `fixed`
    uint8_t row;       // keyword row: the record's cmd_id and seq_num, and the number after "#"
    size_t buf_size;
    bool fixed;        // sent as written, whatever the platform
};

enum QueryIndex : size_t {
    kQueryBat, kQueryBleMac, kQueryState, kQueryVer, kQuerySn, kQuerySid, kQueryType,
    kQueryUsbState, kQueryScreen, kQueryMicMode, kQueryCastMode, kQueryCount
};

// The cast-mode query goes out with sequence number 0 and flag 2 on the wire while its record
// says row 28, on either platform; answers to it are matched by keyword.
constexpr std::array<QueryRow, kQueryCount> kQueries = {{
    {"AT+BAT?#", AT_MSG_BAT, kShortQueryBuf, false},
    {"AT+BLEMAC?#", AT_MSG_BLEMAC, kShortQueryBuf, false},
    {"AT+STATE?#", AT_MSG_STATE, kShortQueryBuf, false},
    {"AT+VER?#", AT_MSG_VER, kShortQueryBuf, false},
    {"AT+SN?#", AT_MSG_SN, kShortQueryBuf, false},
    {"AT+SID?#", AT_MSG_SID, kShortQueryBuf, false},
    {"AT+TYPE?#", AT_MSG_TYPE, kShortQueryBuf, false},
    {"AT+USBSTATE?#", AT_MSG_USBSTATE, kShortQueryBuf, false},
    {"AT+SCREEN?#", AT_MSG_SCREEN, kShortQueryBuf, false},
    {"AT+MICMODE?#", AT_MSG_MICMODE, kLongQueryBuf, false},
    {"AT+MODE?#0&2\r\n", AT_MSG_MODE, kLongQueryBuf, true},
}};

// Builds the query line of `index` for this side's platform and queues it; `func` is the
// query function the log lines are written for.
void send_query(QueryIndex index, const char *func) {
    const QueryRow &q = kQueries[index];
    if (g_patcmd_dev == nullptr) {
        ATCMD_LOG_AS(func, LOG_TAG, ATCMD_LEVEL_ERROR, "no device, query %s dropped", q.text);
        return;
    }
    const int32_t platform = g_patcmd_dev->system_status.platform;
    char text[AT_LINE_BUF_SIZE] = {};
    const int n = q.fixed ? snprintf(text, q.buf_size, "%s", q.text)
                          : snprintf(text, q.buf_size, "%s%u&%d\r\n", q.text, q.row,
                                     platform == PLATFORM_VUART ? PLATFORM_VUART : PLATFORM_UART);
    if (n < 0 || static_cast<size_t>(n) >= q.buf_size) {
        ATCMD_LOG_AS(func, LOG_TAG, ATCMD_LEVEL_ERROR, "query line %s does not fit, dropped",
                     q.text);
        return;
    }
    AtCmder_t cmd = {};
    cmd.type = AT_TYPE_QUERY;
    cmd.dest = AT_NODE_ACCESSORY;
    cmd.flag = static_cast<uint8_t>(platform);
    cmd.cmd_id = q.row;
    cmd.seq_num = q.row;
    cmd.data = text;
    atcmder_send_to_tx(&cmd);  // a failed enqueue is left to the caller's resend logic: none
}

}  // namespace

void get_corvel_BATINFO(void) { send_query(kQueryBat, __func__); }
void get_remote_bt_mac(void) { send_query(kQueryBleMac, __func__); }
void get_corvel_state(void) { send_query(kQueryState, __func__); }
void get_corvel_sn(void) { send_query(kQuerySn, __func__); }
void get_corvel_sid(void) { send_query(kQuerySid, __func__); }
void get_corvel_type(void) { send_query(kQueryType, __func__); }
void get_corvel_usbstate(void) { send_query(kQueryUsbState, __func__); }
void get_corvel_screensts(void) { send_query(kQueryScreen, __func__); }
void get_corvel_micmode(void) { send_query(kQueryMicMode, __func__); }
void get_corvel_castmode(void) { send_query(kQueryCastMode, __func__); }

int get_corvel_ver(void) {
    send_query(kQueryVer, __func__);
    return 0;
}

// Asks every question once when the link comes up. No answer is awaited; the pauses only space
// the lines out. The platform-1 block ends without a pause.
int get_corvel_info(void) {
    ATCMD_LOG(ATCMD_LEVEL_DETAIL, " get corvel info.");
    get_corvel_type();
    usleep(kInfoPauseUs);
    get_corvel_BATINFO();
    usleep(kInfoPauseUs);
    send_bt_mac();
    usleep(kInfoPauseUs);
    get_corvel_sn();
    usleep(kInfoPauseUs);
    get_corvel_sid();
    usleep(kInfoPauseUs);
    get_corvel_screensts();
    usleep(kInfoPauseUs);
    if (g_patcmd_dev != nullptr && g_patcmd_dev->system_status.platform == PLATFORM_VUART) {
        get_corvel_state();
        usleep(kInfoPauseUs);
        get_corvel_usbstate();
        usleep(kInfoPauseUs);
        get_remote_bt_mac();
    }
    get_corvel_micmode();
    usleep(kInfoPauseUs);
    return get_corvel_ver();
}
