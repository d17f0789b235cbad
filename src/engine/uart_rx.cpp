/*
 * The UART receive thread (to be filled).
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <sys/prctl.h>
#include <unistd.h>

#include "engine/engine.h"
#include "log/atcmd_log.h"

pthread_t g_uartRx_thread = 0;

void *atcmder_uartRx_thread(void * /*arg*/) {
    prctl(PR_SET_NAME, "uartRx_thread");
    ATCMD_LOG(3, "atcmder_uartRx_thread is running!");
    for (;;) pause();
    return nullptr;
}
