// The answer parsers, driven through the dispatcher with records built as the line parser makes
// them: what the upper layer is told, what is kept in the accessory record, what is queued for the
// accessory or the Wi-Fi peer, which properties change, and what malformed answers leave behind.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "accessory/accessory.h"
#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

// The line of row `id` as the accessory sends it: keyword, payload, "#seq&flag" and CR LF.
std::string wire(uint8_t id, const std::string &payload, uint16_t seq = 0, int flag = 1) {
    return AT_CMDS[id].keyword + payload + "#" + std::to_string(seq) + "&" +
           std::to_string(flag) + "\r\n";
}

// Dispatches `line` as row `id`; returns the record as the parser left it (data not valid).
AtCmder_t dispatch(const std::string &line, uint8_t id, uint16_t seq = 0,
                   uint8_t type = AT_TYPE_RESPONSE, uint8_t source = AT_NODE_ACCESSORY) {
    std::vector<char> text(line.begin(), line.end());
    text.push_back('\0');
    const bool report = id == AT_MSG_BATCG || id == AT_MSG_HALLCG || id == AT_MSG_HRM;
    AtCmder_t cmd = {};
    cmd.type = report ? AT_TYPE_REPORT : type;
    cmd.source = source;
    cmd.flag = 1;
    cmd.cmd_id = id;
    cmd.seq_num = seq;
    cmd.data = text.data();
    atcmder_dispatch(&cmd);
    cmd.data = nullptr;
    return cmd;
}

class ParsersTest : public ::testing::Test {
protected:
    void SetUp() override { log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE); }
    std::string log_since(size_t from) const { return sb.log_text().substr(from); }

    Sandbox sb;
};

struct Expect {
    uint8_t id;
    std::string payload;
    std::vector<int32_t> values;  // decoded notice data
    std::string text;             // or the text notified
    uint8_t dest;                 // the record's dest afterwards
    const char *entry;            // name in the first log line
};

TEST_F(ParsersTest, NotifyOnlyRowsTellTheirValueAndQueueNothingOnTheUsbSide) {
    const Expect rows[] = {
        {AT_MSG_REBOOT, "=1", {1}, "", 0, "REBOOT_parser"},
        {AT_MSG_UPGRADE, "", {}, "", AT_NODE_PLATFORM2, "RECOVERY_parser"},
        {AT_MSG_RESET, "=2", {2}, "", 0, "RESET_parser"},
        {AT_MSG_BAT, "=87,1,4120,250,1,0", {87, 1, 4120, 250, 1, 0}, "", 0, "BAT_parser"},
        {AT_MSG_HALL, "=1,0,1", {1, 0, 1}, "", 0, "HALL_parser"},
        {AT_MSG_SCREEN, "=1", {1}, "", 0, "SCREEN_parser"},
        {AT_MSG_MICMODE, "=3", {3}, "", 0, "MICMODE_parser"},
        {AT_MSG_WIFI, "=1", {1}, "", 0, "WIFI_parser"},
        {AT_MSG_BT, "=0", {0}, "", AT_NODE_PLATFORM2, "BT_parser"},
        {AT_MSG_ERROR, "=-110", {-110}, "", 0, "ERROR_parser"},
        {AT_MSG_BATCG, "=90,0,4200,0,1,1", {90, 0, 4200, 0, 1, 1}, "", 0, "BATCG_parser"},
        {AT_MSG_BKL, "=80", {80}, "", 0, "BKL_parser"},
        {AT_MSG_MODE, "=1", {1}, "", AT_NODE_PLATFORM2, "MODE_parser"},
        {AT_MSG_ACC, "=-5,10,980", {-5, 10, 980}, "", 0, "ACC_parser"},
        {AT_MSG_LIGHT, "=200", {200}, "", AT_NODE_PLATFORM2, "LIGHT_parser"},
        {AT_MSG_HALLCG, "=0,1,0", {0, 1, 0}, "", 0, "HALLCG_parser"},
        {AT_MSG_TEST, "=1", {1}, "", AT_NODE_PLATFORM2, "TEST_parser"},
        {AT_MSG_HRM, "=35,41", {35, 41}, "", 0, "HRM_TEMP_parser"},
        {AT_MSG_DTR, "=dtr text 1", {}, "dtr text 1", 0, "DTR_parser"},
        {AT_MSG_MMI1, "=mmi", {}, "mmi", 0, "MMI1_parser"},
        {AT_MSG_PT, "=pt,2", {}, "pt,2", 0, "PT_parser"},
    };
    bare_device(PLATFORM_VUART)->system_status.mode = AT_MODE_WIFI;
    for (const Expect &row : rows) {
        SCOPED_TRACE(AT_CMDS[row.id].keyword);
        Recorder::instance().clear();
        const size_t from = sb.log_text().size();
        const AtCmder_t after = dispatch(wire(row.id, row.payload, 5), row.id, 5);
        const std::vector<Notice> seen = Recorder::instance().notices();
        ASSERT_EQ(seen.size(), 1u);
        EXPECT_EQ(seen[0].msg_id, row.id);
        EXPECT_EQ(seen[0].seq_num, 5);
        EXPECT_EQ(seen[0].has_data, row.id != AT_MSG_UPGRADE);
        EXPECT_EQ(seen[0].values, row.values);
        EXPECT_EQ(seen[0].text, row.text);
        EXPECT_EQ(after.dest, row.dest);
        EXPECT_NE(log_since(from).find(std::string(row.entry) + " source is 3, idx is"),
                  std::string::npos);
        EXPECT_TRUE(drain_tx_queue().empty());
    }
}

