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
#include "device/device.h"
#include "device/link_words.h"
#include "device/properties.h"
#include "engine/engine.h"
#include "hotplug/hotplug.h"
#include "log/atcmd_log.h"
#include "wifi/wifi.h"

// Logs as the parser being run (`parser` in scope), not as the shared routine doing the work.
#define PARSER_LOG(threshold, ...) ATCMD_LOG_AS(parser, LOG_TAG, threshold, __VA_ARGS__)

namespace {

constexpr uint32_t kParsed = 0;
constexpr uint32_t kNoValue = ATCMD_EXTRACT_NO_VALUE;  // REBOOT and ERROR report a missing value
constexpr uint8_t kKeepDest = AT_NODE_NONE;           // the row leaves the record's dest alone
constexpr int kEntryLevel = ATCMD_LEVEL_DETAIL;
constexpr int kValueLevel = ATCMD_LEVEL_DETAIL;
constexpr int kTimeEntryLevel = ATCMD_LEVEL_STATE;
constexpr int kCastModeLevel = ATCMD_LEVEL_STATE;

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
    return dev != nullptr ? Link{dev->system_status.platform, link_load(dev->system_status.mode)}
                          : Link{0, AT_MODE_NONE};
}

// A record without a line cannot be parsed: it is logged and dropped.
bool usable(const AtCmder_t *cmd, const char *parser) {
    if (cmd != nullptr && cmd->data != nullptr) return true;
    PARSER_LOG(ATCMD_LEVEL_ERROR, "%s got a NULL record or line, dropped", parser);
    return false;
}

