// The console run as a process, loading the module as the platform does, against the accessory
// and daemon simulators (which the Wi-Fi tests drive too); its trace, read back with a real JSON
// parser (jq); the tools' command lines; and the names the module exports.
#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/wait.h>

#include <algorithm>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_support.h"

extern char **environ;

using namespace atcmd_test;

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

// Starts the console on `commands` with its trace in the sandbox; its process id.
pid_t start_console(const Sandbox &sb, const std::string &options, const std::string &commands) {
    const std::string line = "exec " + console(options + " --trace '" + sb.path("/t.json") + "' -c '" +
                                               commands + "' >/dev/null 2>&1");
    const char *argv[] = {"sh", "-c", line.c_str(), nullptr};
    pid_t pid = -1;
    EXPECT_EQ(posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char **>(argv), environ), 0);
    return pid;
}

int finish(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

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
    EXPECT_TRUE(std::regex_search(sb.log_text(), std::regex(R"(\]\[tid:\d+\]atcmder_hal_open:\d+: func is atcmder_hal_open\.)")))
        << sb.log_text();
}

// The README's main job: the whole demonstration, every step met: plug, interrogation, a report,
// an unanswered query resent twice, the accessory's questions, Wi-Fi through the daemon
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
                          "summary: resends 2, time-outs 1"});
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
    };
    for (const auto &[command, exit_code, says] : cases) {
        EXPECT_NE(run(command, exit_code).find(says), std::string::npos) << command;
    }
}

// Exactly the names listed in exported_names.txt (# starts a comment); sanitizer builds add
// instrumentation symbols of their own, which start with "__".
TEST(ModuleLoadTest, ExportsExactlyTheSystemNames) {
    std::set<std::string> expected, exported;
    std::istringstream names(read_file(ATCMD_TEST_DIR "/exported_names.txt"));
    for (std::string line; std::getline(names, line);) {
        if (!line.empty() && line[0] != '#') expected.insert(line);
    }
    std::istringstream lines(run("nm -D --defined-only '" ATCMD_MODULE_PATH "'", 0));
    std::smatch m;
    for (std::string line; std::getline(lines, line);) {
        if (std::regex_match(line, m, std::regex(R"(^[0-9a-fA-F]+ \w (\S+)$)")) &&
            (m[1].str().rfind("__", 0) != 0 || m[1] == "__system_property_get")) {
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
    EXPECT_EQ(all.at(101).resends, 2);
    EXPECT_EQ(all.at(101).tid, 2);  // the USB link's track
    EXPECT_GE(all.at(101).dur, 200000);  // from the hand-over to the -110: three waits of 100 ms
    EXPECT_NE(all.at(101).name.find("-110"), std::string::npos) << all.at(101).name;
    EXPECT_EQ(all.at(15).outcome, "answered TYPE");  // the module's own start-up queries too
    for (const auto &[seq, s] : all) EXPECT_GE(s.dur, 0) << "#" << seq;
    // Each resend on the span's own track, between its start and its end.
    std::istringstream resends(jq(".traceEvents[] | select(.cat==\"resend\") | \"\\(.args.seq) \\(.ts) \\(.tid)\"", trace));
    int count = 0;
    for (long seq, ts, tid; resends >> seq >> ts >> tid; ++count) {
        ASSERT_EQ(all.count(seq), 1u);
        const Span &s = all.at(seq);
        EXPECT_EQ(tid, s.tid);
        EXPECT_TRUE(ts >= s.ts && ts <= s.ts + s.dur) << "resend of #" << seq << " at " << ts;
    }
    EXPECT_EQ(count, 2);
    EXPECT_EQ(jq("[.traceEvents[] | select(.cat==\"link\" and .s==\"g\") | .name] | join(\",\")", trace), "plug,unplug\n");
}

// Cut short by a signal while a request waits: still valid JSON, the open span written, and
// the process ended by that signal.
TEST(TraceTest, ATraceCutShortByASignalIsStillValid) {
    for (int sig : {SIGINT, SIGTERM}) {
        Sandbox sb;
        const pid_t pid = start_console(sb, "--sim", "acc plug 3; wait VER 8000; acc silent +SN; query sn; sleep 20000");
        ASSERT_TRUE(wait_until([&] { return read_file(sb.path("/t.json")).find("\"resend\"") != std::string::npos; }, 10000));
        kill(pid, sig);
        const int status = finish(pid);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << status;
        ASSERT_TRUE(valid_json(sb.path("/t.json"))) << read_file(sb.path("/t.json"));
        const std::map<int, Span> all = spans(sb.path("/t.json"));
        ASSERT_EQ(all.count(100), 1u) << "signal " << sig;
        // Killed between two resends as a rule; a slow run may see the time-out come first.
        EXPECT_TRUE(all.at(100).outcome == "still open when the trace ended" || all.at(100).outcome == "-110 ETIMEDOUT")
            << all.at(100).outcome;
    }
}
