// The engine end to end, a pseudo-terminal playing the accessory (one per process, kept open):
// resends and time-outs, receive, dispatch and forwarding, and a serial line that vanishes and
// comes back. (The answers' parsers are the parser tests' to check.)
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "device/link_words.h"
#include "serial/serial.h"
#include "supervision/supervision.h"
#include "support/test_support.h"
#include "wifi/wifi.h"

using namespace atcmd_test;

// Microseconds since the epoch: 64 bits, which a 32-bit target's long cannot hold.
static int64_t clock_within(long from_us, long to_us) {  // waits until that far into a second
    struct timeval tv;
    wait_until([&] { return !gettimeofday(&tv, nullptr) && tv.tv_usec >= from_us && tv.tv_usec < to_us; }, 2000);
    return static_cast<int64_t>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

class EngineLiveTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(dev = open_module(), nullptr); }
    void TearDown() override { Recorder::instance().clear(); }  // orders notices before exit

    void send(const char *line, uint8_t cmd_id, uint16_t seq, uint8_t flag) {
        AtCmder_t cmd = {AT_TYPE_QUERY, 0, AT_NODE_ACCESSORY, flag, 0, cmd_id, seq, 0, 0, const_cast<char *>(line)};
        ASSERT_EQ(dev->atcmdprocess_cmd_from_hidl(&cmd), 0);
    }
    void use_uart(int32_t mode, const Pty &line) {  // platform 2: the pty is the serial line
        dev->system_status.platform = PLATFORM_UART;
        dev->system_status.mode = mode;
        line.link_as(sb, "/dev/ttyS4");
        ASSERT_EQ(UART_init(&g_uart_fd), 0);
        ASSERT_EQ(pthread_create(&g_uartRx_thread, nullptr, atcmder_uartRx_thread, nullptr), 0);
    }
    std::string read_copies(const std::string &line, size_t copies) {  // or all by the deadline
        return accessory.read_until([&](const std::string &got) { return got.size() >= line.size() * copies; });
    }
    bool dispatched(const std::string &line) {  // the dispatcher's last line on platform 2
        return sb.wait_log("atcmder_dispatch_thread source is 3, data is " + line) &&
               sb.wait_log("platform is 2, data is " + line);
    }

    Sandbox sb;
    Pty &accessory = kept_pty();
    atcmdprocess_device_t *dev = nullptr;
};

TEST_F(EngineLiveTest, UnansweredRequestIsResentFirstWhenTheSecondTurnsThenTwiceAndReported) {
    dev->system_status.mode = AT_MODE_USB;  // platform 1: the accessory's ACM port is the pty
    accessory.link_as(sb, "/dev/ttyACM3");
    int32_t fd = -1;  // published whole: the live hotplug's unplug at tear-down reads it
    ASSERT_EQ(VUART_init(&fd, 3), 0);
    link_store(g_vuart_fd, fd);
    const int64_t start = clock_within(940000, 960000);
    send("AT+VER?#5&1\r\n", AT_MSG_VER, 5, 1);
    ASSERT_EQ(read_copies("AT+VER?#5&1\r\n", 2), "AT+VER?#5&1\r\nAT+VER?#5&1\r\n");
    const int64_t resent = clock_within(0, 1000000);  // not after the time-out, but as the second turned
    EXPECT_EQ(resent / 1000000, start / 1000000 + 1);
    EXPECT_LT(resent - start, ATCMD_TIMEOUT_DEFAULT);
    EXPECT_EQ(read_copies("AT+VER?#5&1\r\n", 1), "AT+VER?#5&1\r\n");
    ASSERT_TRUE(sb.wait_log("No. 5 atcmd has been removed since timeout, data is AT+VER?#5&1"));
    ASSERT_EQ(Recorder::instance().notices().size(), 1u);
    const Notice n = Recorder::instance().notices()[0];
    EXPECT_EQ(std::tie(n.msg_id, n.seq_num, n.values),
              std::make_tuple(uint16_t{AT_MSG_ERROR}, uint16_t{5}, std::vector<int32_t>{-110}));
    const std::string log = sb.log_text();
    const std::string last = "Re-send timeout cmd: 5 times: " + std::to_string(ATCMD_MAX_RESENDS);
    EXPECT_LT(log.find("Re-send timeout cmd: 5 times: 1"), log.find(last));
    EXPECT_LT(log.find(last), log.find("Timeout happened"));
    EXPECT_TRUE(queues_idle());
}

