/*
 * ACM port discovery: the scan of "/dev" at start (and from the VUART receive thread), the
 * inotify watch on "/dev" served by the "devEpoll_process" thread, and the USB events sent to the
 * upper layer. Writes g_dev_ACM and g_dev_ACM_name (last writer wins) and hands every plug and
 * unplug to the supervisor by signal. notify_usbevent runs on the supervisor and the dispatch
 * thread.
 */
#define LOG_TAG "ATCMD_HOTPLUG"

#include <dirent.h>
#include <errno.h>
#include <linux/input.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <mutex>

#include "device/device.h"
#include "device/link_words.h"
#include "device/sys_io.h"
#include "hotplug/hotplug.h"
#include "hotplug/hotplug_internal.h"
#include "log/atcmd_log.h"
#include "platform/root_path.h"
#include "serial/serial.h"
#include "supervision/supervision.h"

char g_dev_ACM_name[64] = "";
int fd_inotify_input = -1;
int epfd_hid_devs = -1;
pthread_t g_find_acmdev_thread = 0;

// Guards g_dev_ACM_name: the hotplug thread and a scan on the VUART receive thread write it,
// the supervisor reads it. Taken alone, never with another lock.
std::mutex g_dev_ACM_name_mutex;

// UsbStateLock's mutex: orders the stores of the USB words and their notice (see hotplug.h).
pthread_mutex_t g_usb_state_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

constexpr char kDevDir[] = "/dev";
constexpr char kAcmKey[] = "ttyACM";
constexpr uint32_t kWatchMask = IN_CREATE | IN_DELETE;
constexpr int kMaxEpollEvents = 20;
constexpr size_t kEventBufSize = 4096;

constexpr int kHotplugEpollFailed = -6;
constexpr int kHotplugInotifyFailed = -22;
constexpr int kHotplugThreadFailed = -4;

// The plug signal for port `n`: its number is recorded first so the supervisor opens it.
void announce_plug(int32_t n) {
    link_store(g_dev_ACM, n);
    atcmd_signal_supervisor(ATCMD_SIG_PLUG);
}

void on_created(const struct inotify_event *ev, const char *name) {
    if (ev->mask & IN_ISDIR) {
        ATCMD_LOG_AS("dev_event_process", LOG_TAG, ATCMD_LEVEL_DETAIL, "New directory %s created.",
                     name);
        return;
    }
    const int32_t n = parse_dev_name(name);
    if (n == -1) return;
    ATCMD_LOG_AS("dev_event_process", LOG_TAG, ATCMD_LEVEL_DETAIL,
                 "New file %s created, dev_ACM is %ld.", name, static_cast<long>(n));
    acm_entry_made(n);  // before the signal, so that the supervisor's look finds it counted
    announce_plug(n);
}

// The port number is left as it was; only the supervisor's unplug changes the link.
void on_deleted(const struct inotify_event *ev, const char *name) {
    if (ev->mask & IN_ISDIR) {
        ATCMD_LOG_AS("dev_event_process", LOG_TAG, ATCMD_LEVEL_DETAIL, "Directory %s deleted.",
                     name);
        return;
    }
    ATCMD_LOG_AS("dev_event_process", LOG_TAG, ATCMD_LEVEL_DETAIL, "File %s deleted.", name);
    if (parse_dev_name(name) == -1) return;
    atcmd_signal_supervisor(ATCMD_SIG_UNPLUG);
    // The text predates the receive thread ending by itself; it is kept as operators know it.
    ATCMD_LOG_AS("dev_event_process", LOG_TAG, ATCMD_LEVEL_DETAIL,
                 "event->name %s unplugged, vuart thread has been killed, g_vuart_fd is %d", name,
                 link_load(g_vuart_fd));
}

