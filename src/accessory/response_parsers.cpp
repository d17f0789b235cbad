/*
 * The answer parser of every keyword row: cut the value out of the line, keep identity data in
 * g_corvel_devInfo, notify the upper layer, answer the accessory's own questions, relay reports
 * to the Wi-Fi peer and carry out the few system actions the accessory asks for. Runs on the
 * dispatch thread, one line at a time. Writes g_corvel_devInfo, the received record's dest, the
 * device's usb_status, usb_connected and system_status.mode, and two system properties.
 */
#define LOG_TAG "ATCMD_PARSE"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <array>

#include <cutils/properties.h>

#include "accessory/accessory.h"
#include "engine/engine.h"
#include "hal/hal.h"
#include "hotplug/hotplug.h"
#include "log/atcmd_log.h"
#include "wifi/wifi.h"

namespace {

constexpr uint32_t kParsed = 0;
constexpr uint32_t kNoValue = ATCMD_EXTRACT_NO_VALUE;  // REBOOT and ERROR report a missing value
constexpr uint8_t kKeepDest = AT_NODE_NONE;           // the row leaves the record's dest alone
constexpr int kEntryLevel = 4;
constexpr int kValueLevel = 4;
constexpr int kTimeEntryLevel = 3;
constexpr int kCastModeLevel = 3;

constexpr char kPowerctlProp[] = "sys.powerctl";
constexpr char kPowerctlShutdown[] = "shutdown";
constexpr char kRecoveryProp[] = "vendor.corvel.recovery";
constexpr char kRecoveryOn[] = "1";
constexpr char kFactoryWtProp[] = "persist.vendor.corvel.factory.wt";
constexpr char kFactoryWtUnset[] = "N";

constexpr int32_t kStatePowerOff = 4;             // "PWROFF"
constexpr int32_t kWifiOff = 0;                   // argument of atcmdprocess_wifi_stchange
constexpr useconds_t kShutdownWifiSettleUs = 50000;
constexpr int32_t kUsbConnected = 1;
constexpr int32_t kWifiWanted = 1;
constexpr int32_t kModelWithWifi = 1;
constexpr int32_t kModelWithoutWifi = 2;
constexpr int32_t kModelOther = -1;
constexpr size_t kPtestCompareLen = 10;  // nine digits and the terminator: a longer answer fails
constexpr size_t kMaxNumbers = 6;        // the longest number list, the battery's

constexpr std::array<size_t, CORVEL_VER_ITEMS> kVerSlotOffsets = CORVEL_VER_SLOT_OFFSETS;

// ---- The common skeleton ----------------------------------------------------------------------

struct Link {
    int32_t platform;
    int32_t mode;
};

// Platform and cast mode of the device; with no device neither platform applies.
Link link_state() {
    const atcmdprocess_device *dev = g_patcmd_dev;
    return dev != nullptr ? Link{dev->system_status.platform, dev->system_status.mode}
                          : Link{0, AT_MODE_NONE};
}

// A record without a line cannot be parsed: it is logged and dropped.
bool usable(const AtCmder_t *cmd, const char *parser) {
    if (cmd != nullptr && cmd->data != nullptr) return true;
    ATCMD_LOG(0, "%s got a NULL record or line, dropped", parser);
    return false;
}

// The first log of a parser. `name` is the name the log vocabulary uses for the row, which for
// UPGRADE and POWEROFF is another parser's.
void log_entry(const char *name, const AtCmder_t *cmd, int level = kEntryLevel) {
    ATCMD_LOG(level, "%s source is %u, idx is %u data is %s", name,
              static_cast<unsigned>(cmd->source), static_cast<unsigned>(cmd->cmd_id), cmd->data);
}

// The accessory asking this phone rather than answering it.
bool accessory_asks(const AtCmder_t *cmd) {
    return cmd->type == AT_TYPE_QUERY && cmd->source == AT_NODE_ACCESSORY;
}

void notify_up(uint8_t msg_id, const AtCmder_t *cmd, void *data) {
    AT_CMD_CbMsg_t msg = {msg_id, cmd->seq_num, data};
    atcmd_notify(&msg);
}

struct Relay {
    bool on;
    uint8_t cmd_id;  // the row the relayed record names; most rows send 0
};
constexpr Relay kNoRelay = {false, 0};
constexpr Relay kRelay = {true, 0};

// On the Wi-Fi client side in Wi-Fi mode the peer phone sees the line byte for byte, with its
// own sequence-and-flag tail, as a report.
void relay_to_peer(const AtCmder_t *cmd, Relay relay) {
    const Link link = link_state();
    if (!relay.on || link.platform != PLATFORM_UART || link.mode != AT_MODE_WIFI) return;
    AtCmder_t report = {};
    report.type = AT_TYPE_REPORT;
    report.dest = AT_NODE_PLATFORM1;
    report.cmd_id = relay.cmd_id;
    report.data = cmd->data;
    atcmder_send_to_tx(&report);
}

using Action = void (*)();

// ---- Rows with one integer ------------------------------------------------------------------

struct ValueRow {
    uint8_t msg_id;
    const char *parser;      // the function's own name
    const char *entry_name;  // the name its first log gives
    uint8_t dest;            // written into the record first, or kKeepDest
    bool idle_on_uart;       // on platform 2 the line is left alone
    const char *value_log;   // reads (long value, int cmdIDX, int seq num) in that order; or null
    const char *invalid;     // logged when there is no value
    uint32_t invalid_status;
    Relay relay;
    Action after;  // after the notice, or null
};

uint32_t parse_value(const ValueRow &row, AtCmder_t *cmd) {
    if (!usable(cmd, row.parser)) return row.invalid_status;
    if (row.dest != kKeepDest) cmd->dest = row.dest;
    if (row.idle_on_uart && link_state().platform == PLATFORM_UART) return kParsed;
    log_entry(row.entry_name, cmd);
    int32_t value = 0;
    if (getvalue_fromCmdString(cmd->data, &value) != ATCMD_EXTRACT_OK) {
        ATCMD_LOG(0, "%s", row.invalid);
        return row.invalid_status;
    }
    if (row.value_log != nullptr) {
        ATCMD_LOG(kValueLevel, row.value_log, static_cast<long>(value),
                  static_cast<int>(cmd->cmd_id), static_cast<int>(cmd->seq_num));
    }
    notify_up(row.msg_id, cmd, &value);
    relay_to_peer(cmd, row.relay);
    if (row.after != nullptr) row.after();
    return kParsed;
}

// The accessory powering off ends the USB link on the USB side.
void usb_link_lost() {
    atcmdprocess_device *dev = g_patcmd_dev;
    if (dev == nullptr || dev->system_status.platform != PLATFORM_VUART) return;
    dev->usb_status = 0;
    dev->usb_connected = 0;
    notify_usbevent();
}

// clang-format off
constexpr ValueRow kReboot   = {AT_MSG_REBOOT,   "REBOOT_parser",   "REBOOT_parser",   kKeepDest,         false,
    "REBOOT_parser state is %ld, cmdIDX is %d",                 "Invalid  reboot cmd!",           kNoValue, kNoRelay, nullptr};
constexpr ValueRow kPoweroff = {AT_MSG_POWEROFF, "POWEROFF_parser", "RESET_parser",    kKeepDest,         false,
    "corvel reset value is %ld, cmdIDX is %d",                  "Invalid POWEROFF cmd!",          kParsed,  kNoRelay, usb_link_lost};
constexpr ValueRow kReset    = {AT_MSG_RESET,    "RESET_parser",    "RESET_parser",    kKeepDest,         false,
    "corvel reset value is %ld, cmdIDX is %d",                  "Invalid reset cmd!",             kParsed,  kNoRelay, nullptr};
constexpr ValueRow kScreen   = {AT_MSG_SCREEN,   "SCREEN_parser",   "SCREEN_parser",   kKeepDest,         false,
    "corvel screen value is %ld, cmdIDX is %d",                 "Invalid SCREEN cmd!",            kParsed,  kRelay,   nullptr};
constexpr ValueRow kMicmode  = {AT_MSG_MICMODE,  "MICMODE_parser",  "MICMODE_parser",  kKeepDest,         false,
    "micmode value is %ld, cmdIDX is %d",                       "Invalid micmode cmd!",           kParsed,  kNoRelay, nullptr};
constexpr ValueRow kWifi     = {AT_MSG_WIFI,     "WIFI_parser",     "WIFI_parser",     kKeepDest,         true,
    "WIFI value is %ld, cmdIDX is %d",                          "Invalid WIFI cmd!",              kParsed,  kNoRelay, nullptr};
constexpr ValueRow kBt       = {AT_MSG_BT,       "BT_parser",       "BT_parser",       AT_NODE_PLATFORM2, true,
    "BT value is %ld, cmdIDX is %d",                            "Invalid BT cmd!",                kParsed,  kNoRelay, nullptr};
constexpr ValueRow kError    = {AT_MSG_ERROR,    "ERROR_parser",    "ERROR_parser",    kKeepDest,         false,
    "ERROR_parser state is %ld, cmdIDX is %d",                  "Invalid  error cmd!",            kNoValue, kRelay,   nullptr};
constexpr ValueRow kBkl      = {AT_MSG_BKL,      "BKL_parser",      "BKL_parser",      kKeepDest,         false,
    "BKL_parser backlight is %ld, cmdIDX is %d, seq num is %d", "Invalid backlight information!", kParsed,  kNoRelay, nullptr};
constexpr ValueRow kMode     = {AT_MSG_MODE,     "MODE_parser",     "MODE_parser",     AT_NODE_PLATFORM2, false,
    "Mode value is %ld, cmdIDX is %d",                          "Invalid BT cmd!",                kParsed,  kNoRelay, nullptr};
constexpr ValueRow kLight    = {AT_MSG_LIGHT,    "LIGHT_parser",    "LIGHT_parser",    AT_NODE_PLATFORM2, false,
    "Light value is %ld, cmdIDX is %d",                         "Invalid BT cmd!",                kParsed,  kNoRelay, nullptr};
constexpr ValueRow kTest     = {AT_MSG_TEST,     "TEST_parser",     "TEST_parser",     AT_NODE_PLATFORM2, false,
    nullptr,                                                    "Invalid Test cmd!",              kParsed,  kNoRelay, nullptr};
// clang-format on

// ---- Rows with a list of integers -------------------------------------------------------------

using NumbersFn = uint32_t (*)(const char *line, int32_t *values);

struct NumbersRow {
    uint8_t msg_id;
    const char *parser;
    NumbersFn extract;
    const char *value_log;  // reads up to six ints, the list in order
    const char *invalid;
    Relay relay;
};

uint32_t parse_numbers(const NumbersRow &row, AtCmder_t *cmd) {
    if (!usable(cmd, row.parser)) return kParsed;
    log_entry(row.parser, cmd);
    std::array<int32_t, kMaxNumbers> v = {};
    if (row.extract(cmd->data, v.data()) != ATCMD_EXTRACT_OK) {
        ATCMD_LOG(0, "%s", row.invalid);
        return kParsed;
    }
    ATCMD_LOG(kValueLevel, row.value_log, v[0], v[1], v[2], v[3], v[4], v[5]);
    notify_up(row.msg_id, cmd, v.data());
    relay_to_peer(cmd, row.relay);
    return kParsed;
}

// The BAT, BATCG and HRM failure texts are the ones the log vocabulary has always used.
// clang-format off
constexpr NumbersRow kBat    = {AT_MSG_BAT,    "BAT_parser",      getBatinfo_fromCmdString,
    "batinfo: %d, %d, %d, %d, %d, %d", "Invalid BT MAC info!", {true, AT_MSG_BAT}};
constexpr NumbersRow kHall   = {AT_MSG_HALL,   "HALL_parser",     getHALLinfo_fromCmdString,
    "hallInfo: %d, %d, %d",            "Invalid hallInfo!",    kNoRelay};
constexpr NumbersRow kBatcg  = {AT_MSG_BATCG,  "BATCG_parser",    getBatinfo_fromCmdString,
    "batinfo: %d, %d, %d, %d, %d, %d", "Invalid BT MAC info!", {true, AT_MSG_BATCG}};
constexpr NumbersRow kAcc    = {AT_MSG_ACC,    "ACC_parser",      getACCinfo_fromCmdString,
    "Accinfo: %d, %d, %d",             "Invalid AccInfo!",     kNoRelay};
constexpr NumbersRow kHallcg = {AT_MSG_HALLCG, "HALLCG_parser",   getHALLinfo_fromCmdString,
    "hallInfo: %d, %d, %d",            "Invalid hallInfo!",    kRelay};
constexpr NumbersRow kHrm    = {AT_MSG_HRM,    "HRM_TEMP_parser", getTmpinfo_fromCmdString,
    "Board temperature info: %d, %d",  "Invalid hallInfo!",    kRelay};
// clang-format on

// ---- Rows with a text kept in the accessory record ------------------------------------------

using DevInfoText = char (corvel_devInfo_t::*)[32];

enum class TextLog : uint8_t {
    Short,      // reads (text, int cmdIDX)
    WithEntry,  // reads (unsigned source, unsigned idx, line, text)
};

struct RecordTextRow {
    uint8_t msg_id;
    const char *parser;
    bool entry_log;           // false: the value log is the parser's only entry log
    DevInfoText field;        // cleared first, then filled
    Action answer;            // the sender that answers the accessory's query, or null
    int32_t notify_platform;  // notify only on this platform; 0 on every platform
    const char *value_log;
    TextLog log_form;
    const char *invalid;
    Action after;
};

void log_text_value(const RecordTextRow &row, const AtCmder_t *cmd, const char *text) {
    if (row.log_form == TextLog::Short) {
        ATCMD_LOG(kValueLevel, row.value_log, text, static_cast<int>(cmd->cmd_id));
    } else {
        ATCMD_LOG(kValueLevel, row.value_log, static_cast<unsigned>(cmd->source),
                  static_cast<unsigned>(cmd->cmd_id), cmd->data, text);
    }
}

uint32_t parse_record_text(const RecordTextRow &row, AtCmder_t *cmd) {
    if (!usable(cmd, row.parser)) return kParsed;
    if (row.entry_log) log_entry(row.parser, cmd);
    char(&field)[32] = g_corvel_devInfo.*row.field;
    memset(field, 0, sizeof field);
    if (row.answer != nullptr && accessory_asks(cmd)) {
        row.answer();
        return kParsed;
    }
    if (atcmd_getstr_bounded(cmd->data, field, sizeof field) != ATCMD_EXTRACT_OK) {
        ATCMD_LOG(0, "%s", row.invalid);  // the field stays cleared
        return kParsed;
    }
    log_text_value(row, cmd, field);
    if (row.notify_platform == 0 || row.notify_platform == link_state().platform) {
        notify_up(row.msg_id, cmd, field);
    }
    if (row.after != nullptr) row.after();
    return kParsed;
}

// The model follows from the type text, compared whole and case-sensitively.
void decide_model() {
    struct Model {
        const char *type;
        int32_t model;
    };
    const Model models[] = {{type_with_wifi, kModelWithWifi},
                            {type_without_wifi, kModelWithoutWifi}};
    int32_t model = kModelOther;
    for (const Model &m : models) {
        if (strncmp(g_corvel_devInfo.type, m.type, sizeof g_corvel_devInfo.type) == 0) {
            model = m.model;
            break;
        }
    }
    g_corvel_devInfo.model = model;
    ATCMD_LOG(kValueLevel, "TYPE_parser g_corvel_devInfo.model is %d", model);
}

// clang-format off
constexpr RecordTextRow kBtmac  = {AT_MSG_BTMAC,  "BTMAC_parser",  true,  &corvel_devInfo_t::bt_mac, send_bt_mac, PLATFORM_UART,
    "BTMAC is %s, cmdIDX is %d",                                   TextLog::Short,     "Invalid BT MAC info!", nullptr};
constexpr RecordTextRow kBlemac = {AT_MSG_BLEMAC, "BLEMAC_parser", true,  &corvel_devInfo_t::bt_mac, send_bt_mac, PLATFORM_VUART,
    "BLEMAC is %s, cmdIDX is %d",                                  TextLog::Short,     "Invalid BT MAC info!", nullptr};
constexpr RecordTextRow kSn     = {AT_MSG_SN,     "SN_parser",     false, &corvel_devInfo_t::sn,     nullptr,     0,
    "SN_parser source is %u, idx is %u data is %s, corvel_sn is %s", TextLog::WithEntry, "Invalid SN Info!",   nullptr};
constexpr RecordTextRow kSid    = {AT_MSG_SID,    "SID_parser",    true,  &corvel_devInfo_t::sid,    nullptr,     0,
    "SID_parser source is %u, idx is %u data is %s, sid is %s",     TextLog::WithEntry, "Invalid SID Info!",   nullptr};
constexpr RecordTextRow kType   = {AT_MSG_TYPE,   "TYPE_parser",   true,  &corvel_devInfo_t::type,   nullptr,     0,
    "TYPE_parser source is %u, idx is %u data is %s, type is %s",   TextLog::WithEntry, "Invalid TYPE Info!",  decide_model};
// clang-format on

// ---- Rows with a text that lives only for the notice ------------------------------------------

using TextCheck = void (*)(const AtCmder_t *cmd, const char *text);

struct LocalTextRow {
    uint8_t msg_id;
    const char *parser;
    bool notify;
    const char *invalid;
    TextCheck check;  // run on the text instead of or after the notice, or null
};

uint32_t parse_local_text(const LocalTextRow &row, AtCmder_t *cmd) {
    if (!usable(cmd, row.parser)) return kParsed;
    log_entry(row.parser, cmd);
    char text[AT_LINE_BUF_SIZE] = {};
    if (atcmd_getstr_bounded(cmd->data, text, sizeof text) != ATCMD_EXTRACT_OK) {
        ATCMD_LOG(0, "%s", row.invalid);
        return kParsed;
    }
    if (row.notify) notify_up(row.msg_id, cmd, text);
    if (row.check != nullptr) row.check(cmd, text);
    return kParsed;
}

// The production loop-back: the answer must be exactly the pattern its sequence number was sent
// with. A match is silent and nothing is notified either way.
void check_loopback(const AtCmder_t *cmd, const char *text) {
    const char *expected = atcmd_ptest_pattern(cmd->seq_num);
    if (memcmp(text, expected, kPtestCompareLen) != 0) {
        ATCMD_LOG(kValueLevel, "PTEST_parser error happens, result is %s, string should be %s",
                  text, expected);
    }
}

constexpr LocalTextRow kDtr = {AT_MSG_DTR, "DTR_parser", true, "Invalid DTR data!", nullptr};
constexpr LocalTextRow kPtest = {AT_MSG_PTEST, "PTEST_parser", false, "Invalid PTEST_parser cmd!",
                                 check_loopback};
constexpr LocalTextRow kMmi1 = {AT_MSG_MMI1, "MMI1_parser", true, "Invalid MMI1 data!", nullptr};
constexpr LocalTextRow kPt = {AT_MSG_PT, "PT_parser", true, "Invalid PT data!", nullptr};

// ---- Rows that only announce (no value) --------------------------------------------------------

struct NoticeRow {
    uint8_t msg_id;
    const char *parser;
    const char *entry_name;
    Action after;
};

// The line goes to the platform-2 side; the upper layer is told with no data.
uint32_t parse_notice(const NoticeRow &row, AtCmder_t *cmd) {
    if (!usable(cmd, row.parser)) return kParsed;
    log_entry(row.entry_name, cmd);
    cmd->dest = AT_NODE_PLATFORM2;
    notify_up(row.msg_id, cmd, nullptr);
    if (row.after != nullptr) row.after();
    return kParsed;
}

void set_recovery_flag() { property_set(kRecoveryProp, kRecoveryOn); }

// Only this row powers the phone off. In Wi-Fi mode the peer learns PWROFF first and the link is
// stopped, with a moment for the stop to go out.
void power_off_phone() {
    if (link_state().mode == AT_MODE_WIFI) {
        send_stateToMPHONE(kStatePowerOff);
        atcmdprocess_wifi_stchange(kWifiOff);
        usleep(kShutdownWifiSettleUs);
    }
    property_set(kPowerctlProp, kPowerctlShutdown);
}

constexpr NoticeRow kUpgrade = {AT_MSG_UPGRADE, "UPGRADE_parser", "RECOVERY_parser", nullptr};
constexpr NoticeRow kRecovery = {AT_MSG_RECOVERY, "RECOVERY_parser", "RECOVERY_parser",
                                 set_recovery_flag};
constexpr NoticeRow kShutdown = {AT_MSG_SHUTDOWN, "SHUTDOWN_parser", "SHUTDOWN_parser",
                                 power_off_phone};

// ---- Rows that are only logged -----------------------------------------------------------------

uint32_t log_only(const char *parser, AtCmder_t *cmd, int level = kEntryLevel) {
    if (usable(cmd, parser)) log_entry(parser, cmd, level);
    return kParsed;
}

// ---- Rows of their own shape ------------------------------------------------------------------

// Cast mode after a USB state answer: USB while connected, else Wi-Fi when a Wi-Fi link is
// wanted, else none.
int32_t cast_mode(int32_t connected, int32_t wifi_status) {
    if (connected == kUsbConnected) return AT_MODE_USB;
    return wifi_status == kWifiWanted ? AT_MODE_WIFI : AT_MODE_NONE;
}

}  // namespace

