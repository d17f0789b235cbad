/*
 * The VUART receive thread ("VuartRx_thread"): reads the accessory's ACM port, frames the bytes
 * with the shared framing routine and hands complete lines to the line parser as accessory
 * lines. It notices a vanished port and asks the supervisor to look, and clears
 * g_VuartRx_thread when it ends. It waits on its port and on the port's end pipe, so it wakes
 * only for bytes, a hang-up or a switch. Started detached by the supervisor on plug; at most one
 * runs.
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

constexpr int kReceiveRetryMs = 300;  // a failure's pause; the wait's limit only without an end pipe
constexpr useconds_t kReceiveRetryUs = kReceiveRetryMs * 1000;
constexpr int kWithoutLimit = -1;
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

// Waits for `copy`'s port to have something to read (bytes, a hang-up, an error) or for the
// port held to change, without a time limit: both are events. Only a port stored without an end
// pipe (a harness) is looked at once per retry pace. False when the port held changed.
bool port_ready(const VuartCopy *copy) {
    const int limit = copy->ended.get() >= 0 ? kWithoutLimit : kReceiveRetryMs;
    for (;;) {
        switch (vuart_wait(copy, POLLIN, limit)) {
            case kVuartReady: return true;
            case kVuartChanged: return false;
            case kVuartTimedOut: break;  // interrupted, or a harness's port unchanged: wait on
        }
    }
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
    // The thread reads its own copy of the port held, taken anew whenever the port held changes;
    // a switch wakes it at once. What an old port left of an unfinished line is dropped then, so
    // that the new port's first line is parsed as it was sent. Each line is parsed under the
    // generation of the port it was read from, so what it says of the link is weighed against
    // the port held when it is handled.
    VuartCopy copy;
    for (;;) {
        if (copy.port.get() == -1 || vuart_held_changed(&copy.seen)) {
            if (copy.port.get() != -1) at_rx_drop(&rx, "the port changed");
            if (!vuart_take(&copy)) break;
            atcmder_set_origin(copy.seen.changes);
        }
        if (!port_ready(&copy)) continue;
        const int n = VUART_Recv(copy.port.get(), rx.data + rx.fill, at_rx_room(&rx), kNoWait);
        if (n < 1) {
            if (port_may_return(&copy.seen)) continue;  // what was held of a line is kept
            copy.port.reset();
            atcmder_set_origin(0);
            return disappear_exit();
        }
        at_rx_frame(&rx, static_cast<size_t>(n), deliver, too_long, &line);
    }
    atcmder_set_origin(0);
    return cannot_find_exit();
}
