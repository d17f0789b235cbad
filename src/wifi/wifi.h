/*
 * The Wi-Fi channel: the FIFOs to the HID daemon, their receive thread, and the daemon's
 * control and heartbeat.
 */
#ifndef ATCMD_WIFI_WIFI_H
#define ATCMD_WIFI_WIFI_H

#include <pthread.h>
#include <signal.h>
#include <stdint.h>

#include "device/c_exports.h"

ATCMD_EXPORTS_BEGIN

extern int32_t g_fifo_rx_fd; /* "/dev/fifo_rx", -1 while closed */
extern int32_t g_fifo_tx_fd; /* "/dev/fifo_tx", -1 while closed */
extern int32_t epfd_socket;  /* epoll instance on g_fifo_rx_fd; 0 while none */
extern pthread_t g_wifiRx_thread;
extern pthread_t g_wifiHBeat_thread;
extern uint32_t g_wifiHBeat_num;

/* The FIFO channel. */
int Socket_Fifo_Init(void);
void *atcmder_wifiRx_thread(void *arg);
void stop_wifi_channel(void);

/* The HID daemon: device operations, control, heartbeat and the Wi-Fi state. */
int atcmdprocess_wifi_init(const char *ip_addr);
int atcmdprocess_wifi_stchange(int32_t state);
int atcmdprocess_hiddemon_stchange(const char *status);
void stop_hiddemon(void);
int Kill_hiddemon_byforce(void);
void wifi_Chan_ReInit(void);
void *atcmder_wifiHBeat_thread(void *arg);
void notify_wifi_state(int32_t state);

ATCMD_EXPORTS_END

/* ---- Ending the two Wi-Fi threads (module-internal) ------------------------------------------ */

/* Installs thread_exit_handler for SIGALRM and blocks SIGALRM in the calling thread, which from
 * then on lets it in only while it waits (epoll_pwait, ppoll) with `wait_mask`: the thread never
 * ends in the middle of a log line or a queue operation, with a lock held. */
void wifi_thread_exit_on_alarm(sigset_t *wait_mask);

/* Ends the thread recorded in `*handle`: takes the handle (leaving 0), sends SIGALRM and joins.
 * A handle of 0 means no such thread and is skipped. */
void wifi_thread_end(pthread_t *handle);

/* Sleeps `ms` milliseconds, letting SIGALRM in meanwhile. */
void wifi_thread_sleep(const sigset_t *wait_mask, long ms);

/* Takes a SIGALRM that is already pending and ends the thread here through thread_exit_handler;
 * returns at once when none is. For a thread between two pieces of work that may never have to
 * wait: a peer that never pauses would otherwise keep it from ever being ended. */
void wifi_thread_exit_point(void);

/* ---- Whether Wi-Fi is wanted and what the daemon last said (module-internal) ----------------- */

/* Holds the Wi-Fi link lock for its scope: init, disconnect, daemon reports, the daemon restart
 * and the supervisor's opening of the channel never interleave. First in the lock order. */
struct WifiLinkLock {
    WifiLinkLock();
    ~WifiLinkLock();
    WifiLinkLock(const WifiLinkLock &) = delete;
    WifiLinkLock &operator=(const WifiLinkLock &) = delete;
};

/* The same lock for a Wi-Fi thread: it waits with SIGALRM let in, so that the thread can still be
 * ended while another holds the lock. Returns with the lock held; release it with
 * wifi_link_unlock. */
void wifi_link_lock_from_wifi_thread(const sigset_t *wait_mask);
void wifi_link_unlock(void);

/* Under the lock: the daemon reported "running" / the link went down (a failure, a stop, a
 * restart or a disconnect). */
void hiddemon_report_running(void);
void hiddemon_report_down(void);

/* Under the lock: 0 unless the daemon's last word was "running", else the number of that report,
 * so that each "running" report opens the channel once. */
uint32_t hiddemon_running_report(void);

/* Opens the FIFOs (Socket_Fifo_Init, result returned) and starts the receive thread when none
 * runs, both under the channel lock, so that a stop finds either no thread or its handle.
 * `*thread_started` is false when the thread was missing and could not be started. */
int wifi_channel_start(bool *thread_started);

#endif /* ATCMD_WIFI_WIFI_H */