void handle_event(const struct inotify_event *ev) {
    if (ev->len == 0) return;
    char name[NAME_MAX + 1];
    snprintf(name, sizeof name, "%.*s", static_cast<int>(strnlen(ev->name, ev->len)), ev->name);
    if (ev->mask & IN_CREATE) {
        on_created(ev, name);
    } else if (ev->mask & IN_DELETE) {
        on_deleted(ev, name);
    }
}

}  // namespace

int32_t acm_port_number(const char *name) {
    if (name == nullptr) return kNoAcmPort;
    const char *key = strstr(name, kAcmKey);
    if (key == nullptr) return kNoAcmPort;
    errno = 0;
    const long n = strtol(key + strlen(kAcmKey), nullptr, 10);
    // A number the port path cannot carry is no port of ours; taking it would open a wrong one.
    if (errno == ERANGE || n < 0 || n > INT32_MAX) return kAcmPortOutOfRange;
    return static_cast<int32_t>(n);
}

int32_t parse_dev_name(const char *name) {
    const int32_t n = acm_port_number(name);
    if (n == kAcmPortOutOfRange)
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "%s: port number out of range, ignored", name);
    if (n < 0) return -1;
    {
        std::lock_guard<std::mutex> lock(g_dev_ACM_name_mutex);
        snprintf(g_dev_ACM_name, sizeof g_dev_ACM_name, "%s", name);
    }
    ATCMD_LOG(ATCMD_LEVEL_DETAIL, "file ttyACM%ld found or remove! g_dev_ACM_name: %.63s",
              static_cast<long>(n), name);
    return n;
}

int scan_acm_devices(void) {
    ATCMD_LOG(ATCMD_LEVEL_STATE, "scan_acm_devices begin!");
    char path[ATCMD_ROOTED_PATH_MAX];
    DIR *dir = atcmd_root_path(kDevDir, path, sizeof path) == 0 ? opendir(path) : nullptr;
    if (dir == nullptr) {
        // Nothing can be read from a directory that did not open: no port is announced.
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "Could not open directory\n");
        return 0;
    }
    int found = 0;
    while (const struct dirent *entry = readdir(dir)) {
        const int32_t n = parse_dev_name(entry->d_name);
        if (n == -1) continue;
        ATCMD_LOG(ATCMD_LEVEL_DETAIL, "ttyACM %ld is found", static_cast<long>(n));
        announce_plug(n);
        found = 1;
    }
    closedir(dir);
    return found;
}

int inotify_input_event(void) {
    const int fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (fd < 0) {
        const int err = errno;
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "inotify_init, errno:%d, errstr:%s\n", err, strerror(err));
        return -1;
    }
    char path[ATCMD_ROOTED_PATH_MAX];
    // Without the watch the descriptor simply never reports; discovery then rests on the scans.
    if (atcmd_root_path(kDevDir, path, sizeof path) != 0 ||
        inotify_add_watch(fd, path, kWatchMask) < 0) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "no watch on %s, hot plug will not be seen", kDevDir);
    }
    return fd;
}

namespace {

// Handles the records of one read of `total` bytes.
void handle_events(const char *buf, size_t total) {
    size_t at = 0;
    while (at + sizeof(struct inotify_event) <= total) {
        const auto *ev = reinterpret_cast<const struct inotify_event *>(buf + at);
        if (ev->len > total - at - sizeof *ev) {
            ATCMD_LOG_AS("dev_event_process", LOG_TAG, ATCMD_LEVEL_ERROR,
                         "inotify record at %zu runs past the %zu bytes read, rest dropped", at,
                         total);
            break;
        }
        handle_event(ev);
        at += sizeof *ev + ev->len;
    }
}

}  // namespace

