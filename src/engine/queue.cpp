/*
 * The command record queues Rx_head, Tx_head and Timeout_head, their locks and wait pairs, the
 * five queue operations, and the wake-up protocol between the producers (every thread that
 * queues a record) and the three consumers (dispatch, transmit and time-out threads). The list
 * locks serialise the links; the consumers sleep on each queue's buffer mutex and condition.
 */
#define LOG_TAG "atcmder_queue"

#include <stdlib.h>
#include <string.h>
#include <atomic>

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

// One consumer's side of the wake-up protocol. `asleep` is written only under `wait_mutex`: set
// by the consumer before its last emptiness test, cleared by the producer that signals it (or
// by the consumer itself when it wakes). A producer reads it after its enqueue released the list
// lock; that lock orders the read after the consumer's emptiness test, so a producer either
// sees the mark or its record was already there when the consumer tested.
struct QueueWaiter {
    struct atcmder_queue_head *head;
    pthread_mutex_t *list_mutex;
    pthread_mutex_t *wait_mutex;
    pthread_cond_t *not_empty;
    std::atomic<bool> asleep;
    // Nodes of records already taken, kept for the next enqueue so that a steady stream does not
    // go through the allocator for every line. Guarded by `list_mutex`; at most kMaxSpares.
    struct atcmder_node *spares;
    size_t spare_count;
};

constexpr size_t kMaxSpares = 64;

QueueWaiter g_waiters[] = {
    {&Rx_head, &g_rxqueue_mutex, &rxbuffer_Mutex, &rxbuffer_notempty, {false}, nullptr, 0},
    {&Tx_head, &g_txqueue_mutex, &txbuffer_Mutex, &txbuffer_notempty, {false}, nullptr, 0},
    {&Timeout_head, &g_timeoutqueue_mutex, &timeoutbuffer_Mutex, &timeoutbuffer_notempty, {false},
     nullptr, 0},
};
constexpr size_t kWaiterCount = sizeof g_waiters / sizeof g_waiters[0];
enum WaiterIndex : size_t { kRxWaiter, kTxWaiter, kTimeoutWaiter };  // rows of g_waiters

// The calling thread's open bursts, and the waiters (one bit each) whose wake-up it holds.
thread_local unsigned t_burst_depth = 0;
thread_local unsigned t_held_wakeups = 0;

QueueWaiter *waiter_for(const struct atcmder_queue_head *head) {
    for (QueueWaiter &w : g_waiters) {
        if (w.head == head) return &w;
    }
    return nullptr;
}

// The engine queue `head` is, when it is guarded by `mutex`; null for any other queue.
QueueWaiter *engine_queue(const struct atcmder_queue_head *head, const pthread_mutex_t *mutex) {
    QueueWaiter *w = waiter_for(head);
    return w != nullptr && w->list_mutex == mutex ? w : nullptr;
}

// Spare nodes form a singly linked list through the first bytes of their text buffers. A reused
// node keeps old bytes after its new text's terminator; nothing reads past the terminator.
struct atcmder_node *pop_node(struct atcmder_node *&list) {
    struct atcmder_node *node = list;
    if (node != nullptr) list = *reinterpret_cast<struct atcmder_node **>(node->buf);
    return node;
}

void push_node(struct atcmder_node *&list, struct atcmder_node *node) {
    *reinterpret_cast<struct atcmder_node **>(node->buf) = list;
    list = node;
}

// Called with the list mutex held.
struct atcmder_node *take_spare(QueueWaiter *w) {
    if (w == nullptr || w->spares == nullptr) return nullptr;
    --w->spare_count;
    return pop_node(w->spares);
}

// Called with the list mutex held; false when the node is to be freed instead.
bool keep_spare(QueueWaiter *w, struct atcmder_node *node) {
    if (w == nullptr || w->spare_count >= kMaxSpares) return false;
    push_node(w->spares, node);
    ++w->spare_count;
    return true;
}

