/*
 * The console's signals: one thread waits for the ending signals and cleans up outside any
 * signal handler; Ctrl-C at an interactive console is a signalfd the main thread polls. The
 * signal mask is set once, on the main thread, before any other thread exists.
 */
#include "console/signals.h"

#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "console/console.h"

namespace atcmd_tools {

namespace {

int g_interrupt_fd = -1;  // written once by signals_start, before other threads start

sigset_t set_of(bool with_interrupt) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    if (with_interrupt) sigaddset(&set, SIGINT);
    return set;
}

// Waits for an ending signal, cleans up, then takes the signal's default action.
void *ending_thread(void *arg) {
    const sigset_t set = set_of(arg != nullptr);
    int sig = 0;
    while (sigwait(&set, &sig) != 0) {
    }
    console_cleanup();
    signal(sig, SIG_DFL);
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, sig);
    pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
    raise(sig);
    _exit(128 + sig);  // not reached: the default action of each of these signals ends the process
}

}  // namespace

void signals_start(bool interactive) {
    const sigset_t all = set_of(true);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    if (interactive) {
        sigset_t interrupt;
        sigemptyset(&interrupt);
        sigaddset(&interrupt, SIGINT);
        g_interrupt_fd = signalfd(-1, &interrupt, SFD_NONBLOCK | SFD_CLOEXEC);
    }
    // Without a descriptor to read it from, Ctrl-C ends the run as it does in a script.
    void *ends_on_interrupt = g_interrupt_fd < 0 ? reinterpret_cast<void *>(1) : nullptr;
    pthread_t thread;
    if (pthread_create(&thread, nullptr, ending_thread, ends_on_interrupt) == 0) pthread_detach(thread);
}

int interrupt_fd() { return g_interrupt_fd; }

bool interrupt_taken() {
    if (g_interrupt_fd < 0) return false;
    struct signalfd_siginfo info;
    bool taken = false;
    while (read(g_interrupt_fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) taken = true;
    return taken;
}

}  // namespace atcmd_tools