TEST_F(ParsersTest, MalformedAnswersLogTheirMessageAndChangeNothing) {
    struct Bad {
        uint8_t id;
        std::string line;
        const char *message;
    } rows[] = {
        {AT_MSG_REBOOT, "+REBOOT#1&1\r\n", "Invalid  reboot cmd!"},
        {AT_MSG_POWEROFF, "+POWEROFF\r\n", "Invalid POWEROFF cmd!"},
        {AT_MSG_RESET, "+RESET\r\n", "Invalid reset cmd!"},
        {AT_MSG_BTMAC, "+BTMAC=11:22\n", "Invalid BT MAC info!"},
        {AT_MSG_BLEMAC, "+BLEMAC#8&1=11:22\r\n", "Invalid BT MAC info!"},
        {AT_MSG_BAT, "+BAT#9&1\r\n", "Invalid BT MAC info!"},
        {AT_MSG_VER, "+VER=no items#11&1\r\n", "Invalid verInfo info!"},
        {AT_MSG_HALL, "+HALL=1,2", "Invalid hallInfo!"},
        {AT_MSG_SN, "+SN\r\n", "Invalid SN Info!"},
        {AT_MSG_SID, "+SID=abc", "Invalid SID Info!"},
        {AT_MSG_TYPE, "+TYPE\r\n", "Invalid TYPE Info!"},
        {AT_MSG_USBSTATE, "+USBSTATE=1", "Invalid usbdev_sts_t!"},
        {AT_MSG_SCREEN, "+SCREEN#5&1\r\n", "Invalid SCREEN cmd!"},
        {AT_MSG_MICMODE, "+MICMODE\r\n", "Invalid micmode cmd!"},
        {AT_MSG_WIFI, "+WIFI\r\n", "Invalid WIFI cmd!"},
        {AT_MSG_BT, "+BT\r\n", "Invalid BT cmd!"},
        {AT_MSG_ERROR, "+ERROR\r\n", "Invalid  error cmd!"},
        {AT_MSG_BATCG, "+BATCG=1,2,3,4,5", "Invalid BT MAC info!"},
        {AT_MSG_BKL, "+BKL\r\n", "Invalid backlight information!"},
        {AT_MSG_MODE, "+MODE\r\n", "Invalid BT cmd!"},
        {AT_MSG_ACC, "+ACC\r\n", "Invalid AccInfo!"},
        {AT_MSG_LIGHT, "+LIGHT\r\n", "Invalid BT cmd!"},
        {AT_MSG_HALLCG, "+HALLCG\r\n", "Invalid hallInfo!"},
        {AT_MSG_TEST, "+TEST\r\n", "Invalid Test cmd!"},
        {AT_MSG_HRM, "+HRM=35", "Invalid hallInfo!"},
        {AT_MSG_DTR, "+DTR=x", "Invalid DTR data!"},
        {AT_MSG_PTEST, "+PTEST\r\n", "Invalid PTEST_parser cmd!"},
        {AT_MSG_MMI1, "+MMI1\r\n", "Invalid MMI1 data!"},
        {AT_MSG_PT, "+PT\r\n", "Invalid PT data!"},
    };
    atcmdprocess_device_t *dev = bare_device(PLATFORM_UART);
    dev->system_status.mode = AT_MODE_WIFI;  // where every relaying row would relay
    for (const Bad &row : rows) {
        SCOPED_TRACE(row.line);
        const bool uart_ignores = row.id == AT_MSG_WIFI || row.id == AT_MSG_BT;
        dev->system_status.platform = uart_ignores ? PLATFORM_VUART : PLATFORM_UART;
        // Stale identity texts must not survive a malformed answer of their kind.
        for (char *field : {g_corvel_devInfo.sn, g_corvel_devInfo.sid, g_corvel_devInfo.type,
                            g_corvel_devInfo.bt_mac}) {
            strcpy(field, "stale");
        }
        const size_t from = sb.log_text().size();
        std::vector<char> text(row.line.begin(), row.line.end());
        text.push_back('\0');
        AtCmder_t cmd = {AT_TYPE_RESPONSE, AT_NODE_ACCESSORY, 0, 1, 0, row.id, 7, 0, 0, text.data()};
        const bool reports_failure = row.id == AT_MSG_REBOOT || row.id == AT_MSG_ERROR;
        EXPECT_EQ(AT_CMDS[row.id].parser(&cmd), reports_failure ? ATCMD_EXTRACT_NO_VALUE : 0u);
        EXPECT_NE(log_since(from).find(row.message), std::string::npos);
        EXPECT_TRUE(Recorder::instance().notices().empty());
        EXPECT_TRUE(drain_tx_queue().empty());
        EXPECT_EQ(dev->system_status.mode, AT_MODE_WIFI);
        const char *cleared = row.id == AT_MSG_SN      ? g_corvel_devInfo.sn
                              : row.id == AT_MSG_SID   ? g_corvel_devInfo.sid
                              : row.id == AT_MSG_TYPE  ? g_corvel_devInfo.type
                              : row.id == AT_MSG_BTMAC || row.id == AT_MSG_BLEMAC
                                  ? g_corvel_devInfo.bt_mac
                                  : nullptr;
        if (cleared != nullptr) {
            EXPECT_STREQ(cleared, "");
        }
    }
}

