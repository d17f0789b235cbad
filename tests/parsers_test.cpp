// The answer parsers, driven through the dispatcher with records built as the line parser makes
// them: what the upper layer is told, what is queued, the properties, and what bad answers log.
#include <gtest/gtest.h>

#include <string.h>

#include <array>

#include "accessory/accessory.h"
#include "support/test_support.h"

using namespace atcmd_test;

constexpr int32_t P1 = PLATFORM_VUART, P2 = PLATFORM_UART, USB = AT_MODE_USB, WIFI = AT_MODE_WIFI;
constexpr size_t npos = std::string::npos;

struct Row {
    int32_t platform, mode;
    std::string line, outcome;                 // what run() gives back
    int32_t mode_after = -2, wifi_status = 1;  // mode_after is checked when set
};

class ParsersTest : public ::testing::Test {
protected:
    // Dispatches `line` as the line parser would make it ("+BT=1" is row "+BT") and gives back its
    // notices ("msg_id#seq=values", "-" for no data), "|", its queued lines and "@dest" if set.
    std::string run(const std::string &line, uint8_t source = AT_NODE_ACCESSORY) {
        Recorder::instance().clear();
        const size_t from = sb.log_text().size(), at = line.rfind("AT", 0) == 0 ? 2 : 0;
        const std::string keyword = line.substr(at, line.find_first_of("=?#\r\n", at) - at);
        std::string text = line, out;
        AtCmder_t cmd = {};
        while (cmd.cmd_id < AT_MSG_COUNT && keyword != AT_CMDS[cmd.cmd_id].keyword) ++cmd.cmd_id;
        cmd.type = at != 0 ? AT_TYPE_QUERY : AT_TYPE_RESPONSE;
        cmd.source = source;
        cmd.flag = 1;
        cmd.seq_num = line.find('#') == npos ? 0 : std::stoi(line.substr(line.find('#') + 1));
        cmd.data = &text[0];
        atcmder_dispatch(&cmd);
        for (const Notice &n : Recorder::instance().notices()) {
            out += std::to_string(n.msg_id) + "#" + std::to_string(n.seq_num) + "=";
            for (const int32_t &v : n.values) out += std::to_string(v) + (&v != &n.values.back() ? "," : "");
            out += (n.has_data ? n.text : "-") + " ";
        }
        out += "|";
        for (const QueuedLine &q : drain_tx_queue()) {
            out += " " + std::to_string(q.cmd.type) + "/" + std::to_string(q.cmd.dest) + "/" +
                   std::to_string(q.cmd.cmd_id) + ":" + q.text;
        }
        log = sb.log_text().substr(from);
        return cmd.dest != 0 ? out + " @" + std::to_string(cmd.dest) : out;
    }

    Sandbox sb{kWithLog};
    std::string log;  // what the last run logged
};

