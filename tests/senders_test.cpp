// Senders of this phone's own lines: state words, the Bluetooth MAC on both platforms, the
// loop-back pattern by parity, and the Wi-Fi module's version with its slot-3 cache.
#include <gtest/gtest.h>

#include <string.h>

#include <chrono>
#include <string>
#include <thread>

#include "accessory/accessory.h"
#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

constexpr char kMacProp[] = "net.bluetooth.macaddr";
constexpr char kVersionProp[] = "ro.quorvanta.version";

struct SenderTest : ::testing::Test {
    void SetUp() override { log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE); }
    Sandbox sb;
};

struct Expected {
    const char *text;
    uint8_t type, dest, flag, cmd_id;
    uint16_t seq_num;
};

// The one line queued since the last drain, checked against `e`.
void expect_one_line(const Expected &e) {
    const auto lines = drain_tx_queue();
    ASSERT_EQ(lines.size(), 1u) << e.text;
    const AtCmder_t &cmd = lines[0].cmd;
    EXPECT_EQ(lines[0].text, e.text);
    EXPECT_EQ(cmd.type, e.type) << e.text;
    EXPECT_EQ(cmd.source, AT_NODE_NONE) << e.text;
    EXPECT_EQ(cmd.dest, e.dest) << e.text;
    EXPECT_EQ(cmd.flag, e.flag) << e.text;
    EXPECT_EQ(cmd.cmd_id, e.cmd_id) << e.text;
    EXPECT_EQ(cmd.seq_num, e.seq_num) << e.text;
}

// Slot 3 of the version block: the Wi-Fi module's version.
std::string wifi_slot() {
    const size_t offsets[] = CORVEL_VER_SLOT_OFFSETS;
    return std::string(g_corvel_devInfo.ver + offsets[3]);
}

}  // namespace

TEST_F(SenderTest, StateWords) {
    bare_device(PLATFORM_VUART);
    const char *words[] = {"", "IDLE", "ACTIVE", "READY", "PWROFF", "UPDATE", "NOACK", ""};
    for (int32_t state : {-1, 0, 1, 2, 3, 4, 5, 6, 7}) {
        send_stateToMPHONE(state);
        const std::string line = "+STATE=" + std::string(state < 0 ? "" : words[state]) + "\r\n";
        expect_one_line({line.c_str(), AT_TYPE_RESPONSE, AT_NODE_PLATFORM1, 0, AT_MSG_STATE, 0});
    }
    // Towards the accessory only the phone's own IDLE and ACTIVE are words.
    const struct {
        int32_t phone_state;
        const char *text;
    } mcu[] = {{1, "+STATE=IDLE\r\n"}, {2, "+STATE=ACTIVE\r\n"}, {3, "+STATE=\r\n"}};
    for (const auto &c : mcu) {
        g_patcmd_dev->system_status.phone_state = c.phone_state;
        send_stateToMCU();
        expect_one_line({c.text, AT_TYPE_RESPONSE, AT_NODE_ACCESSORY, 0, AT_MSG_STATE, 0});
    }
}

TEST_F(SenderTest, MacLineByPlatformKeepsRow7InTheRecord) {
    sb.set_property(kMacProp, "11:22:33:44:55:66");
    bare_device(PLATFORM_VUART);
    send_bt_mac();
    expect_one_line({"AT+BTMAC=11:22:33:44:55:66#7&1\r\n", AT_TYPE_RESPONSE, AT_NODE_ACCESSORY,
                     1, AT_MSG_BTMAC, AT_MSG_BTMAC});
    bare_device(PLATFORM_UART);
    send_bt_mac();
    expect_one_line({"AT+BLEMAC=11:22:33:44:55:66#8&2\r\n", AT_TYPE_RESPONSE, AT_NODE_ACCESSORY,
                     2, AT_MSG_BTMAC, AT_MSG_BTMAC});
}

TEST_F(SenderTest, MacSetDuringTheWaitIsSent) {
    bare_device(PLATFORM_VUART);
    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // well inside the 2 s wait
        sb.set_property(kMacProp, "AA:BB:CC:DD:EE:FF");
    });
    send_bt_mac();
    late.join();
    expect_one_line({"AT+BTMAC=AA:BB:CC:DD:EE:FF#7&1\r\n", AT_TYPE_RESPONSE, AT_NODE_ACCESSORY,
                     1, AT_MSG_BTMAC, AT_MSG_BTMAC});
}

TEST_F(SenderTest, PtestPatternFollowsParityOnPlatform2Only) {
    bare_device(PLATFORM_UART);
    const struct {
        uint32_t n;
        const char *text;
    } cases[] = {{3, "AT+PTEST=987654321#3&2\r\n"},
                 {4, "AT+PTEST=123456789#4&2\r\n"},
                 {65535, "AT+PTEST=987654321#65535&2\r\n"}};
    for (const auto &c : cases) {
        send_ptest_data(c.n);
        expect_one_line({c.text, 0, AT_NODE_ACCESSORY, 0, 0, 0});
    }
    bare_device(PLATFORM_VUART);
    send_ptest_data(3);
    send_amlogic_ver();
    EXPECT_TRUE(drain_tx_queue().empty());
}

TEST_F(SenderTest, VersionFromPropertyIsCachedWhenItFitsSlot3) {
    bare_device(PLATFORM_UART);
    sb.set_property(kVersionProp, "V1.2.3");
    send_amlogic_ver();
    expect_one_line({"+VER=WIFI:V1.2.3\r\n", AT_TYPE_RESPONSE, AT_NODE_ACCESSORY, 0, AT_MSG_VER, 0});
    EXPECT_EQ(wifi_slot(), "V1.2.3");
    sb.set_property(kVersionProp, "V9");
    send_amlogic_ver();  // the cached value wins
    expect_one_line({"+VER=WIFI:V1.2.3\r\n", AT_TYPE_RESPONSE, AT_NODE_ACCESSORY, 0, AT_MSG_VER, 0});
}

TEST_F(SenderTest, VersionTooLongForSlot3IsSentButNotCached) {
    bare_device(PLATFORM_UART);
    for (size_t len : {63u, 64u, 70u}) {
        memset(g_corvel_devInfo.ver, 0, sizeof g_corvel_devInfo.ver);
        const std::string version(len, 'v');
        sb.set_property(kVersionProp, version);
        send_amlogic_ver();
        const std::string line = "+VER=WIFI:" + version + "\r\n";
        expect_one_line({line.c_str(), AT_TYPE_RESPONSE, AT_NODE_ACCESSORY, 0, AT_MSG_VER, 0});
        EXPECT_EQ(wifi_slot(), len < 64 ? version : "") << len;
    }
    EXPECT_TRUE(sb.wait_log("Amlogic ver data is too long!"));
    // Not cached, so the next call reads the property again.
    sb.set_property(kVersionProp, "V2");
    send_amlogic_ver();
    expect_one_line({"+VER=WIFI:V2\r\n", AT_TYPE_RESPONSE, AT_NODE_ACCESSORY, 0, AT_MSG_VER, 0});
}
