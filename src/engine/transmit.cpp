/*
 * The transmit thread (to be filled).
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <sys/prctl.h>
#include <unistd.h>

#include "engine/engine.h"
#include "log/atcmd_log.h"

pthread_t g_Tx_thread = 0;

void *atcmder_Tx_thread(void * /*arg*/) {
    prctl(PR_SET_NAME, "Tx_thread");
    ATCMD_LOG(3, "atcmder_Tx_thread thread is running");
    for (;;) pause();
    return nullptr;
}

uint32_t atcmder_Tx_process(AtCmder_t * /*cmd*/) { return ATCMDER_TX_OK; }