TEST_F(ParsersTest, IdentityTextsAreKeptBoundedAndMacsNotifiedOnTheirPlatformOnly) {
    struct Row {
        int32_t platform;
        uint8_t id;
        std::string value;
        const char *field;
        std::string kept;
        bool notified;
    } rows[] = {
        {PLATFORM_VUART, AT_MSG_SN, "SN0042", g_corvel_devInfo.sn, "SN0042", true},
        {PLATFORM_VUART, AT_MSG_SID, std::string(100, 'S'), g_corvel_devInfo.sid,
         std::string(31, 'S'), true},
        {PLATFORM_VUART, AT_MSG_TYPE, "", g_corvel_devInfo.type, "", true},
        {PLATFORM_VUART, AT_MSG_BTMAC, "AA:BB", g_corvel_devInfo.bt_mac, "AA:BB", false},
        {PLATFORM_UART, AT_MSG_BTMAC, "AA:BC", g_corvel_devInfo.bt_mac, "AA:BC", true},
        {PLATFORM_VUART, AT_MSG_BLEMAC, "CC:DD", g_corvel_devInfo.bt_mac, "CC:DD", true},
        {PLATFORM_UART, AT_MSG_BLEMAC, "CC:DE", g_corvel_devInfo.bt_mac, "CC:DE", false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(AT_CMDS[row.id].keyword) + " on " + std::to_string(row.platform));
        memset(&g_corvel_devInfo, 0, sizeof g_corvel_devInfo);
        bare_device(row.platform);
        Recorder::instance().clear();
        dispatch(wire(row.id, "=" + row.value, 9), row.id, 9);
        EXPECT_EQ(row.field, row.kept);
        const std::vector<Notice> seen = Recorder::instance().notices();
        ASSERT_EQ(seen.size(), row.notified ? 1u : 0u);
        if (row.notified) {
            EXPECT_EQ(seen[0].text, row.kept);
        }
        // The record after an over-long value is untouched: sid is followed by type.
        EXPECT_STREQ(g_corvel_devInfo.type, "");
    }
}