uint32_t REBOOT_parser(AtCmder_t *cmd) { return parse_value(kReboot, cmd); }
uint32_t UPGRADE_parser(AtCmder_t *cmd) { return parse_notice(kUpgrade, cmd); }
uint32_t RECOVERY_parser(AtCmder_t *cmd) { return parse_notice(kRecovery, cmd); }
uint32_t SHUTDOWN_parser(AtCmder_t *cmd) { return parse_notice(kShutdown, cmd); }
uint32_t POWEROFF_parser(AtCmder_t *cmd) { return parse_value(kPoweroff, cmd); }
uint32_t RESET_parser(AtCmder_t *cmd) { return parse_value(kReset, cmd); }
uint32_t BTMAC_parser(AtCmder_t *cmd) { return parse_record_text(kBtmac, cmd); }
uint32_t BLEMAC_parser(AtCmder_t *cmd) { return parse_record_text(kBlemac, cmd); }
uint32_t BAT_parser(AtCmder_t *cmd) { return parse_numbers(kBat, cmd); }

uint32_t STATE_parser(AtCmder_t *cmd) {
    if (!usable(cmd, __func__)) return kParsed;
    log_entry(__func__, cmd);
    cmd->dest = AT_NODE_ACCESSORY;
    if (accessory_asks(cmd)) {
        send_stateToMCU();
        return kParsed;
    }
    int32_t state = 0;
    getstate_fromCmdString(cmd->data, &state);  // an unknown word reads -1 and is notified
    ATCMD_LOG(kValueLevel, "state status is %d", state);
    notify_up(AT_MSG_STATE, cmd, &state);
    const Link link = link_state();
    if (link.platform == PLATFORM_VUART && state == kStatePowerOff && link.mode == AT_MODE_WIFI) {
        atcmdprocess_wifi_stchange(kWifiOff);
    }
    return kParsed;
}

