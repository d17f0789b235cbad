// The engine end to end with a pseudo-terminal playing the accessory: the exact bytes of a
// request, its resends and final report, an answer stopping them, the second-boundary resend,
// bridging on the Wi-Fi client side, receive framing into the dispatcher, and a vanished UART.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <new>

#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "serial/serial.h"
#include "supervision/supervision.h"
#include "support/test_support.h"
#include "wifi/wifi.h"

using namespace atcmd_test;

namespace {

// The accessory's pty lives in static storage and is never destroyed: the receive thread
// outlives the test and must not see the line die while the process exits. One per process.
Pty &kept_open_pty() {
    alignas(Pty) static unsigned char storage[sizeof(Pty)];
    return *new (storage) Pty;
}

long wall_us() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return tv.tv_sec * 1000000L + tv.tv_usec;
}

// Waits until the wall clock is between `from_us` and `to_us` into a second; returns the time.
long clock_within(long from_us, long to_us) {
    long t = 0;
    wait_until([&] {
        t = wall_us();
        return t % 1000000 >= from_us && t % 1000000 < to_us;
    }, 2000);
    return t;
}

size_t count_of(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

bool queues_idle() {
    return atcmder_empty_queue(&Tx_head, &g_txqueue_mutex) == 1 &&
           atcmder_empty_queue(&Timeout_head, &g_timeoutqueue_mutex) == 1;
}

void send_request(atcmdprocess_device_t *dev, const char *line, uint8_t cmd_id, uint16_t seq,
                  uint8_t flag) {
    char text[AT_LINE_BUF_SIZE];
    snprintf(text, sizeof text, "%s", line);
    AtCmder_t cmd = {AT_TYPE_QUERY, 0, AT_NODE_ACCESSORY, flag, 0, cmd_id, seq, 0, 0, text};
    ASSERT_EQ(dev->atcmdprocess_cmd_from_hidl(&cmd), 0);
}

class EngineLiveTest : public ::testing::Test {
protected:
    void SetUp() override {
        Recorder::instance().clear();
        dev = open_module();
        ASSERT_NE(dev, nullptr);
    }

    // Taking the recorder's lock orders every notice delivered so far before its destruction at
    // exit; the engine's threads keep running until then.
    void TearDown() override { Recorder::instance().clear(); }

    // Platform 1 over USB: the accessory's ACM port is the pty.
    void use_vuart() {
        dev->system_status.mode = AT_MODE_USB;
        accessory.link_as(sb, "/dev/ttyACM3");
        ASSERT_EQ(VUART_init(&g_vuart_fd, 3), 0);
    }

    // Platform 2: the pty is the serial line, read by the UART receive thread.
    void use_uart(int32_t mode = AT_MODE_NONE) {
        dev->system_status.platform = PLATFORM_UART;
        dev->system_status.mode = mode;
        accessory.link_as(sb, "/dev/ttyS4");
        ASSERT_EQ(UART_init(&g_uart_fd), 0);
        ASSERT_EQ(pthread_create(&g_uartRx_thread, nullptr, atcmder_uartRx_thread, nullptr), 0);
    }

    std::string read_copies(const std::string &line, size_t copies, int timeout_ms = 3000) {
        return accessory.read_until(
            [&](const std::string &got) { return count_of(got, line) >= copies; }, timeout_ms);
    }

    // The dispatcher's last line for `line` on platform 2, written after the row's parser ran.
    bool dispatched(const std::string &line, int timeout_ms = 3000) {
        return sb.wait_log("atcmder_dispatch_thread source is 3, data is " + line, timeout_ms) &&
               sb.wait_log("platform is 2, data is " + line, timeout_ms);
    }

    Sandbox sb;
    Pty &accessory = kept_open_pty();
    atcmdprocess_device_t *dev = nullptr;
};

}  // namespace

