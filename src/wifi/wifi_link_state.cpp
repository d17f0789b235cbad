/*
 * Whether the Wi-Fi link is wanted and what the HID daemon last said about it, and the lock that
 * keeps every change of either whole: the device operations (init, disconnect, status reports),
 * the heartbeat thread's restart and the supervisor's opening of the channel each run to their
 * end before another starts, so a disconnect always leaves the daemon stopped and a report that
 * came before it is never acted on after it.
 */
#define LOG_TAG "ATCMD_MANAGE"

#include "wifi/wifi.h"

namespace {

constexpr long kLockRetryMs = 10;  // the heartbeat thread's pause between tries

// Guards the device's wifi_status changes, g_running_report and g_running_count, and orders the
// daemon's start, stop and restart. First in the lock order: taken before the channel lock, the
// supervisor's thread-handle lock and the queue locks. Recursive, so that an upper layer that
// answers a notification by calling back into the module on the same thread does not deadlock.
pthread_mutex_t g_wifi_link_mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
bool g_running_report = false;  // the daemon's last word taken was "running"
uint32_t g_running_count = 0;   // how many "running" reports were taken

}  // namespace

WifiLinkLock::WifiLinkLock() { pthread_mutex_lock(&g_wifi_link_mutex); }
WifiLinkLock::~WifiLinkLock() { pthread_mutex_unlock(&g_wifi_link_mutex); }

void wifi_link_lock_from_wifi_thread(const sigset_t *wait_mask) {
    while (pthread_mutex_trylock(&g_wifi_link_mutex) != 0) {
        wifi_thread_sleep(wait_mask, kLockRetryMs);  // SIGALRM may end the thread here
    }
}

void wifi_link_unlock(void) { pthread_mutex_unlock(&g_wifi_link_mutex); }

void hiddemon_report_running(void) {
    g_running_report = true;
    ++g_running_count;
}

void hiddemon_report_down(void) { g_running_report = false; }

uint32_t hiddemon_running_report(void) { return g_running_report ? g_running_count : 0; }
