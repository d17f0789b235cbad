// The transmit path: the channel chosen by platform, mode and destination, the status codes of
// closed and failing channels, and which records are watched for an answer.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "serial/serial.h"
#include "support/test_support.h"
#include "wifi/wifi.h"

using namespace atcmd_test;

namespace {

class TransmitTest : public ::testing::Test {
protected:
    void SetUp() override { log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE); }
    void TearDown() override {
        for (int32_t *fd : {&g_uart_fd, &g_vuart_fd, &g_fifo_tx_fd}) {
            if (*fd == -1) continue;  // untouched: the transmit thread may still read it
            close(*fd);
            *fd = -1;
        }
    }
    // The log written since `from`.
    std::string log_since(size_t from) const { return sb.log_text().substr(from); }

    Sandbox sb;
};

uint32_t transmit(const char *line, uint8_t dest) {
    char text[AT_LINE_BUF_SIZE];
    snprintf(text, sizeof text, "%s", line);
    AtCmder_t cmd = {};
    cmd.type = AT_TYPE_QUERY;
    cmd.dest = dest;
    cmd.data = text;
    return atcmder_Tx_process(&cmd);
}

// Whatever is already waiting on `fd`; the write under test has returned, so no wait is needed.
std::string pending(int fd) {
    std::string got;
    char buf[256];
    struct pollfd pfd = {fd, POLLIN, 0};
    while (poll(&pfd, 1, 0) == 1) {
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) break;
        got.append(buf, static_cast<size_t>(n));
    }
    return got;
}

int open_raw_slave(const Pty &pty) {
    const int fd = open(pty.slave_path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    pty.make_slave_raw();
    return fd;
}

}  // namespace

TEST_F(TransmitTest, ChannelByPlatformModeAndDestination) {
    enum Where { Uart, Vuart, Wifi, Nowhere };
    struct Closed {
        uint32_t status;
        const char *message;
    } const closed[] = {{ATCMDER_TX_UART_CLOSED, "uart is not open"},
                        {ATCMDER_TX_VUART_CLOSED, "Vuart is not open"},
                        {ATCMDER_TX_WIFI_CLOSED, "wifi fifo is not opened!"},
                        {ATCMDER_TX_OK, ""}};
    struct Case {
        int32_t platform, mode;
        uint8_t dest;
        Where where;
    } const cases[] = {
        {PLATFORM_VUART, AT_MODE_WIFI, AT_NODE_ACCESSORY, Wifi},  // every dest goes over Wi-Fi
        {PLATFORM_VUART, AT_MODE_USB, AT_NODE_ACCESSORY, Vuart},
        {PLATFORM_VUART, AT_MODE_NONE, AT_NODE_PLATFORM1, Vuart},
        {PLATFORM_UART, AT_MODE_WIFI, AT_NODE_PLATFORM1, Wifi},
        {PLATFORM_UART, AT_MODE_WIFI, AT_NODE_ACCESSORY, Uart},  // only node 1 over Wi-Fi
        {PLATFORM_UART, AT_MODE_USB, AT_NODE_PLATFORM1, Uart},
        {3, AT_MODE_WIFI, AT_NODE_PLATFORM1, Nowhere},
    };
    const char line[] = "AT+SN?#13&2\r\n";
    for (const Case &c : cases) {  // every channel closed
        SCOPED_TRACE(testing::Message() << "closed, row " << (&c - cases));
        bare_device(c.platform)->system_status.mode = c.mode;
        const size_t from = sb.log_text().size();
        EXPECT_EQ(transmit(line, c.dest), closed[c.where].status);
        const std::string written = log_since(from);
        if (c.where == Nowhere) {
            EXPECT_EQ(written, "");
        } else {
            EXPECT_NE(written.find(closed[c.where].message), std::string::npos) << written;
        }
    }

    Pty uart, vuart;
    g_uart_fd = open_raw_slave(uart);
    g_vuart_fd = open_raw_slave(vuart);
    const std::string fifo = sb.path("/dev/fifo_tx");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int fifo_reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    g_fifo_tx_fd = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fifo_reader, 0);
    for (const Case &c : cases) {  // every channel open: the text goes to one of them
        SCOPED_TRACE(testing::Message() << "open, row " << (&c - cases));
        bare_device(c.platform)->system_status.mode = c.mode;
        EXPECT_EQ(transmit(line, c.dest), ATCMDER_TX_OK);
        EXPECT_EQ(pending(uart.master()), c.where == Uart ? line : "");
        EXPECT_EQ(pending(vuart.master()), c.where == Vuart ? line : "");
        EXPECT_EQ(pending(fifo_reader), c.where == Wifi ? line : "");
    }
    close(fifo_reader);
}