// The checks every record passes before it is queued; its text length goes to *len.
uint32_t check_record(const AtCmder_t *cmd, size_t *len) {
    if (cmd == nullptr || cmd->data == nullptr) {
        ATCMD_LOG_AS("atcmder_enqueue", LOG_TAG, ATCMD_LEVEL_ERROR, "Input atcmder data is NULL!");
        return ATCMDER_QUEUE_NULL;
    }
    *len = strnlen(cmd->data, AT_LINE_BUF_SIZE);
    if (*len >= AT_LINE_BUF_SIZE) {
        // A line must fit the node's buffer with its terminator; a longer one is refused whole
        // rather than cut, so that nothing half-formed reaches a channel.
        ATCMD_LOG_AS("atcmder_enqueue", LOG_TAG, ATCMD_LEVEL_ERROR,
                     "atcmder_enqueue refuses a line of %d bytes or more: %.40s...\n",
                     AT_LINE_BUF_SIZE, cmd->data);
        return ATCMDER_QUEUE_TOO_LONG;
    }
    return ATCMDER_QUEUE_OK;
}

// The calling thread's origin for what it queues, and that of the record it last took.
thread_local uint32_t t_origin = 0;
thread_local uint32_t t_taken_origin = 0;

// The node holds a copy of the record whose data points to the node's own text.
void fill_node(struct atcmder_node *node, const AtCmder_t *cmd, size_t len) {
    node->cmd = *cmd;
    node->origin = t_origin;
    memcpy(node->buf, cmd->data, len);
    node->buf[len] = '\0';
    node->cmd.data = node->buf;
}

// Signals only a consumer that is (or is about to be) asleep, and only once per sleep.
void wake(QueueWaiter &w) {
    if (!w.asleep.load(std::memory_order_acquire)) return;
    pthread_mutex_lock(w.wait_mutex);
    if (w.asleep.load(std::memory_order_relaxed)) {
        w.asleep.store(false, std::memory_order_relaxed);
        pthread_cond_signal(w.not_empty);
    }
    pthread_mutex_unlock(w.wait_mutex);
}

// Records of the calling thread's open burst, per queue. They wait in the thread's own list and
// join the queue under one lock when the burst ends, so a received chunk costs the consumer one
// lock hand-over instead of one per line. Their nodes come from the queue's spares, taken all at
// once when the burst first uses the queue and handed back at its end.
struct HeldRecords {
    bool open;
    struct atcmder_queue_head records;
    struct atcmder_node *spares;
};
thread_local HeldRecords t_held[kWaiterCount];

uint32_t hold(size_t index, const AtCmder_t *cmd) {
    size_t len = 0;
    const uint32_t status = check_record(cmd, &len);
    if (status != ATCMDER_QUEUE_OK) return status;
    QueueWaiter &w = g_waiters[index];
    HeldRecords &h = t_held[index];
    if (!h.open) {
        TAILQ_INIT(&h.records);
        pthread_mutex_lock(w.list_mutex);
        h.spares = w.spares;
        w.spares = nullptr;
        w.spare_count = 0;
        pthread_mutex_unlock(w.list_mutex);
        h.open = true;
    }
    struct atcmder_node *node = pop_node(h.spares);
    if (node == nullptr) {
        node = static_cast<struct atcmder_node *>(calloc(1, sizeof(struct atcmder_node)));
        if (node == nullptr) return ATCMDER_QUEUE_NOMEM;
    }
    fill_node(node, cmd, len);
    TAILQ_INSERT_TAIL(&h.records, node, link);
    t_held_wakeups |= 1u << index;
    return ATCMDER_QUEUE_OK;
}

// The held records join the tail of their queue, in order, and the unused spares go back.
void release(size_t index) {
    QueueWaiter &w = g_waiters[index];
    HeldRecords &h = t_held[index];
    if (!h.open) return;
    struct atcmder_node *surplus = nullptr;
    pthread_mutex_lock(w.list_mutex);
    // One by one: bionic's <sys/queue.h> has no TAILQ_CONCAT.
    while (struct atcmder_node *node = TAILQ_FIRST(&h.records)) {
        TAILQ_REMOVE(&h.records, node, link);
        TAILQ_INSERT_TAIL(w.head, node, link);
    }
    while (struct atcmder_node *node = pop_node(h.spares)) {
        if (!keep_spare(&w, node)) push_node(surplus, node);
    }
    pthread_mutex_unlock(w.list_mutex);
    while (struct atcmder_node *node = pop_node(surplus)) free(node);
    h.open = false;
    wake(w);
}

