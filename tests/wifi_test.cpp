// The Wi-Fi link against a stand-in HID daemon: starting and stopping the daemon on both sides,
// the FIFO channel carrying lines both ways, restarts on "error" and on a lost heartbeat, the
// disconnect sequence, and what happens with missing FIFOs.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <errno.h>

#include <atomic>
#include <memory>
#include <thread>

#include "device/link_words.h"
#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "support/test_support.h"
#include "wifi/wifi.h"

using namespace atcmd_test;

namespace {

void make_fifo(const Sandbox &sb, const char *as_written) {
    ASSERT_EQ(mkfifo(sb.path(as_written).c_str(), 0600), 0) << as_written;
}

// Plays the HID daemon: confirms "exit" requests on "/dev/fifo_cmd" through "vendor.hid_sts"
// (unless told to stay silent), and, while `beating`, relays a rising heartbeat count the way
// the upper layer would.
class StandInDaemon {
public:
    StandInDaemon(const Sandbox &sb, bool confirms_exit) : sb_(sb), confirms_(confirms_exit) {
        make_fifo(sb, "/dev/fifo_cmd");
        cmd_fd_ = open(sb.path("/dev/fifo_cmd").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        thread_ = std::thread([this] { run(); });
    }
    ~StandInDaemon() {
        done_ = true;
        thread_.join();
        close(cmd_fd_);
    }
    int exits() const { return exits_; }
    std::atomic<bool> beating{false};

private:
    void run() {
        uint32_t count = 0;
        while (!done_) {
            struct pollfd pfd = {cmd_fd_, POLLIN, 0};
            if (poll(&pfd, 1, 100) == 1) {
                char word[16] = {};
                if (read(cmd_fd_, word, sizeof word - 1) > 0 && std::string(word) == "exit") {
                    ++exits_;
                    if (confirms_) sb_.set_property("vendor.hid_sts", "exit");
                }
            }
            if (beating) {
                const std::string beat = "heartbeat:" + std::to_string(++count);
                atcmdprocess_hiddemon_stchange(beat.c_str());
            }
        }
    }

    const Sandbox &sb_;
    const bool confirms_;
    int cmd_fd_ = -1;
    std::atomic<int> exits_{0};
    std::atomic<bool> done_{false};
    std::thread thread_;
};

void write_rx(const Sandbox &sb, const std::string &text) {
    const int fd = open(sb.path("/dev/fifo_rx").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
}

// Reads what the module wrote to "/dev/fifo_tx" until it holds `want`.
std::string read_tx(const Sandbox &sb, const std::string &want) {
    const int fd = open(sb.path("/dev/fifo_tx").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const std::string got = read_until(fd, [&](const std::string &s) { return s.find(want) != s.npos; });
    close(fd);
    return got;
}

size_t log_pos(const Sandbox &sb, const std::string &text) { return sb.log_text().find(text); }

int32_t last_wificon() {
    int32_t value = -1;
    for (const Notice &n : Recorder::instance().notices()) {
        if (n.msg_id == AT_MSG_WIFICON && !n.values.empty()) value = n.values[0];
    }
    return value;
}

// Wi-Fi on the server side through the whole module, with the stand-in daemon.
class WifiLiveTest : public ::testing::Test {
protected:
    void SetUp() override {
        make_fifo(sb, "/dev/fifo_rx");
        make_fifo(sb, "/dev/fifo_tx");
        dev = open_module();
        ASSERT_NE(dev, nullptr);
        // The callback is installed after open started the threads. The supervisor's queries
        // reach the time-out thread's notices through the transmit queue's lock; taking it once
        // here orders the installed callback before all of them.
        pthread_mutex_lock(&g_txqueue_mutex);
        pthread_mutex_unlock(&g_txqueue_mutex);
    }
    // The supervisor's queries go out unanswered; their time-out notices must be over before
    // the process (and the recorder) ends.
    void TearDown() override {
        EXPECT_TRUE(wait_until(queues_idle, 10000));
        Recorder::instance().clear();
    }
    void bring_up() {
        daemon.beating = true;
        ASSERT_EQ(dev->atcmdprocess_wifi_init("0.0.0.0"), 0);
        ASSERT_EQ(dev->atcmdprocess_hiddemon_stchange("hiddemon running"), 0);
        ASSERT_TRUE(wait_until([&] { return sb.property("vendor.corvel.timesync") == "enable"; }));
    }
    // A line from the accessory reaches its parser, marked as coming from platform 2.
    void expect_line_arrives(const std::string &sn) {
        Recorder::instance().clear();
        write_rx(sb, "+SN=" + sn + "#13&1\r\n");
        ASSERT_TRUE(Recorder::instance().wait_for(AT_MSG_SN));
        EXPECT_EQ(Recorder::instance().notices().back().text, sn);
        EXPECT_TRUE(sb.wait_log("atcmder_dispatch_thread source is 2, data is +SN=" + sn));
    }

    Sandbox sb;
    StandInDaemon daemon{sb, true};
    atcmdprocess_device_t *dev = nullptr;
};

}  // namespace

TEST_F(WifiLiveTest, LinkComesUpCarriesLinesBothWaysAndDisconnectsInOrder) {
    // Reports before any Wi-Fi init are dropped.
    dev->atcmdprocess_hiddemon_stchange("heartbeat:7");
    dev->atcmdprocess_hiddemon_stchange("running");
    EXPECT_EQ(g_wifiHBeat_num, 0u);
    EXPECT_EQ(log_pos(sb, "hiddemon status is"), std::string::npos);

    bring_up();
    EXPECT_EQ(sb.property("vendor.hid_cmd"), "start_server");
    EXPECT_EQ(daemon.exits(), 0);  // the server start stops nothing
    EXPECT_EQ(dev->system_status.mode, AT_MODE_WIFI);
    EXPECT_NE(link_load(g_wifiRx_thread), 0u);
    EXPECT_NE(link_load(g_wifiHBeat_thread), 0u);
    ASSERT_TRUE(Recorder::instance().wait_for(AT_MSG_WIFICON));
    EXPECT_EQ(last_wificon(), 1);

    expect_line_arrives("QV1");
    const std::string request = "AT+VER?#5&1\r\n";
    AtCmder_t cmd = {AT_TYPE_QUERY, 0, AT_NODE_ACCESSORY, 1, 0, AT_MSG_VER, 5, 0, 0,
                     const_cast<char *>(request.c_str())};
    dev->atcmdprocess_cmd_from_hidl(&cmd);
    EXPECT_NE(read_tx(sb, request).find(request), std::string::npos);

    ASSERT_EQ(dev->atcmdprocess_wifi_stchange(1), 0);  // only 0 does anything
    EXPECT_EQ(dev->system_status.wifi_status, 1);
    ASSERT_EQ(dev->atcmdprocess_wifi_stchange(0), 0);
    EXPECT_EQ(dev->system_status.wifi_status, 0);
    EXPECT_EQ(dev->system_status.mode, AT_MODE_NONE);
    EXPECT_EQ(sb.property("vendor.corvel.timesync"), "disable");
    EXPECT_EQ(last_wificon(), 0);
    EXPECT_EQ(g_fifo_rx_fd, -1);
    EXPECT_EQ(g_fifo_tx_fd, -1);
    EXPECT_EQ(g_wifiRx_thread, 0u);
    EXPECT_EQ(g_wifiHBeat_thread, 0u);
    const size_t stopped = log_pos(sb, "Process Hiddemon exits successfully!");
    const size_t told = log_pos(sb, "notify_wifi_stated 0");
    const size_t closed = log_pos(sb, "wifi channel has been closed");
    const size_t beat_ended = sb.log_text().rfind("receive signal is 14");
    ASSERT_NE(beat_ended, std::string::npos);
    EXPECT_LT(stopped, told);
    EXPECT_LT(told, closed);
    EXPECT_LT(closed, beat_ended);

    // With the link no longer wanted, a "running" report starts nothing.
    dev->atcmdprocess_hiddemon_stchange("running");
    EXPECT_FALSE(wait_until([] { return link_load(g_wifiHBeat_thread) != 0; }, 300));
}

TEST_F(WifiLiveTest, DaemonErrorRestartsItAndTheLinkWorksWhenItRunsAgain) {
    bring_up();
    expect_line_arrives("QV1");
    sb.set_property("vendor.hid_cmd", "");
    dev->atcmdprocess_hiddemon_stchange("hiddemon error");
    EXPECT_EQ(daemon.exits(), 1);
    EXPECT_EQ(sb.property("vendor.hid_cmd"), "start_server");
    EXPECT_EQ(last_wificon(), 0);
    dev->atcmdprocess_hiddemon_stchange("running");
    EXPECT_EQ(last_wificon(), 1);
    expect_line_arrives("QV2");
}

TEST_F(WifiLiveTest, LostHeartbeatClosesTheChannelAndRestartsTheDaemon) {
    ASSERT_EQ(dev->atcmdprocess_wifi_init("0.0.0.0"), 0);
    dev->atcmdprocess_hiddemon_stchange("heartbeat:41");
    dev->atcmdprocess_hiddemon_stchange("heartbeat");  // no count: keeps 41
    EXPECT_EQ(g_wifiHBeat_num, 41u);
    dev->atcmdprocess_hiddemon_stchange("running");
    ASSERT_TRUE(wait_until([] { return link_load(g_fifo_rx_fd) >= 0; }));
    sb.set_property("vendor.hid_cmd", "");
    ASSERT_TRUE(sb.wait_log("!! HID demon lost heart beat, will restart! wifiHBeat_num is 41 .",
                            9000));
    ASSERT_TRUE(wait_until([&] { return sb.property("vendor.hid_cmd") == "start_server"; }));
    EXPECT_EQ(daemon.exits(), 1);
    EXPECT_EQ(link_load(g_fifo_rx_fd), -1);
    EXPECT_EQ(link_load(g_wifiRx_thread), 0u);
    EXPECT_NE(link_load(g_wifiHBeat_thread), 0u);  // it goes on watching
}

TEST_F(WifiLiveTest, MissingReceiveFifoIsReportedAndTheNextRunningReportRecovers) {
    unlink(sb.path("/dev/fifo_rx").c_str());
    ASSERT_EQ(dev->atcmdprocess_wifi_init("0.0.0.0"), 0);
    daemon.beating = true;
    dev->atcmdprocess_hiddemon_stchange("running");
    ASSERT_TRUE(sb.wait_log("cannot open device: /dev/fifo_rx"));
    ASSERT_TRUE(sb.wait_log("atcmder_wifiRx_thread exits!"));
    // The thread that ended at once leaves its handle clear, so a later report starts another.
    ASSERT_TRUE(wait_until([] { return link_load(g_wifiRx_thread) == 0; }));
    make_fifo(sb, "/dev/fifo_rx");
    dev->atcmdprocess_hiddemon_stchange("running");
    ASSERT_TRUE(sb.wait_log("FIFO_RX and FIFO_TX open successfully!"));
    expect_line_arrives("QV3");
}

TEST(WifiChannelTest, MissingTransmitFifoGivesCodeTenAndKeepsTheReceiveFifoOpen) {
    Sandbox sb(kWithLog);
    bare_device();
    make_fifo(sb, "/dev/fifo_rx");
    EXPECT_EQ(Socket_Fifo_Init(), 10);
    EXPECT_TRUE(sb.wait_log("cannot open device: /dev/fifo_rx"));  // named whichever failed
    EXPECT_GE(g_fifo_rx_fd, 0);
    EXPECT_EQ(epfd_socket, 0);
    stop_wifi_channel();
    EXPECT_EQ(g_fifo_rx_fd, -1);
}

TEST(WifiChannelTest, LinesAreMarkedAsComingFromTheOtherPlatform) {
    for (const auto &c : {std::pair<int32_t, uint8_t>{PLATFORM_VUART, AT_NODE_PLATFORM2},
                          {PLATFORM_UART, AT_NODE_PLATFORM1}}) {
        Sandbox sb;
        bare_device(c.first);
        make_fifo(sb, "/dev/fifo_rx");
        make_fifo(sb, "/dev/fifo_tx");
        ASSERT_EQ(Socket_Fifo_Init(), 0);
        ASSERT_EQ(pthread_create(&g_wifiRx_thread, nullptr, atcmder_wifiRx_thread, nullptr), 0);
        write_rx(sb, "+BAT=87,1,4120,250,1,0\r\n");
        ASSERT_TRUE(wait_until([] { return atcmder_empty_queue(&Rx_head, &g_rxqueue_mutex) == 0; }));
        const std::vector<QueuedLine> lines = drain_queue(&Rx_head, &g_rxqueue_mutex);
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].cmd.source, c.second);
        EXPECT_EQ(lines[0].cmd.cmd_id, AT_MSG_BAT);
        stop_wifi_channel();
        EXPECT_EQ(g_wifiRx_thread, 0u);
        EXPECT_EQ(epfd_socket, 0);
    }
}

TEST(WifiDaemonTest, ClientStartStopsTheDaemonOnlyForANewServer) {
    Sandbox sb(kWithLog);
    atcmdprocess_device_t *dev = bare_device(PLATFORM_UART);
    StandInDaemon daemon(sb, true);
    ASSERT_EQ(atcmdprocess_wifi_init("192.168.4.1"), 0);  // the kept address is empty at first
    EXPECT_EQ(daemon.exits(), 1);
    EXPECT_EQ(sb.property("vendor.hid_cmd"), "start_client");
    EXPECT_EQ(sb.property("vendor.hid_sts"), "192.168.4.1");
    EXPECT_STREQ(dev->server_ip, "192.168.4.1");
    EXPECT_EQ(dev->system_status.wifi_status, 1);
    ASSERT_EQ(atcmdprocess_wifi_init("192.168.4.1"), 0);
    EXPECT_EQ(daemon.exits(), 1);
    ASSERT_EQ(atcmdprocess_wifi_init("192.168.4.2"), 0);
    EXPECT_EQ(daemon.exits(), 2);
    EXPECT_EQ(atcmdprocess_wifi_init("192.168.100.100x"), -EINVAL);  // cannot be kept whole
    EXPECT_EQ(atcmdprocess_wifi_init(nullptr), -EINVAL);
    EXPECT_STREQ(dev->server_ip, "192.168.4.2");
}

TEST(WifiDaemonTest, UnconfirmedOrImpossibleStopFallsBackToTheProperty) {
    struct Case {
        int32_t platform;
        bool fifo_cmd, confirms;
        const char *log_line;
        const char *hid_cmd;
    };
    const Case cases[] = {
        {PLATFORM_VUART, true, true, "Process Hiddemon exits successfully!", ""},
        {PLATFORM_VUART, true, false, " hiddemon exit fails, will be killed!", "stop_server"},
        {PLATFORM_UART, true, false, " hiddemon exit fails, will be killed!", "stop_client"},
        {PLATFORM_UART, false, false, "cannot open device: /dev/fifo_cmd, will kill hiddemon!",
         "stop_client"},
    };
    for (const Case &c : cases) {
        Sandbox sb(kWithLog);
        bare_device(c.platform);
        std::unique_ptr<StandInDaemon> daemon;
        if (c.fifo_cmd) daemon = std::make_unique<StandInDaemon>(sb, c.confirms);
        stop_hiddemon();
        EXPECT_NE(log_pos(sb, c.log_line), std::string::npos) << c.log_line;
        EXPECT_EQ(sb.property("vendor.hid_cmd"), c.hid_cmd) << c.log_line;
    }
}

TEST(WifiDaemonTest, WifiStateGoesUpAndOnTheClientSideToTheAccessory) {
    struct Case {
        int32_t platform, state;
        const char *line;  // "" when nothing is queued
    };
    const Case cases[] = {
        {PLATFORM_VUART, 1, ""},
        {PLATFORM_UART, 1, "AT+WIFICON=1#18&2\r\n"},
        {PLATFORM_UART, 0, "AT+WIFICON=0#18&2\r\n"},
        {PLATFORM_UART, 7, ""},
    };
    for (const Case &c : cases) {
        Sandbox sb;
        bare_device(c.platform);
        Recorder::instance().clear();
        notify_wifi_state(c.state);
        EXPECT_EQ(last_wificon(), c.state);
        const std::vector<QueuedLine> queued = drain_tx_queue();
        if (c.line[0] == '\0') {
            EXPECT_TRUE(queued.empty()) << c.state;
            continue;
        }
        ASSERT_EQ(queued.size(), 1u);
        const AtCmder_t &q = queued[0].cmd;
        EXPECT_EQ(std::make_tuple(queued[0].text, +q.type, +q.dest, +q.flag, +q.cmd_id, +q.seq_num),
                  std::make_tuple(std::string(c.line), +AT_TYPE_SET, +AT_NODE_ACCESSORY, PLATFORM_UART,
                                  +AT_MSG_WIFICON, 18));
    }
}
