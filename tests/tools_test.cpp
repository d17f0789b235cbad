// The console run as a process, loading the module as the platform does, against the accessory
// and daemon simulators (which the Wi-Fi tests drive too); its trace, read back with a real JSON
// parser (jq); the tools' command lines; the simulators as processes (one per sandbox, how they
// end, their reports relayed to a console in another process); and the names the module exports.
#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "engine/keyword_rows.h"
#include "supervision/resend.h"
#include "sim/sim_commands.h"
#include "sim/status_relay.h"
#include "support/test_support.h"

extern char **environ;

using namespace atcmd_test;
using atcmd_tools::CommandResult;

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

// The console with the built module and `args`. It is a process of its own: it is handed the
// test processes' sanitizer settings.
std::string console(const std::string &args) {
    setenv("TSAN_OPTIONS", "report_signal_unsafe=0 suppressions=" ATCMD_TSAN_SUPPRESSIONS, 1);
    return ATCMD_TOOL_RUNNER "'" ATCMD_BIN_DIR "/atcmd_console' --module '" ATCMD_MODULE_PATH "' " + args;
}

std::string run_console(const std::string &args, const std::string &script, int exit_code = 0) {
    const std::string script_path = std::string(getenv("ATCMD_ROOT")) + "/script.atcmd";
    write_text_file(script_path, script);
    return run(console(args + " '" + script_path + "'"), exit_code);
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

// Starts `command` (a shell line; its program exec'ed in place of the shell, so the process id
// is the program's) without waiting for it.
pid_t start(const std::string &command) {
    const std::string line = "exec " + command;
    const char *argv[] = {"sh", "-c", line.c_str(), nullptr};
    pid_t pid = -1;
    EXPECT_EQ(posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char **>(argv), environ), 0);
    return pid;
}

// Starts the console on `commands` with its trace in the sandbox; its process id.
pid_t start_console(const Sandbox &sb, const std::string &options, const std::string &commands) {
    return start(console(options + " --trace '" + sb.path("/t.json") + "' -c '" + commands + "' >/dev/null 2>&1"));
}

// A simulator with `args` and the shell redirections `io`.
pid_t start_tool(const char *tool, const std::string &args_and_io) {
    return start(std::string(ATCMD_TOOL_RUNNER "'" ATCMD_BIN_DIR "/") + tool + "' " + args_and_io);
}

int finish(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

// Waits until the process ended, within the deadline; its status in *status.
bool ended_within(pid_t pid, int *status, int timeout_ms) {
    return wait_until([&] { return waitpid(pid, status, WNOHANG) == pid; }, timeout_ms);
}

bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

// One request span as the trace has it.
struct Span {
    long ts, dur, tid, resends;
    std::string outcome, name;
};

// What jq's `filter` makes of the trace file, one result a line.
std::string jq(const std::string &filter, const std::string &trace) {
    return run("jq -r '" + filter + "' '" + trace + "'", 0);
}

// Request spans by sequence number; a number seen twice fails the test.
std::map<int, Span> spans(const std::string &trace) {
    std::istringstream rows(jq(".traceEvents[] | select(.ph==\"X\" and .cat==\"request\") | \"\\(.args.seq) "
                               "\\(.ts) \\(.dur) \\(.tid) \\(.args.resends) \\(.args.outcome)|\\(.name)\"", trace));
    std::map<int, Span> out;
    int seq;
    for (Span s; rows >> seq >> s.ts >> s.dur >> s.tid >> s.resends && std::getline(rows, s.outcome, '|') &&
                 std::getline(rows, s.name);) {
        s.outcome.erase(0, 1);
        EXPECT_TRUE(out.emplace(seq, s).second) << "two spans for request #" << seq;
    }
    return out;
}

bool valid_json(const std::string &trace) { return system(("jq -e .traceEvents '" + trace + "' >/dev/null").c_str()) == 0; }

constexpr const char kPlugAndAsk[] = "acc plug 3; wait VER 8000; query sn; wait SN 3000; acc silent +SN; query sn; "
                                     "wait ERROR=-110 3000; acc unplug; wait USBSTATE=0,-1 5000";

}  // namespace

