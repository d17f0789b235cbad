// The console's trace: run as a process against the simulators (or none), the file it writes is
// read back with a real JSON parser (jq) for its spans, resends and link events.
#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/wait.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_support.h"

extern char **environ;

using namespace atcmd_test;

namespace {

// Runs `command` in a shell; what it printed on standard output.
std::string shell(const std::string &command) {
    std::string out;
    FILE *p = popen(command.c_str(), "r");
    char buf[4096];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    if (p != nullptr) pclose(p);
    return out;
}

// Starts the console on `commands` with its trace in the sandbox; its process id.
pid_t start_console(const Sandbox &sb, const std::string &options, const std::string &commands) {
    setenv("TSAN_OPTIONS", "report_signal_unsafe=0 suppressions=" ATCMD_TSAN_SUPPRESSIONS, 1);
    const std::string line = "exec " ATCMD_TOOL_RUNNER "'" ATCMD_BIN_DIR "/atcmd_console' --module '"
                             ATCMD_MODULE_PATH "' " + options + " --trace '" + sb.path("/t.json") +
                             "' -c '" + commands + "' >/dev/null 2>&1";
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

// Request spans by sequence number; a number seen twice fails the test.
std::map<int, Span> spans(const std::string &trace) {
    std::istringstream rows(shell("jq -r '.traceEvents[] | select(.ph==\"X\" and .cat==\"request\") | "
                                  "\"\\(.args.seq) \\(.ts) \\(.dur) \\(.tid) \\(.args.resends) \\(.args.outcome)|\\(.name)\"' '" +
                                  trace + "'"));
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
    std::istringstream resends(shell("jq -r '.traceEvents[] | select(.cat==\"resend\") | \"\\(.args.seq) \\(.ts) \\(.tid)\"' '" + trace + "'"));
    int count = 0;
    for (long seq, ts, tid; resends >> seq >> ts >> tid; ++count) {
        ASSERT_EQ(all.count(seq), 1u);
        const Span &s = all.at(seq);
        EXPECT_EQ(tid, s.tid);
        EXPECT_TRUE(ts >= s.ts && ts <= s.ts + s.dur) << "resend of #" << seq << " at " << ts;
    }
    EXPECT_EQ(count, 2);
    EXPECT_EQ(shell("jq -r '[.traceEvents[] | select(.cat==\"link\" and .s==\"g\") | .name] | join(\",\")' '" + trace + "'"),
              "plug,unplug\n");
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