// The first log of a parser. `name` is the name the log vocabulary uses for the row, which for
// UPGRADE and POWEROFF is another parser's.
void log_entry(const char *parser, const char *name, const AtCmder_t *cmd,
               int level = kEntryLevel) {
    PARSER_LOG(level, "%s source is %u, idx is %u data is %s", name,
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

// Rows are written with designated initialisers; what a row leaves out takes the default.
struct ValueRow {
    uint8_t msg_id;
    const char *entry_name = nullptr;  // the name the first log gives, when not the parser's own
    uint8_t dest = kKeepDest;          // written into the record first, unless kKeepDest
    bool idle_on_uart = false;         // platform 2 leaves the line alone, at once, before any log
    uint32_t invalid_status = kParsed;
    Relay relay = kNoRelay;
    Action after = nullptr;            // after the notice
    const char *value_name = nullptr;  // "<name> is <value>, cmdIDX is <row>" is logged, unless null
    bool log_seq = false;              // that line ends with ", seq num is <n>"
    const char *invalid;               // logged when there is no value
};

const char *entry_name_of(const char *override_name, const char *parser) {
    return override_name != nullptr ? override_name : parser;
}

uint32_t parse_value(const ValueRow &row, AtCmder_t *cmd, const char *parser) {
    if (!usable(cmd, parser)) return row.invalid_status;
    if (row.dest != kKeepDest) cmd->dest = row.dest;
    if (row.idle_on_uart && link_state().platform == PLATFORM_UART) return kParsed;
    log_entry(parser, entry_name_of(row.entry_name, parser), cmd);
    int32_t value = 0;
    if (getvalue_fromCmdString(cmd->data, &value) != ATCMD_EXTRACT_OK) {
        PARSER_LOG(ATCMD_LEVEL_ERROR, "%s", row.invalid);
        return row.invalid_status;
    }
    if (row.value_name != nullptr && row.log_seq) {
        PARSER_LOG(kValueLevel, "%s is %ld, cmdIDX is %d, seq num is %d", row.value_name,
                   static_cast<long>(value), static_cast<int>(cmd->cmd_id),
                   static_cast<int>(cmd->seq_num));
    } else if (row.value_name != nullptr) {
        PARSER_LOG(kValueLevel, "%s is %ld, cmdIDX is %d", row.value_name,
                   static_cast<long>(value), static_cast<int>(cmd->cmd_id));
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
    UsbStateLock lock;
    if (!usb_state_from_held_port(atcmder_taken_origin())) {
        ATCMD_LOG(ATCMD_LEVEL_STATE, "power-off from a USB port no longer held, USB state kept");
        return;
    }
    link_store(dev->usb_status, 0);
    link_store(dev->usb_connected, 0);
    notify_usbevent();
}

constexpr uint8_t kToP2 = AT_NODE_PLATFORM2;

// The texts are the log vocabulary as it stands, including POWEROFF's first log under RESET's
// name and the three rows that share "Invalid BT cmd!".
constexpr ValueRow kReboot = {.msg_id = AT_MSG_REBOOT, .invalid_status = kNoValue,
                              .value_name = "REBOOT_parser state", .invalid = "Invalid  reboot cmd!"};
constexpr ValueRow kPoweroff = {.msg_id = AT_MSG_POWEROFF, .entry_name = "RESET_parser",
                                .after = usb_link_lost, .value_name = "corvel reset value",
                                .invalid = "Invalid POWEROFF cmd!"};
constexpr ValueRow kReset = {.msg_id = AT_MSG_RESET, .value_name = "corvel reset value",
                             .invalid = "Invalid reset cmd!"};
constexpr ValueRow kScreen = {.msg_id = AT_MSG_SCREEN, .relay = kRelay,
                              .value_name = "corvel screen value", .invalid = "Invalid SCREEN cmd!"};
constexpr ValueRow kMicmode = {.msg_id = AT_MSG_MICMODE, .value_name = "micmode value",
                               .invalid = "Invalid micmode cmd!"};
constexpr ValueRow kWifi = {.msg_id = AT_MSG_WIFI, .idle_on_uart = true, .value_name = "WIFI value",
                            .invalid = "Invalid WIFI cmd!"};
constexpr ValueRow kBt = {.msg_id = AT_MSG_BT, .dest = kToP2, .idle_on_uart = true,
                          .value_name = "BT value", .invalid = "Invalid BT cmd!"};
constexpr ValueRow kError = {.msg_id = AT_MSG_ERROR, .invalid_status = kNoValue, .relay = kRelay,
                             .value_name = "ERROR_parser state", .invalid = "Invalid  error cmd!"};
constexpr ValueRow kBkl = {.msg_id = AT_MSG_BKL, .value_name = "BKL_parser backlight",
                           .log_seq = true, .invalid = "Invalid backlight information!"};
constexpr ValueRow kMode = {.msg_id = AT_MSG_MODE, .dest = kToP2, .value_name = "Mode value",
                            .invalid = "Invalid BT cmd!"};
constexpr ValueRow kLight = {.msg_id = AT_MSG_LIGHT, .dest = kToP2, .value_name = "Light value",
                             .invalid = "Invalid BT cmd!"};
constexpr ValueRow kTest = {.msg_id = AT_MSG_TEST, .dest = kToP2, .invalid = "Invalid Test cmd!"};

// ---- Rows with a list of integers -------------------------------------------------------------

using NumbersFn = uint32_t (*)(const char *line, int32_t *values);

struct NumbersRow {
    uint8_t msg_id;
    NumbersFn extract;
    Relay relay = kNoRelay;
    uint8_t count;          // numbers the extractor fills
    const char *value_name; // "<name>: <n>, <n>, ..." is logged
    const char *invalid;
};

// The numbers as the value log shows them, ", " between them.
void log_numbers(const char *parser, const NumbersRow &row, const int32_t *v) {
    char list[kMaxNumbers * 13] = "";  // "-2147483648, " each
    size_t at = 0;
    for (size_t i = 0; i < row.count && at < sizeof list; ++i) {
        const int n = snprintf(list + at, sizeof list - at, i == 0 ? "%d" : ", %d",
                               static_cast<int>(v[i]));
        if (n < 0) break;
        at += static_cast<size_t>(n);
    }
    PARSER_LOG(kValueLevel, "%s: %s", row.value_name, list);
}

uint32_t parse_numbers(const NumbersRow &row, AtCmder_t *cmd, const char *parser) {
    if (!usable(cmd, parser)) return kParsed;
    log_entry(parser, parser, cmd);
    std::array<int32_t, kMaxNumbers> v = {};
    if (row.extract(cmd->data, v.data()) != ATCMD_EXTRACT_OK) {
        PARSER_LOG(ATCMD_LEVEL_ERROR, "%s", row.invalid);
        return kParsed;
    }
    log_numbers(parser, row, v.data());
    notify_up(row.msg_id, cmd, v.data());
    relay_to_peer(cmd, row.relay);
    return kParsed;
}

// The BAT, BATCG and HRM failure texts are the ones the log vocabulary has always used.
constexpr NumbersRow kBat = {.msg_id = AT_MSG_BAT, .extract = getBatinfo_fromCmdString,
                             .relay = {true, AT_MSG_BAT}, .count = 6, .value_name = "batinfo",
                             .invalid = "Invalid BT MAC info!"};
constexpr NumbersRow kHall = {.msg_id = AT_MSG_HALL, .extract = getHALLinfo_fromCmdString,
                              .count = 3, .value_name = "hallInfo", .invalid = "Invalid hallInfo!"};
constexpr NumbersRow kBatcg = {.msg_id = AT_MSG_BATCG, .extract = getBatinfo_fromCmdString,
                               .relay = {true, AT_MSG_BATCG}, .count = 6, .value_name = "batinfo",
                               .invalid = "Invalid BT MAC info!"};
constexpr NumbersRow kAcc = {.msg_id = AT_MSG_ACC, .extract = getACCinfo_fromCmdString,
                             .count = 3, .value_name = "Accinfo", .invalid = "Invalid AccInfo!"};
constexpr NumbersRow kHallcg = {.msg_id = AT_MSG_HALLCG, .extract = getHALLinfo_fromCmdString,
                                .relay = kRelay, .count = 3, .value_name = "hallInfo",
                                .invalid = "Invalid hallInfo!"};
constexpr NumbersRow kHrm = {.msg_id = AT_MSG_HRM, .extract = getTmpinfo_fromCmdString,
                             .relay = kRelay, .count = 2, .value_name = "Board temperature info",
                             .invalid = "Invalid hallInfo!"};

// ---- Rows with a text kept in the accessory record ------------------------------------------

using DevInfoText = char (corvel_devInfo_t::*)[32];

enum class TextLog : uint8_t {
    Short,      // "<name> is <text>, cmdIDX is <row>"
    WithEntry,  // "<parser> source is <n>, idx is <row> data is <line>, <name> is <text>"
};

struct RecordTextRow {
    uint8_t msg_id;
    bool entry_log = true;        // false: the value log is the parser's only entry log
    DevInfoText field;            // cleared first, then filled
    Action answer = nullptr;      // the sender that answers the accessory's query
    int32_t notify_platform = 0;  // notify only on this platform; 0 on every platform
    Action after = nullptr;
    TextLog log_form = TextLog::WithEntry;
    const char *value_name;
    const char *invalid;
};

void log_text_value(const char *parser, const RecordTextRow &row, const AtCmder_t *cmd,
                    const char *text) {
    if (row.log_form == TextLog::Short) {
        PARSER_LOG(kValueLevel, "%s is %s, cmdIDX is %d", row.value_name, text,
                   static_cast<int>(cmd->cmd_id));
    } else {
        PARSER_LOG(kValueLevel, "%s source is %u, idx is %u data is %s, %s is %s", parser,
                   static_cast<unsigned>(cmd->source), static_cast<unsigned>(cmd->cmd_id),
                   cmd->data, row.value_name, text);
    }
}

uint32_t parse_record_text(const RecordTextRow &row, AtCmder_t *cmd, const char *parser) {
    if (!usable(cmd, parser)) return kParsed;
    if (row.entry_log) log_entry(parser, parser, cmd);
    char(&field)[32] = g_corvel_devInfo.*row.field;
    memset(field, 0, sizeof field);
    if (row.answer != nullptr && accessory_asks(cmd)) {
        row.answer();
        return kParsed;
    }
    if (atcmd_getstr_bounded(cmd->data, field, sizeof field) != ATCMD_EXTRACT_OK) {
        PARSER_LOG(ATCMD_LEVEL_ERROR, "%s", row.invalid);  // the field stays cleared
        return kParsed;
    }
    log_text_value(parser, row, cmd, field);
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
    ATCMD_LOG_AS("TYPE_parser", LOG_TAG, kValueLevel, "TYPE_parser g_corvel_devInfo.model is %d",
                 model);
}

// BTMAC and BLEMAC fill the same field; the MAC is told upward only on its own platform.
constexpr RecordTextRow kBtmac = {.msg_id = AT_MSG_BTMAC, .field = &corvel_devInfo_t::bt_mac,
                                  .answer = send_bt_mac, .notify_platform = PLATFORM_UART,
                                  .log_form = TextLog::Short, .value_name = "BTMAC",
                                  .invalid = "Invalid BT MAC info!"};
constexpr RecordTextRow kBlemac = {.msg_id = AT_MSG_BLEMAC, .field = &corvel_devInfo_t::bt_mac,
                                   .answer = send_bt_mac, .notify_platform = PLATFORM_VUART,
                                   .log_form = TextLog::Short, .value_name = "BLEMAC",
                                   .invalid = "Invalid BT MAC info!"};
constexpr RecordTextRow kSn = {.msg_id = AT_MSG_SN, .entry_log = false,
                               .field = &corvel_devInfo_t::sn, .value_name = "corvel_sn",
                               .invalid = "Invalid SN Info!"};
constexpr RecordTextRow kSid = {.msg_id = AT_MSG_SID, .field = &corvel_devInfo_t::sid,
                                .value_name = "sid", .invalid = "Invalid SID Info!"};
constexpr RecordTextRow kType = {.msg_id = AT_MSG_TYPE, .field = &corvel_devInfo_t::type,
                                 .after = decide_model, .value_name = "type",
                                 .invalid = "Invalid TYPE Info!"};

// ---- Rows with a text that lives only for the notice ------------------------------------------

using TextCheck = void (*)(const AtCmder_t *cmd, const char *text);

struct LocalTextRow {
    uint8_t msg_id;
    bool notify = true;
    const char *invalid;
    TextCheck check = nullptr;  // run on the text instead of or after the notice
};

uint32_t parse_local_text(const LocalTextRow &row, AtCmder_t *cmd, const char *parser) {
    if (!usable(cmd, parser)) return kParsed;
    log_entry(parser, parser, cmd);
    char text[AT_LINE_BUF_SIZE] = {};
    if (atcmd_getstr_bounded(cmd->data, text, sizeof text) != ATCMD_EXTRACT_OK) {
        PARSER_LOG(ATCMD_LEVEL_ERROR, "%s", row.invalid);
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
        ATCMD_LOG_AS("PTEST_parser", LOG_TAG, kValueLevel,
                     "PTEST_parser error happens, result is %s, string should be %s", text,
                     expected);
    }
}

constexpr LocalTextRow kDtr = {.msg_id = AT_MSG_DTR, .invalid = "Invalid DTR data!"};
constexpr LocalTextRow kPtest = {.msg_id = AT_MSG_PTEST, .notify = false,
                                 .invalid = "Invalid PTEST_parser cmd!", .check = check_loopback};
constexpr LocalTextRow kMmi1 = {.msg_id = AT_MSG_MMI1, .invalid = "Invalid MMI1 data!"};
constexpr LocalTextRow kPt = {.msg_id = AT_MSG_PT, .invalid = "Invalid PT data!"};

// ---- Rows that only announce (no value) --------------------------------------------------------

struct NoticeRow {
    uint8_t msg_id;
    const char *entry_name = nullptr;  // when not the parser's own
    Action after = nullptr;
};

// The line goes to the platform-2 side; the upper layer is told with no data.
uint32_t parse_notice(const NoticeRow &row, AtCmder_t *cmd, const char *parser) {
    if (!usable(cmd, parser)) return kParsed;
    log_entry(parser, entry_name_of(row.entry_name, parser), cmd);
    cmd->dest = AT_NODE_PLATFORM2;
    notify_up(row.msg_id, cmd, nullptr);
    if (row.after != nullptr) row.after();
    return kParsed;
}

void set_recovery_flag() { atcmd_property_set("RECOVERY_parser", kRecoveryProp, kRecoveryOn); }

// Only this row powers the phone off. In Wi-Fi mode the peer learns PWROFF first and the link is
// stopped, with a moment for the stop to go out.
void power_off_phone() {
    if (link_state().mode == AT_MODE_WIFI) {
        send_stateToMPHONE(kStatePowerOff);
        atcmdprocess_wifi_stchange(kWifiOff);
        usleep(kShutdownWifiSettleUs);
    }
    atcmd_property_set("SHUTDOWN_parser", kPowerctlProp, kPowerctlShutdown);
}

// UPGRADE's first log has always carried RECOVERY's name.
constexpr NoticeRow kUpgrade = {.msg_id = AT_MSG_UPGRADE, .entry_name = "RECOVERY_parser"};
constexpr NoticeRow kRecovery = {.msg_id = AT_MSG_RECOVERY, .after = set_recovery_flag};
constexpr NoticeRow kShutdown = {.msg_id = AT_MSG_SHUTDOWN, .after = power_off_phone};

// ---- Rows that are only logged -----------------------------------------------------------------

uint32_t log_only(const char *parser, AtCmder_t *cmd, int level = kEntryLevel) {
    if (usable(cmd, parser)) log_entry(parser, parser, cmd, level);
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

uint32_t REBOOT_parser(AtCmder_t *cmd) { return parse_value(kReboot, cmd, __func__); }
uint32_t UPGRADE_parser(AtCmder_t *cmd) { return parse_notice(kUpgrade, cmd, __func__); }
uint32_t RECOVERY_parser(AtCmder_t *cmd) { return parse_notice(kRecovery, cmd, __func__); }
uint32_t SHUTDOWN_parser(AtCmder_t *cmd) { return parse_notice(kShutdown, cmd, __func__); }
uint32_t POWEROFF_parser(AtCmder_t *cmd) { return parse_value(kPoweroff, cmd, __func__); }
uint32_t RESET_parser(AtCmder_t *cmd) { return parse_value(kReset, cmd, __func__); }
uint32_t BTMAC_parser(AtCmder_t *cmd) { return parse_record_text(kBtmac, cmd, __func__); }
uint32_t BLEMAC_parser(AtCmder_t *cmd) { return parse_record_text(kBlemac, cmd, __func__); }
uint32_t BAT_parser(AtCmder_t *cmd) { return parse_numbers(kBat, cmd, __func__); }

uint32_t STATE_parser(AtCmder_t *cmd) {
    if (!usable(cmd, __func__)) return kParsed;
    log_entry(__func__, __func__, cmd);
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
    log_entry(__func__, __func__, cmd);
    if (accessory_asks(cmd)) {
        send_amlogic_ver();
        return kParsed;
    }
    char *block = g_corvel_devInfo.ver;
    if (getVerInfo_fromCmdString(cmd->data, reinterpret_cast<uintptr_t>(block)) !=
        ATCMD_EXTRACT_OK) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "Invalid verInfo info!");
        return kParsed;
    }
    const auto &at = kVerSlotOffsets;
    ATCMD_LOG(kValueLevel, "verinfo: %s, %s, %s, %s, %s, %s, %s\n", block + at[0], block + at[1],
              block + at[2], block + at[3], block + at[4], block + at[5], block + at[6]);
    notify_up(AT_MSG_VER, cmd, block);
    return kParsed;
}

uint32_t HALL_parser(AtCmder_t *cmd) { return parse_numbers(kHall, cmd, __func__); }
uint32_t SN_parser(AtCmder_t *cmd) { return parse_record_text(kSn, cmd, __func__); }
uint32_t SID_parser(AtCmder_t *cmd) { return parse_record_text(kSid, cmd, __func__); }
uint32_t TYPE_parser(AtCmder_t *cmd) { return parse_record_text(kType, cmd, __func__); }

uint32_t USBSTATE_parser(AtCmder_t *cmd) {
    if (!usable(cmd, __func__)) return kParsed;
    log_entry(__func__, __func__, cmd);
    usbdev_sts_t sts = {};
    if (getUsbDevinfo_fromCmdString(cmd->data, &sts) != ATCMD_EXTRACT_OK) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "Invalid usbdev_sts_t!");
        return kParsed;
    }
    atcmdprocess_device *dev = g_patcmd_dev;
    if (dev == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "USBSTATE_parser without a device, USB state dropped");
        return kParsed;
    }
    // A state read from a port that is no longer held (switched, or its unplug already told)
    // says nothing of the link now; it is dropped rather than told after the unplug.
    UsbStateLock lock;
    if (!usb_state_from_held_port(atcmder_taken_origin())) {
        ATCMD_LOG(ATCMD_LEVEL_STATE, "USB state %d,%d from a port no longer held, dropped",
                  sts.connected, sts.status);
        return kParsed;
    }
    link_store(dev->usb_connected, sts.connected);
    link_store(dev->usb_status, sts.status);
    link_store(dev->system_status.mode,
               cast_mode(sts.connected, link_load(dev->system_status.wifi_status)));
    notify_usbevent();
    relay_to_peer(cmd, kRelay);
    ATCMD_LOG(kCastModeLevel, "Current cast mode is %d", link_load(dev->system_status.mode));
    return kParsed;
}

