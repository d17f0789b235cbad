// The USB link end to end: a sandboxed "/dev" with pseudo-terminals playing the accessory's ACM
// port, discovered by the scan at open or by the watch, told apart by their names and uevent
// files, opened by the supervisor, read by the receive thread, and pulled or removed again.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "device/link_words.h"
#include "hotplug/hotplug.h"
#include "serial/serial.h"
#include "support/test_support.h"

#include <condition_variable>

using namespace atcmd_test;

namespace {

constexpr int kLongWait = 15000;  // the machine is loaded: generous deadlines everywhere
constexpr char kCorvelUevent[] = "MAJOR=166\nPRODUCT=7a1d/5101/100\nTYPE=2/0/0\n";

using Pair = std::vector<int32_t>;

// A port whose uevent says `uevent` (none when null), linked as "/dev/ttyACM<n>"; kept, since
// the receive thread may still be reading it when the test ends.
Pty &port(const Sandbox &sb, int n, const char *uevent = kCorvelUevent) {
    const std::string name = "ttyACM" + std::to_string(n), dir = sb.path("/sys/class/tty/" + name + "/device");
    if (uevent != nullptr) atcmd_tools::make_dirs(dir), write_text_file(dir + "/uevent", uevent);
    Pty &pty = kept_pty();
    pty.link_as(sb, "/dev/" + name);
    return pty;
}

size_t count_in_log(const Sandbox &sb, const std::string &text) {
    const std::string log = sb.log_text();
    size_t count = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++count;
    return count;
}

std::vector<Pair> usb_pairs() {
    std::vector<Pair> pairs;
    for (const Notice &n : Recorder::instance().notices()) {
        if (n.msg_id == AT_MSG_USBSTATE) pairs.push_back(n.values);
    }
    return pairs;
}

bool usb_events(size_t count) {
    return Recorder::instance().wait_for(AT_MSG_USBSTATE, count, kLongWait);
}

class UsbLinkTest : public ::testing::Test {
protected:
    void SetUp() override {
        sb.set_property("net.bluetooth.macaddr", "00:11:22:33:44:55");
        Recorder::instance().clear();
    }
    void open() {
        dev = open_module();
        ASSERT_NE(dev, nullptr);
    }
    int32_t mode() const { return link_load(dev->system_status.mode); }

    Sandbox sb;
    atcmdprocess_device_t *dev = nullptr;
};

struct NameRow {
    std::string name;
    int32_t port;  // -1: not a port, and the kept name stays as it was
};

const NameRow kNames[] = {
    {"ttyACM3", 3},
    {"ttyACM0x", 0},             // the number ends at the first non-digit
    {"ttyACM", 0},               // no digits at all
    {"xx-ttyACM12", 12},         // the key may sit anywhere in the name
    {"ttyUSB0", -1},
    {"ttyacm1", -1},
    {"ttyACM99999999999", -1},   // no port path can carry it
    {"ttyACM5" + std::string(80, 'a'), 5},
};

}  // namespace

struct UnplugRow {
    const char *name;
    int32_t wifi_status;
    int32_t mode_after;
};

class UnplugTest : public UsbLinkTest, public ::testing::WithParamInterface<UnplugRow> {};

