// Senders of this phone's own lines: state words, the Bluetooth MAC on both platforms, the
// loop-back pattern by parity, and the Wi-Fi module's version with its slot-3 cache.
#include <gtest/gtest.h>

#include <string.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "accessory/accessory.h"
#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

// The one line queued since the last drain: its text and type, dest, flag, cmd_id, seq_num.
void expect_line(const std::string &text, std::vector<int> header) {
    const auto lines = drain_tx_queue();
    ASSERT_EQ(lines.size(), 1u) << text;
    const AtCmder_t &c = lines[0].cmd;
    EXPECT_EQ(lines[0].text, text);
    EXPECT_EQ((std::vector<int>{c.type, c.dest, c.flag, c.cmd_id, c.seq_num}), header) << text;
}

}  // namespace

TEST(SenderTest, StateWords) {
    Sandbox sb;
    bare_device(PLATFORM_VUART);
    const char *words[] = {"", "IDLE", "ACTIVE", "READY", "PWROFF", "UPDATE", "NOACK", ""};
    for (int32_t state : {-1, 0, 1, 2, 3, 4, 5, 6, 7}) {
        send_stateToMPHONE(state);
        expect_line(std::string("+STATE=") + (state < 0 ? "" : words[state]) + "\r\n",
                    {AT_TYPE_RESPONSE, AT_NODE_PLATFORM1, 0, AT_MSG_STATE, 0});
    }
    for (int32_t phone_state : {1, 2, 3}) {  // towards the accessory only IDLE and ACTIVE
        g_patcmd_dev->system_status.phone_state = phone_state;
        send_stateToMCU();
        expect_line(std::string("+STATE=") + (phone_state < 3 ? words[phone_state] : "") + "\r\n",
                    {AT_TYPE_RESPONSE, AT_NODE_ACCESSORY, 0, AT_MSG_STATE, 0});
    }
}

TEST(SenderTest, MacLineByPlatformKeepsRow7InTheRecord) {
    Sandbox sb;
    bare_device(PLATFORM_VUART);
    std::thread late([&] {  // set well inside the two-second wait, so a re-read must find it
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        sb.set_property("net.bluetooth.macaddr", "11:22:33:44:55:66");
    });
    send_bt_mac();
    late.join();
    expect_line("AT+BTMAC=11:22:33:44:55:66#7&1\r\n", {AT_TYPE_RESPONSE, AT_NODE_ACCESSORY, 1, 7, 7});
    bare_device(PLATFORM_UART);
    send_bt_mac();
    expect_line("AT+BLEMAC=11:22:33:44:55:66#8&2\r\n",
                {AT_TYPE_RESPONSE, AT_NODE_ACCESSORY, 2, 7, 7});
}

TEST(SenderTest, PtestPatternFollowsParityOnPlatform2Only) {
    Sandbox sb;
    bare_device(PLATFORM_UART);
    send_ptest_data(3);
    expect_line("AT+PTEST=987654321#3&2\r\n", {0, AT_NODE_ACCESSORY, 0, 0, 0});
    send_ptest_data(65534);
    expect_line("AT+PTEST=123456789#65534&2\r\n", {0, AT_NODE_ACCESSORY, 0, 0, 0});
    bare_device(PLATFORM_VUART);
    send_ptest_data(3);
    send_amlogic_ver();
    EXPECT_TRUE(drain_tx_queue().empty());
}

// A version that fits slot 3 with its terminator is cached there and reused; a longer one is
// sent whole but not cached, so the next call reads the property again.
TEST(SenderTest, VersionIsCachedInSlot3OnlyWhenItFits) {
    Sandbox sb;
    log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE);
    bare_device(PLATFORM_UART);
    const size_t offsets[] = CORVEL_VER_SLOT_OFFSETS;
    const char *slot3 = g_corvel_devInfo.ver + offsets[3];
    for (size_t len : {63u, 64u, 70u}) {
        memset(g_corvel_devInfo.ver, 0, sizeof g_corvel_devInfo.ver);
        const std::string version(len, 'v');
        sb.set_property("ro.quorvanta.version", version);
        send_amlogic_ver();
        sb.set_property("ro.quorvanta.version", "V2");
        send_amlogic_ver();
        const std::string second = len < 64 ? version : "V2";
        const auto lines = drain_tx_queue();
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[0].text, "+VER=WIFI:" + version + "\r\n");
        EXPECT_EQ(lines[1].text, "+VER=WIFI:" + second + "\r\n");
        EXPECT_EQ(std::string(slot3), second) << len;
    }
    EXPECT_TRUE(sb.wait_log("Amlogic ver data is too long!"));
    send_amlogic_ver();
    expect_line("+VER=WIFI:V2\r\n", {AT_TYPE_RESPONSE, AT_NODE_ACCESSORY, 0, AT_MSG_VER, 0});
}
