// Field extractors: each payload form well-formed, at its edges and malformed, and over-long
// values that must stay inside their destination.
#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <vector>

#include "accessory/accessory.h"
#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

struct ExtractorTest : ::testing::Test {
    void SetUp() override { log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE); }
    Sandbox sb;
};

uint32_t usb_pair(const char *line, int32_t *v) {
    usbdev_sts_t sts = {-5, -5};
    const uint32_t status = getUsbDevinfo_fromCmdString(line, &sts);
    v[0] = sts.connected;
    v[1] = sts.status;
    return status;
}

}  // namespace

TEST_F(ExtractorTest, ValueTextAndStateWord) {
    int32_t value = 99;
    EXPECT_EQ(getvalue_fromCmdString("+SCREEN=12x#5&1\r\n", &value), 0u);
    EXPECT_EQ(value, 12);
    EXPECT_EQ(getvalue_fromCmdString("+SCREEN#5&1\r\n", &value), 3u);
    const struct {
        const char *line;
        uint32_t status;
        const char *text;
    } texts[] = {{"+SN=AB1#13&1\r\n", 0, "AB1"}, {"+SN=AB1\r\n", 0, "AB1"}, {"+SN=#13\r\n", 0, ""},
                 {"+SN=AB1", 4, "old"},          {"+SN#13=AB1\r\n", 4, ""}};  // "#" before "="
    for (const auto &c : texts) {
        char out[AT_LINE_BUF_SIZE] = "old";
        EXPECT_EQ(getstr_fromCmdString(c.line, out), c.status) << c.line;
        EXPECT_STREQ(out, c.text) << c.line;
    }
    const struct {
        const char *line;
        int32_t state;
    } states[] = {{"+STATE=NOACK\r\n", 6}, {"+STATE=ACTIVE,IDLE\r\n", 1},
                  {"+STATE=UPDATE,INIT\r\n", 7}, {"+STATE=idle\r\n", -1}};
    for (const auto &c : states) {
        EXPECT_EQ(getstate_fromCmdString(c.line, &value), 0u);
        EXPECT_EQ(value, c.state) << c.line;
    }
}

TEST_F(ExtractorTest, NumberLists) {
    const struct {
        uint32_t (*fn)(const char *, int32_t *);
        const char *line;
        uint32_t status;
        std::vector<int32_t> values;
    } cases[] = {
        {getBatinfo_fromCmdString, "+BAT=87,1,4120,250,1,0#9&1\r\n", 0, {87, 1, 4120, 250, 1, 0}},
        {getBatinfo_fromCmdString, "+BAT=1,2,3,4,5#9&1\r\n", 0, {1, 2, 3, 4, 5, 9}},  // seq read
        {getBatinfo_fromCmdString, "+BAT=1,2,3,4,5", 3, {1, 2, 3, 4, 5, 0}},
        {getTmpinfo_fromCmdString, "+HRM", 3, {0, 0}},
        {getHALLinfo_fromCmdString, "+HALL=1,,3#2&1\r\n", 0, {1, 0, 3}},
        {getACCinfo_fromCmdString, "+ACC=-1,2,-3\r\n", 0, {-1, 2, -3}},
        {usb_pair, "+USBSTATE=1", 3, {1, 0}},
    };
    for (const auto &c : cases) {
        std::vector<int32_t> values(c.values.size(), 77);
        EXPECT_EQ(c.fn(c.line, values.data()), c.status) << c.line;
        EXPECT_EQ(values, c.values) << c.line;
    }
    for (const char *log : {"Batinfo para error, raw data is +BAT=1,2,3,4,5! ",
                            "Tmpinfo para error, raw data is +HRM! ",
                            "usbstate para error, raw data is +USBSTATE=1! "}) {
        EXPECT_TRUE(sb.wait_log(log)) << log;
    }
}

