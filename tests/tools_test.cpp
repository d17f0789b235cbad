// The host tools: the accessory simulator on a real pseudo-terminal, the daemon simulator on
// real FIFOs and the property store, the message table, and the console run as a process.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "sim/accessory_sim.h"
#include "sim/daemon_sim.h"
#include "sim/messages.h"
#include "support/test_support.h"

using namespace atcmd_test;
using namespace atcmd_tools;

namespace {

using Clock = std::chrono::steady_clock;

// The module's side of a simulated port: the slave behind dev/ttyACMn, raw as the module sets it.
struct PhoneSide {
    int fd = -1;
    explicit PhoneSide(const std::string &path) : fd(open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        struct termios tio;
        if (fd >= 0 && tcgetattr(fd, &tio) == 0) cfmakeraw(&tio), tcsetattr(fd, TCSANOW, &tio);
    }
    ~PhoneSide() {
        if (fd >= 0) close(fd);
    }
    void send(const std::string &line) const { ASSERT_EQ(write(fd, line.data(), line.size()), (ssize_t)line.size()); }
    std::string read_lines(size_t lines, int timeout_ms = 3000) const {
        return atcmd_test::read_lines(fd, lines, timeout_ms);
    }
};

struct SimFixture {
    Sandbox sb;
    AccSim *acc = acc_sim_create(AccIdentity{}, nullptr, nullptr);
    ~SimFixture() { acc_sim_destroy(acc); }
};

}  // namespace

TEST(AccessorySimTest, PlugMakesTheUeventThenTheLinkAndAnswersFromItsIdentity) {
    SimFixture f;
    ASSERT_EQ(acc_sim_plug(f.acc, 3), 0);
    EXPECT_NE(read_file(f.sb.path("/sys/class/tty/ttyACM3/device/uevent")).find("PRODUCT=7a1d/5101/100"),
              std::string::npos);
    PhoneSide phone(f.sb.path("/dev/ttyACM3"));
    ASSERT_GE(phone.fd, 0);
    EXPECT_FALSE(acc_sim_report(f.acc, "bat"));  // refused, unnumbered, until the phone's first line
    struct Case {
        const char *query;
        const char *answer;
    };
    const Case cases[] = {
        {"AT+TYPE?#15&1\r\n", "+TYPE=KV4410C#15&1\r\n"},
        {"AT+SN?#13&1\r\n", "+SN=SN20260001#13&1\r\n"},
        {"AT+BAT?#9&1\r\n", "+BAT=87,1,4120,250,1,0#9&1\r\n"},
        {"AT+USBSTATE?#16&1\r\n", "+USBSTATE=1,0#16&1\r\n"},
        {"AT+MODE?#0&2\r\n", "+MODE=0#0&2\r\n"},
        {"AT+VER?#11&1\r\n", "+VER=MCU:1.2.0,BOOT:0.9,HW:B2,WIFI:3.1.7,DSP:2.0,CFG:17,UI:5.4#11&1\r\n"},
        {"AT+STATE?\r\n", "+STATE=ACTIVE#0&1\r\n"},  // no tail: answered with number 0
    };
    for (const Case &c : cases) {
        phone.send(c.query);
        EXPECT_EQ(phone.read_lines(1), c.answer) << c.query;
    }
    ASSERT_TRUE(acc_sim_report(f.acc, "bat"));  // the first report that leaves is number 1
    EXPECT_EQ(phone.read_lines(1), "+BATCG=99,1,4120,250,1,1\r\n");
    // The phone's own lines (not queries) are only recorded.
    phone.send("AT+BTMAC=11:22:33:44:55:66#7&1\r\n");
    EXPECT_TRUE(acc_sim_wait_received(f.acc, "AT+BTMAC=11:22", 3000));
    EXPECT_EQ(phone.read_lines(1, 200), "");
}

