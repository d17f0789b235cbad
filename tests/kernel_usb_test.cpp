// The USB link against a real kernel: the accessory is a configfs gadget on a dummy_hcd UDC,
// the phone's port the node that cdc-acm makes in devtmpfs, with the kernel's uevent, hang-up
// and minor numbers. The cases run only inside the guest that scripts/kernel-test.sh boots
// (ATCMD_KERNEL_GUEST set, gadget drivers loaded); anywhere else each skips itself, saying so.
// The sandbox's dev and sys lead to the guest's own, so the module sees the real nodes; its
// property store and log stay in the sandbox.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <set>

#include "device/link_words.h"
#include "hotplug/hotplug.h"
#include "serial/serial.h"
#include "sim/accessory_sim.h"
#include "sim/usb_gadget.h"
#include "support/test_support.h"

using namespace atcmd_test;
using namespace atcmd_tools;

namespace {

constexpr int kWait = 30000;  // an emulated guest on a loaded machine: generous deadlines
using Pair = std::vector<int32_t>;

// The lines of the start-up interrogation, in the order they go out.
const char *const kInterrogation[] = {"AT+TYPE?#15&1", "AT+BAT?#9&1",       "AT+BTMAC=",
                                      "AT+SN?#13&1",   "AT+SID?#14&1",      "AT+SCREEN?#17&1",
                                      "AT+STATE?#10&1", "AT+USBSTATE?#16&1", "AT+BLEMAC?#8&1",
                                      "AT+MICMODE?#19&1", "AT+VER?#11&1"};

bool in_guest() { return getenv("ATCMD_KERNEL_GUEST") != nullptr; }

std::string out_path(const std::string &name) {
    const char *out = getenv("ATCMD_KERNEL_OUT");
    return out != nullptr ? std::string(out) + "/" + name : "";
}

bool is_node(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISCHR(st.st_mode);
}

bool gone(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) != 0;
}

// The USB pairs the upper layer was told, in order: plugs (1, s), unplugs (0, -1), and the
// accessory's own +USBSTATE answers, which tell (1, its status) the same way.
std::vector<Pair> usb_pairs() {
    std::vector<Pair> pairs;
    for (const Notice &n : Recorder::instance().notices()) {
        if (n.msg_id == AT_MSG_USBSTATE) pairs.push_back(n.values);
    }
    return pairs;
}

size_t unplugs() {
    const std::vector<Pair> pairs = usb_pairs();
    return static_cast<size_t>(std::count(pairs.begin(), pairs.end(), Pair{0, -1}));
}

size_t count_of(uint16_t msg_id) {
    const std::vector<Notice> all = Recorder::instance().notices();
    return static_cast<size_t>(std::count_if(all.begin(), all.end(), [&](const Notice &n) { return n.msg_id == msg_id; }));
}

// Waits until the upper layer has been told of `count` unplugs.
bool unplugged(size_t count) {
    return wait_until([&] { return unplugs() >= count; }, kWait);
}

class KernelUsb : public ::testing::Test {
protected:
    void SetUp() override {
        if (!in_guest()) {
            GTEST_SKIP() << "runs only in the kernel stage's guest (scripts/kernel-test.sh), where "
                            "dummy_hcd, libcomposite, usb_f_acm and cdc-acm are loaded";
        }
        const std::string why = usb_gadget_unavailable();
        ASSERT_EQ(why, "") << "the guest has no USB gadget support";
        ASSERT_GE(usb_udcs().size(), 2u) << "dummy_hcd was loaded without num=2";
        // The module's dev and sys are the guest's own.
        ASSERT_EQ(rmdir(sb.path("/dev").c_str()), 0);
        ASSERT_EQ(symlink("/dev", sb.path("/dev").c_str()), 0);
        ASSERT_EQ(symlink("/sys", sb.path("/sys").c_str()), 0);
        sb.set_property("net.bluetooth.macaddr", "00:11:22:33:44:55");
        Recorder::instance().clear();
    }
    void TearDown() override {
        // A failed case leaves its module log beside the kernel's for the host to show.
        const std::string keep = out_path(std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + ".log");
        if (HasFailure() && !keep.empty()) {
            std::string name = keep;
            std::replace(name.begin() + static_cast<long>(keep.rfind('/')) + 1, name.end(), '/', '_');
            write_text_file(name, sb.log_text());
        }
        for (AccSim *s : sims) acc_sim_destroy(s);  // unbinds: the next case starts unplugged
    }