TEST_F(EngineLiveTest, AnswerStopsResendsLinesArriveInOrderAndPlatformOneLinesAreForwarded) {
    ASSERT_EQ(mkfifo(sb.path("/dev/fifo_tx").c_str(), 0600), 0);
    const int peer = open(sb.path("/dev/fifo_tx").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    g_fifo_tx_fd = open(sb.path("/dev/fifo_tx").c_str(), O_WRONLY | O_CLOEXEC);
    g_timeout = ATCMD_TIMEOUT_WIFI_SERVER;  // room for the answer well before any resend
    use_uart(AT_MODE_WIFI, accessory);
    const int slave = open(accessory.slave_path().c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC);
    clock_within(100000, 400000);  // far from the second boundary, which forces a resend
    send("AT+STARTUP?#3&2\r\n", AT_MSG_STARTUP, 3, 2);
    ASSERT_EQ(read_copies("AT+STARTUP?#3&2\r\n", 1), "AT+STARTUP?#3&2\r\n");
    accessory.write("+STARTUP#1&2\r\n+STARTUP#2&2\r\n+STARTUP#3");
    ASSERT_TRUE(wait_until([&] { int n = -1; return !ioctl(slave, FIONREAD, &n) && n == 0; }));  // read alone
    accessory.write("&2\r\n");
    ASSERT_TRUE(dispatched("+STARTUP#3&2"));
    ASSERT_TRUE(wait_until(queues_idle));
    std::string log = sb.log_text();
    EXPECT_EQ(log.find("Re-send"), std::string::npos);
    size_t at = 0;
    for (const std::string line : {"+STARTUP#1&2", "+STARTUP#2&2", "+STARTUP#3&2"})
        EXPECT_NE(at = log.find("source is 3, data is " + line, at), std::string::npos) << line;
    EXPECT_NE(log.find("Uart rcv data length is 42, receive data is +STARTUP#1&2\r\n+STARTUP#2&2\r\n"
                       "+STARTUP#3&2\r\n"), std::string::npos);  // the held part waited: one read
    accessory.write("+DTR=1#4&1\r\n+VER=1.0#3&1\r\n");  // Wi-Fi mode: +DTR kept, +VER forwarded
    ASSERT_TRUE(dispatched("+DTR=1#4&1"));
    ASSERT_TRUE(sb.wait_log("atcmder_Tx_thread send cmd success,dest is 1, mode is 1, cmd is +VER"));
    char buf[64];
    const ssize_t n = read(peer, buf, sizeof buf);  // written whole before the success line
    EXPECT_EQ(std::string(buf, n > 0 ? static_cast<size_t>(n) : 0), "+VER=1.0#3&1\r\n");
}

TEST_F(EngineLiveTest, VanishedUartIsReportedAndPickedUpWhenItReturns) {
    const Pty *gone = new Pty;
    use_uart(AT_MODE_NONE, *gone);
    unlink(sb.path("/dev/ttyS4").c_str());
    delete gone;  // the module's read now fails, and the port cannot be opened again
    ASSERT_TRUE(Recorder::instance().wait_for(AT_MSG_ERROR));
    const Notice n = Recorder::instance().notices().at(0);
    EXPECT_EQ(std::tie(n.seq_num, n.values), std::make_tuple(uint16_t{0}, std::vector<int32_t>{-6}));
    EXPECT_TRUE(sb.wait_log("uart cannot receive data, uart will be re-init!") && sb.wait_log("uart does not work"));
    accessory.link_as(sb, "/dev/ttyS4");  // the line is back
    ASSERT_TRUE(wait_until([&] {  // opened a second time
        return sb.log_text().find("Init uart") != sb.log_text().rfind("Init uart"); }));
    accessory.write("+STARTUP#8&2\r\n");
    EXPECT_TRUE(dispatched("+STARTUP#8&2"));
}
