/*
 * The device object and its callback slot: g_patcmd_dev (set by open on the upper layer's
 * thread), the notify callback the upper layer installs, and the hand-over of every message to
 * it, called from the engine's threads, sometimes at once.
 */
#define LOG_TAG "AtCmdProcessHal"

#include <errno.h>

#include "device/device.h"
#include "device/link_words.h"
#include "log/atcmd_log.h"

struct atcmdprocess_device *g_patcmd_dev = nullptr;

namespace {

constexpr int kNoDevice = -EINVAL;

}  // namespace

int set_notify_callback(struct atcmdprocess_device *dev, atcmdprocess_notify_cb cb) {
    ATCMD_LOG(ATCMD_LEVEL_DETAIL, "set_notify_callback");
    if (dev == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "set_notify_callback without a device, callback not stored\n");
        return kNoDevice;
    }
    link_store(dev->notify_callback, cb);  // engine threads may be notifying already
    return 0;
}

void atcmd_notify(const AT_CMD_CbMsg_t *msg) {
    struct atcmdprocess_device *dev = g_patcmd_dev;
    const atcmdprocess_notify_cb callback =
        dev != nullptr ? link_load(dev->notify_callback) : nullptr;
    if (callback == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "no notify callback installed, message %u dropped\n",
                  msg->msg_id);
        return;
    }
    callback(msg);
}
