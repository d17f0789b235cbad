/*
 * The supervisor thread: the one place where link changes signalled by other threads are
 * carried out (plug, unplug, daemon running, handshake), taken with sigwait one at a time, and
 * the SIGALRM handler that ends the Wi-Fi threads. Runs on "sigProcess_thread"; writes
 * g_vuart_fd, the thread handles it creates and the device's usb and mode words, without locks:
 * this thread alone changes them.
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <errno.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cutils/properties.h>

#include "accessory/accessory.h"
#include "hal/hal.h"
#include "hal/link_words.h"
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
    SUPERVISOR_LOG(3, "Current cast mode is %d",
                 link_load(dev->system_status.mode));
}

// Guards the publication of the handles of threads the supervisor starts and that clear their
// own handle when they end (the VUART receive thread): the store of a new handle and a thread's
// clear of it never interleave. Taken alone, never with another lock.
pthread_mutex_t g_thread_handle_mutex = PTHREAD_MUTEX_INITIALIZER;

// Starts `body` into `handle` unless one runs; false when it had to start one and could not.
// The handle is stored before the new thread can clear it, so a thread that ends at once
// always leaves 0 behind and never a stale handle.
bool start_missing(pthread_t *handle, void *(*body)(void *)) {
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

// Closes the accessory's port and marks it closed. The VUART receive thread may be blocked in a
// read of it and the transmit thread may be writing it: they see -1 on their next pass, which
// is how both learn that the port went away.
__attribute__((noinline)) void close_accessory_port(void) { link_close(g_vuart_fd); }

// SIGUSR1: the accessory's port appeared. An earlier port is always dropped first.
void on_plug(struct atcmdprocess_device *dev) {
    if (corvel_plugged() != 1) return;
    SUPERVISOR_LOG(4, "hot pluged device is corvel.");
    close_accessory_port();
    int32_t fd = -1;
    if (VUART_init(&fd, link_load(g_dev_ACM)) != 0) return;  // stays closed until the next plug
    link_store(g_vuart_fd, fd);
    if (!start_missing(&g_VuartRx_thread, atcmder_VuartRx_thread)) {
        SUPERVISOR_LOG(0, "atcmder_VuartRx_thread pthread_create failed");
        return;
    }
    link_store(dev->usb_connected, 1);
    link_store(dev->system_status.mode, static_cast<int32_t>(AT_MODE_USB));
    get_corvel_info();
    notify_usbevent();
    log_cast_mode(dev);
}

// SIGUSR2: the port went away. The receive thread ends by itself once it sees the -1.
void on_unplug(struct atcmdprocess_device *dev) {
    link_store(dev->usb_status, -1);
    link_store(dev->usb_connected, 0);
    notify_usbevent();
    close_accessory_port();
    const bool wifi_wanted = link_load(dev->system_status.wifi_status) == 1;
    link_store(dev->system_status.mode,
               static_cast<int32_t>(wifi_wanted ? AT_MODE_WIFI : AT_MODE_NONE));
    log_cast_mode(dev);
}

// SIGURG: the HID daemon reports a running link. A USB link keeps the traffic.
void on_hiddemon_running(struct atcmdprocess_device *dev) {
    if (link_load(dev->system_status.mode) != AT_MODE_USB) {
        link_store(dev->system_status.mode, static_cast<int32_t>(AT_MODE_WIFI));
    }
    Socket_Fifo_Init();  // a failed open still starts the thread, which then ends at once
    // Both failures carry the receive thread's name on purpose: one text for the Wi-Fi start.
    if (!start_missing(&g_wifiRx_thread, atcmder_wifiRx_thread)) {
        SUPERVISOR_LOG(0, "atcmder_wifiRx_thread init failed!");
    }
    if (!start_missing(&g_wifiHBeat_thread, atcmder_wifiHBeat_thread)) {
        SUPERVISOR_LOG(0, "atcmder_wifiRx_thread init failed!");
    }
    if (dev->system_status.platform == PLATFORM_VUART) get_corvel_info();
    property_set("vendor.corvel.timesync", "enable");
    SUPERVISOR_LOG(3, "Set vendor.corvel.timesync enable!");
    log_cast_mode(dev);
}

// SIGVTALRM: the upper layer asked for the handshake with the accessory's SoC.
void on_handshake(struct atcmdprocess_device * /*dev*/) {
    send_amlogic_ver();
    usleep(kHandshakeGapUs);
    get_corvel_info();
    get_corvel_usbstate();
}

struct SignalAction {
    int sig;
    void (*act)(struct atcmdprocess_device *dev);
};

constexpr SignalAction kActions[] = {
    {ATCMD_SIG_PLUG, on_plug},
    {ATCMD_SIG_UNPLUG, on_unplug},
    {ATCMD_SIG_HIDDEMON_RUNNING, on_hiddemon_running},
    {ATCMD_SIG_HANDSHAKE, on_handshake},
};

}  // namespace

void atcmd_supervisor_signals(sigset_t *set) {
    sigemptyset(set);
    for (const SignalAction &a : kActions) sigaddset(set, a.sig);
}

int atcmd_signal_supervisor(int sig) {
    const pthread_t supervisor = link_load(g_Sigprocess_thread);
    if (supervisor == 0) {  // pthread_kill on handle 0 would crash the process
        ATCMD_LOG(0, "no supervisor thread, signal %d dropped", sig);
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
        struct atcmdprocess_device *dev = g_patcmd_dev;
        if (dev == nullptr) continue;
        for (const SignalAction &a : kActions) {
            if (a.sig == sig) a.act(dev);
        }
    }
    return nullptr;
}
