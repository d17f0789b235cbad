// The supervisor's handshake handling and the load generator, each on a bare device with only
// the threads the test starts.
#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>

#include "hal/hal.h"
#include "hotplug/hotplug.h"
#include "log/atcmd_log.h"
#include "supervision/supervision.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

constexpr int kLongWait = 15000;

void start_supervisor() {
    sigset_t set;
    atcmd_supervisor_signals(&set);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &set, nullptr), 0);
    ASSERT_EQ(pthread_create(&g_Sigprocess_thread, nullptr, atcmder_sigProcess_thread, nullptr), 0);
}

// Microseconds of the time stamp of the first log line holding `text`, -1 when there is none.
long long logged_at(const std::string &log, const std::string &text) {
    const size_t at = log.find(text);
    if (at == std::string::npos) return -1;
    const size_t open = log.rfind('[', log.rfind("[tid:", at) - 1);
    char *end = nullptr;
    const long long sec = strtoll(log.c_str() + open + 1, &end, 10);
    return sec * 1000000 + strtoll(end + 1, nullptr, 10);  // "sec.usec", usec not zero-padded
}

std::vector<std::string> queued_until(const std::string &last) {
    std::vector<std::string> lines;
    wait_until([&] {
        for (const QueuedLine &l : drain_tx_queue()) lines.push_back(l.text);
        return !lines.empty() && lines.back().rfind(last, 0) == 0;
    }, kLongWait);
    return lines;
}

}  // namespace

TEST(HandshakeTest, VersionLineGoesFirstAndTheQueriesFollowAfterTheGap) {
    Sandbox sb;
    sb.set_property("ro.quorvanta.version", "W1.2");
    sb.set_property("net.bluetooth.macaddr", "00:11:22:33:44:55");
    log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE);
    bare_device(PLATFORM_UART);
    start_supervisor();

    EXPECT_EQ(atcmdprocess_amlogic_shake_hands(), 0);
    const std::vector<std::string> lines = queued_until("AT+USBSTATE?");
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines.front(), "+VER=WIFI:W1.2\r\n");
    EXPECT_EQ(lines[1].rfind("AT+TYPE?", 0), 0u);  // the interrogation follows
    EXPECT_EQ(lines.back().rfind("AT+USBSTATE?", 0), 0u);

    const std::string log = sb.log_text();
    const long long version = logged_at(log, "ver data is +VER=WIFI:W1.2");
    const long long info = logged_at(log, " get corvel info.");
    ASSERT_GE(version, 0);
    ASSERT_GE(info, 0);
    EXPECT_GE(info - version, 50000);
}

TEST(LoadGeneratorTest, QueuesNumberedTestLinesForTheSerialLine) {
    Sandbox sb;
    bare_device(PLATFORM_UART);
    ASSERT_EQ(pthread_create(&g_TestTx_thread, nullptr, atcmder_TestTx_thread, nullptr), 0);
    std::vector<QueuedLine> lines;
    ASSERT_TRUE(wait_until([&] {
        for (const QueuedLine &l : drain_tx_queue()) lines.push_back(l);
        return lines.size() >= 4;
    }, kLongWait));
    const char *const expected[] = {"AT+PTEST=123456789#0&2\r\n", "AT+PTEST=987654321#1&2\r\n",
                                    "AT+PTEST=123456789#2&2\r\n", "AT+PTEST=987654321#3&2\r\n"};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(lines[i].text, expected[i]);
        EXPECT_EQ(lines[i].cmd.dest, AT_NODE_ACCESSORY);
        EXPECT_EQ(lines[i].cmd.seq_num, 0);
    }
}
