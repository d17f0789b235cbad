/*
 * The module record HMI and the device operations that only the upper layer calls: open, close
 * and the command hand-over. Runs on the upper layer's threads.
 */
#define LOG_TAG "AtCmdProcessHal"

#include <errno.h>
#include <stdlib.h>

#include "engine/engine.h"
#include "hal/hal.h"
#include "hotplug/hotplug.h"
#include "log/atcmd_log.h"
#include "wifi/wifi.h"

namespace {

struct hw_module_methods_t atcmdprocess_module_methods = {
    .open = atcmdprocess_open,
};

constexpr int kOpenFailed = -EINVAL;

}  // namespace

extern "C" {
struct hw_module_t HMI = {
    .tag = HARDWARE_MODULE_TAG,
    .module_api_version = HARDWARE_MODULE_API_VERSION(1, 0),
    .hal_api_version = HARDWARE_HAL_API_VERSION,
    .id = ATCMDPROCESS_HARDWARE_MODULE_ID,
    .name = "At cmd process HAL",
    .author = "Quorvanta",
    .methods = &atcmdprocess_module_methods,
    .dso = nullptr,
    .reserved = {0},
};
}

int atcmdprocess_cmd_from_hidl(const AtCmder_t *cmd) {
    if (cmd == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "atcmdprocess_cmd_from_hidl got a NULL record, dropped\n");
        return kOpenFailed;
    }
    // An empty line on a queue stops that queue for good (its dequeue keeps the lock), so one
    // from the upper layer is refused here, at the door, and the transmit path keeps running.
    if (cmd->data != nullptr && cmd->data[0] == '\0') {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "atcmdprocess_cmd_from_hidl got an empty line, dropped\n");
        return 0;
    }
    // The upper layer's request as it came, so that a log read later holds every input.
    ATCMD_LOG(ATCMD_LEVEL_STATE,
              "atcmdprocess_cmd_from_hidl type is %u, dest is %u, flag is %u, cmd_id is %u, "
              "seq num is %u, data is %s",
              cmd->type, cmd->dest, cmd->flag, cmd->cmd_id, cmd->seq_num,
              cmd->data != nullptr ? cmd->data : "(null)");
    // The enqueue logs its own refusals (NULL or over-long text); the upper layer gets 0.
    atcmder_send_to_tx(cmd);
    return 0;
}

int atcmdprocess_close(struct hw_device_t *device) {
    atcmder_hal_close();
    if (device == nullptr) return -1;
    free(device);
    return 0;
}

int atcmdprocess_open(const struct hw_module_t *module, const char * /*id*/,
                      struct hw_device_t **device) {
    ATCMD_LOG(ATCMD_LEVEL_STATE, "atcmdprocess_open");
    log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE);
    if (device == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "NO device on open");
        return kOpenFailed;
    }
    auto *dev =
        static_cast<struct atcmdprocess_device *>(calloc(1, sizeof(struct atcmdprocess_device)));
    if (dev == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "out of memory");
        return kOpenFailed;
    }
    dev->common.tag = HARDWARE_DEVICE_TAG;
    dev->common.version = HARDWARE_DEVICE_API_VERSION(1, 0);
    dev->common.module = const_cast<struct hw_module_t *>(module);
    dev->common.close = atcmdprocess_close;
    dev->system_status.platform = PLATFORM_VUART;
    dev->system_status.mode = AT_MODE_NONE;
    dev->system_status.wifi_status = -1;
    dev->system_status.phone_state = 1;
    dev->usb_status = -1;
    dev->usb_connected = -1;
    dev->notify_callback = nullptr;
    dev->set_notify_callback = set_notify_callback;
    dev->atcmdprocess_cmd_from_hidl = atcmdprocess_cmd_from_hidl;
    dev->atcmdprocess_wifi_init = atcmdprocess_wifi_init;
    dev->atcmdprocess_wifi_stchange = atcmdprocess_wifi_stchange;
    dev->atcmdprocess_hiddemon_stchange = atcmdprocess_hiddemon_stchange;
    dev->atcmdprocess_amlogic_shake_hands = atcmdprocess_amlogic_shake_hands;

    *device = &dev->common;
    g_patcmd_dev = dev;
    atcmder_hal_open();
    return 0;
}
