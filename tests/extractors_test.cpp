// Field extractors: payloads at their edges, malformed, null, and over-long ones kept in bounds.
#include <gtest/gtest.h>

#include <string.h>


#include "accessory/accessory.h"
#include "support/test_support.h"

using namespace atcmd_test;

static uint32_t usb_pair(const char *line, int32_t *v) {
    usbdev_sts_t sts = {v[0], v[1]};
    const uint32_t status = getUsbDevinfo_fromCmdString(line, &sts);
    v[0] = sts.connected, v[1] = sts.status;
    return status;
}

TEST(ExtractorTest, NumbersTextsStateWordsAndVersionItems) {
    Sandbox sb(kWithLog);
    const struct { uint32_t (*fn)(const char *, int32_t *); const char *line, *want; } cases[] = {
        {getvalue_fromCmdString, "+SCREEN=12x#5&1\r\n", "0:12,77,77,77,77,77,"},
        {getvalue_fromCmdString, nullptr, "3:77,77,77,77,77,77,"},
        {getstate_fromCmdString, "+STATE=ACTIVE,IDLE\r\n", "0:1,77,77,77,77,77,"},  // IDLE first
        {getstate_fromCmdString, "+STATE=UPDATE,INIT\r\n", "0:7,77,77,77,77,77,"},  // INIT first
        {getstate_fromCmdString, "+STATE=idle\r\n", "0:-1,77,77,77,77,77,"},
        {getstate_fromCmdString, nullptr, "0:-1,77,77,77,77,77,"},
        {getBatinfo_fromCmdString, "+BAT=1,2,3,4,5#9&1\r\n", "0:1,2,3,4,5,9,"},  // "#9" is read too
        {getBatinfo_fromCmdString, "+BAT=1,2,3,4,5", "3:1,2,3,4,5,0,"},
        {getBatinfo_fromCmdString, nullptr, "3:77,77,77,77,77,77,"},
        {getTmpinfo_fromCmdString, "+HRM", "3:0,0,77,77,77,77,"},
        {getHALLinfo_fromCmdString, "+HALL=1,,3#2&1\r\n", "0:1,0,3,77,77,77,"},
        {usb_pair, "+USBSTATE=1", "3:1,0,77,77,77,77,"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line != nullptr ? c.line : "null");
        int32_t v[6] = {77, 77, 77, 77, 77, 77};  // all six shown, so over-writes show too
        std::string got = std::to_string(c.fn(c.line, v)) + ":";
        for (int32_t x : v) got += std::to_string(x) + ",";
        EXPECT_EQ(got, c.want);
    }
    const std::string a(50, 'a'), d(100, 'd'), a31(31, 'a'), d63(63, 'd'), ff(400, '\xff');
    for (const auto &[line, want] : std::vector<std::pair<std::string, std::string>>{
             {"+SN=AB1#13&1\r\n", "0:AB1"}, {"+SN=AB1\r\n", "0:AB1"}, {"+SN=AB1", "4:old"},
             {"+SN#13=AB1\r\n", "4:"},  // "#" before "=": no value, and the output is emptied
             {"+DTR=" + ff + "\r\n", "0:" + ff.substr(0, AT_LINE_BUF_SIZE - 1)}}) {  // binary
        char out[AT_LINE_BUF_SIZE + 1] = "old";
        out[AT_LINE_BUF_SIZE] = 'z';
        EXPECT_EQ(std::to_string(getstr_fromCmdString(line.c_str(), out)) + ":" + out, want);
        EXPECT_EQ(out[AT_LINE_BUF_SIZE], 'z');
    }
    corvel_devInfo_t info = {};  // bt_mac follows the version block
    for (const auto &[line, want] : std::vector<std::pair<std::string, std::string>>{
             {"+VER=a:1,b:2,c:3,d:4,e:5,f:6,g:77\r\n", "0:1|2|3|4|5|6|77\r|"},  // one byte short
             {"+VER=a:1,b:2,c:3,d:4,e:5,f:6#11&1\r\n", "4:1|2|3|4|5|||"},
             {"+VER=x:" + a + ",x:1,x:2,x:" + d + ",x:4,x:5,x:" + a + "#11&1\r\n",
              "0:" + a31 + "|1|2|" + d63 + "|4|5|" + a31 + "|"}}) {
        memset(info.ver, 'x', sizeof info.ver);
        strcpy(info.bt_mac, "MAC");
        const uintptr_t block = reinterpret_cast<uintptr_t>(info.ver);
        std::string got = std::to_string(getVerInfo_fromCmdString(line.c_str(), block)) + ":";
        for (size_t o : std::vector<size_t>(CORVEL_VER_SLOT_OFFSETS)) (got += info.ver + o) += '|';
        EXPECT_EQ(got + info.bt_mac, want + "MAC");
    }
    EXPECT_EQ(getstr_fromCmdString("+X=1#1", nullptr), 4u);
    EXPECT_EQ(getUsbDevinfo_fromCmdString("+USBSTATE=1,2", nullptr), 3u);
    EXPECT_EQ(getVerInfo_fromCmdString(nullptr, reinterpret_cast<uintptr_t>(info.ver)), 4u);
    for (const char *log : {"Batinfo para error, raw data is +BAT=1,2,3,4,5! ", "cut to 31 bytes",
                            "null line or output"}) {
        EXPECT_TRUE(sb.wait_log(log)) << log;
    }
    // The shared checker logs under the name of the extractor that called it.
    EXPECT_TRUE(pattern_search(sb.log_text(), R"(\]getBatinfo_fromCmdString:\d+: Batinfo para)"));
}
