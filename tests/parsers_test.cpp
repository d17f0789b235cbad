// The answer parsers, driven through the dispatcher with records built as the line parser makes
// them: what the upper layer is told, what is kept in the accessory record, what is queued for the
// accessory or the Wi-Fi peer, which properties change, and what malformed answers leave behind.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "accessory/accessory.h"
#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

// The row whose keyword the line carries exactly ("+BT=1" is row "+BT" here).
uint8_t row_of(const std::string &line) {
    const size_t start = line.rfind("AT", 0) == 0 ? 2 : 0;
    const std::string keyword = line.substr(start, line.find_first_of("=?#\r\n", start) - start);
    for (uint8_t id = 0; id < AT_MSG_COUNT; ++id) {
        if (keyword == AT_CMDS[id].keyword) return id;
    }
    ADD_FAILURE() << "no row for " << line;
    return 0;
}

struct Outcome {
    std::string notices;  // "msg_id#seq=values" or "=text" or "=-" (no data), blank-separated
    std::string queued;   // "type/dest/cmd_id:text" of every line put on Tx_head
    uint8_t dest;         // the record's dest after the parser
};

// Builds the record of `line` as the line parser would and runs it through the dispatcher.
Outcome run(const std::string &line, uint8_t source = AT_NODE_ACCESSORY) {
    Recorder::instance().clear();
    std::vector<char> text(line.begin(), line.end());
    text.push_back('\0');
    const uint8_t id = row_of(line);
    const size_t hash = line.find('#');
    AtCmder_t cmd = {};
    cmd.type = line.rfind("AT", 0) == 0 ? AT_TYPE_QUERY
               : id == AT_MSG_BATCG || id == AT_MSG_HALLCG || id == AT_MSG_HRM ? AT_TYPE_REPORT
                                                                                 : AT_TYPE_RESPONSE;
    cmd.source = source;
    cmd.flag = 1;
    cmd.cmd_id = id;
    cmd.seq_num = hash == std::string::npos ? 0 : atoi(line.c_str() + hash + 1);
    cmd.data = text.data();
    atcmder_dispatch(&cmd);
    Outcome out = {"", "", cmd.dest};
    for (const Notice &n : Recorder::instance().notices()) {
        out.notices += (out.notices.empty() ? "" : " ") + std::to_string(n.msg_id) + "#" +
                       std::to_string(n.seq_num) + "=";
        for (size_t i = 0; i < n.values.size(); ++i) {
            out.notices += (i ? "," : "") + std::to_string(n.values[i]);
        }
        out.notices += n.has_data ? n.text : "-";
    }
    for (const QueuedLine &q : drain_tx_queue()) {
        out.queued += std::to_string(q.cmd.type) + "/" + std::to_string(q.cmd.dest) + "/" +
                      std::to_string(q.cmd.cmd_id) + ":" + q.text;
    }
    return out;
}

class ParsersTest : public ::testing::Test {
protected:
    void SetUp() override { log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE); }
    std::string log_of(const std::string &line, uint8_t source = AT_NODE_ACCESSORY) {
        const size_t from = sb.log_text().size();
        last = run(line, source);
        return sb.log_text().substr(from);
    }

    Sandbox sb;
    Outcome last = {};
};

constexpr int32_t P1 = PLATFORM_VUART, P2 = PLATFORM_UART, USB = AT_MODE_USB, WIFI = AT_MODE_WIFI;

struct Row {
    int32_t platform, mode;
    std::string line, notices, queued;
    int32_t mode_after = AT_MODE_NONE - 1;  // checked when set
    int32_t wifi_status = 1;
};

void expect_rows(const std::vector<Row> &rows) {
    for (const Row &row : rows) {
        atcmdprocess_device_t *dev = bare_device(row.platform);
        dev->system_status.mode = row.mode;
        dev->system_status.wifi_status = row.wifi_status;
        const Outcome out = run(row.line);
        EXPECT_EQ(out.notices, row.notices) << row.line;
        EXPECT_EQ(out.queued, row.queued) << row.line;
        if (row.mode_after >= AT_MODE_NONE) {
            EXPECT_EQ(dev->system_status.mode, row.mode_after) << row.line;
        }
    }
}