// The console loads the module as the platform's loader does (dlopen, HMI, tag and id, open);
// a query nothing answers comes back as a time-out, and a bad command fails the script.
TEST(ConsoleTest, LoadsTheModuleReportsTheUnansweredQueryAndFailsOnABadCommand) {
    Sandbox sb;
    const std::string out = run_console("--json", "# a comment\nquery ver\nwait ERROR=-110 5000\nnosuch\n", 2);
    EXPECT_NE(out.find("module \\\"atcmdprocess\\\" (At cmd process HAL)"), std::string::npos) << out;
    EXPECT_NE(out.find("\"event\":\"message\",\"msg_id\":24,\"name\":\"ERROR\",\"seq_num\":100,\"value\":[-110],"
                       "\"error\":{\"number\":-110,\"name\":\"ETIMEDOUT\""),
              std::string::npos) << out;
    EXPECT_NE(out.find("\"event\":\"result\",\"command\":\"nosuch\",\"ok\":false,\"exit_code\":2"), std::string::npos) << out;
    EXPECT_EQ(out.find("[tid:"), std::string::npos) << "module prints leaked into the console output";
    EXPECT_TRUE(pattern_search(sb.log_text(), R"(\]\[tid:\d+\]atcmder_hal_open:\d+: func is atcmder_hal_open\.)"))
        << sb.log_text();
}

// The README's main job: the whole demonstration, every step met: plug, interrogation, a report,
// an unanswered query resent until reported, the accessory's questions, Wi-Fi through the daemon
// simulator with its heartbeat lost and restarted, Wi-Fi down, unplug.
TEST(ConsoleEndToEndTest, DemonstrationScriptRunsEveryStep) {
    Sandbox sb;
    const std::string script = read_file(ATCMD_TEST_DIR "/../tools/demo/demo.atcmd");
    ASSERT_FALSE(script.empty());
    const std::string out = run_console("--sim", script);
    EXPECT_EQ(out.find("error:"), std::string::npos) << out;
    expect_in_order(out, {"TYPE (msg_id 15) seq 15: \"KV4410C\"", "BATCG (msg_id 26)",
                          "ERROR (msg_id 24) seq 100: -110", "<- +STATE=IDLE", "<- AT+BTMAC=11:22:33:44:55:66#7&1",
                          "WIFICON (msg_id 18) seq 0: 1", "report \"heartbeat:2\"", "exit requested on fifo_cmd",
                          "WIFICON (msg_id 18) seq 0: 1", "WIFICON (msg_id 18) seq 0: 0", "vendor.hid_sts=exit",
                          "USBSTATE (msg_id 16) seq 0: connected 0 status -1",
                          "summary: resends " + std::to_string(ATCMD_MAX_RESENDS) + ", time-outs 1"});
    EXPECT_NE(out.find("warning: the Wi-Fi daemon's heartbeat was lost"), std::string::npos) << out;
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
        {start + "atcmd_console' --module /nonexistent/atcmdprocess.default.so -c status", 4, "no atcmdprocess.default.so found"},
        {start + "atcmd_console' --module " + bin + "atcmd_daemon_sim' -c status", 4, "dlopen"},
        {"env -u ATCMD_ROOT " + start + "atcmd_accessory_sim' </dev/null", 2, "ATCMD_ROOT is not set"},
        {start + "atcmd_accessory_sim' --set colour=red </dev/null", 2, "bad --set \"colour=red\""},
        {start + "atcmd_accessory_sim' --acm -1 </dev/null", 2, "ports are ttyACM0 to ttyACM9999"},
        {start + "atcmd_accessory_sim' --every bat </dev/null", 2, "usage: every"},
        {start + "atcmd_accessory_sim' --version", 0, "atcmd_accessory_sim 1."},
        {start + "atcmd_daemon_sim' --version", 0, "atcmd_daemon_sim 1."},
        {start + "atcmd_daemon_sim' start </dev/null", 2, "unexpected argument \"start\""},
    };
    for (const auto &[command, exit_code, says] : cases) {
        EXPECT_NE(run(command, exit_code).find(says), std::string::npos) << command;
    }
}