// The descriptor is non-blocking and its wait edge-triggered: one wake may stand for more events
// than one read holds, so it is read until empty, and no event waits for the next change.
int dev_event_process(void) {
    alignas(struct inotify_event) char buf[kEventBufSize];
    const int fd = link_load(fd_inotify_input);
    for (;;) {
        const ssize_t n = retry_eintr([&] { return read(fd, buf, sizeof buf); });
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return 0;
        if (n < 0) {
            const int err = errno;
            ATCMD_LOG(ATCMD_LEVEL_ERROR, "read, errno:%d, errstr:%s", err, strerror(err));
            return -1;
        }
        if (n == 0) return 0;
        handle_events(buf, static_cast<size_t>(n));
    }
}

void *handler_acm_devs_epoll(void * /*arg*/) {
    prctl(PR_SET_NAME, "devEpoll_process");
    ATCMD_LOG(ATCMD_LEVEL_STATE, "handler_acm_devs_epoll thread is running");
    struct epoll_event events[kMaxEpollEvents];
    for (;;) {
        const int n = epoll_wait(link_load(epfd_hid_devs), events, kMaxEpollEvents, -1);
        for (int i = 0; i < n; ++i) {
            if (events[i].data.fd == link_load(fd_inotify_input)) dev_event_process();
        }
    }
    return nullptr;
}

// The watch, its thread and the start-up scan; the scan runs after the watch is set.
static int watch_and_scan(void) {
    UniqueFd epfd(epoll_create1(EPOLL_CLOEXEC));
    if (epfd.get() < 0) {
        const int err = errno;
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "Create epoll instance, errno:%d, errstr:%s\n", err,
                  strerror(err));
        return kHotplugEpollFailed;
    }
    UniqueFd ifd(inotify_input_event());
    if (ifd.get() == -1) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "inotify_input_event\n");
        return kHotplugInotifyFailed;
    }
    // An input-device grab on an inotify descriptor has no effect; it has always been issued.
    (void)ioctl(ifd.get(), EVIOCGRAB, 0);
    struct epoll_event ev = {};
    ev.events = EPOLLIN | EPOLLET;
    ev.data.fd = ifd.get();
    if (epoll_ctl(epfd.get(), EPOLL_CTL_ADD, ifd.get(), &ev) != 0) {
        const int err = errno;
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "Set epoll_ctl, errno:%d, errstr:%s\n", err, strerror(err));
        return kHotplugEpollFailed;
    }
    link_store(epfd_hid_devs, epfd.get());
    link_store(fd_inotify_input, ifd.get());
    // The watch is set before the scan, so that a port made between the two is announced by one
    // of them (perhaps by both, which the supervisor takes as one plug).
    scan_acm_devices();
    pthread_t thread;
    if (pthread_create(&thread, nullptr, handler_acm_devs_epoll, nullptr) != 0) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "pthread_create error\n");
        link_store(fd_inotify_input, -1);
        link_store(epfd_hid_devs, -1);
        return kHotplugThreadFailed;
    }
    // The thread and the globals own them from here on.
    epfd.release();
    ifd.release();
    link_store(g_find_acmdev_thread, thread);
    return 0;
}

UsbStateLock::UsbStateLock() { pthread_mutex_lock(&g_usb_state_mutex); }
UsbStateLock::~UsbStateLock() { pthread_mutex_unlock(&g_usb_state_mutex); }

bool usb_state_from_held_port(uint32_t origin) {
    if (origin == 0) return true;
    return origin == vuart_generation() && link_load(g_vuart_fd) != -1;
}

int dev_hotplug_init(void) {
    const int result = watch_and_scan();
    if (result != 0) scan_acm_devices();  // without a watch, the ports present still count
    return result;
}

void notify_usbevent(void) {
    usbdev_sts_t sts = {link_load(g_patcmd_dev->usb_connected),
                        link_load(g_patcmd_dev->usb_status)};
    ATCMD_LOG(ATCMD_LEVEL_DETAIL, "Notify usb evt %d %d", sts.connected, sts.status);
    AT_CMD_CbMsg_t msg = {AT_MSG_USBSTATE, 0, &sts};
    atcmd_notify(&msg);
}