TEST_F(ParsersTest, TypeAnswerDecidesTheModelExactly) {
    const std::pair<const char *, int32_t> rows[] = {
        {"KV4410C", 1}, {"KV4410A", 2}, {"kv4410c", -1}, {"KV4410CX", -1}, {"KV441", -1}};
    bare_device();
    EXPECT_EQ(g_corvel_devInfo.model, 0);
    for (const auto &[type, model] : rows) {
        dispatch(wire(AT_MSG_TYPE, std::string("=") + type, 15), AT_MSG_TYPE, 15);
        EXPECT_EQ(g_corvel_devInfo.model, model) << type;
    }
}

TEST_F(ParsersTest, VersionItemsAreStoredBySlotAndCutToTheirSlot) {
    bare_device();
    const std::string long_item(40, 'x');
    dispatch(wire(AT_MSG_VER, "=a:" + long_item + ",b:,c:3,wifi:W1,e:5,f:6,g:7", 11), AT_MSG_VER,
             11);
    const std::vector<Notice> seen = Recorder::instance().notices();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].text, std::string(31, 'x') + "|NULL|3|W1|5|6|7");
}

TEST_F(ParsersTest, AccessoryQueriesAreAnsweredNotParsed) {
    struct Row {
        int32_t platform;
        uint8_t id;
        uint8_t source;
        std::vector<std::string> queued;
    } rows[] = {
        {PLATFORM_VUART, AT_MSG_BTMAC, AT_NODE_ACCESSORY, {"AT+BTMAC=11:22:33:44:55:66#7&1\r\n"}},
        {PLATFORM_UART, AT_MSG_BLEMAC, AT_NODE_ACCESSORY, {"AT+BLEMAC=11:22:33:44:55:66#8&2\r\n"}},
        {PLATFORM_VUART, AT_MSG_STATE, AT_NODE_ACCESSORY, {"+STATE=ACTIVE\r\n"}},
        {PLATFORM_UART, AT_MSG_VER, AT_NODE_ACCESSORY, {"+VER=WIFI:W9.1\r\n"}},
        // From another node the query is read as an answer, and it has no value.
        {PLATFORM_VUART, AT_MSG_BTMAC, AT_NODE_PLATFORM1, {}},
    };
    sb.set_property("net.bluetooth.macaddr", "11:22:33:44:55:66");
    sb.set_property("ro.quorvanta.version", "W9.1");
    for (const Row &row : rows) {
        SCOPED_TRACE(AT_CMDS[row.id].keyword);
        bare_device(row.platform)->system_status.phone_state = 2;
        strcpy(g_corvel_devInfo.bt_mac, "old");
        const std::string line = std::string("AT") + AT_CMDS[row.id].keyword + "?#" +
                                 std::to_string(row.id) + "&1\r\n";
        const AtCmder_t after = dispatch(line, row.id, row.id, AT_TYPE_QUERY, row.source);
        std::vector<std::string> queued;
        for (const QueuedLine &q : drain_tx_queue()) queued.push_back(q.text);
        EXPECT_EQ(queued, row.queued);
        EXPECT_TRUE(Recorder::instance().notices().empty());
        if (row.id == AT_MSG_BTMAC || row.id == AT_MSG_BLEMAC) {
            EXPECT_STREQ(g_corvel_devInfo.bt_mac, "");
        }
        if (row.id == AT_MSG_STATE) {
            EXPECT_EQ(after.dest, AT_NODE_ACCESSORY);
        }
    }
}

