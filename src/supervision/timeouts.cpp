/*
 * Answer time-outs and resend (to be filled): g_timeout, the time-out thread, rmTimeoutItem and
 * the two error notifications.
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <sys/prctl.h>
#include <unistd.h>

#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "supervision/supervision.h"

uint32_t g_timeout = ATCMD_TIMEOUT_BEFORE_OPEN;
pthread_t g_timeout_thread = 0;

uint32_t Init_TimeoutPara(void) {
    const bool wifi_server = g_patcmd_dev->system_status.platform == PLATFORM_VUART &&
                             g_patcmd_dev->system_status.mode == AT_MODE_WIFI;
    g_timeout = wifi_server ? ATCMD_TIMEOUT_WIFI_SERVER : ATCMD_TIMEOUT_DEFAULT;
    return g_timeout;
}

void *atcmder_Timeout_thread(void * /*arg*/) {
    ATCMD_LOG(3, "atcmder_Timeout_thread thread is running");
    prctl(PR_SET_NAME, "Timeout_thread");
    for (;;) pause();
    return nullptr;
}

int rmTimeoutItem(const AtCmder_t * /*cmd*/) { return 0; }
void notifytimeout(const AtCmder_t * /*cmd*/) {}
void notifyUartNotWork(void) {}