uint32_t send_to(size_t index, const AtCmder_t *cmd) {
    if (t_burst_depth > 0) return hold(index, cmd);
    QueueWaiter &w = g_waiters[index];
    const uint32_t status = atcmder_enqueue(w.head, w.list_mutex, cmd);
    if (status == ATCMDER_QUEUE_OK) wake(w);
    return status;
}

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
    QueueWaiter *w = waiter_for(head);
    if (w == nullptr || w->list_mutex != list_mutex || w->wait_mutex != wait_mutex ||
        w->not_empty != not_empty) {
        // Only the three engine queues have a consumer; anything else would never be woken.
        ATCMD_LOG(ATCMD_LEVEL_ERROR,
                  "atcmder_wait_queue: not an engine queue or not its locks, no wait\n");
        return;
    }
    pthread_mutex_lock(wait_mutex);
    for (;;) {
        w->asleep.store(true, std::memory_order_release);
        if (atcmder_empty_queue(head, list_mutex) == 0) break;
        pthread_cond_wait(not_empty, wait_mutex);
    }
    w->asleep.store(false, std::memory_order_relaxed);
    pthread_mutex_unlock(wait_mutex);
}

uint32_t atcmder_enqueue(struct atcmder_queue_head *head, pthread_mutex_t *mutex,
                         const AtCmder_t *cmd) {
    size_t len = 0;
    const uint32_t status = check_record(cmd, &len);
    if (status != ATCMDER_QUEUE_OK) return status;

    QueueWaiter *const w = engine_queue(head, mutex);
    pthread_mutex_lock(mutex);
    struct atcmder_node *node = take_spare(w);
    if (node == nullptr) {
        pthread_mutex_unlock(mutex);
        node = static_cast<struct atcmder_node *>(calloc(1, sizeof(struct atcmder_node)));
        if (node == nullptr) return ATCMDER_QUEUE_NOMEM;
        pthread_mutex_lock(mutex);
    }
    fill_node(node, cmd, len);
    TAILQ_INSERT_TAIL(head, node, link);
    pthread_mutex_unlock(mutex);
    return ATCMDER_QUEUE_OK;
}

uint32_t atcmder_dequeue(struct atcmder_queue_head *head, pthread_mutex_t *mutex,
                         AtCmder_t *cmd) {
    if (cmd == nullptr || cmd->data == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "Output atcmder is a NULL pointer!");
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
        ATCMD_LOG(ATCMD_LEVEL_DETAIL, "Atcmd queue has null pointer, remove it!");
        free(node);
        // The mutex stays locked on this path, so the queue stops here: every later operation
        // on it waits. This is the queue's defined reaction to an empty line and is kept.
        return ATCMDER_QUEUE_EMPTY;
    }
    char *const out = cmd->data;
    *cmd = node->cmd;
    t_taken_origin = node->origin;
    cmd->data = out;
    memcpy(out, node->buf, strlen(node->buf) + 1);
    const bool kept = keep_spare(engine_queue(head, mutex), node);
    pthread_mutex_unlock(mutex);
    if (!kept) free(node);
    return ATCMDER_QUEUE_OK;
}

void dump_atcmd_data(const AtCmder_t *cmd) {
    if (cmd == nullptr) return;
    ATCMD_LOG_TAG("ATCMD_MANAGE", ATCMD_LEVEL_DETAIL,
                  "dump_atcmd_data type:%d,source:%d,dest:%d, flag:%d,resendtimes:%d cmd_id:%d, "
                  "seq_num:%d,tv_sec:%ld,tv_usec:%ld, data:%s",
                  cmd->type, cmd->source, cmd->dest, cmd->flag, cmd->resendtimes, cmd->cmd_id,
                  cmd->seq_num, (long)cmd->tv_sec, (long)cmd->tv_usec,
                  cmd->data != nullptr ? cmd->data : "(null)");
}

uint32_t atcmder_send_to_rx(const AtCmder_t *cmd) { return send_to(kRxWaiter, cmd); }
uint32_t atcmder_send_to_tx(const AtCmder_t *cmd) { return send_to(kTxWaiter, cmd); }
uint32_t atcmder_send_to_timeout(const AtCmder_t *cmd) { return send_to(kTimeoutWaiter, cmd); }

void atcmder_set_origin(uint32_t origin) { t_origin = origin; }
uint32_t atcmder_taken_origin(void) { return t_taken_origin; }

void atcmder_burst_begin(void) { ++t_burst_depth; }

void atcmder_burst_end(void) {
    if (t_burst_depth == 0) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "atcmder_burst_end without a burst, ignored\n");
        return;
    }
    if (--t_burst_depth > 0) return;
    const unsigned held = t_held_wakeups;
    t_held_wakeups = 0;
    for (size_t i = 0; i < kWaiterCount; ++i) {
        if ((held & (1u << i)) != 0) release(i);
    }
}