    // An accessory (or, with another product id, a foreign device) as a gadget on UDC `udc`.
    AccSim *gadget(size_t udc, uint16_t product = kAccessoryProduct) {
        AccSim *s = acc_sim_create(AccIdentity{}, nullptr, nullptr);
        std::string error;
        EXPECT_TRUE(acc_sim_use_gadget(s, usb_udcs().at(udc), kAccessoryVendor, product, kAccessoryRelease, &error))
            << error;
        sims.push_back(s);
        return s;
    }
    // Plugs and waits for the node cdc-acm makes for it.
    void plug(AccSim *s, const std::string &node) {
        ASSERT_EQ(acc_sim_plug(s, 0), 0);
        ASSERT_TRUE(wait_until([&] { return is_node(node); }, kWait)) << node << " never appeared";
    }
    void open() {
        dev = open_module();
        ASSERT_NE(dev, nullptr);
    }
    int32_t mode() const { return link_load(dev->system_status.mode); }
    // Waits until the supervisor has handled `count` plugs of the accessory (each ends with
    // the mode set to USB and logged) and the upper layer was told.
    bool plugged(size_t count) {
        return wait_until([&] {
            const std::string log = sb.log_text();
            size_t n = 0;
            for (size_t at = log.find("Current cast mode is 0"); at != std::string::npos;
                 at = log.find("Current cast mode is 0", at + 1)) ++n;
            return n >= count && !usb_pairs().empty() && usb_pairs().back()[0] == 1;
        }, kWait);
    }
    // The accessory plugged as ttyACM0, the module opened and the start-up interrogation done.
    void start_interrogated(AccSim *s) {
        ASSERT_NO_FATAL_FAILURE(plug(s, "/dev/ttyACM0"));
        ASSERT_NO_FATAL_FAILURE(open());
        ASSERT_TRUE(plugged(1));
        interrogated(s);
    }
    // The whole start-up interrogation reached the accessory and its version came back.
    void interrogated(AccSim *s, size_t skip = 0, size_t versions = 1) {
        const auto missing = [&] {
            const std::vector<std::string> got = acc_sim_received(s);
            std::string out;
            for (const char *line : kInterrogation) {
                const bool seen = std::any_of(got.begin() + static_cast<long>(std::min(skip, got.size())), got.end(),
                                              [&](const std::string &g) { return g.find(line) != std::string::npos; });
                if (!seen) out += std::string(out.empty() ? "" : ", ") + line;
            }
            return out;
        };
        EXPECT_TRUE(wait_until([&] { return missing().empty(); }, kWait))
            << "never reached the accessory: " << missing();
        EXPECT_TRUE(Recorder::instance().wait_for(AT_MSG_VER, versions, kWait));
    }
    void request(const char *line, uint8_t cmd_id, uint16_t seq) {
        AtCmder_t cmd = {AT_TYPE_QUERY, 0, AT_NODE_ACCESSORY, PLATFORM_VUART, 0, cmd_id, seq, 0, 0,
                         const_cast<char *>(line)};
        ASSERT_EQ(dev->atcmdprocess_cmd_from_hidl(&cmd), 0);
    }
    bool answered(uint16_t msg_id, uint16_t seq) {
        return wait_until([&] {
            for (const Notice &n : Recorder::instance().notices()) {
                if (n.msg_id == msg_id && n.seq_num == seq) return true;
            }
            return false;
        }, kWait);
    }
    // The module has let go of its port: the supervisor closed it and the receive thread ended.
    bool let_go() {
        return wait_until([] { return link_load(g_vuart_fd) == -1 && g_VuartRx_thread == 0; }, kWait);
    }

