/*
 * Answer time-outs and resend: g_timeout, the time-out thread that resends unanswered requests
 * twice and then reports them, rmTimeoutItem (run by the dispatch thread when an answer
 * arrives) and the two error notifications. Writes g_timeout at open and Timeout_head; the
 * time-out thread also puts resends on Tx_head while it holds g_timeoutqueue_mutex.
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <errno.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <unistd.h>

#include "device/device.h"
#include "device/link_words.h"
#include "engine/engine.h"
#include "log/atcmd_log.h"
#include "supervision/supervision.h"

#define NOTIFY_TAG "ATCMD_PARSE"

uint32_t g_timeout = ATCMD_TIMEOUT_BEFORE_OPEN;
pthread_t g_timeout_thread = 0;

namespace {

constexpr useconds_t kScanIntervalUs = 10000;
constexpr uint8_t kMaxResends = ATCMD_MAX_RESENDS;
constexpr uint32_t kUsecSlack = 6;  // part of the due rule below
constexpr uint32_t kSecondsWeight = 10;

const char *text_of(const AtCmder_t *cmd) { return cmd->data != nullptr ? cmd->data : "(null)"; }

// The due rule: ((seconds passed) * 10) XOR (microseconds + 6 - stamp's microseconds), in
// 32-bit unsigned arithmetic. Within one second this is the microseconds passed (+6); once the
// clock is in a later second with a microsecond part below the stamp's, the right-hand side
// wraps to a huge value and the element is due at once. The rule is deliberate: a request
// stamped late in a second is resent right after the second turns.
bool is_due(const struct timeval &now, const AtCmder_t &cmd) {
    const uint32_t seconds = static_cast<uint32_t>(now.tv_sec) - static_cast<uint32_t>(cmd.tv_sec);
    const uint32_t micros = static_cast<uint32_t>(now.tv_usec) + kUsecSlack -
                            static_cast<uint32_t>(cmd.tv_usec);
    return ((seconds * kSecondsWeight) ^ micros) >= g_timeout;
}

// Called with g_timeoutqueue_mutex held; the resend enqueue takes g_txqueue_mutex after it.
void expire(struct atcmder_node *node) {
    AtCmder_t *cmd = &node->cmd;
    cmd->data = node->buf;
    if (cmd->resendtimes < kMaxResends) {
        cmd->resendtimes++;
        ATCMD_LOG_AS("atcmder_Timeout_thread", LOG_TAG, ATCMD_LEVEL_DETAIL,
                     "Re-send timeout cmd: %d times: %d data: %s", cmd->seq_num, cmd->resendtimes,
                     node->buf);
        // A failed enqueue loses this request; the element is dropped all the same.
        atcmder_send_to_tx(cmd);
    } else {
        notifytimeout(cmd);
        ATCMD_LOG_AS("atcmder_Timeout_thread", LOG_TAG, ATCMD_LEVEL_DETAIL,
                     "No. %d atcmd has been removed since timeout, data is %s", cmd->seq_num,
                     node->buf);
    }
}

// One pass over Timeout_head, every element judged against the same moment.
void scan_once(void) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    pthread_mutex_lock(&g_timeoutqueue_mutex);
    struct atcmder_node *next = nullptr;
    for (struct atcmder_node *node = TAILQ_FIRST(&Timeout_head); node != nullptr; node = next) {
        next = TAILQ_NEXT(node, link);
        if (node->buf[0] != '\0') {
            if (!is_due(now, node->cmd)) continue;
            expire(node);
        }
        TAILQ_REMOVE(&Timeout_head, node, link);
        free(node);
    }
    pthread_mutex_unlock(&g_timeoutqueue_mutex);
}

void notify_error(uint16_t seq_num, int32_t error) {
    AT_CMD_CbMsg_t msg = {AT_MSG_ERROR, seq_num, &error};
    atcmd_notify(&msg);
}

}  // namespace

uint32_t Init_TimeoutPara(void) {
    const bool wifi_server = g_patcmd_dev->system_status.platform == PLATFORM_VUART &&
                             link_load(g_patcmd_dev->system_status.mode) == AT_MODE_WIFI;
    g_timeout = wifi_server ? ATCMD_TIMEOUT_WIFI_SERVER : ATCMD_TIMEOUT_DEFAULT;
    return g_timeout;
}

void *atcmder_Timeout_thread(void * /*arg*/) {
    ATCMD_LOG(ATCMD_LEVEL_STATE, "atcmder_Timeout_thread thread is running");
    prctl(PR_SET_NAME, "Timeout_thread");
    for (;;) {
        atcmder_wait_queue(&Timeout_head, &g_timeoutqueue_mutex, &timeoutbuffer_Mutex,
                           &timeoutbuffer_notempty);
        while (atcmder_empty_queue(&Timeout_head, &g_timeoutqueue_mutex) == 0) {
            scan_once();
            usleep(kScanIntervalUs);
        }
    }
    return nullptr;
}

int rmTimeoutItem(const AtCmder_t *cmd) {
    if (cmd == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "rmTimeoutItem got a NULL record, nothing removed\n");
        return 0;
    }
    pthread_mutex_lock(&g_timeoutqueue_mutex);
    // Matched by sequence number alone; only the oldest match goes.
    struct atcmder_node *node;
    TAILQ_FOREACH(node, &Timeout_head, link) {
        if (node->cmd.seq_num != cmd->seq_num) continue;
        TAILQ_REMOVE(&Timeout_head, node, link);
        free(node);
        ATCMD_LOG(ATCMD_LEVEL_DETAIL, "No. %d atcmd has been removed!", cmd->seq_num);
        break;
    }
    return pthread_mutex_unlock(&g_timeoutqueue_mutex);
}

void notifytimeout(const AtCmder_t *cmd) {
    if (cmd == nullptr) {
        ATCMD_LOG_TAG(NOTIFY_TAG, ATCMD_LEVEL_ERROR,
                      "notifytimeout got a NULL record, nothing reported\n");
        return;
    }
    ATCMD_LOG_TAG(NOTIFY_TAG, ATCMD_LEVEL_STATE, "Timeout happened, cmd is %s", text_of(cmd));
    notify_error(cmd->seq_num, -ETIMEDOUT);
}

void notifyUartNotWork(void) {
    ATCMD_LOG_TAG(NOTIFY_TAG, ATCMD_LEVEL_ERROR, "uart does not work");
    notify_error(0, -ENXIO);
}
