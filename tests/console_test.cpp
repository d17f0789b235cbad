// The console as scripts and people meet it: what it refuses and the exit status it gives, its
// JSON stream read back with jq, the sandbox --sim makes and removes, the warnings it prints of
// its own, and a session at a real pseudo-terminal (its controlling terminal) with Ctrl-C,
// Tab, lines arriving while a command is typed, the history across runs, and Ctrl-D.
#include <gtest/gtest.h>

#include <elf.h>
#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "support/test_support.h"

using namespace atcmd_test;

namespace {

struct Ran {
    int status;  // the exit status, or -1 when the console did not exit on its own
    std::string out, err;
};

// The console with the built module and `args`, its standard output and error kept apart;
// `env` comes before it on the command line.
Ran run_console(const std::string &args, const std::string &env = "") {
    setenv("TSAN_OPTIONS", "report_signal_unsafe=0 suppressions=" ATCMD_TSAN_SUPPRESSIONS, 1);
    const std::string err_path = std::string(getenv("ATCMD_ROOT")) + "/console.err";
    const std::string command = env + ATCMD_TOOL_RUNNER "'" ATCMD_BIN_DIR "/atcmd_console' --module '" ATCMD_MODULE_PATH
                                "' " + args + " 2>'" + err_path + "'";
    Ran r{-1, "", ""};
    FILE *p = popen(command.c_str(), "r");
    char buf[4096];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
    const int status = p != nullptr ? pclose(p) : -1;
    if (WIFEXITED(status)) r.status = WEXITSTATUS(status);
    r.err = read_file(err_path);
    return r;
}

// The module file with its ELF machine changed to one this process is not.
std::string foreign_module(const Sandbox &sb, std::string *named) {
    const std::string path = sb.path("/foreign.so");
    write_text_file(path, read_file(ATCMD_MODULE_PATH));
    const std::string self = read_file("/proc/self/exe").substr(0, EI_NIDENT + 4);
    const bool self_arm64 = static_cast<unsigned char>(self[EI_NIDENT + 2]) == EM_AARCH64;
    *named = self_arm64 ? "x86_64" : "arm64";
    const unsigned char machine[2] = {static_cast<unsigned char>(self_arm64 ? EM_X86_64 : EM_AARCH64), 0};
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(pwrite(fd, machine, 2, EI_NIDENT + 2), 2);
    close(fd);
    return path;
}

}  // namespace

// Each refusal names what was wrong on standard error (standard output is thrown away here) and
// ends with its own status: 1 failed, 2 usage, 3 time-out, 4 no module.
TEST(ConsoleRefusalTest, BadInputIsRefusedOnStandardErrorWithItsOwnExitStatus) {
    Sandbox sb;
    ASSERT_EQ(mkdir(sb.path("/a-directory").c_str(), 0755), 0);
    std::string arch;
    const std::string foreign = foreign_module(sb, &arch);
    const std::string long_value(200, 'v');
    const struct {
        std::string args;
        int status;
        std::string says;
    } cases[] = {
        {"--log-level abc -c status", 2, "--log-level \"abc\": a whole number from 0 to 4"},
        {"--wait-scale 99999999999 -c status", 2, "--wait-scale \"99999999999\""},
        {"'" + sb.path("/a-directory") + "'", 2, "is a directory"},
        {"'" + sb.path("/no-such-script") + "'", 2, "No such file or directory"},
        {"--module '" + foreign + "' -c status", 4, "is built for " + arch},
        {"-c 'wait VER abc'", 2, "usage: wait [--seen] NAME[=VALUE] [MS]"},
        {"-c 'wait-log open 2000'", 2, "usage: wait-log MS TEXT"},
        {"-c 'loglevel abc'", 2, "usage: loglevel [N]"},
        {"-c 'query nosuch'", 2, "names: REBOOT UPGRADE"},
        {"-c 'status now'", 2, "usage: status"},
        {"-c 'relay maybe'", 2, "usage: relay on|off"},
        {"-c 'nosuch'", 2, "unknown command \"nosuch\"; commands: help send"},
        {"-c 'setprop a/b x'", 1, "property a/b was not stored"},
        {"-c 'setprop k " + long_value + "'", 2, "a value holds at most 91 bytes"},
        {"-c 'wait VER 50'", 3, "timed out waiting for VER"},
        {"--stop-on-error -c 'wait VER 20; nosuch'", 3, "timed out"},
    };
    for (const auto &c : cases) {
        const Ran r = run_console(c.args + " >/dev/null");
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << c.args << "\n" << r.err;
    }
    // --stop-on-error: nothing after the first failure runs.
    EXPECT_EQ(run_console("--stop-on-error -c 'wait VER 20; nosuch'").err.find("nosuch"), std::string::npos);
    // help for one command shows that command alone.
    const Ran help = run_console("-c 'help wait'");
    EXPECT_NE(help.out.find("wait [--seen] NAME[=VALUE] [MS]"), std::string::npos) << help.out;
    EXPECT_EQ(help.out.find("setprop"), std::string::npos) << help.out;
}

