/*
 * The VUART receive thread handle and the handshake operation. The handshake runs on the upper
 * layer's thread and only signals the supervisor, so it never blocks.
 */
#define LOG_TAG "AtCmdProcessHal"

#include "hotplug/hotplug.h"
#include "log/atcmd_log.h"
#include "supervision/supervision.h"

pthread_t g_VuartRx_thread = 0;

void *atcmder_VuartRx_thread(void * /*arg*/) {
    pthread_detach(pthread_self());
    __atomic_store_n(&g_VuartRx_thread, 0, __ATOMIC_RELEASE);
    return nullptr;
}

int atcmdprocess_amlogic_shake_hands(void) {
    ATCMD_LOG(4, "atcmdprocess_amlogic_shake_hands.");
    return atcmd_signal_supervisor(ATCMD_SIG_HANDSHAKE);
}