TEST(AccessorySimTest, FaultsWithholdDelayOrMangleAnswers) {
    SimFixture f;
    ASSERT_EQ(acc_sim_plug(f.acc, 4), 0);
    PhoneSide phone(f.sb.path("/dev/ttyACM4"));
    phone.send("AT+TYPE?#15&1\r\n");  // opens the port for the simulator
    ASSERT_EQ(phone.read_lines(1), "+TYPE=KV4410C#15&1\r\n");

    acc_sim_set_silent(f.acc, "+SN", true);
    acc_sim_drop_next(f.acc, 1);
    phone.send("AT+SN?#13&1\r\n");
    phone.send("AT+SID?#14&1\r\n");  // dropped: the next answer after the silent one
    phone.send("AT+TYPE?#15&1\r\n");
    EXPECT_EQ(phone.read_lines(1), "+TYPE=KV4410C#15&1\r\n");
    EXPECT_EQ(acc_sim_counters(f.acc).dropped, 2);

    acc_sim_set_delay(f.acc, 300);
    const auto asked = Clock::now();
    phone.send("AT+SCREEN?#17&1\r\n");
    EXPECT_EQ(phone.read_lines(1), "+SCREEN=1#17&1\r\n");
    EXPECT_GE(Clock::now() - asked, std::chrono::milliseconds(250));
    acc_sim_set_delay(f.acc, 0);

    acc_sim_send_garbage(f.acc, 40);
    const std::string junk = phone.read_lines(1);
    ASSERT_EQ(junk.size(), 42u);
    EXPECT_EQ(junk.find('\n'), 41u);  // no line end inside the garbage
    acc_sim_send_overlong(f.acc, 600);
    EXPECT_EQ(phone.read_lines(1).size(), 5u + 600u + 2u);

    acc_sim_set_split(f.acc, true);
    phone.send("AT+MICMODE?#19&1\r\n");
    EXPECT_EQ(phone.read_lines(1), "+MICMODE=0#19&1\r\n");
}

TEST(AccessorySimTest, UnplugRemovesThePortAndTheModuleSideSeesItGo) {
    SimFixture f;
    ASSERT_EQ(acc_sim_plug(f.acc, 3), 0);
    PhoneSide phone(f.sb.path("/dev/ttyACM3"));
    acc_sim_unplug(f.acc);
    struct stat st;
    EXPECT_NE(lstat(f.sb.path("/dev/ttyACM3").c_str(), &st), 0);
    EXPECT_NE(stat(f.sb.path("/sys/class/tty/ttyACM3/device/uevent").c_str(), &st), 0);
    char b;
    EXPECT_LE(read(phone.fd, &b, 1), 0);  // end of file or EIO, never a block

    acc_sim_schedule_unplug(f.acc, 0, 50);  // nothing plugged: only the re-plug takes effect
    EXPECT_TRUE(wait_until([&] { return acc_sim_plugged(f.acc); }));
    EXPECT_EQ(lstat(f.sb.path("/dev/ttyACM3").c_str(), &st), 0);
}

namespace {

struct DaemonReports {
    std::mutex mu;  // guards statuses
    std::vector<std::string> statuses;
    static void report(void *ctx, const std::string &status) {
        auto *self = static_cast<DaemonReports *>(ctx);
        std::lock_guard<std::mutex> lock(self->mu);
        self->statuses.push_back(status);
    }
    bool wait_for(const std::string &status) {
        return wait_until([&] {
            std::lock_guard<std::mutex> lock(mu);
            return std::find(statuses.begin(), statuses.end(), status) != statuses.end();
        });
    }
};

}  // namespace

