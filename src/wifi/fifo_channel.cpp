/*
 * The FIFO channel to the HID daemon: Socket_Fifo_Init opens "/dev/fifo_rx" and "/dev/fifo_tx"
 * (supervisor thread), atcmder_wifiRx_thread frames what the daemon writes into AT lines
 * ("wifiRx_thread"), stop_wifi_channel ends that thread and closes the FIFOs (upper layer,
 * dispatch or heartbeat thread). Writes g_fifo_rx_fd, g_fifo_tx_fd, epfd_socket and
 * g_wifiRx_thread; the transmit thread only reads g_fifo_tx_fd.
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "device/device.h"
#include "device/link_words.h"
#include "engine/engine.h"
#include "log/atcmd_log.h"
#include "platform/root_path.h"
#include "supervision/supervision.h"
#include "wifi/wifi.h"

int32_t g_fifo_rx_fd = -1;
int32_t g_fifo_tx_fd = -1;
int32_t epfd_socket = 0;
pthread_t g_wifiRx_thread = 0;

namespace {

constexpr const char *kFifoRx = "/dev/fifo_rx";
constexpr const char *kFifoTx = "/dev/fifo_tx";
constexpr int kFifoOpenFailed = 10;
constexpr int kEpollFailed = 11;
constexpr int kMaxEvents = 32;
constexpr int kNoEpoll = 0;  // epfd_socket when there is no epoll instance
// Without an epoll instance (the FIFOs did not all open) a wait fails at once; the thread
// retries after this pause instead of spinning a core until the channel is closed.
constexpr long kFailedWaitPauseMs = 100;

// Guards the open and close of the channel: g_fifo_rx_fd, g_fifo_tx_fd, epfd_socket and the
// receive thread's handle change only under it. Taken alone (no other lock is taken inside);
// the receive and transmit threads never take it.
pthread_mutex_t g_channel_mutex = PTHREAD_MUTEX_INITIALIZER;

struct ChannelLock {
    ChannelLock() { pthread_mutex_lock(&g_channel_mutex); }
    ~ChannelLock() { pthread_mutex_unlock(&g_channel_mutex); }
    ChannelLock(const ChannelLock &) = delete;
    ChannelLock &operator=(const ChannelLock &) = delete;
};

#define RX_LOG(threshold, ...) ATCMD_LOG_AS("atcmder_wifiRx_thread", LOG_TAG, threshold, __VA_ARGS__)

// Opened read-write so that neither open waits for the daemon's side, and non-blocking so that
// the receive thread can empty the FIFO after each edge of its edge-triggered wait.
int32_t open_fifo(const char *as_written) {
    return atcmd_open_rooted(as_written, O_RDWR | O_NONBLOCK | O_CLOEXEC);
}


void close_data_fifos(void) {
    link_close(g_fifo_rx_fd);
    link_close(g_fifo_tx_fd);
}

// The receive thread's parse request, its work area and the platform's source value.
struct WifiLine {
    AtCmder_t cmd;
    char text[AT_LINE_BUF_SIZE];
    uint8_t source;
};

// A line read on one platform comes from the other end of the Wi-Fi link.
uint8_t peer_source(int32_t platform) {
    switch (platform) {
        case PLATFORM_UART: return AT_NODE_PLATFORM1;
        case PLATFORM_VUART: return AT_NODE_PLATFORM2;
        default: return AT_NODE_NONE;
    }
}

void deliver(void *ctx, char *text, size_t len) {
    auto *line = static_cast<WifiLine *>(ctx);
    RX_LOG(ATCMD_LEVEL_STATE, "Wifi receive data length is %zu, receive data is %s", len, text);
    memset(&line->cmd, 0, sizeof line->cmd);
    memset(line->text, 0, sizeof line->text);
    line->cmd.source = line->source;
    line->cmd.data = line->text;
    cmd_Parse_from_buffer(&line->cmd, text);
}

void too_long(void * /*ctx*/, const char *held) {
    RX_LOG(ATCMD_LEVEL_STATE, "wifi receive data length is too long, skip it, receive data is %s ",
           held);
}

// Edge-triggered: one edge may stand for more than one read's worth, so the FIFO is read
// until it is empty, each read framed on its own. A daemon that never pauses never lets it be
// empty: before every read the thread takes a pending SIGALRM, so a stop ends it within one
// read, and a channel closed or replaced meanwhile sends it back to its wait.
void drain_fifo(int fd, struct at_rx_buffer *rx, WifiLine *line) {
    for (;;) {
        wifi_thread_exit_point();
        if (link_load(g_fifo_rx_fd) != fd) return;
        const ssize_t n = read(fd, rx->data + rx->fill, at_rx_room(rx));
        if (n < 0 && errno == EINTR) continue;
        if (n < 1) return;  // empty (EAGAIN) or failed: wait for the next edge
        at_rx_frame(rx, static_cast<size_t>(n), deliver, too_long, line);
    }
}

