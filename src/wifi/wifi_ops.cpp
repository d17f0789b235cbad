/*
 * The device operations of the Wi-Fi link: start the HID daemon on this platform's side
 * (atcmdprocess_wifi_init), take the daemon's status texts (atcmdprocess_hiddemon_stchange) and
 * tear the link down (atcmdprocess_wifi_stchange). Run on the upper layer's threads, the last
 * also on the dispatch thread; write the device's wifi_status, mode and server_ip and the
 * heartbeat count.
 */
#define LOG_TAG "AtCmdProcessHal"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <cutils/properties.h>

#include "device/device.h"
#include "device/link_words.h"
#include "device/properties.h"
#include "log/atcmd_log.h"
#include "supervision/supervision.h"
#include "wifi/wifi.h"

namespace {

constexpr int kBadArgument = -EINVAL;
constexpr int32_t kWifiWanted = 1;
constexpr int32_t kWifiDisconnected = 0;

// The text after the first ":" as a decimal number, or false when there is no ":".
bool heartbeat_count(const char *status, uint32_t *count) {
    const char *colon = strchr(status, ':');
    if (colon == nullptr) return false;
    *count = static_cast<uint32_t>(strtoul(colon + 1, nullptr, 10));
    return true;
}

// The client side names the server it connects to; a running client of another server is
// stopped first, the same address keeps it.
void start_client(struct atcmdprocess_device *dev, const char *ip_addr) {
    if (strcmp(dev->server_ip, ip_addr) != 0) stop_hiddemon();
    atcmd_property_set("atcmdprocess_wifi_init", "vendor.hid_sts", ip_addr);
    atcmd_property_set("atcmdprocess_wifi_init", "vendor.hid_cmd", "start_client");
    ATCMD_LOG_AS("atcmdprocess_wifi_init", LOG_TAG, ATCMD_LEVEL_DETAIL, " Client init begin!");
    strcpy(dev->server_ip, ip_addr);  // length checked by the caller
}

// A status report other than a heartbeat: the link runs, failed, or the daemon stopped. The
// report is recorded before the supervisor is asked to look, so that it acts on the last word.
void on_daemon_status(const char *status) {
    if (strstr(status, "running") != nullptr) {
        hiddemon_report_running();
        atcmd_signal_supervisor(ATCMD_SIG_HIDDEMON_RUNNING);
        notify_wifi_state(1);
        return;
    }
    hiddemon_report_down();
    notify_wifi_state(0);
    if (strstr(status, "error") != nullptr) {
        wifi_Chan_ReInit();
    } else {
        stop_wifi_channel();
    }
}

}  // namespace

int atcmdprocess_wifi_init(const char *ip_addr) {
    struct atcmdprocess_device *dev = g_patcmd_dev;
    if (ip_addr == nullptr || dev == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "atcmdprocess_wifi_init without %s, nothing started\n",
                  ip_addr == nullptr ? "an address" : "an open device");
        return kBadArgument;
    }
    const int32_t platform = dev->system_status.platform;
    // The client keeps the address it was given; one that cannot be kept whole is refused.
    if (platform == PLATFORM_UART && strlen(ip_addr) >= sizeof dev->server_ip) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR,
                  "atcmdprocess_wifi_init address of %zu characters is too long, dropped\n",
                  strlen(ip_addr));
        return kBadArgument;
    }
    ATCMD_LOG(ATCMD_LEVEL_STATE,
              "wifi connection init begin with IPADDR %s, current platform is %d !", ip_addr,
              platform);
    char sts[PROPERTY_VALUE_MAX] = {};
    property_get("vendor.hid_sts", sts, "");  // read as the daemon's side expects; not used

    WifiLinkLock lock;  // a disconnect running now ends first; the last word wins
    if (platform == PLATFORM_UART) {
        start_client(dev, ip_addr);
    } else if (platform == PLATFORM_VUART) {
        atcmd_property_set(__func__, "vendor.hid_cmd", "start_server");
    }
    link_store(dev->system_status.wifi_status, kWifiWanted);
    return 0;
}

int atcmdprocess_hiddemon_stchange(const char *status) {
    struct atcmdprocess_device *dev = g_patcmd_dev;
    if (status == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "atcmdprocess_hiddemon_stchange got a NULL status, dropped\n");
        return kBadArgument;
    }
    // Reports outside a wanted Wi-Fi link are dropped.
    if (dev == nullptr || link_load(dev->system_status.wifi_status) != kWifiWanted) return 0;
    if (strstr(status, "heartbeat") != nullptr) {
        uint32_t count;
        if (heartbeat_count(status, &count)) link_store(g_wifiHBeat_num, count);
        return 0;
    }
    WifiLinkLock lock;
    // A disconnect that came while this report waited for the lock has the last word.
    if (link_load(dev->system_status.wifi_status) != kWifiWanted) return 0;
    ATCMD_LOG(ATCMD_LEVEL_STATE, "hiddemon status is %s, wifi_status is %d", status,
              link_load(dev->system_status.wifi_status));
    on_daemon_status(status);
    return 0;
}

// The order is required: the daemon is stopped, then the upper layer told, then the channel
// closed, then the heartbeat thread ended. All of it runs under the Wi-Fi link lock, so a
// daemon restart in progress finishes first and none starts until the daemon is stopped.
int atcmdprocess_wifi_stchange(int32_t state) {
    struct atcmdprocess_device *dev = g_patcmd_dev;
    if (state != kWifiDisconnected) return 0;
    ATCMD_LOG(ATCMD_LEVEL_STATE, "Get wifi disconnect from FW or Corvel poweroff");
    WifiLinkLock lock;
    hiddemon_report_down();
    if (dev != nullptr) {
        link_store(dev->system_status.wifi_status, kWifiDisconnected);
        int32_t wifi_mode = AT_MODE_WIFI;  // a USB cast is left alone
        __atomic_compare_exchange_n(&dev->system_status.mode, &wifi_mode, AT_MODE_NONE, false,
                                    __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
    }
    stop_hiddemon();
    notify_wifi_state(0);
    atcmd_property_set(__func__, "vendor.corvel.timesync", "disable");
    ATCMD_LOG(ATCMD_LEVEL_STATE, "Set vendor.corvel.timesync disable!");
    stop_wifi_channel();
    wifi_thread_end(&g_wifiHBeat_thread);
    return 0;
}