TEST_F(ParsersTest, AnswersNotifyRelayAndAnswerByPlatformAndMode) {
    sb.set_property("net.bluetooth.macaddr", "11:22:33:44:55:66");
    const std::string bat = "+BAT=1,2,3,4,5,6#12&2\r\n", batcg = "+BATCG=1,2,3,4,5,6#3&2\r\n";
    const std::string x40(40, 'x'), s100(100, 'S'), ver = ",b:,c:3,wifi:W1,e:5,f:6,g:7#11&1\r\n";
    const std::vector<Row> rows = {
        {P1, WIFI, "+REBOOT=1#5&1\r\n", "0#5=1 |"}, {P1, WIFI, "+UPGRADE#5&1\r\n", "1#5=- | @2"},
        {P1, USB, "+DTR=dtr, text#4&1\r\n", "34#4=dtr, text |"}, {P1, WIFI, bat, "9#12=1,2,3,4,5,6 |"},
        {P1, USB, "+SN=" + s100 + "#1&1\r\n", "13#1=" + s100.substr(69) + " |"},  // kept in bounds
        {P1, USB, "+VER=a:" + x40 + ver, "11#11=" + x40.substr(9) + "|NULL|3|W1|5|6|7 |"},
        // The Bluetooth MAC is told on platform 2, the BLE MAC on platform 1, +WIFI/+BT on 1.
        {P1, USB, "+BTMAC=AA:BB#7&1\r\n", "|"}, {P2, USB, "+BTMAC=AA:BB#7&1\r\n", "7#7=AA:BB |"},
        {P1, USB, "+BLEMAC=CC:DD#8&1\r\n", "8#8=CC:DD |"}, {P2, USB, "+BLEMAC=CC:DD#8&1\r\n", "|"},
        {P2, USB, "+WIFI=1\r\n", "|"}, {P2, USB, "+BT=1\r\n", "| @2"},
        {P2, USB, "+MODE=1\r\n", "28#0=1 | @2"}, {P2, USB, "+LIGHT=1\r\n", "30#0=1 | @2"},
        {P1, USB, "AT+BTMAC?#7&1\r\n", "| 4/3/7:AT+BTMAC=11:22:33:44:55:66#7&1\r\n"},
        {P2, USB, "AT+BLEMAC?#8&1\r\n", "| 4/3/7:AT+BLEMAC=11:22:33:44:55:66#8&2\r\n"},
        {P1, USB, "AT+STATE?#10&1\r\n", "| 4/3/10:+STATE=IDLE\r\n @3"},
        {P2, USB, "AT+VER?#11&1\r\n", "| 4/3/11:+VER=WIFI:W1\r\n"},  // slot 3, as told above
        {P2, USB, "+WT?#38&1\r\n", "| 5/3/0:+WT=N\r\n"}, {P1, USB, "+STATE=SLEEPY#6\r\n", "10#6=-1 | @3"},
        {P1, USB, "+BKL=80\r\n", "27#0=80 |"}, {P1, USB, "+ACC=-5,10,980\r\n", "29#0=-5,10,980 |"},
        {P1, WIFI, "+RESET=1\r\n", "5#0=1 |"}, {P1, WIFI, "+TEST=1\r\n", "32#0=1 | @2"},
        {P2, WIFI, bat, "9#12=1,2,3,4,5,6 | 5/1/9:" + bat},  // relayed byte for byte
        {P2, WIFI, batcg, "26#3=1,2,3,4,5,6 | 5/1/26:" + batcg},
        {P2, WIFI, "+SCREEN=0#1&2\r\n", "17#1=0 | 5/1/0:+SCREEN=0#1&2\r\n"},
        {P2, WIFI, "+ERROR=-5\r\n", "24#0=-5 | 5/1/0:+ERROR=-5\r\n"},
        {P2, WIFI, "+HALLCG=1,1,1\r\n", "31#0=1,1,1 | 5/1/0:+HALLCG=1,1,1\r\n"},
        {P2, WIFI, "+HRM=30,31\r\n", "33#0=30,31 | 5/1/0:+HRM=30,31\r\n"},
        {P2, WIFI, "+HALL=1,1,1\r\n", "12#0=1,1,1 |"}, {P2, USB, "+SCREEN=1\r\n", "17#0=1 |"},
        // The USB state sets the cast mode (only 1 is connected); powering off ends the USB link.
        {P1, WIFI, "+USBSTATE=1,1#16&1\r\n", "16#0=1,1 |", USB},
        {P1, USB, "+USBSTATE=0,-1\r\n", "16#0=0,-1 |", WIFI},
        {P1, USB, "+USBSTATE=0,-1\r\n", "16#0=0,-1 |", AT_MODE_NONE, 0},
        {P1, USB, "+USBSTATE=2,3\r\n", "16#0=2,3 |", WIFI},
        {P2, USB, "+USBSTATE=0,0\r\n", "16#0=0,0 | 5/1/0:+USBSTATE=0,0\r\n", WIFI},
        {P1, USB, "+POWEROFF=1#4&1\r\n", "4#4=1 16#0=0,0 |", USB},
        {P2, USB, "+POWEROFF=1#4&1\r\n", "4#4=1 |", USB},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.line);
        atcmdprocess_device_t *dev = bare_device(row.platform);
        dev->system_status.mode = row.mode;
        dev->system_status.wifi_status = row.wifi_status;
        EXPECT_EQ(run(row.line), row.outcome);
        EXPECT_EQ(row.mode_after < AT_MODE_NONE ? -2 : dev->system_status.mode, row.mode_after);
    }
    // +REBOOT, +UPGRADE, +RESET and +TEST set nothing: the upper layer alone decides on those.
    EXPECT_EQ(sb.property("sys.powerctl") + sb.property("vendor.corvel.recovery"), "");
    EXPECT_STREQ(g_corvel_devInfo.sid, "");     // the over-long serial number stayed in its field
    EXPECT_STREQ(g_corvel_devInfo.bt_mac, "");  // emptied by the accessory's MAC query
    sb.set_property("persist.vendor.corvel.factory.wt", "PASS");
    EXPECT_EQ(run("+WT=x#1&1\r\n"), "| 5/3/0:+WT=PASS\r\n");
    EXPECT_EQ(run("AT+BTMAC?#7&1\r\n", AT_NODE_PLATFORM1), "|");  // from a peer: an answer,
    EXPECT_NE(log.find("Invalid BT MAC info!"), npos);                // which has no value
}