// The thread ended by itself: clears its own handle and detaches, since nobody will join it.
// If stop_wifi_channel took the handle meanwhile, that caller joins instead.
void leave_by_itself(void) {
    if (atcmd_clear_own_handle(&g_wifiRx_thread)) pthread_detach(pthread_self());
}

#define FIFO_INIT_LOG(threshold, ...) \
    ATCMD_LOG_AS("Socket_Fifo_Init", LOG_TAG, threshold, __VA_ARGS__)

// Socket_Fifo_Init's work; the caller holds the channel lock.
int fifo_init_locked(void) {
    // A receive thread still running waits on the epoll instance that is about to be closed,
    // and closing it would not wake it: it is ended here and started anew by the caller.
    wifi_thread_end(&g_wifiRx_thread);
    // Only the receive descriptor is tested, and descriptor 0 counts as closed.
    if (link_load(g_fifo_rx_fd) >= 1) close_data_fifos();
    if (link_load(epfd_socket) >= 1) link_close(epfd_socket, kNoEpoll);

    link_store(g_fifo_rx_fd, open_fifo(kFifoRx));
    link_store(g_fifo_tx_fd, open_fifo(kFifoTx));
    if (g_fifo_rx_fd < 0 || g_fifo_tx_fd < 0) {
        // Names the receive FIFO whichever of the two failed; the one that opened stays open.
        FIFO_INIT_LOG(ATCMD_LEVEL_ERROR, "cannot open device: %s\n", kFifoRx);
        return kFifoOpenFailed;
    }

    const int epfd = epoll_create1(EPOLL_CLOEXEC);
    if (epfd < 0) {
        FIFO_INIT_LOG(ATCMD_LEVEL_ERROR, "Create epoll instance, errno:%d, errstr:%s\n", errno,
                      strerror(errno));
        return kEpollFailed;
    }
    link_store(epfd_socket, static_cast<int32_t>(epfd));
    struct epoll_event ev;
    memset(&ev, 0, sizeof ev);
    ev.events = EPOLLIN | EPOLLET;
    ev.data.fd = g_fifo_rx_fd;
    if (epoll_ctl(epfd, EPOLL_CTL_ADD, g_fifo_rx_fd, &ev) != 0) {
        FIFO_INIT_LOG(ATCMD_LEVEL_ERROR, "Set epoll_ctl, errno:%d, errstr:%s\n", errno,
                      strerror(errno));
        return kEpollFailed;
    }
    FIFO_INIT_LOG(ATCMD_LEVEL_STATE, "FIFO_RX and FIFO_TX open successfully!");
    return 0;
}

}  // namespace

int Socket_Fifo_Init(void) {
    ChannelLock lock;
    return fifo_init_locked();
}

int wifi_channel_start(bool *thread_started) {
    ChannelLock lock;
    const int result = fifo_init_locked();
    *thread_started = atcmd_start_missing(&g_wifiRx_thread, atcmder_wifiRx_thread);
    return result;
}

void *atcmder_wifiRx_thread(void * /*arg*/) {
    sigset_t wait_mask;
    wifi_thread_exit_on_alarm(&wait_mask);
    prctl(PR_SET_NAME, "wifiRx_thread");
    ATCMD_LOG(ATCMD_LEVEL_STATE, "atcmder_wifiRx_thread is running!");

    struct at_rx_buffer rx;
    WifiLine line;
    memset(&rx, 0, sizeof rx);
    memset(&line, 0, sizeof line);
    const struct atcmdprocess_device *dev = g_patcmd_dev;
    line.source = peer_source(dev != nullptr ? dev->system_status.platform : 0);

    while (link_load(g_fifo_rx_fd) >= 0) {
        struct epoll_event events[kMaxEvents];
        const int n = epoll_pwait(link_load(epfd_socket), events, kMaxEvents, -1, &wait_mask);
        if (n < 0 && errno != EINTR) wifi_thread_sleep(&wait_mask, kFailedWaitPauseMs);
        if (n < 1) continue;
        drain_fifo(events[0].data.fd, &rx, &line);
    }
    leave_by_itself();
    ATCMD_LOG(ATCMD_LEVEL_STATE, "atcmder_wifiRx_thread exits!");
    return nullptr;
}

void stop_wifi_channel(void) {
    ChannelLock lock;
    const int32_t rx_fd = link_load(g_fifo_rx_fd);
    if (rx_fd < 1) return;  // nothing open, nothing to stop
    if (epoll_ctl(link_load(epfd_socket), EPOLL_CTL_DEL, rx_fd, nullptr) != 0) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR,
                  "stop_wifi_channel Set epoll_ctl, epfd_socket is %d, g_fifo_rx_fd is %d, "
                  "errno:%d, errstr:%s\n",
                  link_load(epfd_socket), rx_fd, errno, strerror(errno));
    }
    wifi_thread_end(&g_wifiRx_thread);
    close_data_fifos();
    if (link_load(epfd_socket) >= 1) link_close(epfd_socket, kNoEpoll);
    ATCMD_LOG(ATCMD_LEVEL_STATE, "wifi channel has been closed and wifiRx_thread has been killed!");
}