uint32_t VER_parser(AtCmder_t *cmd) {
    if (!usable(cmd, __func__)) return kParsed;
    log_entry(__func__, cmd);
    if (accessory_asks(cmd)) {
        send_amlogic_ver();
        return kParsed;
    }
    char *block = g_corvel_devInfo.ver;
    if (getVerInfo_fromCmdString(cmd->data, reinterpret_cast<uintptr_t>(block)) !=
        ATCMD_EXTRACT_OK) {
        ATCMD_LOG(0, "Invalid verInfo info!");
        return kParsed;
    }
    const auto &at = kVerSlotOffsets;
    ATCMD_LOG(kValueLevel, "verinfo: %s, %s, %s, %s, %s, %s, %s\n", block + at[0], block + at[1],
              block + at[2], block + at[3], block + at[4], block + at[5], block + at[6]);
    notify_up(AT_MSG_VER, cmd, block);
    return kParsed;
}

uint32_t HALL_parser(AtCmder_t *cmd) { return parse_numbers(kHall, cmd); }
uint32_t SN_parser(AtCmder_t *cmd) { return parse_record_text(kSn, cmd); }
uint32_t SID_parser(AtCmder_t *cmd) { return parse_record_text(kSid, cmd); }
uint32_t TYPE_parser(AtCmder_t *cmd) { return parse_record_text(kType, cmd); }

