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

constexpr char kCanary[] = "canary-canary-!";

// A destination followed directly by bytes that must never change.
template <size_t N>
struct Guarded {
    char field[N];
    char canary[sizeof kCanary];
    Guarded() {
        memset(field, 'x', N);
        memcpy(canary, kCanary, sizeof kCanary);
    }
    bool intact() const { return memcmp(canary, kCanary, sizeof kCanary) == 0; }
};

uint32_t usb_pair(const char *line, int32_t *values) {
    usbdev_sts_t sts = {-5, -5};
    const uint32_t status = getUsbDevinfo_fromCmdString(line, &sts);
    values[0] = sts.connected;
    values[1] = sts.status;
    return status;
}

}  // namespace

TEST_F(ExtractorTest, SingleValue) {
    struct Case {
        const char *line;
        uint32_t status;
        int32_t value;
    } cases[] = {
        {"+SCREEN=1#5&1\r\n", 0, 1},   {"+SCREEN=12x#5&1\r\n", 0, 12},
        {"+SCREEN=-7\r\n", 0, -7},     {"+SCREEN=x\r\n", 0, 0},
        {"+SCREEN#5&1\r\n", 3, 99},    {"", 3, 99},
    };
    for (const Case &c : cases) {
        int32_t value = 99;
        EXPECT_EQ(getvalue_fromCmdString(c.line, &value), c.status) << c.line;
        EXPECT_EQ(value, c.value) << c.line;
    }
}

TEST_F(ExtractorTest, TextBetweenEqualsAndEndMark) {
    struct Case {
        const char *line;
        uint32_t status;
        const char *text;
    } cases[] = {
        {"+SN=ABC123#13&1\r\n", 0, "ABC123"}, {"+SN=ABC123\r\n", 0, "ABC123"},
        {"+SN=#13&1\r\n", 0, ""},             {"+DTR=a=b\r#1&1\r\n", 0, "a=b\r"},
        {"+SN=ABC", 4, "untouched"},          {"+SN ABC#1&1\r\n", 4, "untouched"},
        {"+SN#13=ABC\r\n", 4, ""},  // end mark before "=": no value
    };
    for (const Case &c : cases) {
        char out[AT_LINE_BUF_SIZE] = "untouched";
        EXPECT_EQ(getstr_fromCmdString(c.line, out), c.status) << c.line;
        EXPECT_STREQ(out, c.text) << c.line;
    }
}

TEST_F(ExtractorTest, OverLongTextIsCutToItsDestination) {
    const std::string value(100, 'A');
    const std::string line = "+SN=" + value + "#13&1\r\n";
    Guarded<32> field;
    EXPECT_EQ(atcmd_getstr_bounded(line.c_str(), field.field, sizeof field.field), 0u);
    EXPECT_EQ(std::string(field.field), value.substr(0, 31));
    EXPECT_TRUE(field.intact());
    EXPECT_TRUE(sb.wait_log("cut to 31 bytes"));

    const std::string huge = "+DTR=" + std::string(400, '\xff') + "\r\n";  // binary, over a line
    Guarded<AT_LINE_BUF_SIZE> local;
    EXPECT_EQ(getstr_fromCmdString(huge.c_str(), local.field), 0u);
    EXPECT_EQ(strlen(local.field), size_t{AT_LINE_BUF_SIZE - 1});
    EXPECT_TRUE(local.intact());
}

TEST_F(ExtractorTest, StateWordFirstInSearchOrderWins) {
    struct Case {
        const char *line;
        int32_t state;
    } cases[] = {
        {"+STATE=IDLE#10&1\r\n", 1},   {"+STATE=ACTIVE\r\n", 2}, {"+STATE=READY\r\n", 3},
        {"+STATE=PWROFF\r\n", 4},      {"+STATE=UPDATE\r\n", 5}, {"+STATE=NOACK\r\n", 6},
        {"+STATE=INIT\r\n", 7},        {"+STATE=ACTIVE,IDLE\r\n", 1},
        {"+STATE=UPDATE,INIT\r\n", 7}, {"+STATE=idle\r\n", -1},  {"", -1},
    };
    for (const Case &c : cases) {
        int32_t state = 99;
        EXPECT_EQ(getstate_fromCmdString(c.line, &state), 0u) << c.line;
        EXPECT_EQ(state, c.state) << c.line;
    }
}