// Exactly the names listed in exported_names.txt (# starts a comment) and the keyword rows'
// parsers; sanitizer builds add instrumentation symbols of their own, which start with "__".
TEST(ModuleLoadTest, ExportsExactlyTheSystemNames) {
#define ATCMD_PARSER_NAME(name, parser) #parser,
#define ATCMD_NO_PARSER_NAME(name)
    std::set<std::string> expected = {ATCMD_KEYWORD_ROWS(ATCMD_PARSER_NAME, ATCMD_NO_PARSER_NAME)};
    std::set<std::string> exported;
    std::istringstream names(read_file(ATCMD_TEST_DIR "/exported_names.txt"));
    for (std::string line; std::getline(names, line);) {
        if (!line.empty() && line[0] != '#') expected.insert(line);
    }
    std::istringstream lines(run("nm -D --defined-only '" ATCMD_MODULE_PATH "'", 0));
    std::vector<std::string> m;
    for (std::string line; std::getline(lines, line);) {
        if (pattern_match(line, R"(^[0-9a-fA-F]+ \w (\S+)$)", &m) &&
            (m[1].rfind("__", 0) != 0 || m[1] == "__system_property_get")) {
            exported.insert(m[1]);
        }
    }
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(exported, expected);
}

TEST(TraceTest, AnsweredAndUnansweredQueriesAreOneSpanEachWithResendsInsideAndLinkEventsGlobal) {
    Sandbox sb;
    ASSERT_EQ(system("jq --version >/dev/null"), 0) << "jq reads the trace back";
    const int status = finish(start_console(sb, "--sim", kPlugAndAsk));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    const std::string trace = sb.path("/t.json");
    ASSERT_TRUE(valid_json(trace)) << read_file(trace);
    const std::map<int, Span> all = spans(trace);
    ASSERT_EQ(all.count(100), 1u);
    ASSERT_EQ(all.count(101), 1u);
    EXPECT_EQ(all.at(100).outcome, "answered SN");
    EXPECT_EQ(all.at(100).resends, 0);
    EXPECT_EQ(all.at(101).outcome, "-110 ETIMEDOUT");
    EXPECT_EQ(all.at(101).resends, ATCMD_MAX_RESENDS);
    EXPECT_EQ(all.at(101).tid, 2);  // the USB link's track
    // From the hand-over to the -110: a wait before each resend and one after the last; the
    // first may end early, as the second turns.
    EXPECT_GE(all.at(101).dur, static_cast<long>(ATCMD_MAX_RESENDS * ATCMD_TIMEOUT_DEFAULT));
    EXPECT_NE(all.at(101).name.find("-110"), std::string::npos) << all.at(101).name;
    EXPECT_EQ(all.at(15).outcome, "answered TYPE");  // the module's own start-up queries too
    for (const auto &[seq, s] : all) EXPECT_GE(s.dur, 0) << "#" << seq;
    // Each resend on the span's own track, between its start and its end. Only the unanswered
    // query's are counted: a slow run (an emulator) may resend the start-up queries as well.
    std::istringstream resends(jq(".traceEvents[] | select(.cat==\"resend\") | \"\\(.args.seq) \\(.ts) \\(.tid)\"", trace));
    int count = 0;
    for (long seq, ts, tid; resends >> seq >> ts >> tid;) {
        ASSERT_EQ(all.count(seq), 1u);
        const Span &s = all.at(seq);
        EXPECT_EQ(tid, s.tid);
        EXPECT_TRUE(ts >= s.ts && ts <= s.ts + s.dur) << "resend of #" << seq << " at " << ts;
        if (seq == 101) ++count;
    }
    EXPECT_EQ(count, ATCMD_MAX_RESENDS);
    EXPECT_EQ(jq("[.traceEvents[] | select(.cat==\"link\" and .s==\"g\") | .name] | join(\",\")", trace), "plug,unplug\n");
}

