/*
 * How the Wi-Fi receive and heartbeat threads are ended: SIGALRM, taken by thread_exit_handler
 * in the target thread, which logs and leaves with pthread_exit; the sender then joins. Runs on
 * whichever thread stops the link (upper layer, dispatch, heartbeat) and inside the two threads.
 * Writes only the thread handle it is given.
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <time.h>

#include "device/link_words.h"
#include "log/atcmd_log.h"
#include "supervision/supervision.h"
#include "wifi/wifi.h"

namespace {

// The handler is process-wide. The sender installs it too before it signals, so a thread that
// has just been created and not yet reached its own sigaction ends through the handler instead
// of taking SIGALRM's default action, which would end the whole process.
void install_exit_handler(void) {
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = thread_exit_handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    sigaction(ATCMD_SIG_THREAD_EXIT, &sa, nullptr);
}

}  // namespace

void wifi_thread_exit_on_alarm(sigset_t *wait_mask) {
    install_exit_handler();
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, ATCMD_SIG_THREAD_EXIT);
    pthread_sigmask(SIG_BLOCK, &alarm, wait_mask);
    sigdelset(wait_mask, ATCMD_SIG_THREAD_EXIT);
}

void wifi_thread_end(pthread_t *handle) {
    const pthread_t thread = __atomic_exchange_n(handle, 0, __ATOMIC_ACQ_REL);
    if (thread == 0) return;  // pthread_kill on handle 0 crashes
    if (pthread_equal(thread, pthread_self())) return;  // a thread never joins itself
    install_exit_handler();
    if (pthread_kill(thread, ATCMD_SIG_THREAD_EXIT) != 0) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "SIGALRM could not be sent to thread %lu, joining it anyway",
                  static_cast<unsigned long>(thread));
    }
    pthread_join(thread, nullptr);
}

void wifi_thread_sleep(const sigset_t *wait_mask, long ms) {
    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += ms / 1000;
    deadline.tv_nsec += (ms % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    for (;;) {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        struct timespec left = {deadline.tv_sec - now.tv_sec, deadline.tv_nsec - now.tv_nsec};
        if (left.tv_nsec < 0) {
            left.tv_sec -= 1;
            left.tv_nsec += 1000000000L;
        }
        if (left.tv_sec < 0) return;
        if (ppoll(nullptr, 0, &left, wait_mask) == 0 || errno != EINTR) return;
    }
}

void wifi_thread_exit_point(void) {
    sigset_t pending;
    if (sigpending(&pending) != 0 || sigismember(&pending, ATCMD_SIG_THREAD_EXIT) != 1) return;
    // Taken at once (it is pending and blocked here) and handled as the handler would handle it,
    // as a plain call on this thread, between two pieces of work where it holds no lock.
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, ATCMD_SIG_THREAD_EXIT);
    int sig = 0;
    if (sigwait(&alarm, &sig) == 0) thread_exit_handler(sig);
}