TEST_F(ParsersTest, WifiClientRelaysReportsToThePeerUnchanged) {
    struct Row {
        uint8_t id;
        std::string payload;
        uint8_t relayed_id;
    } rows[] = {
        {AT_MSG_BAT, "=1,2,3,4,5,6", AT_MSG_BAT}, {AT_MSG_BATCG, "=1,2,3,4,5,6", AT_MSG_BATCG},
        {AT_MSG_SCREEN, "=0", 0},  {AT_MSG_ERROR, "=-5", 0},  {AT_MSG_HALLCG, "=1,1,1", 0},
        {AT_MSG_HRM, "=30,31", 0}, {AT_MSG_USBSTATE, "=0,0", 0},
    };
    bare_device(PLATFORM_UART)->system_status.wifi_status = 1;
    for (const Row &row : rows) {
        g_patcmd_dev->system_status.mode = AT_MODE_WIFI;
        const std::string line = wire(row.id, row.payload, 12, 2);
        dispatch(line, row.id, 12);
        const std::vector<QueuedLine> queued = drain_tx_queue();
        ASSERT_EQ(queued.size(), 1u) << line;
        EXPECT_EQ(queued[0].text, line);
        const AtCmder_t &c = queued[0].cmd;
        EXPECT_EQ(std::vector<int>({c.type, c.source, c.dest, c.flag, c.cmd_id, c.seq_num}),
                  std::vector<int>({AT_TYPE_REPORT, 0, AT_NODE_PLATFORM1, 0, row.relayed_id, 0}))
            << line;
    }
    // Not relayed: a row without the rule, the USB mode, and the other platform in Wi-Fi mode.
    dispatch(wire(AT_MSG_MICMODE, "=1"), AT_MSG_MICMODE);
    g_patcmd_dev->system_status.mode = AT_MODE_USB;
    dispatch(wire(AT_MSG_SCREEN, "=1"), AT_MSG_SCREEN);
    bare_device(PLATFORM_VUART)->system_status.mode = AT_MODE_WIFI;
    dispatch(wire(AT_MSG_BAT, "=1,2,3,4,5,6"), AT_MSG_BAT);
    EXPECT_TRUE(drain_tx_queue().empty());
    // The UART side leaves Wi-Fi and Bluetooth switches to the other side.
    bare_device(PLATFORM_UART);
    Recorder::instance().clear();
    dispatch(wire(AT_MSG_WIFI, "=1"), AT_MSG_WIFI);
    EXPECT_EQ(dispatch(wire(AT_MSG_BT, "=1"), AT_MSG_BT).dest, AT_NODE_PLATFORM2);
    EXPECT_TRUE(Recorder::instance().notices().empty());
}

TEST_F(ParsersTest, UsbStateSetsTheCastModeAndTellsTheUsbEvent) {
    struct Row {
        std::string payload;
        int32_t wifi_status, mode;
    } rows[] = {{"=1,1", 1, AT_MODE_USB},
                {"=0,-1", 1, AT_MODE_WIFI},
                {"=0,-1", 0, AT_MODE_NONE},
                {"=2,3", -1, AT_MODE_NONE}};
    for (const Row &row : rows) {
        atcmdprocess_device_t *dev = bare_device(PLATFORM_VUART);
        dev->system_status.wifi_status = row.wifi_status;
        Recorder::instance().clear();
        dispatch(wire(AT_MSG_USBSTATE, row.payload, 16), AT_MSG_USBSTATE, 16);
        EXPECT_EQ(dev->system_status.mode, row.mode) << row.payload;
        const std::vector<Notice> seen = Recorder::instance().notices();
        ASSERT_EQ(seen.size(), 1u);
        EXPECT_EQ(seen[0].msg_id, AT_MSG_USBSTATE);
        EXPECT_EQ(seen[0].seq_num, 0);
        EXPECT_EQ(seen[0].values, std::vector<int32_t>({dev->usb_connected, dev->usb_status}));
        EXPECT_EQ(dev->usb_connected, atoi(row.payload.c_str() + 1));
    }
}

