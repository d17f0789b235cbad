// The Wi-Fi link against the daemon simulator (tools/sim), its reports relayed to the module as
// the upper layer relays them: starting and stopping the daemon on both sides, the FIFO channel
// carrying lines both ways, the restart on "error", the disconnect order, and what happens with
// missing FIFOs or a daemon that does not confirm its exit.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <errno.h>

#include <atomic>
#include <chrono>
#include <functional>

#include "device/link_words.h"
#include "sim/daemon_sim.h"
#include "support/test_support.h"
#include "wifi/wifi.h"

using namespace atcmd_test;
using namespace atcmd_tools;

namespace {

constexpr int kLongWait = 15000;  // the machine is loaded: generous deadlines everywhere
// A link change under a streaming peer ends within the daemon stop's one second and the state
// notice's delay, with room for a loaded machine; a peer that holds it never lets it end.
constexpr int kLinkChangeBound = 5000;

void make_fifo(const Sandbox &sb, const char *as_written) {
    ASSERT_EQ(mkfifo(sb.path(as_written).c_str(), 0600), 0) << as_written;
}

// The daemon simulator with the accessory simulator behind its FIFOs; while `relay` holds, its
// status reports reach the module as the upper layer passes them on.
struct Daemon {
    static void report(void *ctx, const std::string &status) {
        if (static_cast<Daemon *>(ctx)->relay) atcmdprocess_hiddemon_stchange(status.c_str());
    }
    DaemonCounters counters() { return daemon_sim_counters(sim); }
    ~Daemon() {
        daemon_sim_destroy(sim);
        acc_sim_destroy(acc);
    }
    std::atomic<bool> relay{true};
    AccSim *acc = acc_sim_create(AccIdentity{}, nullptr, nullptr);
    DaemonSim *sim = daemon_sim_create(acc, report, nullptr, this);
};

void write_rx(const Sandbox &sb, const std::string &text) {
    const int fd = open(sb.path("/dev/fifo_rx").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
}

// Waits for a notice of `msg_id` that `match` accepts: the accessory behind the daemon also
// answers the module's own interrogation meanwhile.
bool notified(uint16_t msg_id, const std::function<bool(const Notice &)> &match) {
    return wait_until([&] {
        for (const Notice &n : Recorder::instance().notices()) {
            if (n.msg_id == msg_id && match(n)) return true;
        }
        return false;
    }, kLongWait);
}

int32_t last_wificon() {
    const std::vector<int32_t> v = Recorder::instance().last(AT_MSG_WIFICON).values;
    return v.empty() ? -1 : v[0];
}

// Wi-Fi on the server side through the whole module.
class WifiLiveTest : public ::testing::Test {
protected:
    void SetUp() override {
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
    // A line from the accessory reaches its parser, marked as coming from platform 2.
    void expect_line_arrives(const std::string &sn) {
        write_rx(sb, "+SN=" + sn + "#13&1\r\n");
        EXPECT_TRUE(notified(AT_MSG_SN, [&](const Notice &n) { return n.text == sn; }));
        EXPECT_TRUE(sb.wait_log("atcmder_dispatch_thread source is 2, data is +SN=" + sn));
    }

    // Wi-Fi wanted and the daemon's "running" taken: the channel is open and read.
    void link_up() {
        ASSERT_EQ(dev->atcmdprocess_wifi_init("0.0.0.0"), 0);
        ASSERT_TRUE(wait_until([&] { return sb.property("vendor.corvel.timesync") == "enable"; }, kLongWait));
    }

    Sandbox sb;
    Daemon daemon;
    atcmdprocess_device_t *dev = nullptr;
};

long long ms_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

TEST_F(WifiLiveTest, LinkComesUpCarriesLinesBothWaysRestartsOnErrorAndDisconnectsInOrder) {
    // Reports before any Wi-Fi init are dropped.
    dev->atcmdprocess_hiddemon_stchange("heartbeat:7");
    dev->atcmdprocess_hiddemon_stchange("running");
    EXPECT_EQ(g_wifiHBeat_num, 0u);
    EXPECT_EQ(sb.log_text().find("hiddemon status is"), std::string::npos);

    ASSERT_EQ(dev->atcmdprocess_wifi_init("0.0.0.0"), 0);
    ASSERT_TRUE(wait_until([&] { return sb.property("vendor.corvel.timesync") == "enable"; }, kLongWait));
    EXPECT_EQ(sb.property("vendor.hid_cmd"), "start_server");
    EXPECT_EQ(daemon.counters().exits, 0);  // the server start stops nothing
    EXPECT_TRUE(dev->system_status.mode == AT_MODE_WIFI && link_load(g_wifiRx_thread) != 0 &&
                link_load(g_wifiHBeat_thread) != 0);
    ASSERT_TRUE(Recorder::instance().wait_for(AT_MSG_WIFICON) && last_wificon() == 1);

    expect_line_arrives("QV1");
    // A request leaves on fifo_tx; the accessory behind the daemon answers it on fifo_rx.
    char request[] = "AT+VER?#5&1\r\n";
    AtCmder_t cmd = {AT_TYPE_QUERY, 0, AT_NODE_ACCESSORY, 1, 0, AT_MSG_VER, 5, 0, 0, request};
    dev->atcmdprocess_cmd_from_hidl(&cmd);
    EXPECT_TRUE(notified(AT_MSG_VER, [](const Notice &n) { return n.seq_num == 5; }));

    // "error": the upper layer hears the link is down, the daemon is stopped in order and started
    // again, and its next "running" brings the link back.
    Recorder::instance().clear();
    daemon_sim_report_error(daemon.sim);
    ASSERT_TRUE(wait_until([&] { return daemon.counters().starts == 2 && last_wificon() == 1; }, kLongWait));
    EXPECT_EQ(daemon.counters().exits, 1);
    EXPECT_TRUE(notified(AT_MSG_WIFICON, [](const Notice &n) { return n.values == std::vector<int32_t>{0}; }));
    expect_line_arrives("QV2");

    ASSERT_EQ(dev->atcmdprocess_wifi_stchange(1), 0);  // only 0 does anything
    EXPECT_EQ(dev->system_status.wifi_status, 1);
    ASSERT_EQ(dev->atcmdprocess_wifi_stchange(0), 0);
    EXPECT_EQ(std::make_tuple(daemon.counters().exits, dev->system_status.wifi_status, dev->system_status.mode,
                              sb.property("vendor.corvel.timesync"), last_wificon(), g_fifo_rx_fd, g_fifo_tx_fd),
              std::make_tuple(2, 0, AT_MODE_NONE, std::string("disable"), 0, -1, -1));
    EXPECT_TRUE(g_wifiRx_thread == 0 && g_wifiHBeat_thread == 0);
    // Stopped, told, closed, the heartbeat thread ended: in that order (the last of each).
    const std::string log = sb.log_text();
    const size_t beat_ended = log.rfind("receive signal is 14");
    ASSERT_NE(beat_ended, std::string::npos);
    EXPECT_LT(log.rfind("Process Hiddemon exits successfully!"), log.rfind("notify_wifi_stated 0"));
    EXPECT_LT(log.rfind("notify_wifi_stated 0"), log.rfind("wifi channel has been closed"));
    EXPECT_LT(log.rfind("wifi channel has been closed"), beat_ended);

    // With the link no longer wanted, a "running" report starts nothing.
    dev->atcmdprocess_hiddemon_stchange("running");
    EXPECT_FALSE(wait_until([] { return link_load(g_wifiHBeat_thread) != 0; }, 300));
}

// A daemon that writes without a pause holds no link change: a second "running" report starts the
// receive thread anew and the supervisor goes on to its next signal, and a disconnect returns
// within its own waits with the channel closed.
TEST_F(WifiLiveTest, StreamingDaemonHoldsNeitherTheSupervisorNorADisconnect) {
    link_up();
    FifoStreamer stream(sb.path("/dev/fifo_rx"));
    ASSERT_TRUE(wait_until([&] { return stream.written() > 2 * FifoStreamer::kFifoCapacity; }, kLongWait));
    const size_t from = sb.log_size();
    dev->atcmdprocess_hiddemon_stchange("running");
    EXPECT_TRUE(supervisor_caught_up(sb, kLinkChangeBound));
    EXPECT_TRUE(sb.wait_log("atcmder_wifiRx_thread is running!", kLinkChangeBound, from));

    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(dev->atcmdprocess_wifi_stchange(0), 0);
    EXPECT_LT(ms_since(start), kLinkChangeBound);
    EXPECT_TRUE(link_load(g_fifo_rx_fd) == -1 && link_load(g_wifiRx_thread) == 0 &&
                link_load(g_wifiHBeat_thread) == 0);
}

// "+STATE=PWROFF" over Wi-Fi makes the dispatch thread cut the link; an accessory that goes on
// streaming keeps neither the cut from ending nor the dispatcher from the lines after it.
TEST_F(WifiLiveTest, PowerOffReportCutsTheLinkUnderAStreamAndDispatchGoesOn) {
    link_up();
    const auto start = std::chrono::steady_clock::now();
    write_rx(sb, "+STATE=PWROFF\r\n");
    FifoStreamer stream(sb.path("/dev/fifo_rx"));
    ASSERT_TRUE(wait_until([] { return link_load(g_fifo_rx_fd) == -1 && link_load(g_wifiRx_thread) == 0; },
                           kLinkChangeBound));
    EXPECT_LT(ms_since(start), kLinkChangeBound);
    EXPECT_EQ(dev->system_status.wifi_status, 0);
    EXPECT_EQ(dev->system_status.mode, AT_MODE_NONE);

    char text[AT_LINE_BUF_SIZE] = {};
    AtCmder_t cmd = {};
    cmd.source = AT_NODE_PLATFORM2;
    cmd.data = text;
    cmd_Parse_from_buffer(&cmd, "+DTR=after-the-cut\r\n");
    EXPECT_TRUE(notified(AT_MSG_DTR, [](const Notice &n) { return n.text == "after-the-cut"; }));
}

// (A lost heartbeat, which restarts the daemon, is a step of the console's demonstration.)
TEST_F(WifiLiveTest, MissingReceiveFifoIsReportedAndTheNextRunningReportRecovers) {
    daemon.relay = false;
    ASSERT_EQ(dev->atcmdprocess_wifi_init("0.0.0.0"), 0);
    dev->atcmdprocess_hiddemon_stchange("heartbeat:41");
    dev->atcmdprocess_hiddemon_stchange("heartbeat");  // no count: keeps 41
    EXPECT_EQ(g_wifiHBeat_num, 41u);
    ASSERT_TRUE(wait_until([&] { return daemon_sim_running(daemon.sim); }, kLongWait));
    unlink(sb.path("/dev/fifo_rx").c_str());
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

// The client side stops a running daemon only for a new server; with no daemon yet (no
// fifo_cmd) the stop falls back to the property at once.
TEST(WifiDaemonTest, ClientStartStopsTheDaemonOnlyForANewServer) {
    Sandbox sb(kWithLog);
    atcmdprocess_device_t *dev = bare_device(PLATFORM_UART);
    Daemon daemon;
    daemon.relay = false;  // no engine threads here to carry a report out
    ASSERT_EQ(atcmdprocess_wifi_init("192.168.4.1"), 0);  // the kept address is empty at first
    EXPECT_TRUE(sb.wait_log("cannot open device: /dev/fifo_cmd, will kill hiddemon!", 0));
    EXPECT_EQ(sb.property("vendor.hid_cmd"), "start_client");
    EXPECT_EQ(sb.property("vendor.hid_sts"), "192.168.4.1");
    EXPECT_STREQ(dev->server_ip, "192.168.4.1");
    EXPECT_EQ(dev->system_status.wifi_status, 1);
    ASSERT_TRUE(wait_until([&] { return daemon_sim_running(daemon.sim); }, kLongWait));
    ASSERT_EQ(atcmdprocess_wifi_init("192.168.4.1"), 0);
    EXPECT_EQ(daemon.counters().exits, 0);
    ASSERT_EQ(atcmdprocess_wifi_init("192.168.4.2"), 0);
    EXPECT_EQ(daemon.counters().exits, 1);
    EXPECT_TRUE(sb.wait_log("Process Hiddemon exits successfully!", 0));
    EXPECT_EQ(atcmdprocess_wifi_init("192.168.100.100x"), -EINVAL);  // cannot be kept whole
    EXPECT_EQ(atcmdprocess_wifi_init(nullptr), -EINVAL);
    EXPECT_STREQ(dev->server_ip, "192.168.4.2");
}

// A daemon that takes "exit" but never confirms it is stopped through the property.
TEST(WifiDaemonTest, UnconfirmedStopFallsBackToThePlatformsStopProperty) {
    for (const auto &[platform, stop] : {std::pair<int32_t, const char *>{PLATFORM_VUART, "stop_server"},
                                         {PLATFORM_UART, "stop_client"}}) {
        Sandbox sb(kWithLog);
        bare_device(platform);
        make_fifo(sb, "/dev/fifo_cmd");
        const int silent = open(sb.path("/dev/fifo_cmd").c_str(), O_RDWR | O_CLOEXEC);
        stop_hiddemon();
        EXPECT_TRUE(sb.wait_log(" hiddemon exit fails, will be killed!", 0)) << stop;
        EXPECT_EQ(sb.property("vendor.hid_cmd"), stop);
        close(silent);
    }
}

// The upper layer always hears the state; the client side also tells the accessory.
TEST(WifiDaemonTest, WifiStateGoesUpAndOnTheClientSideToTheAccessory) {
    const std::tuple<int32_t, int32_t, std::string> cases[] = {
        {PLATFORM_VUART, 1, ""}, {PLATFORM_UART, 1, "2/3/2/18/18:AT+WIFICON=1#18&2\r\n"},
        {PLATFORM_UART, 0, "2/3/2/18/18:AT+WIFICON=0#18&2\r\n"}, {PLATFORM_UART, 7, ""}};
    for (const auto &[platform, state, line] : cases) {
        Sandbox sb;
        bare_device(platform);
        Recorder::instance().clear();
        notify_wifi_state(state);
        EXPECT_EQ(last_wificon(), state);
        std::string queued;
        for (const QueuedLine &q : drain_tx_queue()) {
            for (int v : {+q.cmd.type, +q.cmd.dest, +q.cmd.flag, +q.cmd.cmd_id}) queued += std::to_string(v) + "/";
            queued += std::to_string(q.cmd.seq_num) + ":" + q.text;
        }
        EXPECT_EQ(queued, line) << state;
    }
}
