/*
 * The HID daemon's device operations and heartbeat. Not wired yet: the operations log the call
 * and return 0, so the upper layer can already call them.
 */
#define LOG_TAG "AtCmdProcessHal"

#include "log/atcmd_log.h"
#include "wifi/wifi.h"

pthread_t g_wifiHBeat_thread = 0;
uint32_t g_wifiHBeat_num = 0;

int atcmdprocess_wifi_init(const char *ip_addr) {
    ATCMD_LOG(3, "atcmdprocess_wifi_init %s: Wi-Fi control is not available in this build\n",
              ip_addr != nullptr ? ip_addr : "(null)");
    return 0;
}

int atcmdprocess_wifi_stchange(int32_t state) {
    ATCMD_LOG(3, "atcmdprocess_wifi_stchange %d: Wi-Fi control is not available in this build\n",
              state);
    return 0;
}

int atcmdprocess_hiddemon_stchange(const char *status) {
    ATCMD_LOG(3, "atcmdprocess_hiddemon_stchange %s: Wi-Fi control is not available in this build\n",
              status != nullptr ? status : "(null)");
    return 0;
}

void stop_hiddemon(void) {}
int Kill_hiddemon_byforce(void) { return 0; }
void wifi_Chan_ReInit(void) {}
void *atcmder_wifiHBeat_thread(void * /*arg*/) {
    __atomic_store_n(&g_wifiHBeat_thread, 0, __ATOMIC_RELEASE);
    return nullptr;
}
void notify_wifi_state(int32_t /*state*/) {}