TEST_F(TransmitTest, FailedWifiWriteKeepsEachBranchsMessages) {
    g_fifo_tx_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);  // every write fails
    bare_device(PLATFORM_UART)->system_status.mode = AT_MODE_WIFI;
    size_t from = sb.log_text().size();
    EXPECT_EQ(transmit("+OK\r\n", AT_NODE_PLATFORM1), ATCMDER_TX_WIFI_WRITE_FAILED);
    std::string written = log_since(from);
    EXPECT_NE(written.find("wifi fifotx fails to write data +OK"), std::string::npos) << written;
    EXPECT_EQ(written.find("successfully"), std::string::npos) << written;

    // The server side logs its success line before it looks at the result.
    bare_device(PLATFORM_VUART)->system_status.mode = AT_MODE_WIFI;
    from = sb.log_text().size();
    EXPECT_EQ(transmit("+OK\r\n", AT_NODE_ACCESSORY), ATCMDER_TX_WIFI_WRITE_FAILED);
    written = log_since(from);
    const size_t success = written.find("wifi fifotx successfully send data +OK");
    const size_t failure = written.find("atcmder_Tx_process fifotx fail to send data +OK");
    ASSERT_NE(success, std::string::npos) << written;
    ASSERT_NE(failure, std::string::npos) << written;
    EXPECT_LT(success, failure);
}

TEST_F(TransmitTest, OnlyOwnNumberedRequestsUpToWificonAreWatched) {
    bare_device(PLATFORM_VUART);  // the VUART is closed: every record is dropped after the watch
    struct Case {
        uint8_t type, flag, cmd_id;
        uint16_t seq_num;
        bool watched;
    } cases[] = {
        {AT_TYPE_QUERY, 1, AT_MSG_VER, 11, true},
        {AT_TYPE_EXEC, 1, AT_MSG_REBOOT, 5, true},
        {AT_TYPE_SET, 1, AT_MSG_WIFICON, 18, true},
        {AT_TYPE_QUERY, 1, AT_MSG_VER, 0, false},          // no sequence number
        {AT_TYPE_QUERY, 2, AT_MSG_VER, 21, false},         // the other platform's request
        {AT_TYPE_QUERY, 1, AT_MSG_MICMODE, 19, false},     // row beyond "+WIFICON"
        {AT_TYPE_RESPONSE, 1, AT_MSG_STATE, 40, false},
        {AT_TYPE_REPORT, 1, AT_MSG_BATCG, 41, false},
        {0, 1, AT_MSG_REBOOT, 42, false},
    };
    std::set<uint16_t> expected;
    for (const Case &c : cases) {
        char text[AT_LINE_BUF_SIZE];
        snprintf(text, sizeof text, "AT+X#%u&%u\r\n", c.seq_num, c.flag);
        AtCmder_t cmd = {c.type, 0, AT_NODE_ACCESSORY, c.flag, 0, c.cmd_id, c.seq_num, 0, 0, text};
        atcmder_send_to_tx(&cmd);
        if (c.watched) expected.insert(c.seq_num);
    }
    const time_t before = time(nullptr);
    ASSERT_EQ(pthread_create(&g_Tx_thread, nullptr, atcmder_Tx_thread, nullptr), 0);

    // Every record reaches the closed channel in turn: a dropped one does not stop the thread.
    auto drops = [&] {
        const std::string log = sb.log_text();
        size_t n = 0;
        for (size_t at = log.find("Vuart is not open"); at != std::string::npos;
             at = log.find("Vuart is not open", at + 1)) {
            ++n;
        }
        return n;
    };
    ASSERT_TRUE(wait_until([&] { return drops() == std::size(cases); }));

    std::set<uint16_t> watched;
    for (const QueuedLine &q : drain_queue(&Timeout_head, &g_timeoutqueue_mutex)) {
        watched.insert(q.cmd.seq_num);
        EXPECT_GE(q.cmd.tv_sec, before);
        EXPECT_EQ(q.text, "AT+X#" + std::to_string(q.cmd.seq_num) + "&1\r\n");
    }
    EXPECT_EQ(watched, expected);
    // The watch is in place before the line is written.
    const std::string log = sb.log_text();
    EXPECT_LT(log.find("Timeout buf enqueued cmd AT+X#11&1"), log.find("Vuart is not open"));
}

TEST_F(TransmitTest, PeerThatClosedItsFifoEndDoesNotEndTheProcess) {
    bare_device(PLATFORM_VUART)->system_status.mode = AT_MODE_WIFI;
    const std::string fifo = sb.path("/dev/fifo_tx");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int peer = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    g_fifo_tx_fd = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
    close(peer);  // writing now raises SIGPIPE unless the transmit thread holds it off

    char text[] = "+OK\r\n";
    AtCmder_t cmd = {AT_TYPE_RESPONSE, 0, AT_NODE_ACCESSORY, 0, 0, AT_MSG_OK, 0, 0, 0, text};
    atcmder_send_to_tx(&cmd);
    ASSERT_EQ(pthread_create(&g_Tx_thread, nullptr, atcmder_Tx_thread, nullptr), 0);
    EXPECT_TRUE(sb.wait_log("atcmder_Tx_process fifotx fail to send data +OK"));
}
