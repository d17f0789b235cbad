/*
 * The lines this phone sends of its own accord: its state, its Bluetooth MAC, the Wi-Fi module's
 * version and the production loop-back pattern. Run on the caller's thread (dispatch, supervisor,
 * test transmitter); the property waits block it for up to about two seconds. Writes slot 3 of
 * g_corvel_devInfo.ver (the Wi-Fi module's version), without a lock, as the parsers do. Keeps
 * the Bluetooth address the host process handed over (any thread writes it, the senders read it).
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <mutex>

#include <cutils/properties.h>

#include "accessory/accessory.h"
#include "device/device.h"
#include "engine/engine.h"
#include "log/atcmd_log.h"

char bt_mac_prop[64] = "net.bluetooth.macaddr";

namespace {

constexpr char kVersionProp[] = "ro.quorvanta.version";
constexpr int kPropertyRetries = 200;          // a value got only at the last retry still fails
constexpr useconds_t kPropertyRetryUs = 10000;
constexpr size_t kWifiVerSlot = 3;             // the Wi-Fi module's version in the block
constexpr std::array<size_t, CORVEL_VER_ITEMS> kVerSlotOffsets = CORVEL_VER_SLOT_OFFSETS;
constexpr std::array<size_t, CORVEL_VER_ITEMS> kVerSlotSizes = CORVEL_VER_SLOT_SIZES;
constexpr size_t kWifiVerSlotSize = kVerSlotSizes[kWifiVerSlot];

// State words by number, shared with what getstate_fromCmdString reads back; 7 (INIT) is only
// ever received, so it and every other number send no word.
constexpr std::array<const char *, 7> kStateWords = {
    "", "IDLE", "ACTIVE", "READY", "PWROFF", "UPDATE", "NOACK"};

const char *state_word(int32_t state) {
    return state >= 0 && static_cast<size_t>(state) < kStateWords.size() ? kStateWords[state] : "";
}

struct MacLine {
    const char *keyword;  // what this side calls the MAC it sends
    int number;           // the number after "#"
    int flag;             // the number after "&"
};
// Platform 1 sends "+BTMAC" lines, platform 2 "+BLEMAC" lines. Both records carry row 7 (cmd_id
// and seq_num), also on platform 2 where the wire says 8: answers are matched by keyword.
constexpr MacLine kMacLineVuart = {"AT+BTMAC=", AT_MSG_BTMAC, PLATFORM_VUART};
constexpr MacLine kMacLineUart = {"AT+BLEMAC=", AT_MSG_BLEMAC, PLATFORM_UART};

// Header of a sent line; the unlisted fields are 0.
struct LineHeader {
    uint8_t type;
    uint8_t dest;
    uint8_t flag;
    uint8_t cmd_id;
    uint16_t seq_num;
};

void queue_line(const LineHeader &h, char *text) {
    AtCmder_t cmd = {};
    cmd.type = h.type;
    cmd.dest = h.dest;
    cmd.flag = h.flag;
    cmd.cmd_id = h.cmd_id;
    cmd.seq_num = h.seq_num;
    cmd.data = text;
    atcmder_send_to_tx(&cmd);  // queue errors are ignored
}

// What the platform puts where an application may not learn the real address: never sent.
constexpr char kPlaceholderMac[] = "02:00:00:00:00:00";
constexpr size_t kMacLength = sizeof kPlaceholderMac - 1;  // "XX:XX:XX:XX:XX:XX"

std::mutex g_handed_mac_mutex;     // guards g_handed_mac; taken alone, never with another lock
char g_handed_mac[kMacLength + 1];  // the host's address, "" until one is handed over

// Six pairs of hexadecimal digits separated by colons.
bool mac_well_formed(const char *mac) {
    if (strnlen(mac, kMacLength + 1) != kMacLength) return false;
    for (size_t i = 0; i < kMacLength; ++i) {
        const bool colon = i % 3 == 2;
        if (colon ? mac[i] != ':' : strchr("0123456789abcdefABCDEF", mac[i]) == nullptr) return false;
    }
    return true;
}

// Reads `key` into `value` (PROPERTY_VALUE_MAX bytes).
void read_property(const char *key, char *value) { property_get(key, value, ""); }

// The MAC property, or when it is empty (unset, or not readable by this process) the address
// the host handed over.
void read_bt_mac(const char *key, char *value) {
    read_property(key, value);
    if (value[0] != '\0') return;
    std::lock_guard<std::mutex> lock(g_handed_mac_mutex);
    snprintf(value, PROPERTY_VALUE_MAX, "%s", g_handed_mac);
}

// Reads `key` with `read` into `value` (PROPERTY_VALUE_MAX bytes), retrying while it is empty.
// Fails when the value came only at the last of the retries, as the wait has always been bounded.
bool wait_property(const char *key, char *value, void (*read)(const char *, char *) = read_property) {
    read(key, value);
    int retries = 0;
    while (value[0] == '\0') {
        usleep(kPropertyRetryUs);
        read(key, value);
        if (++retries >= kPropertyRetries) break;
    }
    return retries < kPropertyRetries;
}

// The device's platform, or 0 (neither platform) with an error line, written for the sender
// `func`, when there is no device.
int32_t current_platform(const char *func) {
    if (g_patcmd_dev != nullptr) return g_patcmd_dev->system_status.platform;
    ATCMD_LOG_AS(func, LOG_TAG, ATCMD_LEVEL_ERROR, "no device, line dropped");
    return 0;
}

// "+STATE=" + word + CR LF, as a response with the state row and no sequence number.
void send_state_line(const char *word, uint8_t dest) {
    char text[AT_LINE_BUF_SIZE] = {};
    snprintf(text, sizeof text, "+STATE=%s\r\n", word);
    queue_line({AT_TYPE_RESPONSE, dest, 0, AT_MSG_STATE, 0}, text);
}

}  // namespace

// Answers the accessory's state query with the phone's state: only IDLE and ACTIVE are words.
void send_stateToMCU(void) {
    if (g_patcmd_dev == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "no device, state line dropped");
        return;
    }
    const int32_t phone_state = g_patcmd_dev->system_status.phone_state;
    const bool known = phone_state == 1 || phone_state == 2;
    send_state_line(known ? state_word(phone_state) : "", AT_NODE_ACCESSORY);
}

void send_stateToMPHONE(int32_t state) { send_state_line(state_word(state), AT_NODE_PLATFORM1); }

void send_bt_mac(void) {
    const int32_t platform = current_platform(__func__);
    if (platform == 0) return;
    char mac[PROPERTY_VALUE_MAX] = {};
    if (!wait_property(bt_mac_prop, mac, read_bt_mac)) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "Can not get Corvel BTMAC %s.", bt_mac_prop);
        return;
    }
    const MacLine &line = platform == PLATFORM_VUART ? kMacLineVuart : kMacLineUart;
    char text[AT_LINE_BUF_SIZE] = {};
    snprintf(text, sizeof text, "%s%s#%d&%d\r\n", line.keyword, mac, line.number, line.flag);
    queue_line({AT_TYPE_RESPONSE, AT_NODE_ACCESSORY, static_cast<uint8_t>(platform), AT_MSG_BTMAC,
                AT_MSG_BTMAC},
               text);
}

// Keeps the host's address for send_bt_mac, which sends it only while the property is empty:
// the property comes first, as on a phone where this process may read it and on the desk.
int atcmdprocess_set_bt_macaddr(const char *mac) {
    if (mac == nullptr || !mac_well_formed(mac)) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "Bluetooth address \"%.32s\" refused: not XX:XX:XX:XX:XX:XX",
                  mac != nullptr ? mac : "(null)");
        return -EINVAL;
    }
    if (strcmp(mac, kPlaceholderMac) == 0) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "Bluetooth address %s refused: the platform's placeholder", mac);
        return -EINVAL;
    }
    {
        std::lock_guard<std::mutex> lock(g_handed_mac_mutex);
        memcpy(g_handed_mac, mac, sizeof g_handed_mac);
    }
    ATCMD_LOG(ATCMD_LEVEL_STATE, "Bluetooth address %s handed over, sent when %s is empty", mac,
              bt_mac_prop);
    return 0;
}

// Tells the accessory the Wi-Fi module's version: the one cached in slot 3, or else the version
// property, cached when it fits the slot with its terminator.
void send_amlogic_ver(void) {
    if (current_platform(__func__) != PLATFORM_UART) return;
    char *slot = g_corvel_devInfo.ver + kVerSlotOffsets[kWifiVerSlot];
    char version[PROPERTY_VALUE_MAX] = {};
    if (slot[0] != '\0') {
        snprintf(version, sizeof version, "%.*s", static_cast<int>(strnlen(slot, kWifiVerSlotSize)),
                 slot);
    } else if (!wait_property(kVersionProp, version)) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "get corvel ver fail.");
        return;
    } else if (strlen(version) < kWifiVerSlotSize) {
        memcpy(slot, version, strlen(version) + 1);
    } else {
        ATCMD_LOG(ATCMD_LEVEL_STATE, "Amlogic ver data is too long!");
    }
    char text[AT_LINE_BUF_SIZE] = {};
    snprintf(text, sizeof text, "+VER=WIFI:%s", version);
    ATCMD_LOG(ATCMD_LEVEL_DETAIL, "ver data is %s", text);
    snprintf(text + strlen(text), sizeof text - strlen(text), "\r\n");
    queue_line({AT_TYPE_RESPONSE, AT_NODE_ACCESSORY, 0, AT_MSG_VER, 0}, text);
}

// One step of the loop-back test: odd steps send one pattern, even steps the other.
void send_ptest_data(uint32_t n) {
    if (current_platform(__func__) != PLATFORM_UART) return;
    char text[AT_LINE_BUF_SIZE] = {};
    snprintf(text, sizeof text, "AT+PTEST=%s#%u&%d\r\n", atcmd_ptest_pattern(n), n, PLATFORM_UART);
    queue_line({0, AT_NODE_ACCESSORY, 0, 0, 0}, text);
}
