/*
 * atcmd_replay: a log written by the module, replayed against the module on the desk and
 * compared, or drawn as a trace. Main thread: options, the sandbox, the report. The play runs
 * in a child process (the module's threads live until their process ends); the parent waits
 * for it and then removes the sandbox, so that nothing is written there once it is gone.
 */
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "replay/replay.h"
#include "sim/sim_util.h"
#include "version.h"

using namespace atcmd_tools;

namespace {

constexpr int kSame = 0;
constexpr int kDiverged = 1;
constexpr int kCannot = 2;
constexpr int kDamaged = 3;  // the desk parts from a damaged log: no verdict on the module
constexpr long kMaxRun = 100000;            // runs in one file, far more than a log holds
constexpr long kMaxPatienceMs = 3600000;    // an hour

// A speed factor above 0 and nothing else (10, 0.5).
bool parse_speed(const char *text, double *out) {
    char *end = nullptr;
    errno = 0;
    const double v = strtod(text, &end);
    if (end == text || *end != '\0' || errno == ERANGE || !(v > 0)) return false;
    *out = v;
    return true;
}

void usage(FILE *out) {
    fprintf(out,
            "usage: atcmd_replay [options] LOG\n"
            "Reads a log the module wrote (the phone's %s/%s), rebuilds what the world did to\n"
            "the module (plugs, each channel's bytes, the upper layer's calls, the daemon's reports)\n"
            "and plays it against the module in a sandbox through the simulators; then compares\n"
            "what the module did on the desk with what the log says it did on the phone and prints\n"
            "\"no divergence\" with counts, or the first divergence with the log's line and both\n"
            "sides. Exit status 0, 1 on a divergence, 2 when the log cannot be replayed.\n\n"
            "options:\n"
            "  --list           list the runs the file holds (it is appended to across restarts)\n"
            "  --run N          replay run N (default: the last)\n"
            "  --speed X        play X times faster than the phone did (default 1); the module's\n"
            "                   own timers keep their pace\n"
            "  --trace FILE     write a timeline of the replay (JSON Trace Event Format)\n"
            "  --to-trace FILE  write a timeline of the run with the phone's own times; no replay\n"
            "  --module FILE    the module file (default: the console's search path)\n"
            "  --patience MS    how long an input waits for the output it followed (default 15000)\n"
            "  --keep           keep the sandbox (the desk's log, properties) and say where it is\n"
            "  --version        the tools' version\n"
            "  --help           this text\n\n"
            "The replay works in a fresh sandbox of its own under /tmp (ATCMD_ROOT in the\n"
            "environment is not used: the log read is never written to) and removes it at exit\n"
            "unless --keep. Exit status 3: the desk parts from the log where the log is damaged\n"
            "(lines missing, another writer, a chunk cut off): no verdict on the module.\n",
            "/sdcard/quorvanta/.log", "atcmdprocess");
}

// The module prints each log line on standard output and error too; the report keeps a copy
// of standard output and those prints go to /dev/null.
FILE *own_output() {
    const int keep = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    FILE *out = keep >= 0 && null_fd >= 0 ? fdopen(keep, "w") : nullptr;
    if (out == nullptr) return stdout;
    fflush(stdout);
    dup2(null_fd, STDOUT_FILENO);
    dup2(null_fd, STDERR_FILENO);
    close(null_fd);
    return out;
}

// A fresh sandbox, whatever ATCMD_ROOT said: a replay run with the phone's sandbox exported
// would otherwise append its own run to the very log it reads.
bool sandbox(std::string *root) {
    char tmpl[] = "/tmp/atcmd-replay-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return false;
    setenv("ATCMD_ROOT", tmpl, 1);
    *root = tmpl;
    return true;
}

// What cannot be removed stays; the walk goes on with the rest.
int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
    remove(path);
    return 0;
}

volatile sig_atomic_t g_child = 0;

// A signal that ends the replay ends the play first; the parent then removes the sandbox.
void pass_on(int sig) {
    if (g_child > 0) kill(static_cast<pid_t>(g_child), sig);
}

// The play and its report, in the child; its exit status.
[[noreturn]] void play_and_report(const World &world, const PlayOptions &options) {
    FILE *out = own_output();
    DeskRun desk;
    play_world(world, options, &desk);
    if (!desk.started) {
        fprintf(out, "%satcmd_replay: the module did not start\n", describe_result(world, desk, Divergence{}).c_str());
        fflush(out);
        _exit(kCannot);
    }
    const Divergence d = first_divergence(world, desk);
    fprintf(out, "%s", describe_result(world, desk, d).c_str());
    if (!options.trace.empty()) fprintf(out, "trace of the replay: %s\n", options.trace.c_str());
    fflush(out);
    // The module's threads run on; closing it would end the process by signal.
    _exit(!d.found ? kSame : d.damage != Damage::None ? kDamaged : kDiverged);
}

}  // namespace

