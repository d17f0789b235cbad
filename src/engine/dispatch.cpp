/*
 * The step after parsing and the dispatch thread. atcmder_post_parse_process runs on every
 * receive thread and either bridges a line to the other side (Tx_head) or queues it for
 * dispatch (Rx_head); the dispatch thread runs each row's answer parser in arrival order and
 * retires answered requests. Writes only the queues.
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <string.h>
#include <sys/prctl.h>

#include "device/device.h"
#include "device/link_words.h"
#include "engine/engine.h"
#include "log/atcmd_log.h"
#include "supervision/supervision.h"

pthread_t g_dispatch_thread = 0;

namespace {

const char *text_of(const AtCmder_t *cmd) { return cmd->data != nullptr ? cmd->data : "(null)"; }

// Lines of the platform-1 side that this platform-2 module carries between the Wi-Fi peer and
// the accessory's serial line; "+DTR" lines are kept for this module.
bool is_bridged(const AtCmder_t *cmd, int32_t platform, int32_t mode) {
    return cmd->flag == AT_NODE_PLATFORM1 && mode == AT_MODE_WIFI && platform == PLATFORM_UART &&
           cmd->cmd_id != AT_MSG_DTR;
}

}  // namespace

int atcmder_post_parse_process(AtCmder_t *cmd) {
    if (cmd == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "atcmder_post_parse_process got a NULL record, dropped\n");
        return 0;
    }
    // Without a device (nothing opened yet) the platform is unknown: nothing is bridged.
    const struct atcmdprocess_device *dev = g_patcmd_dev;
    const int32_t platform = dev != nullptr ? dev->system_status.platform : 0;
    const int32_t mode = dev != nullptr ? link_load(dev->system_status.mode) : AT_MODE_NONE;
    ATCMD_LOG(ATCMD_LEVEL_DETAIL, "current platform is %d, mode is %d, flag is %d", platform, mode,
              cmd->flag);

    if (is_bridged(cmd, platform, mode)) {
        if (cmd->source == AT_NODE_ACCESSORY) {
            cmd->dest = AT_NODE_PLATFORM1;
        } else if (cmd->source == AT_NODE_PLATFORM1) {
            cmd->dest = AT_NODE_ACCESSORY;
        }
        atcmder_send_to_tx(cmd);
        return 0;
    }
    atcmder_send_to_rx(cmd);
    return 0;
}

void *atcmder_dispatch_thread(void * /*arg*/) {
    prctl(PR_SET_NAME, "dispatch_thread");
    ATCMD_LOG(ATCMD_LEVEL_STATE, "atcmder_dispatch_thread thread is running");
    char text[AT_LINE_BUF_SIZE];
    AtCmder_t cmd = {};
    cmd.data = text;
    for (;;) {
        atcmder_wait_queue(&Rx_head, &g_rxqueue_mutex, &rxbuffer_Mutex, &rxbuffer_notempty);
        while (atcmder_empty_queue(&Rx_head, &g_rxqueue_mutex) == 0) {
            memset(text, 0, sizeof text);
            if (atcmder_dequeue(&Rx_head, &g_rxqueue_mutex, &cmd) != ATCMDER_QUEUE_OK) continue;
            ATCMD_LOG(ATCMD_LEVEL_DETAIL, "atcmder_dispatch_thread source is %u, data is %s",
                      cmd.source, text);
            atcmder_dispatch(&cmd);
        }
    }
    return nullptr;
}

uint32_t atcmder_dispatch(AtCmder_t *cmd) {
    if (cmd == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "atcmder_dispatch got a NULL record, dropped\n");
        return 0;
    }
    if (cmd->cmd_id >= AT_MSG_COUNT) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "atcmder_dispatch got unknown row %u, not parsed\n",
                  cmd->cmd_id);
    } else if (AT_CMDS[cmd->cmd_id].parser != nullptr) {
        AT_CMDS[cmd->cmd_id].parser(cmd);
    }

    // The parser runs first so that it can still find the pending request; only answers to
    // this side's own requests retire one, reports never do.
    const struct atcmdprocess_device *dev = g_patcmd_dev;
    const int32_t platform = dev != nullptr ? dev->system_status.platform : 0;
    if (cmd->flag == platform && cmd->type == AT_TYPE_RESPONSE && cmd->seq_num != 0) {
        rmTimeoutItem(cmd);
    }
    ATCMD_LOG(ATCMD_LEVEL_DETAIL,
              "atcmder_dispatch type is %u, flag is %u, platform is %d, data is %s", cmd->type,
              cmd->flag, platform, text_of(cmd));
    return 0;
}