// Cut short by a signal while a request waits: still valid JSON (also after SIGKILL, which
// leaves no time to write anything), and the process ended by that signal; a signal that can be
// caught has the open span written too.
TEST(TraceTest, ATraceCutShortByASignalIsStillValid) {
    for (int sig : {SIGINT, SIGTERM, SIGKILL}) {
        Sandbox sb;
        const pid_t pid = start_console(sb, "--sim", "acc plug 3; wait VER 8000; acc silent +SN; query sn; sleep 20000");
        // The query's own resend (a slow run may resend the interrogation's queries as well).
        ASSERT_TRUE(wait_until([&] { return read_file(sb.path("/t.json")).find("{\"seq\":100,\"resend\"") != std::string::npos; }, 10000));
        kill(pid, sig);
        const int status = finish(pid);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << status;
        ASSERT_TRUE(valid_json(sb.path("/t.json"))) << read_file(sb.path("/t.json"));
        if (sig == SIGKILL) {
            EXPECT_EQ(jq("[.traceEvents[] | select(.cat==\"resend\")] | length > 0", sb.path("/t.json")), "true\n");
            continue;
        }
        const std::map<int, Span> all = spans(sb.path("/t.json"));
        ASSERT_EQ(all.count(100), 1u) << "signal " << sig;
        // Killed between two resends as a rule; a slow run may see the time-out come first.
        EXPECT_TRUE(all.at(100).outcome == "still open when the trace ended" || all.at(100).outcome == "-110 ETIMEDOUT")
            << all.at(100).outcome;
    }
}

// Bad arguments are refused with the command's usage line and change nothing; good ones act.
TEST(SimCommandsTest, BadArgumentsAreRefusedWithTheUsageLineAndDoNothing) {
    Sandbox sb;
    atcmd_tools::AccSim *acc = atcmd_tools::acc_sim_create(atcmd_tools::AccIdentity{}, nullptr, nullptr);
    const auto run = [&](const std::string &line) { return atcmd_tools::acc_command(acc, atcmd_tools::split_words(line)); };
    const std::pair<const char *, const char *> refused[] = {
        {"plug -1", "usage: plug [N]"},        {"plug 10000", "ttyACM0 .. ttyACM9999"},
        {"plug 3x", "usage: plug"},            {"plug 3 4", "usage: plug"},
        {"unplug", "not plugged"},             {"unplug-at", "usage: unplug-at"},
        {"ask", "usage: ask"},                 {"ask colour", "usage: ask state|mac|ver|wt"},
        {"report smoke", "usage: report"},     {"report bat 0", "usage: report"},
        {"report bat 1 serial", "usage: report"}, {"every bat", "usage: every"},
        {"every bat -5", "usage: every"},      {"delay", "usage: delay"},
        {"drop many", "usage: drop"},          {"silent +NOPE", "usage: silent"},
        {"silent +SN maybe", "usage: silent"}, {"split sideways", "usage: split"},
        {"garbage 0", "usage: garbage"},       {"counters now", "usage: counters"},
        {"gadget", "usage: gadget"},           {"gadget dummy_udc.0 alien", "usage: gadget"},
        {"carrier", "usage: carrier"},         {"carrier on", "needs a plugged gadget"},
        {"reading maybe", "usage: reading"},   {"flood bat", "usage: flood"},
        {"flood smoke 5", "usage: flood"},     {"flood bat 0", "usage: flood"},
        {"flood bat 5", "needs an open link"},
        {"fly", "unknown accessory command \"fly\""},
    };
    for (const auto &[line, says] : refused) {
        const CommandResult r = run(line);
        EXPECT_FALSE(r.ok) << line;
        EXPECT_NE(r.text.find(says), std::string::npos) << line << ": " << r.text;
    }
    EXPECT_FALSE(exists(sb.path("/dev/ttyACM-1")));
    EXPECT_FALSE(atcmd_tools::acc_sim_plugged(acc));
    EXPECT_TRUE(run("plug 4").ok);
    EXPECT_TRUE(exists(sb.path("/dev/ttyACM4")));
    EXPECT_NE(run("plug 5").text.find("already plugged"), std::string::npos);
    EXPECT_TRUE(run("unplug").ok);
    atcmd_tools::acc_sim_destroy(acc);
    const CommandResult daemon = atcmd_tools::daemon_command(nullptr, {"silent", "now"});
    EXPECT_FALSE(daemon.ok);
    EXPECT_NE(daemon.text.find("usage: silent"), std::string::npos) << daemon.text;
}