    Sandbox sb;
    atcmdprocess_device_t *dev = nullptr;
    std::vector<AccSim *> sims;
};

// 1. A port plugged before open is found by the scan; one plugged after, by the watch on the
// guest's /dev. Either way the module opens a node the kernel made, not a link.
class KernelPlug : public KernelUsb, public ::testing::WithParamInterface<bool> {};

TEST_P(KernelPlug, KernelMadeNodeIsTakenAtOpenAndAfterOpen) {
    AccSim *acc = gadget(0);
    const bool before_open = GetParam();
    if (before_open) plug(acc, "/dev/ttyACM0");
    open();
    if (!before_open) plug(acc, "/dev/ttyACM0");
    ASSERT_TRUE(plugged(1));
    EXPECT_EQ(usb_pairs().front()[0], 1);
    EXPECT_EQ(mode(), AT_MODE_USB);
    EXPECT_TRUE(is_node("/dev/ttyACM0"));
    EXPECT_TRUE(sb.wait_log("Init Vuart /dev/ttyACM0 successfully", kWait));
    EXPECT_TRUE(acc_sim_wait_received(acc, "AT+VER?#11&1", kWait));
}

INSTANTIATE_TEST_SUITE_P(PlugAtOrAfterOpen, KernelPlug, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool> &p) { return p.param ? "BeforeOpen" : "AfterOpen"; });

// 2. The kernel's uevent identifies the accessory; the whole interrogation goes out and is
// answered; a request of the upper layer is answered with its own sequence number.
TEST_F(KernelUsb, InterrogationAndRequestOverKernelPort) {
    AccSim *acc = gadget(0);
    plug(acc, "/dev/ttyACM0");
    const std::string uevent = read_file("/sys/class/tty/ttyACM0/device/uevent");
    EXPECT_NE(uevent.find("PRODUCT=7a1d/5101/100\n"), std::string::npos) << uevent;
    EXPECT_NE(uevent.find("DRIVER=cdc_acm"), std::string::npos) << uevent;
    open();
    ASSERT_TRUE(plugged(1));
    EXPECT_TRUE(sb.wait_log("PRODUCT=7a1d/5101/100", kWait));
    interrogated(acc);
    EXPECT_TRUE(Recorder::instance().wait_for(AT_MSG_TYPE, 1, kWait));
    EXPECT_TRUE(Recorder::instance().wait_for(AT_MSG_SN, 1, kWait));
    EXPECT_EQ(Recorder::instance().last(AT_MSG_SN).text, AccIdentity{}.sn);
    request("AT+BAT?#301&1\r\n", AT_MSG_BAT, 301);
    EXPECT_TRUE(answered(AT_MSG_BAT, 301));
    ASSERT_TRUE(wait_until(queues_idle, kWait));
}

// 8. A run over the kernel's port whose log the host replays (scripts/kernel-test.sh runs
// atcmd_replay on it and fails the stage on a divergence). The accessory leaves the queries
// unanswered, so every resend and time-out is the module's own timer on both sides: an
// emulated round trip is slower than the resend timer, and an answer racing it would make the
// replay's result depend on the emulator's pace rather than on the module. Its reports and its
// questions to the phone, which no timer races, carry the traffic; then it is pulled.
TEST_F(KernelUsb, GuestRunForReplay) {
    AccSim *acc = gadget(0);
    for (const char *key : {"+TYPE", "+BAT", "+SN", "+SID", "+SCREEN", "+STATE", "+USBSTATE", "+BLEMAC",
                            "+MICMODE", "+VER"}) {
        acc_sim_set_silent(acc, key, true);
    }
    plug(acc, "/dev/ttyACM0");
    open();
    ASSERT_TRUE(plugged(1));
    ASSERT_TRUE(acc_sim_wait_received(acc, "AT+VER?#11&1", kWait));
    // Nine of the queries are watched for an answer (the mic mode's row is past the watched ones).
    ASSERT_TRUE(wait_until([] { return count_of(AT_MSG_ERROR) >= 9; }, kWait));
    ASSERT_TRUE(wait_until(queues_idle, kWait));
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(acc_sim_report(acc, "bat"));
    ASSERT_TRUE(Recorder::instance().wait_for(AT_MSG_BATCG, 3, kWait));
    const size_t seen = acc_sim_received(acc).size();
    ASSERT_TRUE(acc_sim_ask(acc, "state"));
    ASSERT_TRUE(acc_sim_wait_received(acc, "+STATE=", kWait, seen));
    acc_sim_unplug(acc);
    ASSERT_TRUE(unplugged(1));
    ASSERT_TRUE(let_go());
    const std::string keep = out_path("replay.log");
    if (!keep.empty()) {
        EXPECT_TRUE(write_text_file(keep, sb.log_text()));
    }
}

