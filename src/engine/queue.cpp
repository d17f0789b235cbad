/*
 * The command record queues Rx_head, Tx_head and Timeout_head, their locks and wait pairs, and
 * the five queue operations. Every thread of the module enqueues or dequeues here; the list
 * locks serialise the links, the consumers sleep on each queue's buffer mutex and condition.
 */
#define LOG_TAG "atcmder_queue"

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "engine/engine.h"
#include "log/atcmd_log.h"

struct atcmder_queue_head Rx_head = TAILQ_HEAD_INITIALIZER(Rx_head);
struct atcmder_queue_head Tx_head = TAILQ_HEAD_INITIALIZER(Tx_head);
struct atcmder_queue_head Timeout_head = TAILQ_HEAD_INITIALIZER(Timeout_head);

pthread_mutex_t g_rxqueue_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_txqueue_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_timeoutqueue_mutex = PTHREAD_MUTEX_INITIALIZER;

pthread_mutex_t rxbuffer_Mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t rxbuffer_notempty = PTHREAD_COND_INITIALIZER;
pthread_mutex_t txbuffer_Mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t txbuffer_notempty = PTHREAD_COND_INITIALIZER;
pthread_mutex_t timeoutbuffer_Mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t timeoutbuffer_notempty = PTHREAD_COND_INITIALIZER;

namespace {

// Producers signal without holding the consumer's wait mutex, so a signal can fall between the
// emptiness test and the wait. A consumer therefore never sleeps longer than this before it
// tests again; a missed wake-up costs at most this delay instead of waiting for the next record.
constexpr long kQueueRecheckNs = 20L * 1000 * 1000;

}  // namespace

uint32_t atcmder_queue_init(struct atcmder_queue_head *head) {
    TAILQ_INIT(head);
    return ATCMDER_QUEUE_OK;
}

uint32_t atcmder_queue_exit(struct atcmder_queue_head *head, pthread_mutex_t *mutex) {
    pthread_mutex_lock(mutex);
    struct atcmder_node *node;
    while ((node = TAILQ_FIRST(head)) != nullptr) {
        TAILQ_REMOVE(head, node, link);
        free(node);
    }
    pthread_mutex_unlock(mutex);
    return ATCMDER_QUEUE_OK;
}

uint32_t atcmder_empty_queue(struct atcmder_queue_head *head, pthread_mutex_t *mutex) {
    pthread_mutex_lock(mutex);
    const bool empty = TAILQ_FIRST(head) == nullptr;
    pthread_mutex_unlock(mutex);
    return empty ? 1 : 0;
}

void atcmder_wait_queue(struct atcmder_queue_head *head, pthread_mutex_t *list_mutex,
                        pthread_mutex_t *wait_mutex, pthread_cond_t *not_empty) {
    pthread_mutex_lock(wait_mutex);
    while (atcmder_empty_queue(head, list_mutex) != 0) {
        struct timespec until;
        clock_gettime(CLOCK_MONOTONIC, &until);
        until.tv_nsec += kQueueRecheckNs;
        if (until.tv_nsec >= 1000L * 1000 * 1000) {
            until.tv_sec += 1;
            until.tv_nsec -= 1000L * 1000 * 1000;
        }
        pthread_cond_clockwait(not_empty, wait_mutex, CLOCK_MONOTONIC, &until);
    }
    pthread_mutex_unlock(wait_mutex);
}

uint32_t atcmder_enqueue(struct atcmder_queue_head *head, pthread_mutex_t *mutex,
                         const AtCmder_t *cmd) {
    auto *node = static_cast<struct atcmder_node *>(calloc(1, sizeof(struct atcmder_node)));
    if (node == nullptr) return ATCMDER_QUEUE_NOMEM;
    if (cmd == nullptr || cmd->data == nullptr) {
        ATCMD_LOG(0, "Input atcmder data is NULL!");
        free(node);
        return ATCMDER_QUEUE_NULL;
    }
    const size_t len = strnlen(cmd->data, AT_LINE_BUF_SIZE);
    if (len >= AT_LINE_BUF_SIZE) {
        // A line must fit the node's buffer with its terminator; a longer one is refused whole
        // rather than cut, so that nothing half-formed reaches a channel.
        ATCMD_LOG(0, "atcmder_enqueue refuses a line of %d bytes or more: %.40s...\n",
                  AT_LINE_BUF_SIZE, cmd->data);
        free(node);
        return ATCMDER_QUEUE_TOO_LONG;
    }

    pthread_mutex_lock(mutex);
    node->cmd = *cmd;
    memcpy(node->buf, cmd->data, len);
    node->buf[len] = '\0';
    node->cmd.data = node->buf;
    TAILQ_INSERT_TAIL(head, node, link);
    pthread_mutex_unlock(mutex);
    return ATCMDER_QUEUE_OK;
}

uint32_t atcmder_dequeue(struct atcmder_queue_head *head, pthread_mutex_t *mutex,
                         AtCmder_t *cmd) {
    if (cmd == nullptr || cmd->data == nullptr) {
        ATCMD_LOG(0, "Output atcmder is a NULL pointer!");
        return ATCMDER_QUEUE_NULL;
    }
    pthread_mutex_lock(mutex);
    struct atcmder_node *node = TAILQ_FIRST(head);
    if (node == nullptr) {
        pthread_mutex_unlock(mutex);
        return ATCMDER_QUEUE_EMPTY;
    }
    TAILQ_REMOVE(head, node, link);
    if (node->buf[0] == '\0') {
        ATCMD_LOG(4, "Atcmd queue has null pointer, remove it!");
        free(node);
        // The mutex stays locked on this path, so the queue stops here: every later operation
        // on it waits. This is the queue's defined reaction to an empty line and is kept.
        return ATCMDER_QUEUE_EMPTY;
    }
    char *const out = cmd->data;
    *cmd = node->cmd;
    cmd->data = out;
    memcpy(out, node->buf, strlen(node->buf) + 1);
    free(node);
    pthread_mutex_unlock(mutex);
    return ATCMDER_QUEUE_OK;
}

void dump_atcmd_data(const AtCmder_t *cmd) {
    if (cmd == nullptr) return;
    ATCMD_LOG_TAG("ATCMD_MANAGE", 4,
                  "dump_atcmd_data type:%d,source:%d,dest:%d, flag:%d,resendtimes:%d cmd_id:%d, "
                  "seq_num:%d,tv_sec:%ld,tv_usec:%ld, data:%s",
                  cmd->type, cmd->source, cmd->dest, cmd->flag, cmd->resendtimes, cmd->cmd_id,
                  cmd->seq_num, (long)cmd->tv_sec, (long)cmd->tv_usec,
                  cmd->data != nullptr ? cmd->data : "(null)");
}

uint32_t atcmder_send_to_tx(const AtCmder_t *cmd) {
    const uint32_t status = atcmder_enqueue(&Tx_head, &g_txqueue_mutex, cmd);
    pthread_cond_signal(&txbuffer_notempty);
    return status;
}