// One simulator per role and sandbox: the second is refused with the owner's pid and leaves the
// first one's port alone; the claim ends with its owner, however it ends.
TEST(SandboxClaimTest, ASecondSimulatorIsRefusedWithTheOwnersPid) {
    Sandbox sb;
    const pid_t first = start_tool("atcmd_accessory_sim", "</dev/null >/dev/null 2>&1");
    ASSERT_TRUE(wait_until([&] { return exists(sb.path("/dev/ttyACM3")); }, 10000));
    const std::string port = read_file(sb.path("/sim/accessory.lock"));
    const std::string out = run(ATCMD_TOOL_RUNNER "'" ATCMD_BIN_DIR "/atcmd_accessory_sim' --acm 4 </dev/null", 2);
    EXPECT_NE(out.find("held by pid " + std::to_string(first)), std::string::npos) << out;
    EXPECT_FALSE(exists(sb.path("/dev/ttyACM4")));
    std::string error;
    EXPECT_EQ(atcmd_tools::sandbox_claim(atcmd_tools::kAccessoryRole, &error), -1);
    const int daemon = atcmd_tools::sandbox_claim(atcmd_tools::kDaemonRole, &error);
    EXPECT_GE(daemon, 0) << "another role of the same sandbox is free: " << error;
    close(daemon);
    kill(first, SIGKILL);
    finish(first);
    const int taken = atcmd_tools::sandbox_claim(atcmd_tools::kAccessoryRole, &error);
    EXPECT_GE(taken, 0) << "a dead owner's claim is free: " << error;
    EXPECT_EQ(read_file(sb.path("/sim/accessory.lock")), std::to_string(getpid()) + "\n");
    close(taken);
    // No room for the lock (a file where its directory goes): refused with the reason.
    ASSERT_EQ(system(("rm -r '" + sb.path("/sim") + "' && touch '" + sb.path("/sim") + "'").c_str()), 0);
    EXPECT_EQ(atcmd_tools::sandbox_claim(atcmd_tools::kAccessoryRole, &error), -1);
    EXPECT_NE(error.find("cannot claim the sandbox"), std::string::npos) << error;
}

// Ctrl-D at a terminal ends a simulator; from /dev/null it runs on until a stop signal. Either
// way it leaves cleanly: exit status 0, its port unplugged.
TEST(SimulatorProcessTest, CtrlDAtATerminalOrAStopSignalEndsItCleanly) {
    for (const bool terminal : {true, false}) {
        Sandbox sb;
        Pty tty;
        const pid_t sim = start_tool("atcmd_accessory_sim", "<" + (terminal ? tty.slave_path() : "/dev/null") +
                                                                " >/dev/null 2>&1");
        ASSERT_TRUE(wait_until([&] { return exists(sb.path("/dev/ttyACM3")); }, 10000));
        int status = 0;
        if (terminal) {
            tty.write("counters\n\x04");  // a command, then Ctrl-D at the start of a line
        } else {
            EXPECT_FALSE(ended_within(sim, &status, 300)) << "ended at the end of /dev/null";
            kill(sim, SIGTERM);
        }
        ASSERT_TRUE(ended_within(sim, &status, 10000)) << (terminal ? "Ctrl-D" : "SIGTERM");
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        EXPECT_FALSE(exists(sb.path("/dev/ttyACM3"))) << "left plugged";
    }
}

// The relay's two ends in one process: each report line reaches the handler; a line too long to
// be a report is dropped, and the next is taken; with no reader, a report is not relayed.
TEST(StatusRelayTest, EachReportLineIsHandedOverAndAnOverlongOneDropped) {
    Sandbox sb;
    EXPECT_EQ(atcmd_tools::status_relay_send("running"), atcmd_tools::RelayResult::NoReader);
    struct Seen {
        std::mutex mu;  // guards reports and notes
        std::vector<std::string> reports, notes;
    } seen;
    atcmd_tools::StatusListener *l = atcmd_tools::status_relay_listen(
        [](void *ctx, const std::string &s) {
            auto *seen = static_cast<Seen *>(ctx);
            std::lock_guard<std::mutex> lock(seen->mu);
            seen->reports.push_back(s);
        },
        [](void *ctx, const std::string &s) {
            auto *seen = static_cast<Seen *>(ctx);
            std::lock_guard<std::mutex> lock(seen->mu);
            seen->notes.push_back(s);
        },
        &seen);
    ASSERT_NE(l, nullptr);
    for (const std::string &status : {std::string("running"), std::string(200, 'x'), std::string("heartbeat:1")}) {
        EXPECT_EQ(atcmd_tools::status_relay_send(status), atcmd_tools::RelayResult::Relayed);
    }
    EXPECT_TRUE(wait_until([&] {
        std::lock_guard<std::mutex> lock(seen.mu);
        return seen.reports.size() >= 2;
    }));
    atcmd_tools::status_relay_stop(l);
    EXPECT_EQ(seen.reports, (std::vector<std::string>{"running", "heartbeat:1"}));
    EXPECT_NE(std::find(seen.notes.begin(), seen.notes.end(), "dropped a status line longer than 91 bytes"),
              seen.notes.end());
}