TEST_F(ExtractorTest, VersionItemsBySlot) {
    const struct {
        const char *line;
        uint32_t status;
        std::vector<std::string> slots;
    } cases[] = {
        {"+VER=a:1,b:2,c:,d:4,e:5,f:6,g:7#11&1\r\n", 0, {"1", "2", "NULL", "4", "5", "6", "7"}},
        // without "#" the last item ends at the line's last character, which is left out
        {"+VER=a:1,b:2,c:3,d:4,e:5,f:6,g:77\r\n", 0, {"1", "2", "3", "4", "5", "6", "77\r"}},
        {"+VER=a:1,b:2,c:3,d:4,e:5,f:6#11&1\r\n", 4, {"1", "2", "3", "4", "5", "", ""}},
    };
    const size_t offsets[] = CORVEL_VER_SLOT_OFFSETS;
    for (const auto &c : cases) {
        char block[CORVEL_VER_BLOCK_SIZE];
        memset(block, 'x', sizeof block);
        EXPECT_EQ(getVerInfo_fromCmdString(c.line, reinterpret_cast<uintptr_t>(block)), c.status);
        for (size_t i = 0; i < CORVEL_VER_ITEMS; ++i) {
            EXPECT_EQ(std::string(block + offsets[i]), c.slots[i]) << c.line << " slot " << i;
        }
    }
}

// Over-long values are cut so that each field keeps its terminator and its neighbour is intact.
TEST_F(ExtractorTest, OverLongValuesStayInsideTheirDestination) {
    corvel_devInfo_t info = {};  // each field's neighbour is the next field
    memcpy(info.sid, "SID", 4);
    const std::string sn = "+SN=" + std::string(100, 'A') + "#13&1\r\n";
    EXPECT_EQ(atcmd_getstr_bounded(sn.c_str(), info.sn, sizeof info.sn), 0u);
    EXPECT_EQ(std::string(info.sn), std::string(31, 'A'));
    EXPECT_STREQ(info.sid, "SID");
    EXPECT_TRUE(sb.wait_log("cut to 31 bytes"));

    const std::string a(50, 'a'), d(100, 'd'), g6(60, 'g');
    const std::string ver = "+VER=x:" + a + ",x:1,x:2,x:" + d + ",x:4,x:5,x:" + g6 + "#11&1\r\n";
    memcpy(info.bt_mac, "MAC", 4);  // the field after the version block
    ASSERT_EQ(getVerInfo_fromCmdString(ver.c_str(), reinterpret_cast<uintptr_t>(info.ver)), 0u);
    const size_t offsets[] = CORVEL_VER_SLOT_OFFSETS;
    const std::string expected[] = {a.substr(0, 31), "1", "2", d.substr(0, 63), "4", "5",
                                    g6.substr(0, 31)};
    for (size_t i = 0; i < CORVEL_VER_ITEMS; ++i) {
        EXPECT_EQ(std::string(info.ver + offsets[i]), expected[i]) << "slot " << i;
    }
    EXPECT_STREQ(info.bt_mac, "MAC");

    const std::string dtr = "+DTR=" + std::string(400, '\xff') + "\r\n";  // binary, over a line
    char local[AT_LINE_BUF_SIZE + 4];
    memset(local, 'z', sizeof local);
    EXPECT_EQ(getstr_fromCmdString(dtr.c_str(), local), 0u);
    EXPECT_EQ(strlen(local), size_t{AT_LINE_BUF_SIZE - 1});
    EXPECT_EQ(local[AT_LINE_BUF_SIZE], 'z');
}

TEST_F(ExtractorTest, NullPointersAreRefused) {
    int32_t values[6] = {};
    char text[CORVEL_VER_BLOCK_SIZE] = {};
    EXPECT_EQ(getvalue_fromCmdString(nullptr, values), 3u);
    EXPECT_EQ(getstr_fromCmdString("+X=1#1", nullptr), 4u);
    EXPECT_EQ(getstate_fromCmdString(nullptr, values), 0u);
    EXPECT_EQ(getBatinfo_fromCmdString(nullptr, values), 3u);
    EXPECT_EQ(getUsbDevinfo_fromCmdString("+USBSTATE=1,2", nullptr), 3u);
    EXPECT_EQ(getVerInfo_fromCmdString(nullptr, reinterpret_cast<uintptr_t>(text)), 4u);
    EXPECT_TRUE(sb.wait_log("null line or output"));
}