TEST_F(ParsersTest, PoweroffEndsTheUsbLinkOnlyOnTheUsbSide) {
    for (int32_t platform : {PLATFORM_VUART, PLATFORM_UART}) {
        atcmdprocess_device_t *dev = bare_device(platform);
        dev->usb_connected = dev->usb_status = 1;
        Recorder::instance().clear();
        dispatch(wire(AT_MSG_POWEROFF, "=1", 4), AT_MSG_POWEROFF, 4);
        std::vector<uint16_t> ids;
        for (const Notice &n : Recorder::instance().notices()) ids.push_back(n.msg_id);
        const bool usb = platform == PLATFORM_VUART;
        EXPECT_EQ(ids, usb ? std::vector<uint16_t>({AT_MSG_POWEROFF, AT_MSG_USBSTATE})
                           : std::vector<uint16_t>({AT_MSG_POWEROFF}));
        EXPECT_EQ(dev->usb_connected, usb ? 0 : 1);
        EXPECT_EQ(dev->usb_status, usb ? 0 : 1);
    }
}

TEST_F(ParsersTest, StateWordsAreNotifiedAndPoweroffInWifiModeStopsWifi) {
    const std::string kWifiStop = "]atcmdprocess_wifi_stchange:";
    struct Row {
        std::string word;
        int32_t state, mode;
        bool wifi_stopped;
    } rows[] = {{"READY", 3, AT_MODE_WIFI, false},
                {"SLEEPY", -1, AT_MODE_WIFI, false},
                {"PWROFF", 4, AT_MODE_USB, false},
                {"PWROFF", 4, AT_MODE_WIFI, true}};
    for (const Row &row : rows) {
        bare_device(PLATFORM_VUART)->system_status.mode = row.mode;
        Recorder::instance().clear();
        const size_t from = sb.log_text().size();
        dispatch(wire(AT_MSG_STATE, "=" + row.word, 10), AT_MSG_STATE, 10);
        const std::vector<Notice> seen = Recorder::instance().notices();
        ASSERT_EQ(seen.size(), 1u);
        EXPECT_EQ(seen[0].values, std::vector<int32_t>({row.state})) << row.word;
        EXPECT_EQ(log_since(from).find(kWifiStop) != std::string::npos, row.wifi_stopped);
    }
}

TEST_F(ParsersTest, RecoveryAndShutdownSetTheirProperties) {
    bare_device();
    dispatch(wire(AT_MSG_RECOVERY, ""), AT_MSG_RECOVERY);
    EXPECT_EQ(sb.property("vendor.corvel.recovery"), "1");
    EXPECT_EQ(sb.property("sys.powerctl"), "");
    for (uint8_t id : {AT_MSG_REBOOT, AT_MSG_UPGRADE, AT_MSG_RESET, AT_MSG_POWEROFF}) {
        dispatch(wire(id, "=1"), id);
    }
    EXPECT_EQ(sb.property("sys.powerctl"), "");  // only the upper layer decides on those

    const AtCmder_t after = dispatch(wire(AT_MSG_SHUTDOWN, ""), AT_MSG_SHUTDOWN);
    EXPECT_EQ(after.dest, AT_NODE_PLATFORM2);
    EXPECT_EQ(sb.property("sys.powerctl"), "shutdown");
    EXPECT_TRUE(drain_tx_queue().empty());

    // In Wi-Fi mode the peer hears PWROFF first.
    sb.set_property("sys.powerctl", "");
    g_patcmd_dev->system_status.mode = AT_MODE_WIFI;
    dispatch(wire(AT_MSG_SHUTDOWN, ""), AT_MSG_SHUTDOWN);
    const std::vector<QueuedLine> queued = drain_tx_queue();
    ASSERT_EQ(queued.size(), 1u);
    EXPECT_EQ(queued[0].text, "+STATE=PWROFF\r\n");
    EXPECT_EQ(queued[0].cmd.dest, AT_NODE_PLATFORM1);
    EXPECT_EQ(sb.property("sys.powerctl"), "shutdown");
}