TEST_F(EngineLiveTest, UnansweredRequestIsResentTwiceThenReported) {
    use_vuart();
    send_request(dev, "AT+VER?#5&1\r\n", AT_MSG_VER, 5, 1);

    const std::string wire = read_copies("AT+VER?#5&1\r\n", 3);
    EXPECT_EQ(wire, "AT+VER?#5&1\r\nAT+VER?#5&1\r\nAT+VER?#5&1\r\n");
    ASSERT_TRUE(Recorder::instance().wait_for(AT_MSG_ERROR));
    const Notice n = Recorder::instance().notices().at(0);
    EXPECT_EQ(n.seq_num, 5);
    EXPECT_EQ(n.values, std::vector<int32_t>{-110});
    ASSERT_TRUE(sb.wait_log("No. 5 atcmd has been removed since timeout, data is AT+VER?#5&1"));
    const std::string log = sb.log_text();
    EXPECT_LT(log.find("Re-send timeout cmd: 5 times: 1"), log.find("Re-send timeout cmd: 5 times: 2"));
    EXPECT_LT(log.find("Re-send timeout cmd: 5 times: 2"), log.find("Timeout happened"));
    EXPECT_TRUE(queues_idle());
    EXPECT_EQ(Recorder::instance().count(AT_MSG_ERROR), 1u);
}

TEST_F(EngineLiveTest, AnswerStopsTheResends) {
    g_timeout = ATCMD_TIMEOUT_WIFI_SERVER;  // room for the answer well before any resend
    use_uart();
    clock_within(100000, 400000);  // far from the second boundary, which forces a resend
    send_request(dev, "AT+STARTUP?#6&2\r\n", AT_MSG_STARTUP, 6, 2);
    ASSERT_EQ(read_copies("AT+STARTUP?#6&2\r\n", 1), "AT+STARTUP?#6&2\r\n");

    accessory.write("+STARTUP#6&2\r\n");
    ASSERT_TRUE(sb.wait_log("No. 6 atcmd has been removed!"));
    EXPECT_TRUE(sb.wait_log("atcmder_dispatch type is 4, flag is 2, platform is 2, data is +STARTUP#6&2"));
    ASSERT_TRUE(wait_until(queues_idle));
    EXPECT_EQ(accessory.read_for(0), "");  // nothing was resent
    EXPECT_EQ(sb.log_text().find("Re-send"), std::string::npos);
}

TEST_F(EngineLiveTest, RequestStampedLateInASecondIsResentWhenTheSecondTurns) {
    use_vuart();
    const long start = clock_within(940000, 960000);
    send_request(dev, "AT+SID?#14&1\r\n", AT_MSG_SID, 14, 1);
    ASSERT_EQ(read_copies("AT+SID?#14&1\r\n", 2), "AT+SID?#14&1\r\nAT+SID?#14&1\r\n");
    const long resent = wall_us();
    // Not after 100 ms as within one second, but right after the second turned.
    EXPECT_EQ(resent / 1000000, start / 1000000 + 1);
    EXPECT_LT(resent - start, 100000);
    // Let the request run its course, so that nothing is reported while the process exits.
    EXPECT_TRUE(Recorder::instance().wait_for(AT_MSG_ERROR));
    EXPECT_TRUE(wait_until(queues_idle));
}

TEST_F(EngineLiveTest, WifiClientBridgesPlatformOneLinesButKeepsDtr) {
    const std::string fifo = sb.path("/dev/fifo_tx");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int peer = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(peer, 0);
    g_fifo_tx_fd = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
    use_uart(AT_MODE_WIFI);

    accessory.write("+DTR=1#4&1\r\n");
    ASSERT_TRUE(dispatched("+DTR=1#4&1"));
    accessory.write("+VER=1.0#3&1\r\n");

    std::string bridged;
    ASSERT_TRUE(wait_until([&] {
        char buf[256];
        const ssize_t n = read(peer, buf, sizeof buf);
        if (n > 0) bridged.append(buf, static_cast<size_t>(n));
        return bridged.size() >= strlen("+VER=1.0#3&1\r\n");
    }));
    EXPECT_EQ(bridged, "+VER=1.0#3&1\r\n");
    EXPECT_TRUE(sb.wait_log("atcmder_Tx_thread send cmd success,dest is 1, mode is 1, cmd is +VER"));
    EXPECT_EQ(sb.log_text().find("source is 3, data is +VER"), std::string::npos);  // not dispatched
    close(peer);
}

