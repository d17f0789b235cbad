/*
 * The standalone simulators' shared front: printing, options, the sandbox check and the
 * command loop on standard input. Main thread, except the printers (simulator threads).
 */
#include "sim/sim_cli.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include <iostream>
#include <mutex>

namespace atcmd_tools {

namespace {
std::mutex g_print_mutex;  // guards standard output, so transcript lines never interleave
}

void cli_print(const std::string &line) {
    std::lock_guard<std::mutex> lock(g_print_mutex);
    fprintf(stdout, "%s\n", line.c_str());
    fflush(stdout);
}

void cli_acc_event(void *, AccLink link, const char *dir, const std::string &text) {
    cli_print(std::string(link == AccLink::Usb ? "usb  " : "wifi ") + dir + " " + text);
}

void cli_daemon_event(void *, const std::string &event) { cli_print("daemon: " + event); }

bool cli_require_sandbox(const char *tool) {
    const char *root = getenv("ATCMD_ROOT");
    if (root != nullptr && root[0] != '\0') return true;
    fprintf(stderr, "%s: ATCMD_ROOT is not set; the simulator only works inside a sandbox root\n", tool);
    return false;
}

bool cli_set_identity(AccIdentity *id, const std::string &assignment) {
    const size_t eq = assignment.find('=');
    if (eq != std::string::npos && acc_identity_set(id, assignment.substr(0, eq), assignment.substr(eq + 1))) {
        return true;
    }
    fprintf(stderr, "bad --set \"%s\": expected NAME=VALUE, NAME one of %s\n", assignment.c_str(),
            acc_identity_names().c_str());
    return false;
}

int cli_serve(const std::function<CommandResult(const std::vector<std::string> &)> &run) {
    // Block the stop signals before any wait, so that sigwait below takes them.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    for (std::string line; std::getline(std::cin, line);) {
        const std::vector<std::string> words = split_words(line);
        if (words.empty() || words[0][0] == '#') continue;
        if (words[0] == "quit") return 0;
        const CommandResult r = run(words);
        cli_print((r.ok ? "ok: " : "error: ") + r.text);
    }
    int sig = 0;
    sigwait(&stop, &sig);
    return 0;
}

}  // namespace atcmd_tools
