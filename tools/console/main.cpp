/*
 * atcmd_console: plays the module's upper layer from a terminal, a script or the command line.
 * Main thread: options, the sandbox, the interactive loop with its history.
 */
#include <fcntl.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "console/console.h"
#include "console/trace.h"
#include "sim/sim_util.h"

using namespace atcmd_tools;

namespace {

constexpr const char kPrompt[] = "atcmd> ";

void usage(FILE *out) {
    fprintf(out,
            "usage: atcmd_console [options] [SCRIPT|-]\n"
            "Loads atcmdprocess.default.so as the platform does, opens it, prints every notify\n"
            "message decoded and runs commands: interactively (prompt, help, history, !N), from\n"
            "SCRIPT (- for standard input), or from -c. With ATCMD_ROOT unset the module drives\n"
            "the real /dev (a real accessory on a Linux PC).\n\n"
            "options:\n"
            "  --module FILE   the module file (default: $ATCMD_HAL_PATH, ../hw beside this tool,\n"
            "                  then the platform's hw directories)\n"
            "  --sim           run the accessory and daemon simulators in this process (makes a\n"
            "                  sandbox under /tmp when ATCMD_ROOT is unset)\n"
            "  --json          JSON lines instead of text\n"
            "  --trace FILE    write a timeline of the run to FILE (JSON Trace Event Format, for\n"
            "                  a trace viewer): commands, callbacks, each link's lines, a span per\n"
            "                  watched request; finished on exit, close, and Ctrl-C\n"
            "  --echo          print each command before running it\n"
            "  --log-level N   the module's log level, set before it opens\n"
            "  --wait-scale N  multiply every wait's deadline by N (a slowed-down run, such as\n"
            "                  under valgrind); sleeps and the module's own timers are unchanged\n"
            "  --module-output keep the module's own prints (standard output and error); by\n"
            "                  default they are dropped: the module's log file holds them all\n"
            "  -c COMMANDS     run COMMANDS (separated by ';') and leave\n"
            "  --help          this text\n\n"
            "example:\n"
            "  atcmd_console --sim -c 'acc plug 3; wait TYPE; devinfo'\n\n%s\n",
            console_help().c_str());
}

// The simulators' sandbox: ATCMD_ROOT or a fresh directory, with dev/ in place before the
// module opens (its hotplug watch is set on dev/ once, at open).
bool make_sandbox() {
    const char *root = getenv("ATCMD_ROOT");
    if (root == nullptr || root[0] == '\0') {
        char tmpl[] = "/tmp/atcmd-console-XXXXXX";
        if (mkdtemp(tmpl) == nullptr) return false;
        setenv("ATCMD_ROOT", tmpl, 1);
    }
    return make_dirs(rooted("/dev"));
}

void run_commands(const std::string &commands) {
    size_t start = 0;
    for (size_t semi; (semi = commands.find(';', start)) != std::string::npos; start = semi + 1) {
        console_run(commands.substr(start, semi - start));
    }
    console_run(commands.substr(start));
}

void run_stream(std::istream &in) {
    for (std::string line; std::getline(in, line);) console_run(line);
}

// The prompt, "history" and "!N" recall, then the console's own commands.
void run_interactive(FILE *out) {
    std::vector<std::string> history;
    for (;;) {
        fputs(kPrompt, out);
        fflush(out);
        std::string line;
        if (!std::getline(std::cin, line)) break;
        if (line == "history") {
            for (size_t i = 0; i < history.size(); ++i) fprintf(out, "%4zu  %s\n", i + 1, history[i].c_str());
            continue;
        }
        if (line.size() > 1 && line[0] == '!') {
            const size_t n = strtoul(line.c_str() + 1, nullptr, 10);
            if (n == 0 || n > history.size()) {
                fprintf(out, "no command %s in the history\n", line.c_str() + 1);
                continue;
            }
            line = history[n - 1];
            fprintf(out, "%s\n", line.c_str());
        }
        if (line.find_first_not_of(" \t") == std::string::npos) continue;
        history.push_back(line);
        console_run(line);
    }
}

// The module prints every log line on standard output and error as well as into its log file;
// the console keeps its own output on a copy of standard output and sends those prints away.
FILE *g_err = stderr;  // the console's own error stream; main thread only

bool quiet_module_prints(ConsoleOptions *options) {
    const int own_err = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    if (own_err >= 0) g_err = fdopen(own_err, "w");
    if (g_err == nullptr) g_err = stderr;
    const int own = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    FILE *out = own >= 0 ? fdopen(own, "w") : nullptr;
    if (out == nullptr || null_fd < 0) {
        if (own >= 0 && out == nullptr) close(own);
        if (null_fd >= 0) close(null_fd);
        return false;
    }
    fflush(stdout);
    dup2(null_fd, STDOUT_FILENO);
    dup2(null_fd, STDERR_FILENO);
    close(null_fd);
    options->out = out;
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    static const struct option kOptions[] = {
        {"module", required_argument, nullptr, 'm'}, {"sim", no_argument, nullptr, 's'},
        {"json", no_argument, nullptr, 'j'},         {"echo", no_argument, nullptr, 'e'},
        {"help", no_argument, nullptr, 'h'},         {"module-output", no_argument, nullptr, 'o'},
        {"log-level", required_argument, nullptr, 'l'}, {"wait-scale", required_argument, nullptr, 'w'},
        {"trace", required_argument, nullptr, 't'},
        {nullptr, 0, nullptr, 0},
    };
    ConsoleOptions options;
    bool module_output = false;
    std::vector<std::string> commands;
    for (int c; (c = getopt_long(argc, argv, "c:h", kOptions, nullptr)) != -1;) {
        switch (c) {
        case 'm': options.module = optarg; break;
        case 's': options.simulators = true; break;
        case 'j': options.json = true; break;
        case 'e': options.echo_commands = true; break;
        case 'c': commands.push_back(optarg); break;
        case 'o': module_output = true; break;
        case 'l': options.log_level = atoi(optarg); break;
        case 't': options.trace = optarg; break;
        case 'w':
            options.wait_scale = atoi(optarg);
            if (options.wait_scale < 1) {
                fprintf(stderr, "atcmd_console: --wait-scale needs a whole number of 1 or more\n");
                return 2;
            }
            break;
        case 'h': usage(stdout); return 0;
        default: usage(stderr); return 2;
        }
    }
    if (options.simulators && !make_sandbox()) {
        perror("atcmd_console: sandbox");
        return 1;
    }
    if (!module_output && !quiet_module_prints(&options)) {
        perror("atcmd_console: output");
        return 1;
    }
    // Before the module and the simulators start their threads, which inherit the signal mask.
    if (!options.trace.empty()) trace_finish_on_signals();
    std::string error;
    if (!console_start(options, &error)) {
        fprintf(g_err, "atcmd_console: %s\n", error.c_str());
        return 1;
    }
    const char *root = getenv("ATCMD_ROOT");
    console_say(std::string("sandbox root: ") + (root != nullptr && root[0] ? root : "(none: real paths)"));
    for (const std::string &c : commands) run_commands(c);
    if (optind < argc) {
        const std::string script = argv[optind];
        std::ifstream file(script);
        if (script != "-" && !file) {
            fprintf(g_err, "atcmd_console: cannot read %s\n", script.c_str());
            return 1;
        }
        run_stream(script == "-" ? std::cin : file);
    } else if (commands.empty()) {
        if (isatty(STDIN_FILENO)) {
            run_interactive(options.out);
        } else {
            run_stream(std::cin);
        }
    }
    console_quit();
}
