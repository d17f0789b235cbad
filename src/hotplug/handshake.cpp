/*
 * The handshake operation of the device: the upper layer asks for a fresh exchange of identity
 * with the accessory's SoC. Runs on the upper layer's thread and only signals the supervisor,
 * which sends the version line and the queries, so it never blocks.
 */
#define LOG_TAG "AtCmdProcessHal"

#include "hotplug/hotplug.h"
#include "log/atcmd_log.h"
#include "supervision/supervision.h"

int atcmdprocess_amlogic_shake_hands(void) {
    ATCMD_LOG(ATCMD_LEVEL_DETAIL, "atcmdprocess_amlogic_shake_hands.");
    return atcmd_signal_supervisor(ATCMD_SIG_HANDSHAKE);
}
