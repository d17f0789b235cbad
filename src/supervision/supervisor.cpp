/*
 * The supervisor thread: the one place where link changes signalled by other threads (plug,
 * unplug, daemon running, handshake) are taken with sigwait and carried out, and the SIGALRM
 * handler that ends the Wi-Fi threads. The link actions themselves are not wired yet: the
 * thread takes each signal and logs it.
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <signal.h>
#include <sys/prctl.h>

#include "log/atcmd_log.h"
#include "supervision/supervision.h"

pthread_t g_Sigprocess_thread = 0;
pthread_t g_TestTx_thread = 0;
pthread_t g_VuartTxTst_thread = 0;

void atcmd_supervisor_signals(sigset_t *set) {
    sigemptyset(set);
    sigaddset(set, ATCMD_SIG_PLUG);
    sigaddset(set, ATCMD_SIG_UNPLUG);
    sigaddset(set, ATCMD_SIG_HIDDEMON_RUNNING);
    sigaddset(set, ATCMD_SIG_HANDSHAKE);
}

int atcmd_signal_supervisor(int sig) {
    return pthread_kill(g_Sigprocess_thread, sig);
}

void thread_exit_handler(int sig) {
    ATCMD_LOG(2, "receive signal is %d", sig);
    pthread_exit(nullptr);
}

void *atcmder_sigProcess_thread(void * /*arg*/) {
    sigset_t set;
    atcmd_supervisor_signals(&set);
    prctl(PR_SET_NAME, "sigProcess_thread");
    ATCMD_LOG(3, "atcmder_sigProcess_thread thread is running");

    int sig = 0;  // no handler acts on 0, should the very first wait fail
    for (;;) {
        if (sigwait(&set, &sig) != 0) ATCMD_LOG(0, "sigwait error");
        ATCMD_LOG(3, "atcmder_sigProcess_thread handling thread got signal %d", sig);
    }
    return nullptr;
}