uint32_t SCREEN_parser(AtCmder_t *cmd) { return parse_value(kScreen, cmd, __func__); }
uint32_t MICMODE_parser(AtCmder_t *cmd) { return parse_value(kMicmode, cmd, __func__); }
uint32_t WIFI_parser(AtCmder_t *cmd) { return parse_value(kWifi, cmd, __func__); }
uint32_t BT_parser(AtCmder_t *cmd) { return parse_value(kBt, cmd, __func__); }
uint32_t TIME_parser(AtCmder_t *cmd) { return log_only(__func__, cmd, kTimeEntryLevel); }
uint32_t OK_parser(AtCmder_t *cmd) { return log_only(__func__, cmd); }
uint32_t ERROR_parser(AtCmder_t *cmd) { return parse_value(kError, cmd, __func__); }
uint32_t SLEEP_parser(AtCmder_t *cmd) { return log_only(__func__, cmd); }
uint32_t BATCG_parser(AtCmder_t *cmd) { return parse_numbers(kBatcg, cmd, __func__); }
uint32_t BKL_parser(AtCmder_t *cmd) { return parse_value(kBkl, cmd, __func__); }
uint32_t MODE_parser(AtCmder_t *cmd) { return parse_value(kMode, cmd, __func__); }
uint32_t ACC_parser(AtCmder_t *cmd) { return parse_numbers(kAcc, cmd, __func__); }
uint32_t LIGHT_parser(AtCmder_t *cmd) { return parse_value(kLight, cmd, __func__); }
uint32_t HALLCG_parser(AtCmder_t *cmd) { return parse_numbers(kHallcg, cmd, __func__); }
uint32_t TEST_parser(AtCmder_t *cmd) { return parse_value(kTest, cmd, __func__); }
uint32_t HRM_TEMP_parser(AtCmder_t *cmd) { return parse_numbers(kHrm, cmd, __func__); }
uint32_t DTR_parser(AtCmder_t *cmd) { return parse_local_text(kDtr, cmd, __func__); }
uint32_t PTEST_parser(AtCmder_t *cmd) { return parse_local_text(kPtest, cmd, __func__); }
uint32_t MMI1_parser(AtCmder_t *cmd) { return parse_local_text(kMmi1, cmd, __func__); }
uint32_t PT_parser(AtCmder_t *cmd) { return parse_local_text(kPt, cmd, __func__); }

// The factory answer goes back to the accessory with no sequence-and-flag tail; the line's own
// payload is not read.
uint32_t WT_parser(AtCmder_t *cmd) {
    if (!usable(cmd, __func__)) return kParsed;
    log_entry(__func__, __func__, cmd);
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