// With --json, standard output is JSON objects, one a line, each with its time and kind, and
// the commands' answers as fields: what a script reads with jq.
TEST(ConsoleJsonTest, EveryLineIsAStampedObjectWithStructuredFields) {
    Sandbox sb;
    const Ran r = run_console(
        "--sim --json -c 'setprop net.bluetooth.macaddr 11:22:33:44:55:66; acc plug 3; wait VER 8000; status; devinfo; "
        "getprop net.bluetooth.macaddr; acc silent +SN; query sn; wait ERROR=-110 3000; wifi-init 192.168.43.1; "
        "wait WIFICON=1 5000; summary; nosuch'");
    EXPECT_EQ(r.status, 2) << r.err;
    EXPECT_EQ(r.err, "");
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) {
        ASSERT_TRUE(line.size() > 2 && line.front() == '{' && line.back() == '}') << line;
    }
    write_text_file(sb.path("/out.json"), r.out);
    write_text_file(sb.path("/check.jq"), R"jq([
        (.[] | select(.command == "status") | "status platform \(.platform) usb_connected \(.usb_connected)"),
        (.[] | select(.command == "devinfo") | "devinfo \(.type) \(.ver[0])"),
        (.[] | select(.command == "getprop") | "getprop \(.value) \(.set)"),
        (first(.[] | select(.name == "ERROR")) | "error \(.error.number) \(.error.name)"),
        ([.[] | select(.event == "daemon" and .report == "running")] | "daemon running \(length > 0)"),
        (.[] | select(.event == "summary") | "summary \(keys | join(","))"),
        (.[] | select(.command == "nosuch") | "nosuch \(.ok) \(.exit_code)"),
        "stamped \(all(has("time") and has("event")))"
    ] | .[])jq");
    FILE *p = popen(("jq -r -s -f '" + sb.path("/check.jq") + "' '" + sb.path("/out.json") + "'").c_str(), "r");
    std::string checks;
    char buf[4096];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;) checks.append(buf, n);
    ASSERT_EQ(p != nullptr ? pclose(p) : -1, 0) << r.out;
    EXPECT_EQ(checks,
              "status platform 1 usb_connected 1\n"
              "devinfo KV4410C 1.2.0\n"
              "getprop 11:22:33:44:55:66 true\n"
              "error -110 ETIMEDOUT\n"
              "daemon running true\n"
              "summary answers_dropped,daemon_exits,daemon_starts,event,heartbeats,lines_to_accessory,lines_to_phone,"
              "messages,resends,time,timeouts\n"
              "nosuch false 2\n"
              "stamped true\n")
        << r.out;
}

// A sandbox --sim made for itself goes at exit; --keep keeps it and says where it is.
TEST(ConsoleSandboxTest, TheSimulatorsSandboxIsRemovedAtExitUnlessKept) {
    Sandbox sb;  // for the console's standard error; the console makes its own sandbox
    for (const bool keep : {false, true}) {
        const Ran r = run_console(std::string("--sim ") + (keep ? "--keep " : "") + "-c status", "env -u ATCMD_ROOT ");
        std::vector<std::string> root;
        ASSERT_TRUE(pattern_search(r.out, "sandbox root: (/tmp/atcmd-console-\\w+)", &root))
            << r.out << r.err;
        struct stat st;
        const bool left = stat(root[1].c_str(), &st) == 0;
        EXPECT_EQ(left, keep) << root[1];
        EXPECT_EQ(r.out.find("sandbox kept: " + root[1]) != std::string::npos, keep) << r.out;
        if (left) {
            EXPECT_EQ(system(("rm -rf '" + root[1] + "'").c_str()), 0);
        }
    }
}

// What only the module's log tells comes out as a warning of the console's own.
TEST(ConsoleWarningTest, WhatTheModuleCannotDoIsSaidBeforeTheFirstCommand) {
    const struct {
        const char *kind;
        void (*spoil)(const Sandbox &);
    } cases[] = {
        {"no-dev-watch", [](const Sandbox &sb) { ASSERT_EQ(rmdir(sb.path("/dev").c_str()), 0); }},
        {"log-unwritable",
         [](const Sandbox &sb) {
             // A file where the log's directory should be: mkdir fails for every user, root too.
             ASSERT_EQ(system(("mkdir -p '" + sb.path("/sdcard/quorvanta") + "'").c_str()), 0);
             write_text_file(sb.path("/sdcard/quorvanta/.log"), "");
         }},
    };
    for (const auto &c : cases) {
        Sandbox sb;
        c.spoil(sb);
        const Ran r = run_console("--json -c status");
        const size_t warning = r.out.find(std::string("\"event\":\"warning\",\"kind\":\"") + c.kind + "\"");
        EXPECT_LT(warning, r.out.find("\"command\":\"status\"")) << c.kind << "\n" << r.out;
        EXPECT_EQ(r.status, 0) << c.kind;
    }
}