TEST_F(ParsersTest, MalformedAndLogOnlyAnswersLogAndLeaveNothingBehind) {
    const std::string e = "PTEST_parser error happens";
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"+REBOOT#1&1\r\n", "Invalid  reboot cmd!"},    {"+POWEROFF\r\n", "Invalid POWEROFF cmd!"},
        {"+RESET\r\n", "Invalid reset cmd!"},           {"+BTMAC=11:22\n", "Invalid BT MAC info!"},
        {"+BLEMAC#8&1=1\r\n", "Invalid BT MAC info!"},  {"+BAT#9&1\r\n", "Invalid BT MAC info!"},
        {"+VER=no items#11\r\n", "Invalid verInfo info!"}, {"+HALL=1,2", "Invalid hallInfo!"},
        {"+SN\r\n", "Invalid SN Info!"},                {"+SID=abc", "Invalid SID Info!"},
        {"+TYPE\r\n", "Invalid TYPE Info!"},            {"+USBSTATE=1", "Invalid usbdev_sts_t!"},
        {"+SCREEN#5&1\r\n", "Invalid SCREEN cmd!"},     {"+MICMODE\r\n", "Invalid micmode cmd!"},
        {"+WIFI\r\n", "Invalid WIFI cmd!"},             {"+BT\r\n", "Invalid BT cmd!"},
        {"+ERROR\r\n", "Invalid  error cmd!"},          {"+BATCG=1,2,3,4", "Invalid BT MAC info!"},
        {"+BKL\r\n", "Invalid backlight information!"}, {"+MODE\r\n", "Invalid BT cmd!"},
        {"+ACC\r\n", "Invalid AccInfo!"},               {"+LIGHT\r\n", "Invalid BT cmd!"},
        {"+HALLCG\r\n", "Invalid hallInfo!"},           {"+TEST\r\n", "Invalid Test cmd!"},
        {"+HRM=35", "Invalid hallInfo!"},               {"+DTR=x", "Invalid DTR data!"},
        {"+PTEST\r\n", "Invalid PTEST_parser cmd!"},    {"+MMI1\r\n", "Invalid MMI1 data!"},
        {"+PT\r\n", "Invalid PT data!"},                {"+STARTUP=1\r\n", ""},
        {"+WIFICON=1\r\n", ""}, {"+TIME\r\n", ""}, {"+OK\r\n", ""}, {"+SLEEP\r\n", ""},  // log only
        // The loop-back pattern by the parity of the sequence number, nine digits exactly.
        {"+PTEST=123456789#4&2\r\n", ""}, {"+PTEST=987654321#5&2\r\n", ""},
        {"+PTEST=123456789#5&2\r\n", e},  {"+PTEST=987654321#4&2\r\n", e},
        {"+PTEST=1234567890#4&2\r\n", e}, {"+PTEST=12345678#4&2\r\n", e},
    };
    corvel_devInfo_t &info = g_corvel_devInfo;
    atcmdprocess_device_t *dev = bare_device(P2);
    for (const auto &[line, message] : rows) {
        SCOPED_TRACE(line);
        for (char *field : {info.sn, info.sid, info.type, info.bt_mac}) strcpy(field, "s");
        // +WIFI and +BT are left alone on platform 2; elsewhere every relay would happen.
        dev->system_status.platform = line == "+WIFI\r\n" || line == "+BT\r\n" ? P1 : P2;
        dev->system_status.mode = WIFI;
        EXPECT_EQ(run(line).substr(0, 1), "|");
        EXPECT_NE(log.find(message), npos);
        EXPECT_EQ(log.find(message.empty() ? e : "\x01"), npos);
        EXPECT_EQ(dev->system_status.mode, WIFI);
        const std::string key = line.substr(0, line.find_first_of("=#\r\n"));
        const bool own = key == "+SN" || key == "+SID" || key == "+TYPE" || key.find("MAC") != npos;
        EXPECT_EQ(std::string(info.sn) + info.sid + info.type + info.bt_mac, own ? "sss" : "ssss");
    }
    AtCmder_t no_line = {};  // no record, or one without a line, is safe everywhere
    for (at_parser_fn parser : {INFO_parser, SENSOR_parser}) parser(&no_line);
    for (const AT_CMD_Table_t &row : AT_CMDS) {
        if (row.parser != nullptr) row.parser(nullptr), row.parser(&no_line);
    }
    EXPECT_EQ(Recorder::instance().notices().size() + drain_tx_queue().size(), 0u);
    char bad[] = "+X\r\n";
    no_line.data = bad;  // of the parsers, these two report a missing value
    EXPECT_EQ(std::vector<uint32_t>({REBOOT_parser(&no_line), ERROR_parser(&no_line),
                                     RESET_parser(&no_line)}), std::vector<uint32_t>({3, 3, 0}));
    // Two first logs name another parser, as the log vocabulary always had them.
    EXPECT_NE((run("+UPGRADE\r\n"), log).find("RECOVERY_parser source is 3, idx is 1"), npos);
    EXPECT_NE((run("+POWEROFF=0\r\n"), log).find("RESET_parser source is 3, idx is 4"), npos);
}