uint32_t USBSTATE_parser(AtCmder_t *cmd) {
    if (!usable(cmd, __func__)) return kParsed;
    log_entry(__func__, cmd);
    usbdev_sts_t sts = {};
    if (getUsbDevinfo_fromCmdString(cmd->data, &sts) != ATCMD_EXTRACT_OK) {
        ATCMD_LOG(0, "Invalid usbdev_sts_t!");
        return kParsed;
    }
    atcmdprocess_device *dev = g_patcmd_dev;
    if (dev == nullptr) {
        ATCMD_LOG(0, "USBSTATE_parser without a device, USB state dropped");
        return kParsed;
    }
    dev->usb_connected = sts.connected;
    dev->usb_status = sts.status;
    dev->system_status.mode = cast_mode(sts.connected, dev->system_status.wifi_status);
    notify_usbevent();
    relay_to_peer(cmd, kRelay);
    ATCMD_LOG(kCastModeLevel, "Current cast mode is %d", dev->system_status.mode);
    return kParsed;
}

uint32_t SCREEN_parser(AtCmder_t *cmd) { return parse_value(kScreen, cmd); }
uint32_t MICMODE_parser(AtCmder_t *cmd) { return parse_value(kMicmode, cmd); }
uint32_t WIFI_parser(AtCmder_t *cmd) { return parse_value(kWifi, cmd); }
uint32_t BT_parser(AtCmder_t *cmd) { return parse_value(kBt, cmd); }
uint32_t TIME_parser(AtCmder_t *cmd) { return log_only(__func__, cmd, kTimeEntryLevel); }
uint32_t OK_parser(AtCmder_t *cmd) { return log_only(__func__, cmd); }
uint32_t ERROR_parser(AtCmder_t *cmd) { return parse_value(kError, cmd); }
uint32_t SLEEP_parser(AtCmder_t *cmd) { return log_only(__func__, cmd); }
uint32_t BATCG_parser(AtCmder_t *cmd) { return parse_numbers(kBatcg, cmd); }
uint32_t BKL_parser(AtCmder_t *cmd) { return parse_value(kBkl, cmd); }
uint32_t MODE_parser(AtCmder_t *cmd) { return parse_value(kMode, cmd); }
uint32_t ACC_parser(AtCmder_t *cmd) { return parse_numbers(kAcc, cmd); }
uint32_t LIGHT_parser(AtCmder_t *cmd) { return parse_value(kLight, cmd); }
uint32_t HALLCG_parser(AtCmder_t *cmd) { return parse_numbers(kHallcg, cmd); }
uint32_t TEST_parser(AtCmder_t *cmd) { return parse_value(kTest, cmd); }
uint32_t HRM_TEMP_parser(AtCmder_t *cmd) { return parse_numbers(kHrm, cmd); }
uint32_t DTR_parser(AtCmder_t *cmd) { return parse_local_text(kDtr, cmd); }
uint32_t PTEST_parser(AtCmder_t *cmd) { return parse_local_text(kPtest, cmd); }
uint32_t MMI1_parser(AtCmder_t *cmd) { return parse_local_text(kMmi1, cmd); }
uint32_t PT_parser(AtCmder_t *cmd) { return parse_local_text(kPt, cmd); }

// The factory answer goes back to the accessory with no sequence-and-flag tail; the line's own
// payload is not read.
uint32_t WT_parser(AtCmder_t *cmd) {
    if (!usable(cmd, __func__)) return kParsed;
    log_entry(__func__, cmd);
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kFactoryWtProp, value, kFactoryWtUnset);  // unset or empty gives the default
    char text[AT_LINE_BUF_SIZE] = {};
    snprintf(text, sizeof text, "+WT=%s\r\n", value);
    AtCmder_t answer = {};
    answer.type = AT_TYPE_REPORT;
    answer.dest = AT_NODE_ACCESSORY;
    answer.data = text;
    atcmder_send_to_tx(&answer);
    return kParsed;
}

uint32_t INFO_parser(AtCmder_t *cmd) { return log_only(__func__, cmd); }
uint32_t SENSOR_parser(AtCmder_t *cmd) { return log_only(__func__, cmd); }