// A daemon simulator run on its own, beside a console in another process: its reports reach the
// module through the console, which starts the Wi-Fi link on "running" (WIFICON 1) and takes the
// heartbeats that follow; the trace shows the link's events as they happened.
TEST(StatusRelayTest, AStandaloneDaemonSimulatorsReportsReachTheModuleThroughTheConsole) {
    Sandbox sb;
    const pid_t daemon = start_tool("atcmd_daemon_sim", "--json </dev/null >'" + sb.path("/daemon.jsonl") + "' 2>&1");
    ASSERT_TRUE(wait_until([&] { return read_file(sb.path("/daemon.jsonl")).find("waiting") != std::string::npos; }, 10000));
    const pid_t shell = start(console("--trace '" + sb.path("/t.json") + "' -c 'wifi-init 192.168.43.1; wait WIFICON=1 8000; sleep 60000' >'" +
                                      sb.path("/console.out") + "' 2>&1"));
    EXPECT_TRUE(wait_until([&] { return read_file(sb.path("/console.out")).find("heartbeat:2") != std::string::npos; }, 15000));
    kill(shell, SIGTERM);
    finish(shell);
    kill(daemon, SIGTERM);
    finish(daemon);
    const std::string out = read_file(sb.path("/console.out"));
    expect_in_order(out, {"dsim  report \"running\"", "WIFICON (msg_id 18) seq 0: 1", "dsim  report \"heartbeat:2\""});
    EXPECT_NE(read_file(sb.path("/daemon.jsonl")).find("{\"event\":\"status\",\"status\":\"heartbeat:2\"}"), std::string::npos);
    EXPECT_EQ(jq("[.traceEvents[] | select(.cat==\"link\" and .s==\"g\") | .name] | join(\",\")", sb.path("/t.json")),
              "daemon running,Wi-Fi up\n");
}

// A log the module wrote in a run of the console, replayed against the module (faster than it
// was written): the desk does what the phone did. The replay has a sandbox of its own.
struct ReplayCase {
    const char *name;
    const char *commands;
};

void PrintTo(const ReplayCase &c, std::ostream *os) { *os << c.name; }

class ReplayEndToEndTest : public testing::TestWithParam<ReplayCase> {};

TEST_P(ReplayEndToEndTest, TheConsolesLogReplaysWithNoDivergence) {
    Sandbox sb;
    const std::string commands = std::string("setprop net.bluetooth.macaddr 11:22:33:44:55:66; ") + GetParam().commands;
    const std::string out = run_console("--sim -c '" + commands + "'", "");
    ASSERT_EQ(out.find("error:"), std::string::npos) << out;
    const std::string log = sb.log_path(), trace = sb.path("/phone.json");
    const std::string replay = ATCMD_TOOL_RUNNER "'" ATCMD_BIN_DIR "/atcmd_replay' ";
    // The divergences allowed: a resend on the desk where the phone had none, when a loaded
    // machine (or an emulator) played an answer later than the module's resend timer; and the USB pair told at
    // a plug, which races the accessory's +USBSTATE answer inside the module, named as such.
    const std::string report = run("{ " + replay + "--speed 10 '" + log + "'; echo \"exit $?\"; }", 0);
    const bool same = report.find("\nno divergence: ") != std::string::npos && report.find("\nexit 0") != std::string::npos;
    const bool diverged = report.find("\nexit 1") != std::string::npos;
    const bool late = diverged && (report.find("  the desk: a resend: ") != std::string::npos ||
                                   report.find("  the desk: resent: ") != std::string::npos);
    const bool usb_race = diverged && report.find("the supervisor tells the USB pair after queueing") != std::string::npos;
    EXPECT_TRUE(same || late || usb_race) << report;
    run(replay + "--to-trace '" + trace + "' '" + log + "'", 0);
    EXPECT_TRUE(valid_json(trace)) << read_file(trace);
}