// Found at open, opened raw, interrogated, read line by line, then removed: one unplug.
TEST_P(UnplugTest, PortAtOpenCarriesLinesUntilRemovedAndUnplugsOnce) {
    Pty &acm = port(sb, 3);
    open();
    ASSERT_TRUE(usb_events(1));
    EXPECT_EQ(mode(), AT_MODE_USB);
    struct termios tio;
    ASSERT_EQ(tcgetattr(acm.master(), &tio), 0);  // a pty master reports its slave's settings
    EXPECT_EQ(cfgetospeed(&tio), static_cast<speed_t>(B460800));
    EXPECT_EQ(tio.c_lflag & (ICANON | ECHO), 0u);
    // The start-up interrogation reaches the wire (its order is the query tests' to check).
    EXPECT_NE(acm.read_until([](const std::string &got) { return got.find("AT+VER?#11&1\r\n") != got.npos; },
                             kLongWait).find("AT+TYPE?#15&1"), std::string::npos);

    acm.write("+VER=1.0");
    acm.write("\r\n" + std::string(600, 'x'));
    ASSERT_TRUE(sb.wait_log("Vuart receive data length is too long, skip it", kLongWait));
    EXPECT_EQ(count_in_log(sb, "Vuart receive data length is 10, receive data is +VER=1.0\r\n"), 1u);

    link_store(dev->system_status.wifi_status, GetParam().wifi_status);
    ASSERT_EQ(unlink(sb.path("/dev/ttyACM3").c_str()), 0);
    ASSERT_TRUE(usb_events(2));
    EXPECT_EQ(usb_pairs(), (std::vector<Pair>{{1, -1}, {0, -1}}));
    // The upper layer hears of the unplug before the port is dropped and the mode set.
    EXPECT_TRUE(wait_until([&] { return mode() == GetParam().mode_after; }, kLongWait));
    EXPECT_EQ(link_load(g_vuart_fd), -1);
    acm.close_master();  // the device is gone: the pending receive ends
    ASSERT_TRUE(sb.wait_log("ACM device can not find, atcmder_VuartRx_thread will die!", kLongWait));
    EXPECT_EQ(link_load(g_VuartRx_thread), 0u);
    ASSERT_TRUE(supervisor_caught_up(sb));
    EXPECT_EQ(count_in_log(sb, "handling thread got signal 12"), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    WifiWanted, UnplugTest,
    ::testing::Values(UnplugRow{"NoWifi", 0, AT_MODE_NONE}, UnplugRow{"WifiTakesOver", 1, AT_MODE_WIFI}),
    [](const ::testing::TestParamInfo<UnplugRow> &info) { return info.param.name; });

// A second port while the first is read: one thread, which moves to the new port by itself (the
// first, still plugged, stays silent); then both vanish unseen by the watch (moved away),
// mid-line, and the thread itself asks for the unplug.
TEST_F(UsbLinkTest, ReplugKeepsOneThreadAndAPulledPortEndsItThroughOneUnplug) {
    open();
    Pty &first = port(sb, 3);
    ASSERT_TRUE(usb_events(1));
    Pty &second = port(sb, 4);
    ASSERT_TRUE(usb_events(2));
    EXPECT_EQ(link_load(g_dev_ACM), 4);
    second.write("+SN=SECOND\r\n");
    EXPECT_TRUE(sb.wait_log("receive data is +SN=SECOND", kLongWait));
    EXPECT_EQ(count_in_log(sb, "atcmder_VuartRx_thread is running!"), 1u);

    second.write("+VER=1.0");
    for (const char *name : {"3", "4"}) {
        const std::string from = sb.path("/dev/ttyACM") + name, to = sb.path("/dev/gone") + name;
        ASSERT_EQ(rename(from.c_str(), to.c_str()), 0);
    }
    first.close_master();
    second.close_master();
    ASSERT_TRUE(sb.wait_log("ACM device disappear, atcmder_VuartRx_thread will die!", kLongWait));
    ASSERT_TRUE(usb_events(3));
    EXPECT_EQ(usb_pairs().back(), (Pair{0, -1}));
    EXPECT_TRUE(wait_until([] { return link_load(g_VuartRx_thread) == 0; }, kLongWait));
    ASSERT_TRUE(supervisor_caught_up(sb));
    EXPECT_EQ(mode(), AT_MODE_NONE);
    EXPECT_EQ(count_in_log(sb, "handling thread got signal 12"), 1u);
    EXPECT_EQ(count_in_log(sb, "receive data is +VER"), 0u);  // the half line is never parsed
}

struct ForeignRow {
    const char *name;
    void (*make)(const Sandbox &sb);
    const char *seen;       // the log line that shows the entry was looked at
    size_t plug_signals;
};

const ForeignRow kForeignRows[] = {
    {"OtherProduct", [](const Sandbox &sb) { port(sb, 3, "PRODUCT=7a1d/5102/100\n"); },
     "buf_match PRODUCT=7a1d/5101", 1},
    {"NoUevent", [](const Sandbox &sb) { port(sb, 3, nullptr); }, "open node fail.", 1},
    {"DirectoryNamedLikeAPort",
     [](const Sandbox &sb) { mkdir(sb.path("/dev/ttyACM9").c_str(), 0755); },
     "New directory ttyACM9 created.", 0},
};

class ForeignEntryTest : public UsbLinkTest, public ::testing::WithParamInterface<ForeignRow> {};

TEST_P(ForeignEntryTest, IsIgnoredWithNothingNotifiedOrOpened) {
    open();
    GetParam().make(sb);
    ASSERT_TRUE(sb.wait_log(GetParam().seen, kLongWait));
    ASSERT_TRUE(supervisor_caught_up(sb));
    EXPECT_EQ(count_in_log(sb, "handling thread got signal 10"), GetParam().plug_signals);
    EXPECT_EQ(count_in_log(sb, "hot pluged device is corvel."), 0u);
    EXPECT_TRUE(usb_pairs().empty());
    EXPECT_EQ(mode(), AT_MODE_NONE);
    EXPECT_EQ(link_load(g_vuart_fd), -1);
    EXPECT_EQ(link_load(g_VuartRx_thread), 0u);
}

INSTANTIATE_TEST_SUITE_P(Entries, ForeignEntryTest, ::testing::ValuesIn(kForeignRows),
                         [](const ::testing::TestParamInfo<ForeignRow> &info) {
                             return info.param.name;
                         });

struct RefusedRow {
    const char *name;
    void (*refuse)(const Sandbox &sb);  // leaves "/dev/ttyACM3" an entry that is refused
    const char *seen;                   // the log line of the refusal
};

const RefusedRow kRefusedRows[] = {
    {"ForeignDevice", [](const Sandbox &sb) { port(sb, 3, "PRODUCT=7a1d/5102/100\n"); },
     "buf_match PRODUCT=7a1d/5101"},
    {"LinkToNothing",
     [](const Sandbox &sb) {
         port(sb, 3);
         unlink(sb.path("/dev/ttyACM3").c_str());
         ASSERT_EQ(symlink("/dev/pts/no-such-pty", sb.path("/dev/ttyACM3").c_str()), 0);
     },
     "open serial /dev/ttyACM3 fails"},
    // The kernel hangs the port up and makes its entry anew only later: the entry left behind
    // cannot be reopened.
    {"HungUpPort",
     [](const Sandbox &sb) {
         Pty &held = port(sb, 3);
         ASSERT_TRUE(usb_events(1));
         held.close_master();
     },
     "open serial /dev/ttyACM3 fails"},
};

class RefusedNameTest : public UsbLinkTest, public ::testing::WithParamInterface<RefusedRow> {};

// The accessory then appears under the name once refused; the new entry may well get the inode
// the old one had (the host's file systems hand it out again at once).
TEST_P(RefusedNameTest, IsLookedAtAgainWhenItsEntryIsMadeAnew) {
    open();
    GetParam().refuse(sb);
    ASSERT_TRUE(sb.wait_log(GetParam().seen, kLongWait));
    ASSERT_TRUE(supervisor_caught_up(sb));
    const size_t told = usb_pairs().size();
    Pty &accessory = port(sb, 3);
    ASSERT_TRUE(usb_events(told + 1));
    EXPECT_EQ(usb_pairs().back(), (Pair{1, -1}));
    EXPECT_EQ(mode(), AT_MODE_USB);
    accessory.write("+SN=REUSED\r\n");
    EXPECT_TRUE(sb.wait_log("receive data is +SN=REUSED", kLongWait));
}

INSTANTIATE_TEST_SUITE_P(Names, RefusedNameTest, ::testing::ValuesIn(kRefusedRows),
                         [](const ::testing::TestParamInfo<RefusedRow> &info) {
                             return info.param.name;
                         });

// Port names seen in "/dev": which are ACM ports, the number each carries, the name kept.
TEST(ParseDevNameTest, NumbersOnlyAcmNamesAndKeepsTheirNameCut) {
    Sandbox sb;
    for (const NameRow &row : kNames) {
        SCOPED_TRACE(row.name);
        strcpy(g_dev_ACM_name, "before");
        EXPECT_EQ(parse_dev_name(row.name.c_str()), row.port);
        const std::string kept = row.port == -1 ? "before" : row.name.substr(0, 63);
        EXPECT_EQ(std::string(g_dev_ACM_name), kept);
    }
    EXPECT_EQ(parse_dev_name(nullptr), -1);
}

// ---- Faults of a peer that stops reading, a switch mid-line, a node that appears late and a
// ---- state read from a port already gone.

namespace {

bool has(const std::string &text, const std::string &what) { return text.find(what) != text.npos; }

}  // namespace

// The accessory stops reading with more queued for it than its port holds: each write gives up
// after the answer's time-out instead of holding the transmit thread, the requests are resent
// and then reported as timed out, and a second accessory that takes over gets its start-up
// queries at once.
TEST_F(UsbLinkTest, APeerThatStopsReadingHoldsNoLink) {
    Pty &deaf = port(sb, 3);
    open();
    ASSERT_TRUE(usb_events(1));
    // The pseudo-terminal moves what it holds on in steps: filled until a fill takes nothing.
    ASSERT_GT(fill_towards_peer(deaf.slave_path()), 0u);
    ASSERT_TRUE(wait_until([&] { return fill_towards_peer(deaf.slave_path()) == 0; }, kLongWait));
    // More than the terminal moves on by itself (4 KiB), in long lines.
    for (uint16_t seq = 1; seq <= 60; ++seq) {
        ASSERT_EQ(send_query(dev, "AT+BAT?#" + std::to_string(seq) + "&1" + std::string(120, ' ') +
                                      "\r\n", AT_MSG_BAT, seq), 0);
    }
    EXPECT_TRUE(sb.wait_log("peer took nothing for", kLongWait));
    Pty &second = port(sb, 4);
    ASSERT_TRUE(usb_events(2));
    EXPECT_TRUE(has(second.read_until([](const std::string &got) { return has(got, "AT+VER?#"); },
                                      kLongWait), "AT+VER?#"));
    // Every request that reached no peer ends as a time-out report, not as a wait.
    EXPECT_TRUE(wait_until([] { return queues_idle(); }, kLongWait));
    EXPECT_TRUE(Recorder::instance().wait_for(AT_MSG_ERROR, 1, kLongWait));
}

// The old port leaves half a line, a second port takes over and sends a whole one: the half is
// dropped (and logged), and the new port's line is parsed as it was sent.
TEST_F(UsbLinkTest, ASwitchDropsTheOldPortsUnfinishedLine) {
    Pty &first = port(sb, 3);
    open();
    ASSERT_TRUE(usb_events(1));
    first.write("+SCREEN=8#310");
    ASSERT_TRUE(wait_until([&] { return unread_by_module(first.slave_path()) == 0; }, kLongWait));
    Pty &second = port(sb, 4);
    ASSERT_TRUE(usb_events(2));
    second.write("+SCREEN=9#311&1\r\n");
    ASSERT_TRUE(Recorder::instance().wait_for(AT_MSG_SCREEN, 1, kLongWait));
    const Notice screen = Recorder::instance().last(AT_MSG_SCREEN);
    EXPECT_EQ(screen.seq_num, 311);
    EXPECT_EQ(screen.values, (std::vector<int32_t>{9}));
    EXPECT_TRUE(sb.wait_log("receive data dropped, 13 bytes of an unfinished line", kLongWait));
    ASSERT_TRUE(supervisor_caught_up(sb));
    EXPECT_EQ(count_in_log(sb, "receive data is +SCREEN=8"), 0u);
}

// The entry is a link to a node that is not there yet: it is refused, and when the node appears
// behind the same entry (no entry is made, so the watch sees nothing) the refusal's end alone
// makes the supervisor look again and take the port.
TEST_F(UsbLinkTest, ANodeThatAppearsBehindARefusedEntryIsTaken) {
    const std::string node = sb.path("/node-acm3");
    Pty &accessory = port(sb, 3);
    unlink(sb.path("/dev/ttyACM3").c_str());
    ASSERT_EQ(symlink(node.c_str(), sb.path("/dev/ttyACM3").c_str()), 0);
    open();
    ASSERT_TRUE(sb.wait_log("open serial /dev/ttyACM3 fails", kLongWait));
    ASSERT_TRUE(supervisor_caught_up(sb));
    EXPECT_TRUE(usb_pairs().empty());
    ASSERT_EQ(symlink(accessory.slave_path().c_str(), node.c_str()), 0);
    ASSERT_TRUE(usb_events(1));
    EXPECT_EQ(usb_pairs().back(), (Pair{1, -1}));
    EXPECT_EQ(mode(), AT_MODE_USB);
    EXPECT_EQ(count_in_log(sb, "a refused port's hold ended, looking again"), 1u);
}

namespace {

// A notify callback that holds the dispatch thread in the first SCREEN notice until released, so
// that the lines read after it wait on the receive queue.
std::mutex g_gate_mutex;
std::condition_variable g_gate_cv;
bool g_gate_open = false;
bool g_gate_held = false;

void gated_callback(const AT_CMD_CbMsg_t *msg) {
    if (msg->msg_id == AT_MSG_SCREEN) {
        std::unique_lock<std::mutex> lock(g_gate_mutex);
        g_gate_held = true;
        g_gate_cv.notify_all();
        g_gate_cv.wait(lock, [] { return g_gate_open; });
    }
    Recorder::callback(msg);
}

}  // namespace

// The accessory's backlog ends in "+USBSTATE=1,1" and the cable is pulled while dispatch is
// behind: the unplug is told, and the state read from the port already gone changes nothing.
TEST_F(UsbLinkTest, AStateFromAPortAlreadyGoneDoesNotOutliveItsUnplug) {
    Pty &acm = port(sb, 3);
    open();
    ASSERT_TRUE(usb_events(1));
    dev->set_notify_callback(dev, gated_callback);
    acm.write("+SCREEN=5\r\n+USBSTATE=1,1\r\n");
    {
        std::unique_lock<std::mutex> lock(g_gate_mutex);
        ASSERT_TRUE(g_gate_cv.wait_for(lock, std::chrono::milliseconds(kLongWait),
                                       [] { return g_gate_held; }));
    }
    ASSERT_TRUE(sb.wait_log("receive data is +SCREEN=5\r\n+USBSTATE=1,1", kLongWait));
    ASSERT_EQ(unlink(sb.path("/dev/ttyACM3").c_str()), 0);
    acm.close_master();
    ASSERT_TRUE(usb_events(2));
    EXPECT_TRUE(wait_until([] { return link_load(g_vuart_fd) == -1; }, kLongWait));
    {
        std::lock_guard<std::mutex> lock(g_gate_mutex);
        g_gate_open = true;
    }
    g_gate_cv.notify_all();
    ASSERT_TRUE(sb.wait_log("USBSTATE_parser source is 3", kLongWait));
    ASSERT_TRUE(supervisor_caught_up(sb));
    EXPECT_EQ(usb_pairs(), (std::vector<Pair>{{1, -1}, {0, -1}}));
    EXPECT_EQ(link_load(dev->usb_connected), 0);
    EXPECT_EQ(mode(), AT_MODE_NONE);
    EXPECT_TRUE(sb.wait_log("USB state 1,1 from a port no longer held, dropped", kLongWait));
}

// More "/dev" events at once than one read holds (about 128): the one wake of the edge-triggered
// watch reads them all, so a port made last in a burst is announced without a further change.
TEST(HotplugEventsTest, ABurstLargerThanOneReadIsReadToTheEnd) {
    Sandbox sb;
    link_store(fd_inotify_input, inotify_input_event());
    ASSERT_GE(link_load(fd_inotify_input), 0);
    for (int i = 0; i < 300; ++i) write_text_file(sb.path("/dev/other" + std::to_string(i)), "");
    port(sb, 3);
    link_store(g_dev_ACM, -1);
    ASSERT_EQ(dev_event_process(), 0);
    EXPECT_EQ(link_load(g_dev_ACM), 3);
}