TEST_F(ParsersTest, LoopbackAnswerMustMatchThePatternOfItsParity) {
    const std::string kMismatch = "PTEST_parser error happens";
    struct Row {
        uint16_t seq;
        const char *answer;
        bool matches;
    } rows[] = {{4, "123456789", true},   {5, "987654321", true},  {5, "123456789", false},
                {4, "987654321", false},  {4, "1234567890", false}, {4, "12345678", false}};
    bare_device(PLATFORM_UART);
    for (const Row &row : rows) {
        const size_t from = sb.log_text().size();
        dispatch(wire(AT_MSG_PTEST, std::string("=") + row.answer, row.seq, 2), AT_MSG_PTEST,
                 row.seq);
        EXPECT_EQ(log_since(from).find(kMismatch) == std::string::npos, row.matches)
            << row.answer << " #" << row.seq;
    }
    EXPECT_TRUE(Recorder::instance().notices().empty());
    EXPECT_TRUE(drain_tx_queue().empty());
}

TEST_F(ParsersTest, FactoryAnswerCarriesThePropertyOrN) {
    const std::pair<const char *, const char *> rows[] = {
        {nullptr, "+WT=N\r\n"}, {"", "+WT=N\r\n"}, {"PASS", "+WT=PASS\r\n"}};
    bare_device();
    for (const auto &[value, answer] : rows) {
        if (value != nullptr) sb.set_property("persist.vendor.corvel.factory.wt", value);
        dispatch(wire(AT_MSG_WT, "?", 38), AT_MSG_WT, 38);
        const std::vector<QueuedLine> queued = drain_tx_queue();
        ASSERT_EQ(queued.size(), 1u);
        EXPECT_EQ(queued[0].text, answer);
        const AtCmder_t &c = queued[0].cmd;
        EXPECT_EQ(std::vector<int>({c.type, c.source, c.dest, c.flag, c.cmd_id, c.seq_num}),
                  std::vector<int>({AT_TYPE_REPORT, 0, AT_NODE_ACCESSORY, 0, 0, 0}));
    }
}

TEST_F(ParsersTest, LogOnlyRowsRowsWithoutParserAndNullRecordsDoNothing) {
    atcmdprocess_device_t *dev = bare_device(PLATFORM_UART);
    dev->system_status.mode = AT_MODE_WIFI;
    for (uint8_t id : {AT_MSG_STARTUP, AT_MSG_WIFICON, AT_MSG_TIME, AT_MSG_OK, AT_MSG_SLEEP}) {
        dispatch(wire(id, "=1"), id);
    }
    EXPECT_EQ(AT_CMDS[AT_MSG_STARTUP].parser, nullptr);
    EXPECT_EQ(AT_CMDS[AT_MSG_WIFICON].parser, nullptr);
    AtCmder_t no_line = {};
    std::vector<at_parser_fn> parsers = {INFO_parser, SENSOR_parser};
    for (const AT_CMD_Table_t &row : AT_CMDS) {
        if (row.parser != nullptr) parsers.push_back(row.parser);
    }
    for (at_parser_fn parser : parsers) {
        parser(nullptr);
        parser(&no_line);
    }
    EXPECT_TRUE(Recorder::instance().notices().empty());
    EXPECT_TRUE(drain_tx_queue().empty());
    EXPECT_EQ(dev->system_status.mode, AT_MODE_WIFI);
}

}  // namespace
