/*
 * The VUART receive thread ("VuartRx_thread"): reads the accessory's ACM port, frames the bytes
 * with the shared framing routine and hands complete lines to the line parser as accessory
 * lines. It notices a vanished port and asks the supervisor to look, and clears
 * g_VuartRx_thread when it ends. Started detached by the supervisor on plug; at most one runs.
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "device/device.h"
#include "device/link_words.h"
#include "device/sys_io.h"
#include "engine/engine.h"
#include "hotplug/hotplug.h"
#include "log/atcmd_log.h"
#include "serial/serial.h"
#include "supervision/supervision.h"

pthread_t g_VuartRx_thread = 0;

namespace {

constexpr int kReceiveRetryMs = 300;  // the thread's pace: a wait's limit, a failure's pause
constexpr useconds_t kReceiveRetryUs = kReceiveRetryMs * 1000;
constexpr int32_t kNoWait = 0;  // the receive itself: the bytes are there once the wait says so

// Every line of this thread reads as the thread's own, also from the helpers below.
#define VUART_RX_LOG(threshold, ...) \
    ATCMD_LOG_AS("atcmder_VuartRx_thread", LOG_TAG, threshold, __VA_ARGS__)

struct VuartLine {
    AtCmder_t cmd;
    char text[AT_LINE_BUF_SIZE];  // the parser's working space
};

void deliver(void *ctx, char *text, size_t len) {
    auto *line = static_cast<VuartLine *>(ctx);
    VUART_RX_LOG(ATCMD_LEVEL_STATE, "Vuart receive data length is %zu, receive data is %s", len,
                 text);
    memset(line, 0, sizeof *line);
    line->cmd.source = AT_NODE_ACCESSORY;
    line->cmd.data = line->text;
    cmd_Parse_from_buffer(&line->cmd, text);
}

void too_long(void * /*ctx*/, const char *held) {
    VUART_RX_LOG(ATCMD_LEVEL_STATE,
                 "Vuart receive data length is too long, skip it, receive data is %s ", held);
}

// Waits at most one retry pace for `fd` (the thread's copy of the port held) to have something
// to read (bytes, a hang-up, an error). The wait has a limit so that the thread looks at which
// port the supervisor holds at least once per pace: a port switched, closed or replaced while it
// waited is never waited on for long, however silent the old port stays.
bool port_ready(int32_t fd) {
    struct pollfd p = {fd, POLLIN, 0};
    const int n = poll(&p, 1, kReceiveRetryMs);
    return n > 0 || (n < 0 && errno != EINTR);  // a failed wait is for the receive to report
}

// After a failed receive on the port seen as `seen`: true while the port may still be there (the
// loop goes on), false when the accessory is gone. A port the supervisor has dropped or switched
// meanwhile is left to the loop, which reads the new one or ends through the can-not-find exit:
// the unplug was handled, so no second one is asked for.
bool port_may_return(const struct VuartSeen *seen) {
    if (vuart_held_changed(seen)) return true;  // the failure was the old port's
    VUART_RX_LOG(ATCMD_LEVEL_STATE, "Vuart cannot receive data!");
    usleep(kReceiveRetryUs);
    if (vuart_held_changed(seen)) return true;
    if (link_load(g_patcmd_dev->usb_connected) == 0) return false;
    return scan_acm_devices() == 1;  // a port listed again has been announced by the scan
}

// Both exits clear the handle before the supervisor is asked to look, so that a look which
// finds the port still held (a re-plug won the race) starts a new receive thread for it.
void *disappear_exit(void) {
    VUART_RX_LOG(ATCMD_LEVEL_STATE, "ACM device disappear, atcmder_VuartRx_thread will die!");
    atcmd_clear_own_handle(&g_VuartRx_thread);
    atcmd_signal_supervisor(ATCMD_SIG_UNPLUG);
    return nullptr;
}

// The loop saw the port dropped. The supervisor has seen the unplug; it is asked to look again
// only when a port was stored meanwhile, which the thread that ends here will not read.
void *cannot_find_exit(void) {
    atcmd_clear_own_handle(&g_VuartRx_thread);
    if (link_load(g_vuart_fd) != -1) atcmd_signal_supervisor(ATCMD_SIG_UNPLUG);
    VUART_RX_LOG(ATCMD_LEVEL_STATE, "ACM device can not find, atcmder_VuartRx_thread will die!");
    return nullptr;
}

}  // namespace

void *atcmder_VuartRx_thread(void * /*arg*/) {
    prctl(PR_SET_NAME, "VuartRx_thread");
    ATCMD_LOG(ATCMD_LEVEL_STATE, "atcmder_VuartRx_thread is running!");
    pthread_detach(pthread_self());

    struct at_rx_buffer rx;
    VuartLine line;
    memset(&rx, 0, sizeof rx);
    memset(&line, 0, sizeof line);
    // The port held is looked at after every pass, and a pass lasts at most one retry pace, so a
    // re-plug or a switch to another port is picked up by this thread. It reads its own copy of
    // the descriptor, taken anew whenever the port held changes.
    struct VuartSeen seen = {0, -1};
    UniqueFd fd;
    for (;;) {
        if (fd.get() == -1 || vuart_held_changed(&seen)) {
            fd.reset();  // the old copy is closed before the new one is taken, as always
            fd.reset(vuart_copy(&seen));
            if (fd.get() == -1) break;
        }
        if (!port_ready(fd.get())) continue;
        const int n = VUART_Recv(fd.get(), rx.data + rx.fill, at_rx_room(&rx), kNoWait);
        if (n < 1) {
            if (port_may_return(&seen)) continue;  // what was held of a line is kept
            fd.reset();
            return disappear_exit();
        }
        at_rx_frame(&rx, static_cast<size_t>(n), deliver, too_long, &line);
    }
    return cannot_find_exit();
}