TEST_F(ParsersTest, TypeSetsTheModelAndSystemActionsGoThroughProperties) {
    atcmdprocess_device_t *dev = bare_device(P1);
    for (const auto &[type, model] : std::vector<std::pair<std::string, int32_t>>{
             {"KV4410C", 1}, {"KV4410A", 2}, {"kv4410c", -1}, {"KV4410CX", -1}, {"", -1}}) {
        EXPECT_EQ(run("+TYPE=" + type + "#15&1\r\n"), "15#15=" + type + " |");
        EXPECT_EQ(g_corvel_devInfo.model, model) << type;
    }
    EXPECT_EQ(run("+RECOVERY\r\n"), "2#0=- | @2");
    EXPECT_EQ(sb.property("vendor.corvel.recovery"), "1");
    // PWROFF and +SHUTDOWN stop Wi-Fi only in Wi-Fi mode, where +SHUTDOWN first tells the peer;
    // the stop tells the upper layer that Wi-Fi is down.
    const std::string stop = "]atcmdprocess_wifi_stchange:", sent = "3#3=- 18#0=0 | 4/1/10:+STATE=PWROFF\r\n";
    for (int32_t mode : {USB, WIFI}) {
        dev->system_status.mode = mode;
        EXPECT_EQ((run("+STATE=PWROFF\r\n"), log).find(stop) != npos, mode == WIFI);
        sb.set_property("sys.powerctl", "");
        dev->system_status.mode = mode;  // the Wi-Fi stop above ended Wi-Fi mode
        EXPECT_EQ(run("+SHUTDOWN#3&1\r\n"), (mode == WIFI ? sent : "3#3=- |") + " @2");
        EXPECT_EQ(log.find(stop) != npos, mode == WIFI);
        EXPECT_EQ(sb.property("sys.powerctl"), "shutdown");
    }
}

// A set the property service refuses (here a store that cannot be written: a file stands where
// its folder should be, which stops root too) is logged with the key and the value under the
// answer's parser, and the answer is handled all the same.
TEST_F(ParsersTest, RefusedPropertySetsAreLoggedWithKeyAndValue) {
    bare_device(P1)->system_status.mode = USB;
    write_text_file(sb.path("/property"), "not a folder");
    const std::vector<std::array<std::string, 3>> rows = {
        {"+RECOVERY\r\n", "2#0=- | @2", "]RECOVERY_parser:\\d+: property_set vendor.corvel.recovery=1 failed \\(-1\\)"},
        {"+SHUTDOWN#3&1\r\n", "3#3=- | @2", "]SHUTDOWN_parser:\\d+: property_set sys.powerctl=shutdown failed \\(-1\\)"},
    };
    for (const auto &[line, outcome, logged] : rows) {
        EXPECT_EQ(run(line), outcome);
        EXPECT_TRUE(pattern_search(log, logged)) << log;
    }
    EXPECT_EQ(sb.property("vendor.corvel.recovery") + sb.property("sys.powerctl"), "");
}

// Each row's value log: the words come from the row, the numbers from the line (a list ends
// where the next log line starts, "["), and the extremes of a 32-bit value print the same on
// 64-bit and 32-bit targets.
TEST_F(ParsersTest, ValueLogsPrintTheRowsWordsAndTheLinesNumbers) {
    bare_device(P1);
    const auto idx = [](int row) { return ", cmdIDX is " + std::to_string(row); };
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"+REBOOT=-2147483648#1&1\r\n", "REBOOT_parser state is -2147483648" + idx(AT_MSG_REBOOT) + "["},
        {"+RESET=3#2&1\r\n", "corvel reset value is 3" + idx(AT_MSG_RESET) + "["},  // no seq num
        {"+SCREEN=2147483647\r\n", "corvel screen value is 2147483647" + idx(AT_MSG_SCREEN)},
        {"+BKL=80#7&1\r\n", "BKL_parser backlight is 80" + idx(AT_MSG_BKL) + ", seq num is 7"},
        {"+BAT=1,-2,3,4,5,2147483647\r\n", "batinfo: 1, -2, 3, 4, 5, 2147483647["},
        {"+ACC=-5,10,980\r\n", "Accinfo: -5, 10, 980["},
        {"+HRM=30,-31\r\n", "Board temperature info: 30, -31["},
        {"+BLEMAC=CC:DD#8&1\r\n", "BLEMAC is CC:DD" + idx(AT_MSG_BLEMAC)},
        {"+SID=S1#2&1\r\n", "SID_parser source is 3, idx is " + std::to_string(AT_MSG_SID) +
                                " data is +SID=S1#2&1\r\n, sid is S1"},
    };
    for (const auto &[line, logged] : rows) {
        run(line);
        EXPECT_NE(log.find(logged), npos) << line << "\n" << log;
    }
}
