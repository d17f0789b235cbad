/*
 * atcmd_console: plays the module's upper layer from a terminal, a script or the command line.
 * Main thread: options, the script's check, the sandbox and its removal, then the commands.
 */
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "console/console.h"
#include "console/interactive.h"
#include "console/signals.h"
#include "sim/sim_util.h"
#include "version.h"

using namespace atcmd_tools;

namespace {

constexpr long kMaxLogLevel = 4;
constexpr long kMaxWaitScale = 1000;

void usage(FILE *out) {
    fprintf(out,
            "usage: atcmd_console [options] [SCRIPT|-]\n"
            "Loads atcmdprocess.default.so as the platform does, opens it, prints every notify\n"
            "message decoded and runs commands: interactively (line editing, Tab, history), from\n"
            "SCRIPT (- for standard input), or from -c. With ATCMD_ROOT unset and no --sim the\n"
            "module uses the real paths; off a phone that needs --real-paths.\n\n"
            "options:\n"
            "  --module FILE   the module file (default: $ATCMD_HAL_PATH, ../hw beside this tool,\n"
            "                  then the platform's hw directories)\n"
            "  --sim           run the accessory and daemon simulators in this process (makes a\n"
            "                  sandbox under /tmp when ATCMD_ROOT is unset, removed at exit)\n"
            "  --keep          keep the sandbox --sim made, and print its path at exit\n"
            "  --json          JSON lines on standard output, one object per event, nothing else\n"
            "  --trace FILE    write a timeline of the run to FILE (JSON Trace Event Format, for\n"
            "                  a trace viewer): commands, callbacks, each link's lines, a span per\n"
            "                  watched request; finished on exit, close, and a terminating signal\n"
            "  --echo          print each command before running it\n"
            "  --stop-on-error end a script or -c at its first failed command\n"
            "  --log-level N   the module's log level (0 to 4), set before it opens\n"
            "  --wait-scale N  multiply every wait's deadline by N (a slowed-down run, such as\n"
            "                  under valgrind); sleeps and the module's own timers are unchanged\n"
            "  --module-output keep the module's own prints (standard output and error); by\n"
            "                  default they are dropped: the module's log file holds them all\n"
            "  --real-paths    without --sim and ATCMD_ROOT, on a machine that is not a phone: go\n"
            "                  on with the real /dev, /sys and log directory (a real accessory)\n"
            "  -c COMMANDS     run COMMANDS (separated by ';') and leave\n"
            "  --version       the version\n"
            "  --help          this text\n\n"
            "exit status: 0 every command succeeded; else that of the first failure:\n"
            "  1 a command failed, 2 a bad option, script, command or argument, 3 a wait timed\n"
            "  out, 4 the module could not be found, loaded or opened\n\n"
            "example:\n"
            "  atcmd_console --sim -c 'acc plug 3; wait TYPE; devinfo'\n\n%s\n",
            console_help().c_str());
}

[[noreturn]] void refuse(const std::string &why) {
    fprintf(stderr, "atcmd_console: %s\n", why.c_str());
    fprintf(stderr, "(atcmd_console --help lists the options)\n");
    exit(kExitUsage);
}

long number_option(const char *name, const char *value, long min, long max) {
    long v = 0;
    if (!parse_number(value, min, max, &v)) {
        refuse(std::string("--") + name + " \"" + value + "\": a whole number from " + std::to_string(min) + " to " +
               std::to_string(max) + " is needed");
    }
    return v;
}

// The script, read whole before anything starts, so that a path that is missing, unreadable or
// a directory is refused with its reason and nothing runs.
std::string read_script(const std::string &path) {
    if (path == "-") return "";
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0) refuse("cannot read the script " + path + ": " + strerror(errno));
    if (S_ISDIR(st.st_mode)) refuse("the script " + path + " is a directory");
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) text.append(buf, static_cast<size_t>(n));
    if (n < 0) refuse("cannot read the script " + path + ": " + strerror(errno));
    close(fd);
    return text;
}

std::string g_made_sandbox;  // the sandbox this console made; "" when it was given or none
bool g_keep = false;

// What cannot be removed stays; the walk goes on with the rest.
int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
    remove(path);
    return 0;
}