TEST_F(EngineLiveTest, SplitAndJoinedLinesReachTheDispatcherInOrder) {
    use_uart();
    const int slave = open(accessory.slave_path().c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(slave, 0);
    auto consumed = [&] {
        int queued = -1;
        return ioctl(slave, FIONREAD, &queued) == 0 && queued == 0;
    };

    accessory.write("+STARTUP#1&2\r\n+STARTUP#2&2\r\n+STARTUP#3");
    ASSERT_TRUE(wait_until(consumed));  // the first part was read on its own
    accessory.write("&2\r\n");
    ASSERT_TRUE(dispatched("+STARTUP#3&2"));
    close(slave);

    const std::string log = sb.log_text();
    const size_t first = log.find("source is 3, data is +STARTUP#1&2");
    const size_t second = log.find("source is 3, data is +STARTUP#2&2");
    const size_t third = log.find("source is 3, data is +STARTUP#3&2");
    ASSERT_NE(first, std::string::npos);
    ASSERT_NE(second, std::string::npos);
    EXPECT_LT(first, second);
    EXPECT_LT(second, third);
    // The held part waited for its line end: all three lines went to the parser together.
    EXPECT_EQ(count_of(log, "Uart rcv data length is"), 1u);
    EXPECT_NE(log.find("Uart rcv data length is 42, receive data is +STARTUP#1&2\r\n+STARTUP#2&2\r\n"
                       "+STARTUP#3&2\r\n"),
              std::string::npos);
}

TEST_F(EngineLiveTest, OverlongDataWithoutLineEndIsDroppedAndTheNextLineStillArrives) {
    use_uart();
    accessory.write(std::string(600, 'x'));
    ASSERT_TRUE(sb.wait_log("Uart receive data length is too long, skip it, receive data is xxxx"));
    accessory.write("+STARTUP#7&2\r\n");
    ASSERT_TRUE(dispatched("+STARTUP#7&2"));
    EXPECT_NE(sb.log_text().find("Uart rcv data length is 14, receive data is +STARTUP#7&2"),
              std::string::npos);
}

TEST_F(EngineLiveTest, VanishedUartIsReportedAndPickedUpWhenItReturns) {
    int master = -1, slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    const std::string line = sb.path("/dev/ttyS4");
    ASSERT_EQ(symlink(ptsname(master), line.c_str()), 0);
    dev->system_status.platform = PLATFORM_UART;
    ASSERT_EQ(UART_init(&g_uart_fd), 0);
    ASSERT_EQ(pthread_create(&g_uartRx_thread, nullptr, atcmder_uartRx_thread, nullptr), 0);

    unlink(line.c_str());
    close(slave);
    close(master);  // the module's read now fails, and the port cannot be opened again
    ASSERT_TRUE(Recorder::instance().wait_for(AT_MSG_ERROR));
    const Notice n = Recorder::instance().notices().at(0);
    EXPECT_EQ(n.seq_num, 0);
    EXPECT_EQ(n.values, std::vector<int32_t>{-6});
    EXPECT_TRUE(sb.wait_log("uart cannot receive data, uart will be re-init!"));

    accessory.link_as(sb, "/dev/ttyS4");  // the line is back
    ASSERT_TRUE(wait_until([&] { return count_of(sb.log_text(), "Init uart") == 2; }));
    accessory.write("+STARTUP#8&2\r\n");
    EXPECT_TRUE(dispatched("+STARTUP#8&2"));
}