// 3. Pulled while a request waits for its answer: the phone's terminal is hung up (reads end,
// writes fail), then its node goes; the upper layer hears (0, -1), the link has no mode, and
// the request, resent to a closed port, times out with -110 as any unanswered one does.
TEST_F(KernelUsb, UnplugDuringPendingRequest) {
    AccSim *acc = gadget(0);
    ASSERT_NO_FATAL_FAILURE(start_interrogated(acc));
    const int peer = ::open("/dev/ttyACM0", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(peer, 0) << strerror(errno);
    acc_sim_set_silent(acc, "+BAT", true);
    const size_t seen = acc_sim_received(acc).size();
    request("AT+BAT?#302&1\r\n", AT_MSG_BAT, 302);
    ASSERT_TRUE(acc_sim_wait_received(acc, "AT+BAT?#302&1", kWait, seen));
    acc_sim_unplug(acc);
    struct pollfd p = {peer, POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, kWait), 1);
    EXPECT_NE(p.revents & POLLHUP, 0) << "the terminal was not hung up";
    char byte;
    EXPECT_LE(read(peer, &byte, 1), 0);
    EXPECT_EQ(write(peer, "x", 1), -1);
    close(peer);
    EXPECT_TRUE(wait_until([] { return gone("/dev/ttyACM0"); }, kWait));
    ASSERT_TRUE(unplugged(1));
    EXPECT_EQ(usb_pairs().back(), (Pair{0, -1}));
    EXPECT_TRUE(let_go());
    EXPECT_EQ(mode(), AT_MODE_NONE);
    ASSERT_TRUE(answered(AT_MSG_ERROR, 302));
    for (const Notice &n : Recorder::instance().notices()) {
        if (n.msg_id == AT_MSG_ERROR && n.seq_num == 302) {
            EXPECT_EQ(n.values, (std::vector<int32_t>{-110}));
        }
        EXPECT_FALSE(n.msg_id == AT_MSG_BAT && n.seq_num == 302) << "a pulled port answered";
    }
    EXPECT_EQ(usb_pairs().back(), (Pair{0, -1}));  // nothing after the unplug undid it
}