namespace {

// The console at a keyboard: a pseudo-terminal is its controlling terminal (so Ctrl-C is a
// signal) and its standard input; its standard output goes to a file.
class Keyboard {
public:
    Keyboard(const std::string &args, const std::string &out_path) {
        setenv("TSAN_OPTIONS", "report_signal_unsafe=0 suppressions=" ATCMD_TSAN_SUPPRESSIONS, 1);
        const std::string line = "exec " ATCMD_TOOL_RUNNER "'" ATCMD_BIN_DIR "/atcmd_console' --module '" ATCMD_MODULE_PATH
                                 "' " + args + " >'" + out_path + "'";
        pid_ = forkpty(&master_, nullptr, nullptr, nullptr);
        if (pid_ == 0) {
            execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        fcntl(master_, F_SETFL, O_NONBLOCK);
    }
    ~Keyboard() {
        if (pid_ > 0 && status_ == -2) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(master_);
    }
    void type(const std::string &keys) { ASSERT_TRUE(atcmd_tools::write_all(master_, keys.data(), keys.size())); }
    // Waits until the terminal shows `text` past what an earlier call found.
    bool shows(const std::string &text, int timeout_ms = 8000) {
        return wait_until([&] {
            char buf[4096];
            for (ssize_t n; (n = read(master_, buf, sizeof buf)) > 0;) screen_.append(buf, static_cast<size_t>(n));
            const size_t at = screen_.find(text, seen_);
            if (at == std::string::npos) return false;
            seen_ = at + text.size();
            return true;
        }, timeout_ms);
    }
    // The exit status once the console ended; -1 when it did not within the deadline.
    int exit_status() {
        int status = 0;
        if (!wait_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, 8000)) return -1;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return status_;
    }
    const std::string &screen() const { return screen_; }

private:
    pid_t pid_ = -1;
    int master_ = -1;
    int status_ = -2;  // -2: still running
    std::string screen_;
    size_t seen_ = 0;
};

bool file_holds(const std::string &path, const std::string &text) {
    return wait_until([&] { return read_file(path).find(text) != std::string::npos; }, 8000);
}

}  // namespace

TEST(ConsoleKeyboardTest, CtrlCCancelsTheWaitAndTheSessionStaysAJsonStream) {
    Sandbox sb;
    setenv("HOME", sb.root().c_str(), 1);  // the history file goes into the sandbox
    const std::string out = sb.path("/out.json");
    {
        Keyboard kb("--sim --json --echo", out);
        ASSERT_TRUE(kb.shows("atcmd> ")) << kb.screen();
        kb.type("wait VER 60000\r");
        // Running: a Ctrl-C before the line is taken would drop it, as at any terminal.
        ASSERT_TRUE(file_holds(out, "\"event\":\"command\",\"text\":\"wait VER 60000\"")) << read_file(out);
        kb.type("\x03");  // Ctrl-C: the wait ends, the console does not
        EXPECT_TRUE(file_holds(out, "\"text\":\"cancelled waiting for VER (")) << read_file(out);
        ASSERT_TRUE(kb.shows("atcmd> ")) << kb.screen();
#ifdef ATCMD_CONSOLE_EDITS_LINES
        kb.type("sta\t\r");  // Tab completes the command's name
#else
        kb.type("status\r");
#endif
        EXPECT_TRUE(file_holds(out, "\"command\":\"status\",\"ok\":true")) << read_file(out) << kb.screen();
        // Lines that arrive while a command is typed print above it; the typed part stays.
        kb.type("acc plug 3\r");
        ASSERT_TRUE(file_holds(out, "\"command\":\"acc\""));
        kb.type("devi");
        EXPECT_TRUE(file_holds(out, "\"name\":\"VER\""));  // the interrogation ends some 2 s later
#ifdef ATCMD_CONSOLE_EDITS_LINES
        ASSERT_TRUE(kb.shows("devi")) << kb.screen();  // as typed
        EXPECT_TRUE(kb.shows("\r\x1b[K")) << kb.screen();  // the line cleared for a message
        EXPECT_TRUE(kb.shows("devi")) << kb.screen();  // and drawn again
#endif
        kb.type("nfo\r");
        EXPECT_TRUE(file_holds(out, "\"command\":\"devinfo\",\"ok\":true")) << read_file(out);
        kb.type("\x04");  // Ctrl-D at an empty line ends the session
        EXPECT_EQ(kb.exit_status(), 1) << "the cancelled wait is the first failure";
    }
    const std::string json = read_file(out);
    EXPECT_EQ(json.find("atcmd>"), std::string::npos) << "the prompt belongs on the terminal";
    EXPECT_EQ(system(("jq -e . '" + out + "' >/dev/null").c_str()), 0) << json;
    // The next session has the history of this one.
    Keyboard again("", sb.path("/again.txt"));
    ASSERT_TRUE(again.shows("atcmd> "));
    again.type("history\r");
    EXPECT_TRUE(again.shows("wait VER 60000")) << again.screen();
    EXPECT_TRUE(again.shows("devinfo")) << again.screen();
    again.type("quit\r");
    EXPECT_EQ(again.exit_status(), 0);
}

