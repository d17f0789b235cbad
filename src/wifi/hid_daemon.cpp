/*
 * Control of the HID daemon that carries the Wi-Fi link: the orderly stop over "/dev/fifo_cmd",
 * the forced stop and the restart through "vendor.hid_cmd", the heartbeat thread that restarts
 * a daemon whose count stands still ("wifiHBeat_thread"), and the Wi-Fi state told to the upper
 * layer and the accessory. Runs on the upper layer's, the dispatch and the heartbeat threads.
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cutils/properties.h>

#include "device/device.h"
#include "device/link_words.h"
#include "device/properties.h"
#include "device/sys_io.h"
#include "engine/engine.h"
#include "log/atcmd_log.h"
#include "platform/root_path.h"
#include "wifi/wifi.h"

pthread_t g_wifiHBeat_thread = 0;
uint32_t g_wifiHBeat_num = 0;

namespace {

constexpr const char *kStateTag = "ATCMD_PARSE";  // notify_wifi_state's lines
constexpr const char *kFifoCmd = "/dev/fifo_cmd";
constexpr const char kExitWord[] = "exit";
constexpr useconds_t kExitConfirmWaitUs = 1000000;  // fixed wait for the daemon to leave
constexpr useconds_t kForcedStopWaitUs = 50000;
constexpr useconds_t kStateNotifyDelayUs = 100000;
constexpr long kHeartbeatPeriodMs = 5000;
constexpr uint16_t kWificonSeq = 18;  // fixed sequence number of the module's AT+WIFICON lines

int32_t platform_of_device(void) {
    const struct atcmdprocess_device *dev = g_patcmd_dev;
    return dev != nullptr ? dev->system_status.platform : 0;
}

int32_t wifi_status_of_device(void) {
    struct atcmdprocess_device *dev = g_patcmd_dev;
    return dev != nullptr ? link_load(dev->system_status.wifi_status) : 0;
}

bool write_exit_word(int fd) {
    const size_t len = sizeof kExitWord - 1;  // no terminator on the FIFO
    const ssize_t n = retry_eintr([&] { return write(fd, kExitWord, len); });
    return n == static_cast<ssize_t>(len);
}

// The upper layer's part of notify_wifi_state: after a short delay, on every platform.
void notify_upper_layer(int32_t state) {
    AT_CMD_CbMsg_t msg = {AT_MSG_WIFICON, 0, &state};
    usleep(kStateNotifyDelayUs);
    atcmd_notify(&msg);
}

// The client side also tells the accessory, over its serial line, with an AT+WIFICON line.
void queue_wificon_line(int32_t state) {
    const char *head = state == 1 ? "AT+WIFICON=1#" : state == 0 ? "AT+WIFICON=0#" : nullptr;
    if (head == nullptr) {
        // A line without its keyword would reach the accessory as garbage: only the callback.
        ATCMD_LOG_AS("notify_wifi_state", kStateTag, ATCMD_LEVEL_ERROR,
                     "notify_wifi_state got unknown state %ld, no AT+WIFICON line sent",
                     static_cast<long>(state));
        return;
    }
    char text[AT_LINE_BUF_SIZE] = {};
    snprintf(text, sizeof text, "%s%d&2\r\n", head, kWificonSeq);
    ATCMD_LOG_AS("notify_wifi_state", kStateTag, ATCMD_LEVEL_DETAIL,
                 "notify_wifi_stated to corvel %ld, data is %s", static_cast<long>(state), text);
    AtCmder_t cmd = {};
    cmd.type = AT_TYPE_SET;
    cmd.source = AT_NODE_NONE;
    cmd.dest = AT_NODE_ACCESSORY;
    cmd.flag = static_cast<uint8_t>(platform_of_device());
    cmd.resendtimes = 0;
    cmd.cmd_id = AT_MSG_WIFICON;
    cmd.seq_num = kWificonSeq;
    cmd.data = text;
    atcmder_send_to_tx(&cmd);
}

// A count that stood still for a whole period while the link is wanted.
bool heartbeat_lost(uint32_t before) {
    return link_load(g_wifiHBeat_num) == before && wifi_status_of_device() == 1;
}

// The heartbeat thread's restart of a daemon that went silent; under the link lock.
void restart_daemon(uint32_t count) {
    ATCMD_LOG_AS("atcmder_wifiHBeat_thread", LOG_TAG, ATCMD_LEVEL_EVENT,
                 "!! HID demon lost heart beat, will restart! wifiHBeat_num is %lu .",
                 static_cast<unsigned long>(count));
    hiddemon_report_down();
    stop_wifi_channel();
    wifi_Chan_ReInit();
}

}  // namespace

void stop_hiddemon(void) {
    const UniqueFd cmd_fifo(atcmd_open_rooted(kFifoCmd, O_RDWR | O_CLOEXEC));
    if (cmd_fifo.get() < 0) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "cannot open device: %s, will kill hiddemon!", kFifoCmd);
        Kill_hiddemon_byforce();
        return;
    }
    if (!write_exit_word(cmd_fifo.get())) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, " fails to write data %s to fifo_cmd", kExitWord);
        Kill_hiddemon_byforce();
        return;
    }
    usleep(kExitConfirmWaitUs);
    char sts[PROPERTY_VALUE_MAX] = {};
    property_get("vendor.hid_sts", sts, "");
    if (sts[0] != '\0' && strcmp(sts, kExitWord) == 0) {
        ATCMD_LOG(ATCMD_LEVEL_STATE, "Process Hiddemon exits successfully!");
        return;
    }
    ATCMD_LOG(ATCMD_LEVEL_ERROR, " hiddemon exit fails, will be killed!");
    Kill_hiddemon_byforce();
}

// The stop goes through the property alone; no process is signalled from here.
int Kill_hiddemon_byforce(void) {
    atcmd_property_set(__func__, "vendor.hid_cmd",
                       platform_of_device() == PLATFORM_UART ? "stop_client" : "stop_server");
    return usleep(kForcedStopWaitUs);
}

// Restarts the daemon on its side; the FIFO channel is left as it is (callers that want it
// closed close it first) and opens again when the daemon reports "running".
void wifi_Chan_ReInit(void) {
    stop_hiddemon();
    struct atcmdprocess_device *dev = g_patcmd_dev;
    const int32_t platform = platform_of_device();
    const char *command = nullptr;
    if (platform == PLATFORM_VUART) {
        ATCMD_LOG(ATCMD_LEVEL_STATE, "Hid_daemon stopped, begin re-init wifi server!");
        command = "start_server";
    } else if (platform == PLATFORM_UART) {
        ATCMD_LOG(ATCMD_LEVEL_STATE,
                  "Hid_daemon stopped, begin re-init wifi client with serverIP %s!",
                  dev->server_ip);
        atcmd_property_set(__func__, "vendor.hid_sts", dev->server_ip);
        command = "start_client";
    } else {
        return;
    }
    atcmd_property_set(__func__, "vendor.hid_cmd", command);
}

// One count that stands still for a whole period means the daemon is lost; any change, also a
// decrease, means it is alive. The thread goes on after a restart and ends only by SIGALRM.
void *atcmder_wifiHBeat_thread(void * /*arg*/) {
    sigset_t wait_mask;
    wifi_thread_exit_on_alarm(&wait_mask);
    prctl(PR_SET_NAME, "wifiHBeat_thread");
    ATCMD_LOG(ATCMD_LEVEL_STATE, "atcmder_wifiHBeat_thread is running!");
    for (;;) {
        const uint32_t before = link_load(g_wifiHBeat_num);
        wifi_thread_sleep(&wait_mask, kHeartbeatPeriodMs);
        if (!heartbeat_lost(before)) continue;
        // The restart runs whole under the link lock; a disconnect that got the lock first has
        // made the link unwanted, and the count is looked at again once the lock is held.
        wifi_link_lock_from_wifi_thread(&wait_mask);
        if (heartbeat_lost(before)) restart_daemon(before);
        wifi_link_unlock();
    }
    return nullptr;
}

void notify_wifi_state(int32_t state) {
    notify_upper_layer(state);
    if (platform_of_device() == PLATFORM_UART) queue_wificon_line(state);
    ATCMD_LOG_TAG(kStateTag, ATCMD_LEVEL_DETAIL, "notify_wifi_stated %ld",
                  static_cast<long>(state));
}

