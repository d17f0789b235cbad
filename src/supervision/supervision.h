/*
 * Reliability and supervision: answer time-outs and resend, the supervisor thread that carries
 * out every link change, and the loop-back test transmitter.
 */
#ifndef ATCMD_SUPERVISION_SUPERVISION_H
#define ATCMD_SUPERVISION_SUPERVISION_H

#include <pthread.h>
#include <signal.h>
#include <stdint.h>

#include <atcmdprocess/atcmdprocess.h>

#include "device/c_exports.h"
#include "supervision/resend.h"

ATCMD_EXPORTS_BEGIN

/* Time-outs and resend. */
extern uint32_t g_timeout; /* resend threshold in microseconds, set at open */
extern pthread_t g_timeout_thread;
uint32_t Init_TimeoutPara(void);
void *atcmder_Timeout_thread(void *arg);
int rmTimeoutItem(const AtCmder_t *cmd);
void notifytimeout(const AtCmder_t *cmd);
void notifyUartNotWork(void);

/* Supervisor. */
extern pthread_t g_Sigprocess_thread;
void *atcmder_sigProcess_thread(void *arg);
void thread_exit_handler(int sig);

/* Test transmitter: nothing in the module starts it; a harness that wants the load does. */
extern pthread_t g_TestTx_thread;
extern pthread_t g_VuartTxTst_thread;
void *atcmder_TestTx_thread(void *arg);

ATCMD_EXPORTS_END

/* Signals to the supervisor. */
#define ATCMD_SIG_PLUG SIGUSR1
#define ATCMD_SIG_UNPLUG SIGUSR2
#define ATCMD_SIG_HIDDEMON_RUNNING SIGURG
#define ATCMD_SIG_HANDSHAKE SIGVTALRM
#define ATCMD_SIG_THREAD_EXIT SIGALRM

/* Fills `set` with the four signals only the supervisor takes. */
void atcmd_supervisor_signals(sigset_t *set);

/* Sends `sig` to the supervisor thread; the result of pthread_kill (ESRCH, logged, when the
 * supervisor was never started). */
int atcmd_signal_supervisor(int sig);

/* Starts `body` into `*handle` unless one runs there; false when it had to start one and could
 * not. The handle is stored before the new thread can clear it, so a thread that ends at once
 * always leaves 0 behind and never a stale handle. */
bool atcmd_start_missing(pthread_t *handle, void *(*body)(void *));

/* Sets the handle of a thread that the supervisor started to 0 when it still names the calling
 * thread; the thread calls it as it ends. Ordered after the supervisor's store of the handle, so
 * no stale handle is left behind. False when someone else took the handle first (and joins). */
bool atcmd_clear_own_handle(pthread_t *handle);

#endif /* ATCMD_SUPERVISION_SUPERVISION_H */