TEST_F(ParsersTest, AnswersNotifyTheirValueWithTheirRowAndSequence) {
    expect_rows({
        {P1, WIFI, "+REBOOT=1#5&1\r\n", "0#5=1", ""},
        {P1, WIFI, "+UPGRADE#5&1\r\n", "1#5=-", ""},
        {P1, USB, "+BAT=87,1,4120,250,1,0#9&1\r\n", "9#9=87,1,4120,250,1,0", ""},
        {P1, USB, "+SCREEN=1#5&1\r\n", "17#5=1", ""},
        {P1, USB, "+BKL=80#2&1\r\n", "27#2=80", ""},
        {P1, USB, "+ACC=-5,10,980#0&1\r\n", "29#0=-5,10,980", ""},
        {P1, USB, "+HRM=35,41#1&1\r\n", "33#1=35,41", ""},
        {P1, USB, "+DTR=dtr, text#4&1\r\n", "34#4=dtr, text", ""},
        {P1, USB, "+STATE=SLEEPY#6&1\r\n", "10#6=-1", ""},  // unknown word
        {P1, USB, "+SN=" + std::string(100, 'S') + "#1&1\r\n", "13#1=" + std::string(31, 'S'), ""},
        {P1, USB, "+BTMAC=AA:BB#7&1\r\n", "", ""},  // the Bluetooth MAC is told on platform 2
        {P2, USB, "+BTMAC=AA:BB#7&1\r\n", "7#7=AA:BB", ""},
        {P1, USB, "+BLEMAC=CC:DD#8&1\r\n", "8#8=CC:DD", ""},  // the BLE MAC on platform 1
        {P2, USB, "+BLEMAC=CC:DD#8&1\r\n", "", ""},
        {P2, USB, "+WIFI=1\r\n", "", ""},  // switches of the other side
    });
    EXPECT_STREQ(g_corvel_devInfo.sid, "");  // the over-long serial number stayed in its field
    EXPECT_STREQ(g_corvel_devInfo.bt_mac, "CC:DD");
    for (const char *line : {"+BT=1\r\n", "+MODE=1\r\n", "+LIGHT=1\r\n"}) {
        EXPECT_EQ(run(line).dest, AT_NODE_PLATFORM2) << line;
    }
    EXPECT_EQ(last.notices, "");  // +BT, like +WIFI, is left to platform 1
    // Two first logs name another parser, as the log vocabulary always had them.
    const auto npos = std::string::npos;
    EXPECT_NE(log_of("+UPGRADE\r\n").find("RECOVERY_parser source is 3, idx is 1"), npos);
    EXPECT_NE(log_of("+POWEROFF=0\r\n").find("RESET_parser source is 3, idx is 4"), npos);
}