// A wait takes a message that comes after the last action and after what the last wait met:
// the interrogation's TYPE, which comes before its VER, does not satisfy a wait for TYPE after
// the wait for VER; --seen takes it and says when it came.
TEST(ConsoleWaitTest, AWaitTakesTheNextMessageAndSeenTakesOneThatCameSayingWhen) {
    Sandbox sb;
    const std::string start = "--sim -c 'setprop net.bluetooth.macaddr 11:22:33:44:55:66; acc plug 3; wait VER 8000; ";
    const Ran next = run_console(start + "wait TYPE 300'");
    EXPECT_EQ(next.status, 3) << next.out << next.err;
    EXPECT_TRUE(pattern_search(next.err, R"(error: timed out waiting for TYPE \(300 ms from \d+\.\d{3} s\))"))
        << next.err;
    const Ran seen = run_console(start + "wait --seen TYPE 300; wait --seen TYPE=KV4410C 300'");
    EXPECT_EQ(seen.status, 0) << seen.out << seen.err;
    EXPECT_TRUE(pattern_search(seen.out, R"(TYPE seq 15 came at (\d+\.\d{3}) s, before this wait \(\d+\.\d{3} s\)\n)"))
        << seen.out;
}

// An ERROR and a wait that timed out name the request they belong to: its line and when it
// was sent (and for the wait, what became of it), in text and in JSON.
TEST(ConsoleWaitTest, ErrorsAndTimeOutsNameTheirRequest) {
    Sandbox sb;
    const std::string commands = "acc plug 3; wait VER 8000; acc silent +BAT; query bat; wait BAT 1000";
    const Ran text = run_console("--sim -c 'setprop net.bluetooth.macaddr 11:22:33:44:55:66; " + commands + "'");
    EXPECT_EQ(text.status, 3) << text.err;
    const std::string sent = R"(the request AT\+BAT\?#100&1, sent at \d+\.\d{3} s)";
    EXPECT_TRUE(pattern_search(text.out, R"(msg   ERROR \(msg_id 24\) seq 100: -110 ETIMEDOUT [^\n]*; )" + sent + "\n"))
        << text.out;
    EXPECT_TRUE(pattern_search(text.err, R"(timed out waiting for BAT \(1000 ms from \d+\.\d{3} s\); )" + sent +
                                                       R"(, ended with ERROR seq 100: -110 at \d+\.\d{3} s)"))
        << text.err;
    const Ran json = run_console("--sim --json -c 'setprop net.bluetooth.macaddr 11:22:33:44:55:66; " + commands + "'");
    EXPECT_TRUE(pattern_search(json.out, R"("name":"ERROR","seq_num":100,.*"request":\{"line":"AT\+BAT\?#100&1","sent":[0-9.]+\}\})"))
        << json.out;
    EXPECT_TRUE(pattern_search(json.out, R"("event":"result","command":"wait","ok":false,"exit_code":3,.*"line":"wait BAT 1000","started":[0-9.]+\})"))
        << json.out;
}

// Without --sim and without ATCMD_ROOT the console says, before anything opens, that the module
// would use the real paths, and off a phone goes on only with --real-paths.
TEST(ConsoleRealPathsTest, WithoutASandboxItNamesTheRealPathsAndAsksBeforeOpening) {
    Sandbox sb;
    const Ran r = run_console("-c status", "env -u ATCMD_ROOT ");
    EXPECT_EQ(r.status, 2) << r.out << r.err;
    for (const char *says : {"the module will use the real paths: /dev", "/sys/class/tty", "/sdcard/quorvanta/.log",
                             "add --real-paths to go on"}) {
        EXPECT_NE(r.err.find(says), std::string::npos) << says << "\n" << r.err;
    }
    EXPECT_EQ(r.out.find("module \"atcmdprocess\""), std::string::npos) << "the module was opened: " << r.out;
}