TEST(DaemonSimTest, StartMakesFifosReportsRunningHeartbeatsAndCarriesLines) {
    SimFixture f;
    DaemonReports reports;
    DaemonSim *d = daemon_sim_create(f.acc, DaemonReports::report, nullptr, &reports);
    ASSERT_NE(d, nullptr);
    f.sb.set_property("vendor.hid_cmd", "start_server");
    ASSERT_TRUE(reports.wait_for("running"));
    // The module's ends: it writes fifo_tx and reads fifo_rx.
    const int tx = open(f.sb.path("/dev/fifo_tx").c_str(), O_RDWR | O_CLOEXEC);
    const int rx = open(f.sb.path("/dev/fifo_rx").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(tx, 0);
    ASSERT_GE(rx, 0);
    ASSERT_EQ(write(tx, "AT+SID?#14&1\r\n", 14), 14);
    EXPECT_EQ(read_lines(rx, 1), "+SID=SID7A1D5101#14&1\r\n");
    EXPECT_TRUE(reports.wait_for("heartbeat:1"));
    EXPECT_TRUE(reports.wait_for("heartbeat:2"));
    close(tx);
    close(rx);
    daemon_sim_destroy(d);
}

TEST(DaemonSimTest, ExitOnTheCommandFifoStopsItUntilTheNextStart) {
    SimFixture f;
    DaemonReports reports;
    f.sb.set_property("vendor.hid_cmd", "start_server");  // written before the daemon is up
    DaemonSim *d = daemon_sim_create(f.acc, DaemonReports::report, nullptr, &reports);
    ASSERT_TRUE(reports.wait_for("running"));
    daemon_sim_set_silent(d, true);
    const int cmd = open(f.sb.path("/dev/fifo_cmd").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(write(cmd, "exit", 4), 4);
    close(cmd);
    EXPECT_TRUE(wait_until([&] { return f.sb.property("vendor.hid_sts") == "exit"; }));
    EXPECT_FALSE(daemon_sim_running(d));
    f.sb.set_property("vendor.hid_cmd", "start_server");
    EXPECT_TRUE(wait_until([&] { return daemon_sim_counters(d).starts == 2; }));
    EXPECT_TRUE(reports.wait_for("heartbeat:1"));  // a restarted daemon beats again
    f.sb.set_property("vendor.hid_cmd", "stop_server");
    EXPECT_TRUE(wait_until([&] { return !daemon_sim_running(d); }));
    EXPECT_EQ(daemon_sim_counters(d).exits, 1);
    daemon_sim_destroy(d);
}

TEST(MessagesTest, DecodesEachKindOfValue) {
    int32_t bat[6] = {87, 1, 4120, 250, 1, 0};
    int32_t err = -110;
    usbdev_sts_t usb = {0, -1};
    char sn[] = "SN1";
    char ver[CORVEL_VER_BLOCK_SIZE] = {};
    strcpy(ver, "MCU:1");
    strcpy(ver + 96, "WIFI:3");
    struct Case {
        AT_CMD_CbMsg_t msg;
        const char *text;
        const char *json_value;
    };
    const Case cases[] = {
        {{AT_MSG_BATCG, 5, bat}, "BATCG (msg_id 26) seq 5: 87,1,4120,250,1,0", "[87,1,4120,250,1,0]"},
        {{AT_MSG_ERROR, 9, &err}, "ERROR (msg_id 24) seq 9: -110 ETIMEDOUT", "[-110]"},
        {{AT_MSG_USBSTATE, 0, &usb}, "USBSTATE (msg_id 16) seq 0: connected 0 status -1", "[0,-1]"},
        {{AT_MSG_SN, 13, sn}, "SN (msg_id 13) seq 13: \"SN1\"", "\"SN1\""},
        {{AT_MSG_VER, 11, ver}, "VER (msg_id 11) seq 11: \"MCU:1 |  |  | WIFI:3", "[\"MCU:1\",\"\",\"\",\"WIFI:3\""},
        {{AT_MSG_UPGRADE, 1, nullptr}, "UPGRADE (msg_id 1) seq 1: (no data)", "null"},
        {{77, 2, &err}, "#77 (msg_id 77) seq 2: (value not decoded)", "null"},
    };
    for (const Case &c : cases) {
        const DecodedMessage m = decode_message(&c.msg);
        EXPECT_EQ(message_text(m).rfind(c.text, 0), 0u) << message_text(m);
        EXPECT_NE(message_json(m).find(std::string("\"value\":") + c.json_value), std::string::npos)
            << message_json(m);
    }
    EXPECT_EQ(message_id("+ver"), AT_MSG_VER);
    EXPECT_EQ(message_id("WT"), AT_MSG_WT);
    EXPECT_EQ(message_id("+NOPE"), -1);
}

namespace {

// Runs `command` in a shell and gives back what it printed on either stream, checking how it ended.
std::string run(const std::string &command, int exit_code) {
    std::string out;
    FILE *p = popen((command + " 2>&1").c_str(), "r");
    char buf[4096];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    const int status = p != nullptr ? pclose(p) : -1;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == exit_code) << command << "\n" << out;
    return out;
}

std::string run_console(const std::string &args, const std::string &script, int exit_code = 0) {
    const std::string script_path = std::string(getenv("ATCMD_ROOT")) + "/script.atcmd";
    write_file(script_path, script);
    // The console is a process of its own: hand it the test processes' sanitizer settings.
    setenv("TSAN_OPTIONS", "report_signal_unsafe=0 suppressions=" ATCMD_TSAN_SUPPRESSIONS, 1);
    return run(ATCMD_TOOL_RUNNER "'" ATCMD_BIN_DIR "/atcmd_console' --module '" ATCMD_MODULE_PATH "' " + args + " '" +
                   script_path + "'", exit_code);
}

// Each step must be found in the console's output after the one before it.
void expect_in_order(const std::string &out, const std::vector<std::string> &steps) {
    size_t at = 0;
    for (const std::string &step : steps) {
        const size_t found = out.find(step, at);
        ASSERT_NE(found, std::string::npos) << "missing or out of order: " << step << "\n" << out;
        at = found + step.size();
    }
}

std::string message(const char *name, int seq, const std::string &value) {
    return std::string("\"name\":\"") + name + "\",\"seq_num\":" + std::to_string(seq) + ",\"value\":" + value;
}

std::string acc_line(const char *dir, const std::string &line) {
    return std::string("\"link\":\"usb\",\"dir\":\"") + dir + "\",\"text\":\"" + line + "\"";
}

// Plugs the simulated accessory and waits for the end of the module's start-up interrogation.
constexpr const char kPlugged[] =
    "setprop net.bluetooth.macaddr 11:22:33:44:55:66\nacc plug 3\nwait VER 8000\n";

}  // namespace

TEST(ConsoleEndToEndTest, UsbStorylinePlugIdentityReportTimeoutQuestionsUnplug) {
    Sandbox sb;
    const std::string out = run_console("--sim --json",
                                        std::string(kPlugged) +
                                            "acc report bat\nwait BATCG 3000\n"
                                            "acc silent +SN\nquery sn\nwait ERROR=-110 3000\n"
                                            "acc ask state\nwait-acc +STATE=IDLE 3000\n"
                                            "acc ask mac\nwait-acc AT+BTMAC= 3000\n"
                                            "acc unplug\nwait USBSTATE=0,-1 5000\n");
    const std::string sent_sn = acc_line("<-", "AT+SN?#100&1");  // sent, then resent twice
    expect_in_order(out, {acc_line("<-", "AT+TYPE?#15&1"), message("TYPE", 15, "\"KV4410C\""),
                          message("VER", 11, "[\"1.2.0\",\"0.9\",\"B2\",\"3.1.7\""),
                          message("BATCG", 0, "[99,1,4120,250,1,1]"), sent_sn, sent_sn, sent_sn,
                          message("ERROR", 100, "[-110]"), acc_line("<-", "+STATE=IDLE"),
                          acc_line("<-", "AT+BTMAC=11:22:33:44:55:66#7&1"), message("USBSTATE", 0, "[0,-1]")});
}

TEST(ConsoleEndToEndTest, BurstOfReportsReachesTheCallbackInOrder) {
    Sandbox sb;
    constexpr int kBurst = 60;
    const std::string out = run_console(
        "--sim --json", std::string(kPlugged) + "acc report hall " + std::to_string(kBurst) +
                            "\nwait HALLCG=0,0," + std::to_string(kBurst) + " 8000\n");
    std::vector<std::string> reports;
    for (int n = 1; n <= kBurst; ++n) {
        reports.push_back(message("HALLCG", 0, "[" + std::to_string(n % 2) + ",0," + std::to_string(n) + "]"));
    }
    expect_in_order(out, reports);
}

TEST(ConsoleEndToEndTest, FaultsProduceTheModulesReactions) {
    Sandbox sb;
    const std::string out = run_console(
        "--sim --json",
        std::string(kPlugged) +
            "acc split\nquery type\nwait TYPE=KV4410C 3000\nacc split off\n"      // seq 100: joined
            "acc garbage 40\nquery sn\nwait SN 3000\n"                               // seq 101: still parsed
            "acc overlong 600\nquery sid\nwait SID 3000\n"                           // seq 102: after the drop
            "acc delay 150\nquery screen\nwait-acc AT+SCREEN?#103&1 3000\nsleep 600\nacc delay 0\n"
            "acc unplug-at 0 300\nwait USBSTATE=0,-1 5000\nwait USBSTATE 5000\nwait VER 5000\n");
    // An answer later than the module's time-out: resent, then answered, never reported lost.
    // Then pulled and plugged back: the module sees both and asks again.
    expect_in_order(out, {message("TYPE", 100, "\"KV4410C\""), message("SN", 101, "\"SN20260001\""),
                          message("SID", 102, "\"SID7A1D5101\""), acc_line("<-", "AT+SCREEN?#103&1"),
                          acc_line("<-", "AT+SCREEN?#103&1"), message("SCREEN", 103, "[1]"),
                          message("USBSTATE", 0, "[0,-1]"), acc_line("<-", "AT+TYPE?#15&1"),
                          message("VER", 11, "[")});
    EXPECT_EQ(out.find(message("ERROR", 103, "[-110]")), std::string::npos) << out;
    const std::string log = sb.log_text();
    EXPECT_NE(log.find("is not supported"), std::string::npos);  // the garbage line, rejected
    EXPECT_NE(log.find("too long"), std::string::npos);          // the over-long line, dropped
}

TEST(ConsoleTest, ScriptInJsonLinesReportsTheUnansweredQueryAndFailsOnABadCommand) {
    Sandbox sb;
    const std::string out = run_console("--json", "# a comment\nquery ver\nwait ERROR=-110 5000\nnosuch\n", 1);
    EXPECT_NE(out.find("{\"event\":\"message\",\"msg_id\":24,\"name\":\"ERROR\",\"seq_num\":100,\"value\":[-110]}"),
              std::string::npos) << out;
    EXPECT_NE(out.find("{\"event\":\"result\",\"command\":\"nosuch\",\"ok\":false"), std::string::npos) << out;
    EXPECT_EQ(out.find("[tid:"), std::string::npos) << "module prints leaked into the console output";
}

TEST(ConsoleEndToEndTest, WifiComesUpThroughTheDaemonRestartsOnErrorAndGoesDown) {
    Sandbox sb;
    const std::string out = run_console("--sim --json",
                                        "wifi-init 192.168.43.1\nwait WIFICON=1 5000\n"
                                        "acc report temp 1 wifi\nwait HRM 3000\n"
                                        "dsim error\nwait WIFICON=0 3000\nwait WIFICON=1 8000\n"
                                        "wifi-down\nwait WIFICON=0 5000\n");
    // "error": the module tells the upper layer, stops the daemon in order and starts it again.
    expect_in_order(out, {"started (start_server)", "report \\\"running\\\"", message("WIFICON", 0, "[1]"),
                          "\"link\":\"wifi\",\"dir\":\"->\",\"text\":\"+HRM=36,41\"", message("HRM", 0, "[36,41]"),
                          message("WIFICON", 0, "[0]"), "exit requested on fifo_cmd", "started (start_server)",
                          message("WIFICON", 0, "[1]"), "exit requested on fifo_cmd", message("WIFICON", 0, "[0]")});
    EXPECT_EQ(sb.property("vendor.hid_sts"), "exit");
    EXPECT_EQ(sb.property("vendor.corvel.timesync"), "disable");
}

// The README's main job: the whole demonstration, heartbeat loss included, every step met.
TEST(ConsoleEndToEndTest, DemonstrationScriptRunsEveryStep) {
    Sandbox sb;
    const std::string script = read_file(ATCMD_TEST_DIR "/../tools/demo/demo.atcmd");
    ASSERT_FALSE(script.empty());
    const std::string out = run_console("--sim", script);
    EXPECT_EQ(out.find("error:"), std::string::npos) << out;
    expect_in_order(out, {"TYPE (msg_id 15) seq 15: \"KV4410C\"", "BATCG (msg_id 26)",
                          "ERROR (msg_id 24) seq 100: -110", "<- +STATE=IDLE", "WIFICON (msg_id 18) seq 0: 1",
                          "report \"heartbeat:2\"", "exit requested on fifo_cmd", "WIFICON (msg_id 18) seq 0: 1",
                          "WIFICON (msg_id 18) seq 0: 0", "USBSTATE (msg_id 16) seq 0: connected 0 status -1",
                          "summary: resends 2, time-outs 1"});
}

// The console's own commands, and the record "send" fills from a line as the upper layer would.
TEST(ConsoleTest, CommandLineDrivesTheDeviceOperationsPropertyStoreAndRecords) {
    Sandbox sb;
    const std::pair<const char *, const char *> cases[] = {
        {"setprop persist.vendor.corvel.factory.wt P", ""},
        {"getprop persist.vendor.corvel.factory.wt", "persist.vendor.corvel.factory.wt=P"},
        {"status", "platform 1 mode -1"}, {"devinfo", "model 0"}, {"loglevel", "log_level 3"},
        {"send AT+VER?#11&1", "sent AT+VER?#11&1 (type 3, cmd_id 11, seq 11)"},
        {"send AT+WIFICON=1#18&2", "sent AT+WIFICON=1#18&2 (type 2, cmd_id 18, seq 18)"},
        {"send AT+RESET", "sent AT+RESET (type 1, cmd_id 5, seq 0)"},
        {"send +STATE=IDLE", "sent +STATE=IDLE (type 4, cmd_id 10, seq 0)"},
        {"send AT+NOSUCH?#3&1", "sent AT+NOSUCH?#3&1 (type 3, cmd_id 0, seq 3); its keyword is not in the table"},
    };
    std::string commands;
    for (const auto &c : cases) commands += std::string(commands.empty() ? "" : "; ") + c.first;
    const std::string out = run_console("--log-level 3 -c '" + commands + "'", "");
    for (const auto &c : cases) EXPECT_NE(out.find(c.second), std::string::npos) << c.first << "\n" << out;
}

TEST(ToolsCliTest, HelpRunsAndBadSetUpIsRefusedWithAReason) {
    Sandbox sb;
    const std::string bin = "'" ATCMD_BIN_DIR "/";
    const std::string start = ATCMD_TOOL_RUNNER + bin;  // a program run, not named as a file
    const std::tuple<std::string, int, const char *> cases[] = {
        {start + "atcmd_console' --help", 0, "usage: atcmd_console"},
        {start + "atcmd_accessory_sim' --help", 0, "ask state|mac|ver|wt"},
        {start + "atcmd_daemon_sim' --help", 0, "vendor.hid_cmd"},
        {start + "atcmd_console' --module /nonexistent/atcmdprocess.default.so -c status", 1, "no atcmdprocess.default.so found"},
        {start + "atcmd_console' --module " + bin + "atcmd_daemon_sim' -c status", 1, "dlopen"},
        {"env -u ATCMD_ROOT " + start + "atcmd_accessory_sim' </dev/null", 2, "ATCMD_ROOT is not set"},
        {start + "atcmd_accessory_sim' --set colour=red </dev/null", 2, "bad --set \"colour=red\""},
    };
    for (const auto &[command, exit_code, says] : cases) {
        EXPECT_NE(run(command, exit_code).find(says), std::string::npos) << command;
    }
}