// Rows kept few: each is a console run and a replay, slow under an emulator.
const ReplayCase kReplayCases[] = {
    {"UsbInterrogationThenUnplug", "acc plug 3; wait VER 8000; acc unplug; wait USBSTATE=0,-1 5000"},
    {"UnansweredRequestResentThenTimedOut", "acc plug 3; wait VER 8000; acc silent +SN; query sn; wait ERROR=-110 5000"},
    {"RequestResentThenAnswered", "acc plug 3; wait VER 8000; acc delay 150; query sn; wait SN 5000"},
    {"GarbageOnThePortThenAnAnsweredRequest", "acc plug 3; wait VER 8000; acc garbage 24; query sn; wait SN 5000"},
    {"WifiDownAndUpAgain", "wifi-init 192.168.43.1; wait WIFICON=1 8000; wait VER 8000; wifi-down; wait WIFICON=0 8000; "
                           "wifi-init 192.168.43.1; wait WIFICON=1 8000; wait VER 8000"},
};

INSTANTIATE_TEST_SUITE_P(Logs, ReplayEndToEndTest, testing::ValuesIn(kReplayCases),
                         [](const testing::TestParamInfo<ReplayCase> &info) { return std::string(info.param.name); });

namespace {

// The console's log of an interrogation and a query the accessory leaves unanswered, as lines.
std::vector<std::string> logged_lines(const Sandbox &sb) {
    run_console("--sim -c 'setprop net.bluetooth.macaddr 11:22:33:44:55:66; acc plug 3; wait VER 8000; "
                "acc silent +SN; query sn; wait ERROR=-110 5000'", "");
    std::vector<std::string> lines;
    std::istringstream in(read_file(sb.log_path()));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// The index of the first line holding every one of `words`, after `from`.
size_t line_with(const std::vector<std::string> &lines, const std::vector<std::string> &words, size_t from = 0) {
    for (size_t i = from; i < lines.size(); ++i) {
        if (std::all_of(words.begin(), words.end(), [&](const std::string &w) { return lines[i].find(w) != std::string::npos; })) {
            return i;
        }
    }
    ADD_FAILURE() << "no line with " << words[0];
    return 0;
}

std::string joined(const std::vector<std::string> &lines, size_t from, size_t to) {
    std::string out;
    for (size_t i = from; i < to && i < lines.size(); ++i) out += lines[i] + "\n";
    return out;
}

std::string replay_tool() { return ATCMD_TOOL_RUNNER "'" ATCMD_BIN_DIR "/atcmd_replay' "; }

// The "sandbox: PATH" the replay names.
std::string replay_sandbox(const std::string &report) {
    std::vector<std::string> m;
    return pattern_search(report, "\nsandbox: (/tmp/atcmd-replay-[A-Za-z0-9]+) ", &m) ? m[1] : "";
}

}  // namespace

// Logs as they come from the field: taken while the module still ran, cut off inside a message
// or its prefix, lines taken out of the middle. The end of the log ends the comparison; damage
// is named as damage, at its line.
TEST(ReplayDamagedLogTest, TheLogsEndACutMessageAndMissingLinesAreNamedAtTheirLine) {
    // Under an emulator the log made here already holds resends (an answer slower than the
    // 100 ms resend) that the desk's emulated replay may not repeat: the cases need the log
    // and its replay made at one speed, as the native runs make them.
    if (sizeof(ATCMD_TOOL_RUNNER) > 1) GTEST_SKIP() << "the log and its replay need native speed";
    Sandbox sb;
    const std::vector<std::string> lines = logged_lines(sb);
    ASSERT_GT(lines.size(), 20u);
    const size_t sent = line_with(lines, {"send cmd success", "cmd is AT+SN?#100&1"});
    const size_t chunk = line_with(lines, {"receive data is +SN=SN20260001#13&1"});
    const size_t parsed = line_with(lines, {"cmd_Parse_from_buffer", "cmd is +SN=SN20260001#13&1"}, chunk + 1);
    const std::string cut_at = "cmd is AT+S";
    const std::string in_text = lines[sent].substr(0, lines[sent].find(cut_at) + cut_at.size());
    const std::string head = joined(lines, 0, sent + 1);
    const struct {
        const char *name;
        std::string text;
        int status;
        std::string says;
    } cases[] = {
        {"taken while the module ran", head, 0,
         "the log ends at line " + std::to_string(sent + 1) + " (time stamp "},
        {"cut inside a message", joined(lines, 0, sent) + in_text, 0,
         "the log ends inside a message at line " + std::to_string(sent + 1) + ": it stops at \"sent: dest is 3, mode is 0, " + cut_at + "\""},
        {"cut inside a prefix", head + lines[sent + 1].substr(0, 12), 0,
         "log line " + std::to_string(sent + 2) + ": the log ends inside a message's prefix"},
        {"a line taken out", joined(lines, 0, chunk) + joined(lines, chunk + 1, lines.size()), 3,
         "lines are missing from the log before line " + std::to_string(parsed) + ": the module parsed \"+SN=SN20260001#13&1\""},
    };
    for (const auto &c : cases) {
        write_text_file(sb.path("/case.log"), c.text);
        const std::string report = run("{ " + replay_tool() + "--patience 2000 '" + sb.path("/case.log") + "'; echo \"exit $?\"; }", 0);
        EXPECT_NE(report.find(c.says), std::string::npos) << c.name << "\n" << report;
        EXPECT_NE(report.find("\nexit " + std::to_string(c.status)), std::string::npos) << c.name << "\n" << report;
        EXPECT_EQ(report.find("first divergence"), std::string::npos) << c.name << "\n" << report;
        if (c.status == 0) {
            EXPECT_TRUE(pattern_search(report, "\nno divergence: .*\nthe log ends at line \\d+ \\(time stamp \\d+\\.\\d+, "
                                                             "[0-9.]+ s into the run\\); the desk went on: [1-9]\\d* outputs? not compared\n"))
                << c.name << "\n" << report;
        }
    }
}

// With ATCMD_ROOT exported to the sandbox whose log it reads, the replay leaves that log as it
// was, byte for byte, and removes its own sandbox at exit; --keep keeps it and says where.
TEST(ReplaySandboxTest, TheLogReadIsNeverWrittenAndNoSandboxIsLeftWithoutKeep) {
    Sandbox sb;  // exports ATCMD_ROOT
    run_console("--sim -c 'setprop net.bluetooth.macaddr 11:22:33:44:55:66; acc plug 3; wait VER 8000'", "");
    const std::string before = read_file(sb.log_path());
    ASSERT_FALSE(before.empty());
    // What the replay finds does not matter here (under an emulator it may see a resend the
    // log does not have): only what it leaves behind.
    const std::string report = run("{ " + replay_tool() + "'" + sb.log_path() + "'; true; }", 0);
    EXPECT_EQ(read_file(sb.log_path()), before) << "the replay wrote into the log it read";
    EXPECT_NE(report.find("ATCMD_ROOT=" + sb.root() + " is not used"), std::string::npos) << report;
    const std::string used = replay_sandbox(report);
    ASSERT_FALSE(used.empty()) << report;
    EXPECT_FALSE(exists(used)) << "left behind: " << used;

    const std::string kept_report = run("{ " + replay_tool() + "--keep '" + sb.log_path() + "'; true; }", 0);
    const std::string kept = replay_sandbox(kept_report);
    ASSERT_FALSE(kept.empty()) << kept_report;
    EXPECT_NE(kept_report.find("sandbox kept: " + kept + "\n"), std::string::npos) << kept_report;
    EXPECT_TRUE(exists(kept + "/sdcard/quorvanta/.log/atcmdprocess")) << kept_report;
    EXPECT_EQ(read_file(sb.log_path()), before);
    run("rm -rf '" + kept + "'", 0);
}
