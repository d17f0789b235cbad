/*
 * The supervisor thread: the one place where the links are opened, closed and switched, and the
 * SIGALRM handler that ends the Wi-Fi threads. Runs on "sigProcess_thread"; writes g_vuart_fd,
 * the thread handles it creates and the device's usb and mode words.
 *
 * A signal only says "look again". On every wake the supervisor compares what is there with what
 * the module holds and carries out only the steps that close the difference, so signals that
 * were merged, came late, came twice or came in another order than their events do no harm:
 *  - USB: the port held is dropped (unplug) only when it is really gone: hung up, or its entry
 *    removed or made anew, even under the same name. Then the accessory's port present under
 *    "/dev", if any, is opened (plug). A port announced after the one held replaces it. A bounce
 *    that happened while the supervisor was busy therefore reads as the unplug, then the plug.
 *  - Wi-Fi: the channel is opened once for each "running" report that is still the daemon's last
 *    word while Wi-Fi is wanted; a report overtaken by a failure, a stop or a disconnect does
 *    nothing. Closing is done by those, under the same Wi-Fi link lock.
 *  - The handshake is a request, not a state: it is carried out on its own signal.
 * The end of a refused port's hold is the one wake that is not a signal: a port that could not
 * be opened is looked at again when it ends, so a node that appears behind its entry is taken.
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <errno.h>
#include <signal.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include "accessory/accessory.h"
#include "device/device.h"
#include "device/link_words.h"
#include "device/properties.h"
#include "hotplug/hotplug.h"
#include "log/atcmd_log.h"
#include "serial/serial.h"
#include "supervision/supervision.h"
#include "wifi/wifi.h"

pthread_t g_Sigprocess_thread = 0;

namespace {

constexpr useconds_t kHandshakeGapUs = 50000;  // between the version line and the queries

// The handlers are the supervisor's own steps: their lines carry its name.
#define SUPERVISOR_LOG(threshold, ...) \
    ATCMD_LOG_AS("atcmder_sigProcess_thread", LOG_TAG, threshold, __VA_ARGS__)

void log_cast_mode(const struct atcmdprocess_device *dev) {
    SUPERVISOR_LOG(ATCMD_LEVEL_STATE, "Current cast mode is %d",
                   link_load(dev->system_status.mode));
}

// Guards the publication of the handles of threads the supervisor starts and that clear their
// own handle when they end (the VUART receive thread): the store of a new handle and a thread's
// clear of it never interleave. Last in the lock order: nothing is taken while it is held.
pthread_mutex_t g_thread_handle_mutex = PTHREAD_MUTEX_INITIALIZER;

// What the supervisor holds beyond the shared words; this thread alone touches them.
int32_t g_held_port = -1;        // n of the port g_vuart_fd was opened on
bool g_plug_told = false;        // the plug of the held port has been carried out and told
uint32_t g_wifi_opened_for = 0;  // the "running" report the channel was last opened for

// Closes the accessory's port and marks it closed. The VUART receive thread waiting on it and
// the transmit thread writing it hold copies of their own; the port's end pipe wakes both at
// once, which is how they learn that the port went away.
__attribute__((noinline)) void close_accessory_port(void) {
    vuart_hold(-1);
    g_held_port = -1;
    g_plug_told = false;
}

// The port went away: the upper layer hears of it, then the port is dropped and the mode set.
// The receive thread ends by itself once it sees the -1.
void unplug(struct atcmdprocess_device *dev) {
    {
        // A state answer from this port is told before this, or dropped (its port is gone).
        UsbStateLock usb;
        link_store(dev->usb_status, -1);
        link_store(dev->usb_connected, 0);
        notify_usbevent();
        close_accessory_port();
    }
    {
        WifiLinkLock lock;  // a disconnect does not slip between the look and the store
        const bool wifi_wanted = link_load(dev->system_status.wifi_status) == 1;
        link_store(dev->system_status.mode,
                   static_cast<int32_t>(wifi_wanted ? AT_MODE_WIFI : AT_MODE_NONE));
    }
    log_cast_mode(dev);
}

// Opens the accessory's port `n` in place of the one held, if any. The new port is opened before
// the old one is closed, so that a port that fails to open leaves a working one as it was.
bool open_port(int32_t n) {
    SUPERVISOR_LOG(ATCMD_LEVEL_DETAIL, "hot pluged device is corvel.");
    int32_t fd = -1;
    if (VUART_init(&fd, n) != 0) {
        acm_port_unusable(n);  // passed over until its entry is made anew or its refusal ends
        return false;
    }
    // The new port replaces the old in one step, so the receive and transmit threads, woken by
    // the switch, never find no port between the two and take it for an unplug. What the old
    // port says of the link from here on is not weighed.
    UsbStateLock usb;
    vuart_hold(fd);
    g_held_port = n;
    g_plug_told = false;
    return true;
}

// The plug once the port is open: a receive thread, the mode, the start-up interrogation and the
// USB pair for the upper layer. A thread that cannot be started leaves the state as it was; the
// next look tries again.
void finish_plug(struct atcmdprocess_device *dev) {
    if (!atcmd_start_missing(&g_VuartRx_thread, atcmder_VuartRx_thread)) {
        SUPERVISOR_LOG(ATCMD_LEVEL_ERROR, "atcmder_VuartRx_thread pthread_create failed");
        return;
    }
    if (g_plug_told) return;
    g_plug_told = true;
    {
        UsbStateLock usb;
        link_store(dev->usb_connected, 1);
        link_store(dev->system_status.mode, static_cast<int32_t>(AT_MODE_USB));
    }
    get_corvel_info();  // paced queries: not under the lock, which dispatch may be waiting for
    {
        UsbStateLock usb;
        notify_usbevent();
    }
    log_cast_mode(dev);
}

void reconcile_usb(struct atcmdprocess_device *dev) {
    const int32_t held = link_load(g_vuart_fd);
    // A port this thread did not open (a harness that drives the port itself) is left alone.
    if (held != -1 && g_held_port < 0) return;
    if (held != -1 && !acm_port_alive(g_held_port, held)) unplug(dev);
    const int32_t announced = static_cast<int32_t>(link_load(g_dev_ACM));
    if (link_load(g_vuart_fd) == -1) {
        const int32_t n = acm_find_accessory_port(announced);
        if (n < 0 || !open_port(n)) return;
    } else if (announced >= 0 && announced != g_held_port && acm_is_accessory_port(announced)) {
        if (!open_port(announced)) return;  // a port announced later takes over
    }
    finish_plug(dev);
}

// The Wi-Fi channel for a "running" report that is still the daemon's last word. A USB link
// keeps the traffic.
void reconcile_wifi(struct atcmdprocess_device *dev) {
    WifiLinkLock lock;
    const uint32_t report = hiddemon_running_report();
    if (link_load(dev->system_status.wifi_status) != 1 || report == 0 ||
        report == g_wifi_opened_for) {
        return;
    }
    g_wifi_opened_for = report;
    if (link_load(dev->system_status.mode) != AT_MODE_USB) {
        link_store(dev->system_status.mode, static_cast<int32_t>(AT_MODE_WIFI));
    }
    bool rx_started = true;
    wifi_channel_start(&rx_started);  // a failed open still starts the thread, which ends at once
    // Both failures carry the receive thread's name on purpose: one text for the Wi-Fi start.
    if (!rx_started) SUPERVISOR_LOG(ATCMD_LEVEL_ERROR, "atcmder_wifiRx_thread init failed!");
    if (!atcmd_start_missing(&g_wifiHBeat_thread, atcmder_wifiHBeat_thread)) {
        SUPERVISOR_LOG(ATCMD_LEVEL_ERROR, "atcmder_wifiRx_thread init failed!");
    }
    if (dev->system_status.platform == PLATFORM_VUART) get_corvel_info();
    atcmd_property_set("atcmder_sigProcess_thread", "vendor.corvel.timesync", "enable");
    SUPERVISOR_LOG(ATCMD_LEVEL_STATE, "Set vendor.corvel.timesync enable!");
    log_cast_mode(dev);
}

// The upper layer asked for the handshake with the accessory's SoC.
void handshake(void) {
    send_amlogic_ver();
    usleep(kHandshakeGapUs);
    get_corvel_info();
    get_corvel_usbstate();
}

// The next signal, or 0 when a refused port's refusal ended first: an entry that could not be
// opened (a link whose node was not there yet) is looked at again then, without a new entry.
// With nothing refused the wait has no limit.
int wait_for_signal(const sigset_t *set) {
    const int ms = acm_refusal_ends_in_ms();
    if (ms < 0) {
        int sig = 0;  // no handler acts on 0, should the wait fail
        if (sigwait(set, &sig) != 0) ATCMD_LOG(ATCMD_LEVEL_ERROR, "sigwait error");
        return sig;
    }
    const int until_ms = ms + 1;  // just past the end, so that the look finds it ended
    const struct timespec limit = {until_ms / 1000, (until_ms % 1000) * 1000000L};
    const int sig = sigtimedwait(set, nullptr, &limit);
    if (sig > 0) return sig;
    if (errno == EAGAIN) {
        SUPERVISOR_LOG(ATCMD_LEVEL_STATE, "a refused port's hold ended, looking again");
    }
    return 0;
}

constexpr int kSignals[] = {ATCMD_SIG_PLUG, ATCMD_SIG_UNPLUG, ATCMD_SIG_HIDDEMON_RUNNING,
                            ATCMD_SIG_HANDSHAKE};

}  // namespace

bool atcmd_start_missing(pthread_t *handle, void *(*body)(void *)) {
    pthread_mutex_lock(&g_thread_handle_mutex);
    bool ok = true;
    if (link_load(*handle) == 0) {
        pthread_t created;
        ok = pthread_create(&created, nullptr, body, nullptr) == 0;
        if (ok) link_store(*handle, created);
    }
    pthread_mutex_unlock(&g_thread_handle_mutex);
    return ok;
}

void atcmd_supervisor_signals(sigset_t *set) {
    sigemptyset(set);
    for (int sig : kSignals) sigaddset(set, sig);
}
int atcmd_signal_supervisor(int sig) {
    const pthread_t supervisor = link_load(g_Sigprocess_thread);
    if (supervisor == 0) {  // pthread_kill on handle 0 would crash the process
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "no supervisor thread, signal %d dropped", sig);
        return ESRCH;
    }
    return pthread_kill(supervisor, sig);
}

bool atcmd_clear_own_handle(pthread_t *handle) {
    pthread_mutex_lock(&g_thread_handle_mutex);
    pthread_t self = pthread_self();
    const bool cleared = __atomic_compare_exchange_n(handle, &self, 0, false, __ATOMIC_ACQ_REL,
                                                     __ATOMIC_ACQUIRE);
    pthread_mutex_unlock(&g_thread_handle_mutex);
    return cleared;
}

void thread_exit_handler(int sig) {
    ATCMD_LOG(ATCMD_LEVEL_EVENT, "receive signal is %d", sig);
    pthread_exit(nullptr);
}

void *atcmder_sigProcess_thread(void * /*arg*/) {
    sigset_t set;
    atcmd_supervisor_signals(&set);
    prctl(PR_SET_NAME, "sigProcess_thread");
    ATCMD_LOG(ATCMD_LEVEL_STATE, "atcmder_sigProcess_thread thread is running");

    for (;;) {
        const int sig = wait_for_signal(&set);
        ATCMD_LOG(ATCMD_LEVEL_STATE, "atcmder_sigProcess_thread handling thread got signal %d",
                  sig);
        struct atcmdprocess_device *dev = g_patcmd_dev;
        if (dev == nullptr) continue;
        reconcile_usb(dev);
        reconcile_wifi(dev);
        if (sig == ATCMD_SIG_HANDSHAKE) handshake();
    }
    return nullptr;
}