// At exit: the sandbox --sim made goes, unless --keep asked for it to stay.
void end_sandbox() {
    if (g_made_sandbox.empty()) return;
    if (g_keep) {
        console_say("sandbox kept: " + g_made_sandbox);
        return;
    }
    nftw(g_made_sandbox.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

// The simulators' sandbox: ATCMD_ROOT or a fresh directory, with dev/ in place before the
// module opens (its hotplug watch is set on dev/ once, at open).
bool make_sandbox() {
    const char *root = getenv("ATCMD_ROOT");
    if (root == nullptr || root[0] == '\0') {
        char tmpl[] = "/tmp/atcmd-console-XXXXXX";
        if (mkdtemp(tmpl) == nullptr) return false;
        setenv("ATCMD_ROOT", tmpl, 1);
        g_made_sandbox = tmpl;
    }
    return make_dirs(rooted("/dev"));
}

// The module prints every log line on standard output and error as well as into its log file;
// the console keeps its own output on copies of both and sends those prints away.
bool quiet_module_prints(ConsoleOptions *options) {
    const int own_err = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    FILE *err = own_err >= 0 ? fdopen(own_err, "w") : nullptr;
    const int own = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    FILE *out = own >= 0 ? fdopen(own, "w") : nullptr;
    if (out == nullptr || err == nullptr || null_fd < 0) {
        if (own >= 0 && out == nullptr) close(own);
        if (own_err >= 0 && err == nullptr) close(own_err);
        if (null_fd >= 0) close(null_fd);
        return false;
    }
    fflush(stdout);
    dup2(null_fd, STDOUT_FILENO);
    dup2(null_fd, STDERR_FILENO);
    close(null_fd);
    options->out = out;
    options->err = err;
    return true;
}

// One console per sandbox, and with --sim the simulators' roles as well: a standalone simulator
// started beside it would take over its port or split its FIFO lines. The claims last as long
// as the process. Outside a sandbox (on a phone) there is nothing to claim.
bool claim_sandbox(bool simulators) {
    const char *root = getenv("ATCMD_ROOT");
    if (root == nullptr || *root == '\0') return true;
    const char *const roles[] = {kConsoleRole, kAccessoryRole, kDaemonRole};
    for (size_t i = 0; i < (simulators ? 3u : 1u); ++i) {
        std::string error;
        if (sandbox_claim(roles[i], &error) < 0) {
            fprintf(stderr, "atcmd_console: %s\n", error.c_str());
            return false;
        }
    }
    return true;
}

// Without a sandbox the module uses the paths of the machine itself: says so before it opens,
// and off a phone asks for --real-paths, since the module makes its log directory at / and
// takes any ttyACM port it finds.
bool confirm_real_paths(bool simulators, bool real_paths) {
    const char *root = getenv("ATCMD_ROOT");
    if (simulators || (root != nullptr && root[0] != '\0')) return true;
#if defined(__BIONIC__)
    const bool phone = true;
#else
    const bool phone = access("/system/build.prop", F_OK) == 0;
#endif
    fprintf(stderr,
            "atcmd_console: no sandbox (neither --sim nor ATCMD_ROOT): the module will use the real paths: /dev "
            "(ttyACM ports, /dev/ttyS4, the Wi-Fi FIFOs /dev/fifo_tx, /dev/fifo_rx, /dev/fifo_cmd), /sys/class/tty, "
            "and the log directory /sdcard/quorvanta/.log (made if missing)%s\n",
            phone ? "" : "; properties are files under /tmp/atcmdprocess/property");
    if (phone || real_paths) return true;
    fprintf(stderr,
            "atcmd_console: this machine is not a phone: add --real-paths to go on with those paths (a real accessory "
            "on this machine), or use --sim, or set ATCMD_ROOT to a sandbox directory\n");
    return false;
}

// Runs the lines one by one; with --stop-on-error the first failure ends the run.
void run_lines(std::istream &in, char separator, bool stop_on_error) {
    for (std::string line; std::getline(in, line, separator);) {
        if (console_run(line) != kExitOk && stop_on_error) console_quit();
    }
}

}  // namespace

int main(int argc, char **argv) {
    enum { kKeep = 256, kStop, kVersion, kRealPaths };
    static const struct option kOptions[] = {
        {"module", required_argument, nullptr, 'm'},    {"sim", no_argument, nullptr, 's'},
        {"json", no_argument, nullptr, 'j'},            {"echo", no_argument, nullptr, 'e'},
        {"help", no_argument, nullptr, 'h'},            {"module-output", no_argument, nullptr, 'o'},
        {"log-level", required_argument, nullptr, 'l'}, {"wait-scale", required_argument, nullptr, 'w'},
        {"trace", required_argument, nullptr, 't'},     {"keep", no_argument, nullptr, kKeep},
        {"stop-on-error", no_argument, nullptr, kStop}, {"version", no_argument, nullptr, kVersion},
        {"real-paths", no_argument, nullptr, kRealPaths}, {nullptr, 0, nullptr, 0},
    };
    ConsoleOptions options;
    bool module_output = false, stop_on_error = false, real_paths = false;
    std::vector<std::string> commands;
    opterr = 0;  // refuse() says what was wrong, once
    for (int c; (c = getopt_long(argc, argv, ":c:h", kOptions, nullptr)) != -1;) {
        switch (c) {
        case 'm': options.module = optarg; break;
        case 's': options.simulators = true; break;
        case 'j': options.json = true; break;
        case 'e': options.echo_commands = true; break;
        case 'c': commands.push_back(optarg); break;
        case 'o': module_output = true; break;
        case 'l': options.log_level = static_cast<int>(number_option("log-level", optarg, 0, kMaxLogLevel)); break;
        case 'w': options.wait_scale = static_cast<int>(number_option("wait-scale", optarg, 1, kMaxWaitScale)); break;
        case 't': options.trace = optarg; break;
        case kKeep: g_keep = true; break;
        case kStop: stop_on_error = true; break;
        case kRealPaths: real_paths = true; break;
        case kVersion: printf("atcmd_console %s\n", ATCMD_TOOLS_VERSION); return kExitOk;
        case 'h': usage(stdout); return kExitOk;
        case ':': refuse(std::string(argv[optind - 1]) + " needs a value");
        default: refuse(std::string("unknown option ") + argv[optind - 1]);
        }
    }
    if (argc - optind > 1) refuse("one script at most; \"" + std::string(argv[optind + 1]) + "\" is one too many");
    const std::string script_path = optind < argc ? argv[optind] : "";
    const std::string script = script_path.empty() ? "" : read_script(script_path);
    const bool interactive = script_path.empty() && commands.empty() && isatty(STDIN_FILENO);

    if (!confirm_real_paths(options.simulators, real_paths)) return kExitUsage;
    if (options.simulators && !make_sandbox()) {
        fprintf(stderr, "atcmd_console: cannot make the sandbox: %s\n", strerror(errno));
        return kExitFailed;
    }
    // The sandbox's owner: the console drives it from here on.
    console_at_exit(end_sandbox);
    if (!claim_sandbox(options.simulators)) {
        end_sandbox();
        return kExitFailed;
    }
    if (!module_output && !quiet_module_prints(&options)) {
        perror("atcmd_console: output");
        end_sandbox();
        return kExitFailed;
    }
    // Before the module and the simulators start their threads, which inherit the signal mask.
    signals_start(interactive);
    std::string error;
    const int started = console_start(options, &error);
    if (started != kExitOk) {
        fprintf(options.err, "atcmd_console: %s\n", error.c_str());
        fflush(options.err);
        console_cleanup();
        _exit(started);  // the module's threads may be running: leave without running destructors
    }
    const char *root = getenv("ATCMD_ROOT");
    console_say(std::string("sandbox root: ") + (root != nullptr && root[0] ? root : "(none: real paths)"));
    for (const std::string &c : commands) {
        std::istringstream in(c);
        run_lines(in, ';', stop_on_error);
    }
    if (script_path == "-" || (!interactive && commands.empty() && script_path.empty())) {
        run_lines(std::cin, '\n', stop_on_error);
    } else if (!script_path.empty()) {
        std::istringstream in(script);
        run_lines(in, '\n', stop_on_error);
    } else if (interactive) {
        run_interactive(options.err);
    }
    console_quit();
}