TEST_F(ExtractorTest, NumberLists) {
    using Fn = uint32_t (*)(const char *, int32_t *);
    struct Case {
        Fn fn;
        const char *line;
        uint32_t status;
        std::vector<int32_t> values;
        const char *log;  // error line expected, or null
    } cases[] = {
        {getBatinfo_fromCmdString, "+BAT=87,1,4120,250,1,0#9&1\r\n", 0, {87, 1, 4120, 250, 1, 0},
         nullptr},
        // five numbers and the tail: the sequence number after "#" reads as the sixth
        {getBatinfo_fromCmdString, "+BAT=1,2,3,4,5#9&1\r\n", 0, {1, 2, 3, 4, 5, 9}, nullptr},
        {getBatinfo_fromCmdString, "+BAT=1,2,3,4,5", 3, {1, 2, 3, 4, 5, 0},
         "Batinfo para error, raw data is +BAT=1,2,3,4,5! "},
        {getBatinfo_fromCmdString, "+BAT", 3, {0, 0, 0, 0, 0, 0}, "Batinfo para error"},
        {getTmpinfo_fromCmdString, "+HRM=35,40#1&1\r\n", 0, {35, 40}, nullptr},
        {getTmpinfo_fromCmdString, "+HRM=35", 3, {35, 0}, "Tmpinfo para error, raw data is"},
        {getHALLinfo_fromCmdString, "+HALL=1,,3#2&1\r\n", 0, {1, 0, 3}, nullptr},
        {getHALLinfo_fromCmdString, "+HALL=", 3, {0, 0, 0}, "get Hall info error, raw data is"},
        {getACCinfo_fromCmdString, "+ACC=-1,2,-3\r\n", 0, {-1, 2, -3}, nullptr},
        {getACCinfo_fromCmdString, "+ACC=1,2", 3, {1, 2, 0}, "get Acc sensor info error, raw"},
        {usb_pair, "+USBSTATE=1,2#16&1\r\n", 0, {1, 2}, nullptr},
        {usb_pair, "+USBSTATE=1", 3, {1, 0}, "usbstate para error, raw data is +USBSTATE=1! "},
    };
    for (const Case &c : cases) {
        std::vector<int32_t> values(c.values.size(), 77);
        EXPECT_EQ(c.fn(c.line, values.data()), c.status) << c.line;
        EXPECT_EQ(values, c.values) << c.line;
        if (c.log != nullptr) {
            EXPECT_TRUE(sb.wait_log(c.log)) << c.log;
        }
    }
}

TEST_F(ExtractorTest, VersionItemsBySlot) {
    struct Case {
        const char *line;
        uint32_t status;
        std::vector<std::string> slots;
    } cases[] = {
        {"+VER=MCU:1.0,BT:2.1,DSP:3,WIFI:w4,AML:5,HW:6,BOOT:7#11&1\r\n", 0,
         {"1.0", "2.1", "3", "w4", "5", "6", "7"}},
        {"+VER=a:1,b:2,c:,d:4,e:5,f:6,g:7#11&1\r\n", 0, {"1", "2", "NULL", "4", "5", "6", "7"}},
        // no "#": the last item ends at the line's last character, which is left out
        {"+VER=a:1,b:2,c:3,d:4,e:5,f:6,g:77\r\n", 0, {"1", "2", "3", "4", "5", "6", "77\r"}},
        {"+VER=a:1,b:2,c:3,d:4,e:5,f:6#11&1\r\n", 4, {"1", "2", "3", "4", "5", "", ""}},
        {"+VER=1.0#11&1\r\n", 4, {"", "", "", "", "", "", ""}},
    };
    const size_t offsets[] = CORVEL_VER_SLOT_OFFSETS;
    for (const Case &c : cases) {
        char block[CORVEL_VER_BLOCK_SIZE];
        memset(block, 'x', sizeof block);
        EXPECT_EQ(getVerInfo_fromCmdString(c.line, reinterpret_cast<uintptr_t>(block)), c.status);
        for (size_t i = 0; i < CORVEL_VER_ITEMS; ++i) {
            EXPECT_EQ(std::string(block + offsets[i]), c.slots[i]) << c.line << " slot " << i;
        }
    }
}

TEST_F(ExtractorTest, OverLongVersionItemsStayInTheirSlots) {
    const std::string a(50, 'a'), d(100, 'd'), g(60, 'g');
    const std::string line = "+VER=x:" + a + ",x:1,x:2,x:" + d + ",x:4,x:5,x:" + g + "#11&1\r\n";
    Guarded<CORVEL_VER_BLOCK_SIZE> block;
    ASSERT_EQ(getVerInfo_fromCmdString(line.c_str(), reinterpret_cast<uintptr_t>(block.field)), 0u);
    const size_t offsets[] = CORVEL_VER_SLOT_OFFSETS;
    const std::string expected[] = {a.substr(0, 31), "1", "2", d.substr(0, 63), "4", "5",
                                    g.substr(0, 31)};
    for (size_t i = 0; i < CORVEL_VER_ITEMS; ++i) {
        EXPECT_EQ(std::string(block.field + offsets[i]), expected[i]) << "slot " << i;
    }
    EXPECT_TRUE(block.intact());
}

TEST_F(ExtractorTest, NullPointersAreRefusedWithALogLine) {
    int32_t values[6] = {};
    char text[AT_LINE_BUF_SIZE] = {};
    EXPECT_EQ(getvalue_fromCmdString(nullptr, values), 3u);
    EXPECT_EQ(getvalue_fromCmdString("+X=1", nullptr), 3u);
    EXPECT_EQ(getstr_fromCmdString(nullptr, text), 4u);
    EXPECT_EQ(getstr_fromCmdString("+X=1#1", nullptr), 4u);
    EXPECT_EQ(getstate_fromCmdString(nullptr, values), 0u);
    EXPECT_EQ(values[0], -1);
    EXPECT_EQ(getBatinfo_fromCmdString(nullptr, values), 3u);
    EXPECT_EQ(getUsbDevinfo_fromCmdString("+USBSTATE=1,2", nullptr), 3u);
    EXPECT_EQ(getVerInfo_fromCmdString(nullptr, reinterpret_cast<uintptr_t>(text)), 4u);
    EXPECT_EQ(getVerInfo_fromCmdString("+VER=a:1", 0), 4u);
    EXPECT_TRUE(sb.wait_log("null line or output"));
}