int main(int argc, char **argv) {
    static const struct option kOptions[] = {
        {"list", no_argument, nullptr, 'l'},         {"run", required_argument, nullptr, 'r'},
        {"speed", required_argument, nullptr, 's'},  {"trace", required_argument, nullptr, 't'},
        {"to-trace", required_argument, nullptr, 'T'}, {"module", required_argument, nullptr, 'm'},
        {"patience", required_argument, nullptr, 'p'}, {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'v'},        {"keep", no_argument, nullptr, 'k'},
        {nullptr, 0, nullptr, 0},
    };
    PlayOptions options;
    bool list = false, keep = false;
    long run = 0;
    std::string to_trace;
    long patience = 0;
    bool ok = true;
    for (int c; (c = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1;) {
        switch (c) {
        case 'l': list = true; break;
        case 'k': keep = true; break;
        case 'r': ok = parse_number(optarg, 1, kMaxRun, &run); break;
        case 's': ok = parse_speed(optarg, &options.speed); break;
        case 't': options.trace = optarg; break;
        case 'T': to_trace = optarg; break;
        case 'm': options.module = optarg; break;
        case 'p':
            ok = parse_number(optarg, 1, kMaxPatienceMs, &patience);
            options.patience_ms = static_cast<int>(patience);
            break;
        case 'v': printf("atcmd_replay %s\n", ATCMD_TOOLS_VERSION); return kSame;
        case 'h': usage(stdout); return kSame;
        default: usage(stderr); return kCannot;
        }
        if (!ok) {
            fprintf(stderr, "atcmd_replay: \"%s\" is not %s\n", optarg,
                    c == 's' ? "a speed above 0" : c == 'r' ? "a run number (from 1)" : "a number of milliseconds above 0");
            usage(stderr);
            return kCannot;
        }
    }
    if (optind + 1 != argc) {
        fprintf(stderr, "atcmd_replay: needs one LOG\n");
        usage(stderr);
        return kCannot;
    }
    ParsedLog log;
    std::string error;
    if (!read_log(argv[optind], &log, &error)) {
        fprintf(stderr, "atcmd_replay: %s\n", error.c_str());
        return kCannot;
    }
    printf("%s", describe_runs(log).c_str());
    if (list) return kSame;
    const size_t index = run == 0 ? log.runs.size() - 1 : static_cast<size_t>(run - 1);
    if (run < 0 || index >= log.runs.size()) {
        fprintf(stderr, "atcmd_replay: no run %ld; the file holds %zu\n", run, log.runs.size());
        return kCannot;
    }
    if (!to_trace.empty()) {
        if (!log_to_trace(log, log.runs[index], to_trace, &error)) {
            fprintf(stderr, "atcmd_replay: %s\n", error.c_str());
            return kCannot;
        }
        printf("trace of run %zu (the phone's times): %s\n", index + 1, to_trace.c_str());
        return kSame;
    }
    const World world = rebuild_world(log, log.runs[index]);
    printf("%s", describe_world(log, index, world).c_str());
    if (world.level_seen < kReplayLevel) {
        printf("run %zu was logged at level %d or lower: a replay needs log level %d (ports coming and going and the "
               "lines written to the port are logged at %d)\n",
               index + 1, world.level_seen < 0 ? 0 : world.level_seen, kReplayLevel, kReplayLevel);
        return kCannot;
    }
    printf("%s", describe_pace(world, options.speed).c_str());
    const char *given = getenv("ATCMD_ROOT");
    if (given != nullptr && given[0] != '\0') {
        printf("ATCMD_ROOT=%s is not used: the replay works in a sandbox of its own\n", given);
    }
    std::string root;
    if (!sandbox(&root)) {
        perror("atcmd_replay: sandbox");
        return kCannot;
    }
    printf("sandbox: %s (the desk's log: %s)\n", root.c_str(), rooted("/sdcard/quorvanta/.log/atcmdprocess").c_str());
    fflush(stdout);
    struct sigaction pass = {};
    pass.sa_handler = pass_on;
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &pass, nullptr);
    const pid_t child = fork();
    if (child < 0) {
        perror("atcmd_replay: fork");
        nftw(root.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
        return kCannot;
    }
    if (child == 0) play_and_report(world, options);
    g_child = child;
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (keep) {
        printf("sandbox kept: %s\n", root.c_str());
    } else {
        nftw(root.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    printf("atcmd_replay: the play ended by signal %d\n", WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    return kCannot;
}