TEST_F(ParsersTest, MalformedAnswersLogTheirOwnMessageAndLeaveNothingBehind) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"+REBOOT#1&1\r\n", "Invalid  reboot cmd!"},    {"+POWEROFF\r\n", "Invalid POWEROFF cmd!"},
        {"+RESET\r\n", "Invalid reset cmd!"},           {"+BTMAC=11:22\n", "Invalid BT MAC info!"},
        {"+BLEMAC#8&1=1\r\n", "Invalid BT MAC info!"},  {"+BAT#9&1\r\n", "Invalid BT MAC info!"},
        {"+VER=no items#11\r\n", "Invalid verInfo info!"}, {"+HALL=1,2", "Invalid hallInfo!"},
        {"+SN\r\n", "Invalid SN Info!"},                {"+SID=abc", "Invalid SID Info!"},
        {"+TYPE\r\n", "Invalid TYPE Info!"},            {"+USBSTATE=1", "Invalid usbdev_sts_t!"},
        {"+SCREEN#5&1\r\n", "Invalid SCREEN cmd!"},     {"+MICMODE\r\n", "Invalid micmode cmd!"},
        {"+WIFI\r\n", "Invalid WIFI cmd!"},             {"+BT\r\n", "Invalid BT cmd!"},
        {"+ERROR\r\n", "Invalid  error cmd!"},         {"+BATCG=1,2,3,4", "Invalid BT MAC info!"},
        {"+BKL\r\n", "Invalid backlight information!"}, {"+MODE\r\n", "Invalid BT cmd!"},
        {"+ACC\r\n", "Invalid AccInfo!"},               {"+LIGHT\r\n", "Invalid BT cmd!"},
        {"+HALLCG\r\n", "Invalid hallInfo!"},           {"+TEST\r\n", "Invalid Test cmd!"},
        {"+HRM=35", "Invalid hallInfo!"},               {"+DTR=x", "Invalid DTR data!"},
        {"+PTEST\r\n", "Invalid PTEST_parser cmd!"},    {"+MMI1\r\n", "Invalid MMI1 data!"},
        {"+PT\r\n", "Invalid PT data!"},
    };
    atcmdprocess_device_t *dev = bare_device(P2);
    for (const auto &[line, message] : rows) {
        for (char *f : {g_corvel_devInfo.sn, g_corvel_devInfo.sid, g_corvel_devInfo.type}) {
            strcpy(f, "stale");
        }
        strcpy(g_corvel_devInfo.bt_mac, "stale");
        const bool idle_on_p2 = line == "+WIFI\r\n" || line == "+BT\r\n";
        dev->system_status.platform = idle_on_p2 ? P1 : P2;  // elsewhere every relay would happen
        dev->system_status.mode = WIFI;
        EXPECT_NE(log_of(line).find(message), std::string::npos) << line;
        EXPECT_EQ(last.notices + last.queued, "") << line;
        EXPECT_EQ(dev->system_status.mode, WIFI);
        const std::string stale = std::string(g_corvel_devInfo.sn) + g_corvel_devInfo.sid +
                                  g_corvel_devInfo.type + g_corvel_devInfo.bt_mac;
        const uint8_t id = row_of(line);
        const bool identity = id == AT_MSG_SN || id == AT_MSG_SID || id == AT_MSG_TYPE ||
                              id == AT_MSG_BTMAC || id == AT_MSG_BLEMAC;
        // Four "stale" fields, of which an identity answer empties its own.
        EXPECT_EQ(stale.size(), identity ? 15u : 20u) << line;
    }
    char bad[] = "+X\r\n";
    AtCmder_t cmd = {};
    cmd.data = bad;
    EXPECT_EQ(REBOOT_parser(&cmd), ATCMD_EXTRACT_NO_VALUE);  // the two that report it
    EXPECT_EQ(ERROR_parser(&cmd), ATCMD_EXTRACT_NO_VALUE);
    EXPECT_EQ(RESET_parser(&cmd), 0u);
}

TEST_F(ParsersTest, TypeDecidesTheModelAndVersionItemsStayInTheirSlots) {
    bare_device(P1);
    EXPECT_EQ(g_corvel_devInfo.model, 0);
    for (const auto &[type, model] : std::vector<std::pair<std::string, int32_t>>{
             {"KV4410C", 1}, {"KV4410A", 2}, {"kv4410c", -1}, {"KV4410CX", -1}, {"", -1}}) {
        EXPECT_EQ(run("+TYPE=" + type + "#15&1\r\n").notices, "15#15=" + type);
        EXPECT_EQ(g_corvel_devInfo.model, model) << type;
    }
    const std::string items = ",b:,c:3,wifi:W1,e:5,f:6,g:7#11&1\r\n";
    const Outcome ver = run("+VER=a:" + std::string(40, 'x') + items);
    EXPECT_EQ(ver.notices, "11#11=" + std::string(31, 'x') + "|NULL|3|W1|5|6|7");
}

