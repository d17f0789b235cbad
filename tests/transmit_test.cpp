// The transmit path: channel choice, status codes, and which records are watched for an answer.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "serial/serial.h"
#include "support/test_support.h"
#include "wifi/wifi.h"

using namespace atcmd_test;

static std::string pending(int fd) {  // what already waits on `fd`: the write has returned
    char buf[256];
    struct pollfd p = {fd, POLLIN, 0};
    const ssize_t n = poll(&p, 1, 0) == 1 ? read(fd, buf, sizeof buf) : 0;
    return std::string(buf, n > 0 ? static_cast<size_t>(n) : 0);
}

TEST(TransmitTest, ChannelStatusAndAnswerWatchByPlatformModeAndDestination) {
    Sandbox sb(kWithLog);
    enum Where { Uart, Vuart, Wifi, Nowhere };
    const uint32_t closed[] = {ATCMDER_TX_UART_CLOSED, ATCMDER_TX_VUART_CLOSED, ATCMDER_TX_WIFI_CLOSED, 0};
    struct Case { int32_t platform, mode; uint8_t dest; Where where; } const cases[] = {
        {1, AT_MODE_WIFI, AT_NODE_ACCESSORY, Wifi}, {2, AT_MODE_WIFI, AT_NODE_PLATFORM1, Wifi},
        {1, AT_MODE_USB, AT_NODE_ACCESSORY, Vuart}, {2, AT_MODE_WIFI, AT_NODE_ACCESSORY, Uart},
        {1, AT_MODE_NONE, AT_NODE_PLATFORM1, Vuart}, {2, AT_MODE_USB, AT_NODE_PLATFORM1, Uart},
        {3, AT_MODE_WIFI, AT_NODE_PLATFORM1, Nowhere}};  // Wi-Fi: platform 1 all, platform 2 node 1
    char line[32] = "AT+SN?#13&2\r\n";
    auto tx = [&](const Case &c) {
        bare_device(c.platform)->system_status.mode = c.mode;
        AtCmder_t cmd = {AT_TYPE_QUERY, 0, c.dest, 0, 0, 0, 0, 0, 0, line};
        return atcmder_Tx_process(&cmd);
    };
    for (const Case &c : cases)  // every channel closed
        EXPECT_EQ(tx(c), closed[c.where]) << "closed, row " << (&c - cases);
    g_fifo_tx_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);  // every write fails
    EXPECT_EQ(tx(cases[1]), ATCMDER_TX_WIFI_WRITE_FAILED);  // platform 2 logs the failure alone
    EXPECT_NE(sb.log_text().find("wifi fifotx fails to write data AT+SN?#13&2"), std::string::npos);
    EXPECT_EQ(sb.log_text().find("successfully"), std::string::npos);

    Pty uart, vuart;
    g_uart_fd = open(uart.slave_path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    g_vuart_fd = open(vuart.slave_path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    for (int fd : {g_uart_fd, g_vuart_fd}) {  // raw, so the text reaches the master unchanged
        struct termios tio;
        tcgetattr(fd, &tio);
        cfmakeraw(&tio);
        tcsetattr(fd, TCSANOW, &tio);
    }
    ASSERT_EQ(mkfifo(sb.path("/dev/fifo_tx").c_str(), 0600), 0);
    const int fifo = open(sb.path("/dev/fifo_tx").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    g_fifo_tx_fd = open(sb.path("/dev/fifo_tx").c_str(), O_WRONLY | O_CLOEXEC);
    const int reads[] = {uart.master(), vuart.master(), fifo};
    for (const Case &c : cases) {  // every channel open: the text goes to one of them
        SCOPED_TRACE(testing::Message() << "open, row " << (&c - cases));
        EXPECT_EQ(tx(c), ATCMDER_TX_OK);
        for (int w : {Uart, Vuart, Wifi}) EXPECT_EQ(pending(reads[w]), c.where == w ? line : "");
    }

    // The peer closes its end: each write by the transmit thread fails (SIGPIPE held off) and it
    // goes on; only own numbered requests up to +WIFICON are watched, before the write.
    close(fifo);
    bare_device(PLATFORM_VUART)->system_status.mode = AT_MODE_WIFI;
    struct Req { uint8_t type, flag, cmd_id; uint16_t seq_num; } const reqs[] = {
        {AT_TYPE_QUERY, 1, AT_MSG_VER, 11}, {AT_TYPE_EXEC, 1, AT_MSG_REBOOT, 5},
        {AT_TYPE_SET, 1, AT_MSG_WIFICON, 18}, {AT_TYPE_QUERY, 1, AT_MSG_VER, 0},
        {AT_TYPE_QUERY, 2, AT_MSG_VER, 21}, {AT_TYPE_QUERY, 1, AT_MSG_MICMODE, 19},
        {AT_TYPE_RESPONSE, 1, AT_MSG_STATE, 40}, {AT_TYPE_REPORT, 1, AT_MSG_BATCG, 41}};
    for (const Req &r : reqs) {
        snprintf(line, sizeof line, "AT+X#%u&%u\r\n", r.seq_num, r.flag);
        AtCmder_t cmd = {r.type, 0, AT_NODE_ACCESSORY, r.flag, 0, r.cmd_id, r.seq_num, 0, 0, line};
        atcmder_send_to_tx(&cmd);
    }
    ASSERT_EQ(pthread_create(&g_Tx_thread, nullptr, atcmder_Tx_thread, nullptr), 0);
    ASSERT_TRUE(sb.wait_log("atcmder_Tx_process fifotx fail to send data AT+X#41&1"));
    std::vector<uint16_t> watched;
    for (const QueuedLine &q : drain_queue(&Timeout_head, &g_timeoutqueue_mutex))
        watched.push_back(q.cmd.seq_num);
    EXPECT_EQ(watched, (std::vector<uint16_t>{11, 5, 18}));
    const std::string log = sb.log_text();  // platform 1 logs success before its failure
    const size_t success = log.find("wifi fifotx successfully send data AT+X#11&1");
    EXPECT_LT(log.find("Timeout buf enqueued cmd AT+X#11&1"), success);
    EXPECT_LT(success, log.find("atcmder_Tx_process fifotx fail to send data AT+X#11&1"));
}