// 3b. Hung up with the cable in: where the port honours modem lines, the accessory closing its
// side drops carrier and cdc-acm hangs the phone's terminal up, but the device and its node
// stay. Only the receive thread's failed read can tell: it must not take the hung-up port's
// empty reads for a quiet line, but look again, find the node still listed and have the port
// opened afresh, and the accessory is served again.
TEST_F(KernelUsb, HangUpWithNodeStayingIsReopened) {
    AccSim *acc = gadget(0);
    ASSERT_NO_FATAL_FAILURE(start_interrogated(acc));
    ASSERT_TRUE(wait_until(queues_idle, kWait));
    // The port's settings are shared by every opener: one that clears CLOCAL makes the module's
    // port honour the carrier.
    const int peer = ::open("/dev/ttyACM0", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(peer, 0) << strerror(errno);
    struct termios tio;
    ASSERT_EQ(tcgetattr(peer, &tio), 0);
    tio.c_cflag &= ~static_cast<tcflag_t>(CLOCAL);
    ASSERT_EQ(tcsetattr(peer, TCSANOW, &tio), 0);
    const size_t seen = acc_sim_received(acc).size();
    ASSERT_TRUE(acc_sim_set_carrier(acc, false));
    struct pollfd p = {peer, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, kWait), 1);
    ASSERT_NE(p.revents & POLLHUP, 0) << "the carrier drop did not hang the terminal up";
    close(peer);
    ASSERT_TRUE(acc_sim_set_carrier(acc, true));
    EXPECT_TRUE(is_node("/dev/ttyACM0"));
    ASSERT_TRUE(plugged(2)) << "the hung-up port was never opened again";
    interrogated(acc, seen, 2);
    request("AT+SN?#306&1\r\n", AT_MSG_SN, 306);
    EXPECT_TRUE(answered(AT_MSG_SN, 306));
    EXPECT_EQ(mode(), AT_MODE_USB);
}