TEST_F(ParsersTest, QueriesFromTheAccessoryAreAnsweredInsteadOfParsed) {
    sb.set_property("net.bluetooth.macaddr", "11:22:33:44:55:66");
    sb.set_property("ro.quorvanta.version", "W9.1");
    strcpy(g_corvel_devInfo.bt_mac, "old");
    expect_rows({
        {P1, USB, "AT+BTMAC?#7&1\r\n", "", "4/3/7:AT+BTMAC=11:22:33:44:55:66#7&1\r\n"},
        {P2, USB, "AT+BLEMAC?#8&1\r\n", "", "4/3/7:AT+BLEMAC=11:22:33:44:55:66#8&2\r\n"},
        {P1, USB, "AT+STATE?#10&1\r\n", "", "4/3/10:+STATE=IDLE\r\n"},
        {P2, USB, "AT+VER?#11&1\r\n", "", "4/3/11:+VER=WIFI:W9.1\r\n"},
    });
    EXPECT_STREQ(g_corvel_devInfo.bt_mac, "");
    EXPECT_EQ(run("AT+STATE?#10&1\r\n").dest, AT_NODE_ACCESSORY);
    // From another node the query is read as an answer, which has no value.
    EXPECT_NE(log_of("AT+BTMAC?#7&1\r\n", AT_NODE_PLATFORM1).find("Invalid BT MAC info!"),
              std::string::npos);
    EXPECT_EQ(last.queued, "");
}

TEST_F(ParsersTest, WifiClientRelaysReportsToThePeerByteForByte) {
    const std::string bat = "+BAT=1,2,3,4,5,6#12&2\r\n", batcg = "+BATCG=1,2,3,4,5,6#3&2\r\n";
    expect_rows({
        {P2, WIFI, bat, "9#12=1,2,3,4,5,6", "5/1/9:" + bat},
        {P2, WIFI, batcg, "26#3=1,2,3,4,5,6", "5/1/26:" + batcg},
        {P2, WIFI, "+SCREEN=0#1&2\r\n", "17#1=0", "5/1/0:+SCREEN=0#1&2\r\n"},
        {P2, WIFI, "+ERROR=-5\r\n", "24#0=-5", "5/1/0:+ERROR=-5\r\n"},
        {P2, WIFI, "+HALLCG=1,1,1\r\n", "31#0=1,1,1", "5/1/0:+HALLCG=1,1,1\r\n"},
        {P2, WIFI, "+HRM=30,31\r\n", "33#0=30,31", "5/1/0:+HRM=30,31\r\n"},
        {P2, WIFI, "+HALL=1,1,1\r\n", "12#0=1,1,1", ""},  // not a relayed row
        {P2, USB, "+SCREEN=1\r\n", "17#0=1", ""},
        {P1, WIFI, bat, "9#12=1,2,3,4,5,6", ""},
    });
}

TEST_F(ParsersTest, UsbStateSetsTheCastModeAndPoweroffEndsTheUsbLink) {
    expect_rows({
        {P1, WIFI, "+USBSTATE=1,1#16&1\r\n", "16#0=1,1", "", USB},
        {P1, USB, "+USBSTATE=0,-1\r\n", "16#0=0,-1", "", WIFI},
        {P1, USB, "+USBSTATE=0,-1\r\n", "16#0=0,-1", "", AT_MODE_NONE, 0},
        {P1, USB, "+USBSTATE=2,3\r\n", "16#0=2,3", "", WIFI},  // only 1 means connected
        {P2, USB, "+USBSTATE=0,0\r\n", "16#0=0,0", "5/1/0:+USBSTATE=0,0\r\n", WIFI},
        {P1, USB, "+POWEROFF=1#4&1\r\n", "4#4=1 16#0=0,0", "", USB},
        {P2, USB, "+POWEROFF=1#4&1\r\n", "4#4=1", "", USB},
    });
}

