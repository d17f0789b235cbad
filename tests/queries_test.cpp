// Accessory queries and the start-up interrogation: the lines and records they queue on both
// platforms, with and without this phone's Bluetooth MAC.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "accessory/accessory.h"
#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

struct QueryTest : ::testing::Test {
    void SetUp() override { log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE); }
    Sandbox sb;
};

}  // namespace

TEST_F(QueryTest, EachQueryQueuesItsLineAndRecord) {
    const struct {
        void (*fn)();
        const char *head;  // the line before the platform tail, or the whole fixed line
        uint8_t row;
    } cases[] = {
        {get_corvel_BATINFO, "AT+BAT?#9", 9},        {get_remote_bt_mac, "AT+BLEMAC?#8", 8},
        {get_corvel_state, "AT+STATE?#10", 10},      {[] { get_corvel_ver(); }, "AT+VER?#11", 11},
        {get_corvel_sn, "AT+SN?#13", 13},            {get_corvel_sid, "AT+SID?#14", 14},
        {get_corvel_type, "AT+TYPE?#15", 15},        {get_corvel_usbstate, "AT+USBSTATE?#16", 16},
        {get_corvel_screensts, "AT+SCREEN?#17", 17}, {get_corvel_micmode, "AT+MICMODE?#19", 19},
        {get_corvel_castmode, "AT+MODE?#0&2\r\n", 28},  // fixed line, record still row 28
    };
    for (int32_t platform : {PLATFORM_VUART, PLATFORM_UART}) {
        bare_device(platform);
        for (const auto &c : cases) {
            c.fn();
            const auto lines = drain_tx_queue();
            ASSERT_EQ(lines.size(), 1u) << c.head;
            const std::string tail = "&" + std::to_string(platform) + "\r\n";
            EXPECT_EQ(lines[0].text, c.row == AT_MSG_MODE ? c.head : c.head + tail);
            const AtCmder_t &cmd = lines[0].cmd;
            EXPECT_EQ(cmd.type, AT_TYPE_QUERY);
            EXPECT_EQ(cmd.source, AT_NODE_NONE);
            EXPECT_EQ(cmd.dest, AT_NODE_ACCESSORY);
            EXPECT_EQ(cmd.flag, platform);
            EXPECT_EQ(cmd.cmd_id, c.row) << c.head;
            EXPECT_EQ(cmd.seq_num, c.row) << c.head;
        }
    }
    g_patcmd_dev = nullptr;  // no device: nothing queued
    get_corvel_sn();
    EXPECT_TRUE(drain_tx_queue().empty());
}

// The last case is slow on purpose: the MAC property wait runs its full two seconds.
TEST_F(QueryTest, InfoAsksInOrderByPlatformAndMac) {
    const struct {
        int32_t platform;
        const char *mac;
        std::vector<std::string> lines;
    } cases[] = {
        {PLATFORM_VUART, "11:22:33:44:55:66",
         {"AT+TYPE?#15&1\r\n", "AT+BAT?#9&1\r\n", "AT+BTMAC=11:22:33:44:55:66#7&1\r\n",
          "AT+SN?#13&1\r\n", "AT+SID?#14&1\r\n", "AT+SCREEN?#17&1\r\n", "AT+STATE?#10&1\r\n",
          "AT+USBSTATE?#16&1\r\n", "AT+BLEMAC?#8&1\r\n", "AT+MICMODE?#19&1\r\n", "AT+VER?#11&1\r\n"}},
        {PLATFORM_UART, "11:22:33:44:55:66",
         {"AT+TYPE?#15&2\r\n", "AT+BAT?#9&2\r\n", "AT+BLEMAC=11:22:33:44:55:66#8&2\r\n",
          "AT+SN?#13&2\r\n", "AT+SID?#14&2\r\n", "AT+SCREEN?#17&2\r\n", "AT+MICMODE?#19&2\r\n",
          "AT+VER?#11&2\r\n"}},
        {PLATFORM_UART, "",
         {"AT+TYPE?#15&2\r\n", "AT+BAT?#9&2\r\n", "AT+SN?#13&2\r\n", "AT+SID?#14&2\r\n",
          "AT+SCREEN?#17&2\r\n", "AT+MICMODE?#19&2\r\n", "AT+VER?#11&2\r\n"}},
    };
    for (const auto &c : cases) {
        sb.set_property("net.bluetooth.macaddr", c.mac);
        bare_device(c.platform);
        EXPECT_EQ(get_corvel_info(), 0);
        std::vector<std::string> texts;
        for (const QueuedLine &l : drain_tx_queue()) texts.push_back(l.text);
        EXPECT_EQ(texts, c.lines) << c.platform << " " << c.mac;
    }
    EXPECT_TRUE(sb.wait_log("Can not get Corvel BTMAC net.bluetooth.macaddr."));
}