// 4. The kernel keeps a minor while the old port is held: a quick re-plug comes back as
// ttyACM1, and the module follows it. Once everything let go, a re-plug is ttyACM0 again.
TEST_F(KernelUsb, ReplugWhileHeldIsNextNameAndAfterReleaseTheSame) {
    AccSim *acc = gadget(0);
    ASSERT_NO_FATAL_FAILURE(start_interrogated(acc));
    // The old port is held here as well as by the module, so the minor is certainly kept
    // however fast the module lets go.
    const int held = ::open("/dev/ttyACM0", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(held, 0) << strerror(errno);
    acc_sim_unplug(acc);
    plug(acc, "/dev/ttyACM1");
    ASSERT_TRUE(unplugged(1));
    ASSERT_TRUE(plugged(2)) << "the module did not take the port back as ttyACM1";
    EXPECT_TRUE(sb.wait_log("Init Vuart /dev/ttyACM1 successfully", kWait));
    interrogated(acc, 0, 2);
    const size_t seen = acc_sim_received(acc).size();
    request("AT+SN?#303&1\r\n", AT_MSG_SN, 303);
    EXPECT_TRUE(acc_sim_wait_received(acc, "AT+SN?#303&1", kWait, seen));
    EXPECT_TRUE(answered(AT_MSG_SN, 303));
    EXPECT_EQ(mode(), AT_MODE_USB);

    close(held);
    acc_sim_unplug(acc);
    ASSERT_TRUE(unplugged(2));
    EXPECT_EQ(usb_pairs().back(), (Pair{0, -1}));
    ASSERT_TRUE(let_go());
    ASSERT_TRUE(wait_until([] { return gone("/dev/ttyACM1"); }, kWait));
    plug(acc, "/dev/ttyACM0");
    ASSERT_TRUE(plugged(3));
    EXPECT_TRUE(sb.wait_log("Init Vuart /dev/ttyACM0 successfully", kWait, sb.log_size() / 2));
    EXPECT_TRUE(Recorder::instance().wait_for(AT_MSG_VER, 3, kWait));
}

// 5a. A device of another product gets a port too, which the module looks at and leaves; the
// accessory plugged after it is taken.
TEST_F(KernelUsb, ForeignDeviceIgnoredThenAccessoryTaken) {
    AccSim *foreign = gadget(0, kAccessoryProduct + 1);
    open();
    plug(foreign, "/dev/ttyACM0");
    EXPECT_NE(read_file("/sys/class/tty/ttyACM0/device/uevent").find("PRODUCT=7a1d/5102/100"), std::string::npos);
    EXPECT_TRUE(sb.wait_log("PRODUCT=7a1d/5102/100", kWait));
    ASSERT_TRUE(supervisor_caught_up(sb, kWait));
    EXPECT_TRUE(usb_pairs().empty());  // a foreign device is ignored without a word
    EXPECT_EQ(mode(), AT_MODE_NONE);
    EXPECT_TRUE(acc_sim_received(foreign).empty()) << "the module wrote to a foreign device";

    AccSim *acc = gadget(1);
    plug(acc, "/dev/ttyACM1");
    ASSERT_TRUE(plugged(1));
    EXPECT_EQ(unplugs(), 0u);
    EXPECT_TRUE(sb.wait_log("Init Vuart /dev/ttyACM1 successfully", kWait));
    interrogated(acc);
    EXPECT_TRUE(acc_sim_received(foreign).empty()) << "the module wrote to a foreign device";
}

// 5b. Two accessories at once: the second plugged is the one the module holds and talks to
// (the last port wins); pulling the first, no longer held, changes nothing.
TEST_F(KernelUsb, TwoAccessoriesAtOnceLastPluggedIsHeld) {
    AccSim *first = gadget(0);
    AccSim *second = gadget(1);
    open();
    plug(first, "/dev/ttyACM0");
    ASSERT_TRUE(plugged(1));
    interrogated(first);
    plug(second, "/dev/ttyACM1");
    ASSERT_TRUE(plugged(2));
    EXPECT_TRUE(sb.wait_log("Init Vuart /dev/ttyACM1 successfully", kWait));
    interrogated(second, 0, 2);
    const size_t seen = acc_sim_received(second).size();
    request("AT+SID?#304&1\r\n", AT_MSG_SID, 304);
    EXPECT_TRUE(acc_sim_wait_received(second, "AT+SID?#304&1", kWait, seen));
    EXPECT_TRUE(answered(AT_MSG_SID, 304));
    acc_sim_unplug(first);
    ASSERT_TRUE(wait_until([] { return gone("/dev/ttyACM0"); }, kWait));
    ASSERT_TRUE(supervisor_caught_up(sb, kWait));
    EXPECT_EQ(mode(), AT_MODE_USB);
    request("AT+SN?#305&1\r\n", AT_MSG_SN, 305);
    EXPECT_TRUE(answered(AT_MSG_SN, 305)) << "the held accessory stopped answering";
    EXPECT_EQ(unplugs(), 0u);
}

// 6. The accessory stops reading while the phone writes: the port fills through the USB
// endpoint, and a write the accessory takes nothing of gives up after the answer's time-out
// instead of holding the transmit thread (and with it every link). Pulled then, the upper
// layer hears (0, -1), and a re-plug is interrogated and answered again.
TEST_F(KernelUsb, StalledAccessoryThenUnplugReleasesTheLink) {
    AccSim *acc = gadget(0);
    ASSERT_NO_FATAL_FAILURE(start_interrogated(acc));
    acc_sim_set_reading(acc, false);
    // Reports to the accessory (no answer awaited): far more than the port and endpoint hold.
    const std::string line = "+DTR=" + std::string(140, 'p') + "\r\n";
    for (int i = 0; i < 2000; ++i) {
        AtCmder_t cmd = {AT_TYPE_REPORT, 0, AT_NODE_ACCESSORY, PLATFORM_VUART, 0, AT_MSG_DTR, 0, 0, 0,
                         const_cast<char *>(line.c_str())};
        ASSERT_EQ(dev->atcmdprocess_cmd_from_hidl(&cmd), 0);
    }
    // The phone's writes back up through the endpoint, and the writer gives up on the port
    // rather than waiting on it.
    ASSERT_TRUE(sb.wait_log("peer took nothing for", kWait))
        << "the phone's writes never backed up, or a write waited on the accessory without limit";
    acc_sim_unplug(acc);
    ASSERT_TRUE(unplugged(1));
    EXPECT_EQ(usb_pairs().back(), (Pair{0, -1}));
    EXPECT_TRUE(let_go());
    EXPECT_EQ(mode(), AT_MODE_NONE);
    // The backlog is dropped against the closed port, and a new plug is served.
    ASSERT_TRUE(wait_until(queues_idle, kWait));
    acc_sim_set_reading(acc, true);
    const size_t seen = acc_sim_received(acc).size();
    plug(acc, "/dev/ttyACM0");
    ASSERT_TRUE(plugged(2));
    interrogated(acc, seen, 2);
}

// 7. A flood of reports at the port's full speed: every line is parsed once, in order, none
// joined to another or cut.
TEST_F(KernelUsb, FloodAtFullSpeedParsesEveryLineOnce) {
    constexpr int kLines = 1500;
    AccSim *acc = gadget(0);
    ASSERT_NO_FATAL_FAILURE(start_interrogated(acc));
    ASSERT_TRUE(wait_until(queues_idle, kWait));
    ASSERT_EQ(acc_sim_flood(acc, "bat", kLines), kLines);
    EXPECT_TRUE(wait_until([] { return count_of(AT_MSG_BATCG) >= kLines; }, 2 * kWait));
    ASSERT_TRUE(supervisor_caught_up(sb, kWait));
    std::vector<int32_t> numbers;
    for (const Notice &n : Recorder::instance().notices()) {
        if (n.msg_id == AT_MSG_BATCG) numbers.push_back(n.values.size() == 6 ? n.values[5] : -1);
    }
    ASSERT_EQ(numbers.size(), static_cast<size_t>(kLines));
    for (int i = 0; i < kLines; ++i) ASSERT_EQ(numbers[static_cast<size_t>(i)], i + 1) << "at line " << i;
    EXPECT_EQ(sb.log_text().find("too long"), std::string::npos);
}

// The figure: lines per second and round trip of one request, through the module, over the
// kernel's cdc-acm port or over a pseudo-terminal in the same guest. Each writes one line
// for scripts/kernel-test.sh to set side by side.
class KernelFigure : public KernelUsb, public ::testing::WithParamInterface<bool> {};

TEST_P(KernelFigure, LinesPerSecondAndRoundTrip) {
    constexpr int kLines = 2000, kTrips = 20;
    const bool usb = GetParam();
    AccSim *acc = nullptr;
    if (usb) {
        acc = gadget(0);
        plug(acc, "/dev/ttyACM0");
    } else {
        // A pseudo-terminal behind a link in a sandbox /dev of its own.
        ASSERT_EQ(unlink(sb.path("/dev").c_str()), 0);
        ASSERT_TRUE(make_dirs(sb.path("/dev")));
        ASSERT_EQ(unlink(sb.path("/sys").c_str()), 0);
        acc = acc_sim_create(AccIdentity{}, nullptr, nullptr);
        sims.push_back(acc);
        ASSERT_EQ(acc_sim_plug(acc, 0), 0);
    }
    open();
    ASSERT_TRUE(plugged(1));
    interrogated(acc);
    ASSERT_TRUE(wait_until(queues_idle, kWait));
    using Clock = std::chrono::steady_clock;
    auto start = Clock::now();
    ASSERT_EQ(acc_sim_flood(acc, "bat", kLines), kLines);
    ASSERT_TRUE(wait_until([] { return count_of(AT_MSG_BATCG) >= kLines; }, 3 * kWait));
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    double total_ms = 0;
    for (int i = 0; i < kTrips; ++i) {
        const uint16_t seq = static_cast<uint16_t>(400 + i);
        start = Clock::now();
        request(("AT+BAT?#" + std::to_string(seq) + "&1\r\n").c_str(), AT_MSG_BAT, seq);
        ASSERT_TRUE(answered(AT_MSG_BAT, seq));
        total_ms += std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    }
    char text[160];
    snprintf(text, sizeof text, "%s %.0f %.2f\n", usb ? "cdc-acm" : "pty", kLines / seconds, total_ms / kTrips);
    const std::string keep = out_path(usb ? "figure-usb" : "figure-pty");
    if (!keep.empty()) {
        EXPECT_TRUE(write_text_file(keep, text));
    }
    printf("figure: %s", text);
}

INSTANTIATE_TEST_SUITE_P(CdcAcmAndPty, KernelFigure, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool> &p) { return p.param ? "CdcAcm" : "Pty"; });

}  // namespace