TEST_F(ParsersTest, SystemActionsGoThroughProperties) {
    const std::string kWifiStop = "]atcmdprocess_wifi_stchange:";
    atcmdprocess_device_t *dev = bare_device(P1);
    for (const char *line : {"+REBOOT=1\r\n", "+UPGRADE\r\n", "+RESET=1\r\n", "+TEST=1\r\n"}) {
        run(line);  // the upper layer alone decides on those
    }
    EXPECT_EQ(sb.property("sys.powerctl") + sb.property("vendor.corvel.recovery"), "");
    EXPECT_EQ(run("+RECOVERY\r\n").notices, "2#0=-");
    EXPECT_EQ(sb.property("vendor.corvel.recovery"), "1");
    // The accessory powering off stops Wi-Fi only in Wi-Fi mode.
    EXPECT_EQ(log_of("+STATE=PWROFF\r\n").find(kWifiStop), std::string::npos);
    dev->system_status.mode = WIFI;
    EXPECT_NE(log_of("+STATE=PWROFF\r\n").find(kWifiStop), std::string::npos);

    dev->system_status.mode = USB;
    EXPECT_EQ(log_of("+SHUTDOWN\r\n").find(kWifiStop), std::string::npos);
    EXPECT_EQ(last.queued, "");
    EXPECT_EQ(last.dest, AT_NODE_PLATFORM2);
    EXPECT_EQ(sb.property("sys.powerctl"), "shutdown");
    sb.set_property("sys.powerctl", "");
    dev->system_status.mode = WIFI;  // the peer hears PWROFF and Wi-Fi is stopped first
    EXPECT_NE(log_of("+SHUTDOWN#3&1\r\n").find(kWifiStop), std::string::npos);
    EXPECT_EQ(last.queued, "4/1/10:+STATE=PWROFF\r\n");
    EXPECT_EQ(sb.property("sys.powerctl"), "shutdown");
}

TEST_F(ParsersTest, FactoryLinesLoopBackByParityAndAnswerWt) {
    bare_device(P2);
    for (const auto &[line, matches] : std::vector<std::pair<std::string, bool>>{
             {"+PTEST=123456789#4&2\r\n", true}, {"+PTEST=987654321#5&2\r\n", true},
             {"+PTEST=123456789#5&2\r\n", false}, {"+PTEST=987654321#4&2\r\n", false},
             {"+PTEST=1234567890#4&2\r\n", false}, {"+PTEST=12345678#4&2\r\n", false}}) {
        EXPECT_EQ(log_of(line).find("PTEST_parser error happens") == std::string::npos, matches)
            << line;
        EXPECT_EQ(last.notices + last.queued, "");
    }
    EXPECT_EQ(run("+WT?#38&1\r\n").queued, "5/3/0:+WT=N\r\n");
    sb.set_property("persist.vendor.corvel.factory.wt", "");
    EXPECT_EQ(run("+WT\r\n").queued, "5/3/0:+WT=N\r\n");
    sb.set_property("persist.vendor.corvel.factory.wt", "PASS");
    EXPECT_EQ(run("+WT=x#1&1\r\n").queued, "5/3/0:+WT=PASS\r\n");
}

TEST_F(ParsersTest, LogOnlyRowsRowsWithoutParserAndNullRecordsDoNothing) {
    bare_device(P2)->system_status.mode = WIFI;
    EXPECT_EQ(AT_CMDS[AT_MSG_STARTUP].parser, nullptr);
    EXPECT_EQ(AT_CMDS[AT_MSG_WIFICON].parser, nullptr);
    std::string seen;
    for (const char *line :
         {"+STARTUP=1\r\n", "+WIFICON=1\r\n", "+TIME\r\n", "+OK\r\n", "+SLEEP\r\n"}) {
        const Outcome out = run(line);
        seen += out.notices + out.queued;
    }
    AtCmder_t no_line = {};
    for (at_parser_fn parser : {INFO_parser, SENSOR_parser}) parser(&no_line);
    for (const AT_CMD_Table_t &row : AT_CMDS) {
        if (row.parser == nullptr) continue;
        row.parser(nullptr);
        row.parser(&no_line);
    }
    EXPECT_EQ(seen, "");
    EXPECT_TRUE(Recorder::instance().notices().empty());
    EXPECT_TRUE(drain_tx_queue().empty());
}

}  // namespace
