/*
 * The standalone simulators' shared front: printing, options, the sandbox claim and the
 * command loop on standard input. Main thread, except the printers (simulator threads).
 */
#include "sim/sim_cli.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "sim/messages.h"
#include "sim/sim_util.h"
#include "version.h"

namespace atcmd_tools {

namespace {

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};
constexpr size_t kMaxCommandLine = 4096;  // a longer line on standard input is dropped

std::mutex g_print_mutex;       // guards standard output and error, so lines never interleave
std::atomic<bool> g_json{false};  // set by main before the simulators start

void print_line(FILE *to, const std::string &line) {
    std::lock_guard<std::mutex> lock(g_print_mutex);
    fprintf(to, "%s\n", line.c_str());
    fflush(to);
}

std::string jstr(const char *key, const std::string &value) {
    return std::string("\"") + key + "\":\"" + json_escape(value) + "\"";
}

void print_event(const std::string &text, const char *event, const std::string &fields) {
    print_line(stdout, g_json ? std::string("{\"event\":\"") + event + "\"," + fields + "}" : text);
}

sigset_t stop_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : kStopSignals) sigaddset(&set, sig);
    return set;
}

void print_result(const CommandResult &r) {
    if (!r.ok) cli_error("error: " + r.text);
    if (r.ok || g_json) {
        print_event("ok: " + r.text, "result",
                    std::string("\"ok\":") + (r.ok ? "true" : "false") + "," + jstr("text", r.text));
    }
}

// Runs one command line; false when it asks to quit.
bool run_line(const std::function<CommandResult(const std::vector<std::string> &)> &run, const std::string &line) {
    const std::vector<std::string> words = split_words(line);
    if (words.empty() || words[0][0] == '#') return true;
    if (words[0] == "quit" || words[0] == "exit") return false;
    print_result(run(words));
    return true;
}

}  // namespace

void cli_prepare_signals() {
    const sigset_t set = stop_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

void cli_set_json(bool json) { g_json = json; }

void cli_acc_event(void *, AccLink link, const char *dir, const std::string &text) {
    const std::string name = link == AccLink::Usb ? "usb" : "wifi";
    print_event(name + (link == AccLink::Usb ? "  " : " ") + dir + " " + text, "accessory",
                jstr("link", name) + "," + jstr("dir", dir) + "," + jstr("text", text));
}

void cli_daemon_event(void *, const std::string &event) {
    print_event("daemon: " + event, "daemon", jstr("text", event));
}

void cli_status(const std::string &status) { print_event("status: " + status, "status", jstr("status", status)); }

void cli_info(const std::string &text) { print_event(text, "info", jstr("text", text)); }

void cli_error(const std::string &text) { print_line(stderr, text); }

void cli_print_version(const char *tool) { print_line(stdout, std::string(tool) + " " + ATCMD_TOOLS_VERSION); }

bool cli_claim_sandbox(const char *tool, const char *role) {
    std::string error;
    if (sandbox_claim(role, &error) >= 0) return true;  // held open until the process ends
    cli_error(std::string(tool) + ": " + error);
    return false;
}

bool cli_set_identity(AccIdentity *id, const std::string &assignment) {
    const size_t eq = assignment.find('=');
    if (eq != std::string::npos && acc_identity_set(id, assignment.substr(0, eq), assignment.substr(eq + 1))) {
        return true;
    }
    cli_error("bad --set \"" + assignment + "\": expected NAME=VALUE, NAME one of " + acc_identity_names());
    return false;
}

int cli_serve(const std::function<CommandResult(const std::vector<std::string> &)> &run) {
    const sigset_t set = stop_signals();
    const int stop = signalfd(-1, &set, SFD_CLOEXEC);
    if (stop < 0) {
        cli_error(std::string("cannot wait for signals: ") + strerror(errno));
        return 1;
    }
    const bool terminal = isatty(STDIN_FILENO) == 1;
    int input = STDIN_FILENO;
    std::string held;
    bool skipping = false;  // inside an over-long line, until its end
    for (;;) {
        struct pollfd fds[2] = {{stop, POLLIN, 0}, {input, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[0].revents != 0) break;  // SIGINT, SIGTERM or SIGHUP: leave cleanly
        if (fds[1].revents == 0) continue;
        char buf[512];
        const ssize_t n = read(input, buf, sizeof buf);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n > 0) {
            held.append(buf, static_cast<size_t>(n));
            bool go_on = true;
            for (size_t nl; go_on && (nl = held.find('\n')) != std::string::npos; held.erase(0, nl + 1)) {
                go_on = skipping || run_line(run, held.substr(0, nl));
                skipping = false;
            }
            if (!go_on) break;
            if (held.size() > kMaxCommandLine) {
                if (!skipping) cli_error("error: a command line longer than " + std::to_string(kMaxCommandLine) + " bytes, dropped");
                skipping = true;
                held.clear();
            }
            continue;
        }
        // End of input (or a read error): the last line may lack its line end.
        if ((!skipping && !run_line(run, held)) || terminal) break;
        held.clear();
        cli_info("end of commands: running until SIGINT, SIGTERM or SIGHUP");
        input = -1;  // poll ignores a negative descriptor
    }
    close(stop);
    return 0;
}

}  // namespace atcmd_tools
