/*
 * The AT command engine: the record queues, the keyword table and line parser, the shared
 * receive framing, the transmit thread, the UART receive thread and the dispatcher.
 */
#ifndef ATCMD_ENGINE_ENGINE_H
#define ATCMD_ENGINE_ENGINE_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/queue.h>

#include <atcmdprocess/atcmdprocess.h>

#include "device/c_exports.h"

/* ---- Queues ------------------------------------------------------------------------------ */

/* Status codes of the queue operations. */
enum atcmder_queue_status : uint32_t {
    ATCMDER_QUEUE_OK = 0,
    ATCMDER_QUEUE_NULL = 6,     /* a NULL record or text */
    ATCMDER_QUEUE_NOMEM = 7,    /* allocation failed */
    ATCMDER_QUEUE_TOO_LONG = 8, /* text of AT_LINE_BUF_SIZE bytes or more, refused */
    ATCMDER_QUEUE_EMPTY = 9,    /* nothing taken */
};

/* One queued record: a copy of the record, its own text buffer (the copy's data points there)
 * and the links of a tail queue; last, the record's origin (atcmder_set_origin), which travels
 * beside the record so that the record itself keeps its layout. */
struct atcmder_node {
    AtCmder_t cmd;
    char buf[AT_LINE_BUF_SIZE];
    TAILQ_ENTRY(atcmder_node) link;
    uint32_t origin;
};
TAILQ_HEAD(atcmder_queue_head, atcmder_node);

/* Receive buffer of every channel, and how much of it may be held while a line is incomplete. */
#define AT_RX_BUF_SIZE 1024
#define AT_RX_HOLD_MAX 512

ATCMD_EXPORTS_BEGIN

extern struct atcmder_queue_head Rx_head;      /* parsed lines for the dispatch thread */
extern struct atcmder_queue_head Tx_head;      /* lines for the transmit thread */
extern struct atcmder_queue_head Timeout_head; /* sent requests awaiting their answer */

/* List locks: each guards the links of its queue, taken inside enqueue and dequeue.
 * Lock order: timeoutbuffer_Mutex, then g_timeoutqueue_mutex, then txbuffer_Mutex, then
 * g_txqueue_mutex; a queue's wait mutex always before its own list lock (the consumer tests
 * emptiness under it), and a producer takes a wait mutex only after its enqueue released the
 * list lock. The time-out thread's resend wakes the transmit thread (txbuffer_Mutex) while it
 * holds g_timeoutqueue_mutex; nothing takes those two the other way round. */
extern pthread_mutex_t g_rxqueue_mutex;      /* guards Rx_head */
extern pthread_mutex_t g_txqueue_mutex;      /* guards Tx_head */
extern pthread_mutex_t g_timeoutqueue_mutex; /* guards Timeout_head */

/* Wait pairs of the consumers. Each mutex guards its consumer's "asleep" mark (queue.cpp) and
 * is held by the consumer while it tests emptiness and waits, and by a producer while it
 * signals, so that no signal can fall between the test and the wait. */
extern pthread_mutex_t rxbuffer_Mutex;
extern pthread_cond_t rxbuffer_notempty;
extern pthread_mutex_t txbuffer_Mutex;
extern pthread_cond_t txbuffer_notempty;
extern pthread_mutex_t timeoutbuffer_Mutex;
extern pthread_cond_t timeoutbuffer_notempty;

uint32_t atcmder_queue_init(struct atcmder_queue_head *head);
uint32_t atcmder_queue_exit(struct atcmder_queue_head *head, pthread_mutex_t *mutex);
uint32_t atcmder_empty_queue(struct atcmder_queue_head *head, pthread_mutex_t *mutex);
uint32_t atcmder_enqueue(struct atcmder_queue_head *head, pthread_mutex_t *mutex,
                         const AtCmder_t *cmd);
uint32_t atcmder_dequeue(struct atcmder_queue_head *head, pthread_mutex_t *mutex,
                         AtCmder_t *cmd);
void dump_atcmd_data(const AtCmder_t *cmd);

/* ---- Keyword table and line parser -------------------------------------------------------- */

typedef uint32_t (*at_parser_fn)(AtCmder_t *cmd);

typedef struct AT_CMD_Table_t {
    const char *keyword; /* response form, with the leading "+" */
    at_parser_fn parser; /* null for rows that only need recognising */
} AT_CMD_Table_t;

extern const AT_CMD_Table_t AT_CMDS[AT_MSG_COUNT];

/* 1 and *idx set when `line` is "AT" followed exactly by a keyword; 0 otherwise. */
int findAtCmdIdx(const char *line, uint8_t *idx);
/* 1 and *idx set for the first keyword that begins with `line`; 0 otherwise. */
int findResCmdIdx(const char *line, uint8_t *idx);

/* Cuts `text` into lines; every accepted line goes to atcmder_post_parse_process in `cmd`, whose
 * `source` the caller set and whose `data` points to a 160-byte work buffer. */
void cmd_Parse_from_buffer(AtCmder_t *cmd, const char *text);

/* ---- Transmit, receive and dispatch ---------------------------------------------------- */

extern pthread_t g_Tx_thread;
extern pthread_t g_uartRx_thread;
extern pthread_t g_dispatch_thread;

void *atcmder_Tx_thread(void *arg);
uint32_t atcmder_Tx_process(AtCmder_t *cmd);
void *atcmder_uartRx_thread(void *arg);
int atcmder_post_parse_process(AtCmder_t *cmd);
void *atcmder_dispatch_thread(void *arg);
uint32_t atcmder_dispatch(AtCmder_t *cmd);

ATCMD_EXPORTS_END

/* Status codes of atcmder_Tx_process. */
enum atcmder_tx_status : uint32_t {
    ATCMDER_TX_OK = 0,
    ATCMDER_TX_VUART_CLOSED = 5,
    ATCMDER_TX_WIFI_WRITE_FAILED = 14,
    ATCMDER_TX_UART_CLOSED = 15,
    ATCMDER_TX_WIFI_CLOSED = 16,
};

/* ---- Receive framing, shared by every receive loop ---------------------------------------- */

/* Bytes held by one receive loop. The loop reads into data + fill, at most at_rx_room() bytes,
 * then calls at_rx_frame() with the count it got. */
struct at_rx_buffer {
    char data[AT_RX_BUF_SIZE + 1]; /* one more for the terminator */
    size_t fill;
    /* A run of reads that held NUL bytes is logged by its first read and then as a count (a
     * peer that floods NULs costs a few log lines, not one per read). */
    size_t nul_run_reads;
    size_t nul_run_bytes;
};

/* Called with each NUL-terminated run of complete lines, to be handed to the line parser. */
typedef void (*at_rx_deliver_fn)(void *ctx, char *text, size_t len);
/* Called with held bytes that are dropped as too long (NUL-terminated), to log the channel's
 * own message. */
typedef void (*at_rx_too_long_fn)(void *ctx, const char *held);

size_t at_rx_room(const struct at_rx_buffer *rx);
/* Drops what is held of an unfinished line (logged with `why`, when anything was held): a
 * receive loop whose link changed starts the next link clean. */
void at_rx_drop(struct at_rx_buffer *rx, const char *why);
void at_rx_frame(struct at_rx_buffer *rx, size_t received, at_rx_deliver_fn deliver,
                 at_rx_too_long_fn too_long, void *ctx);

/* ---- Producers and consumers: the wake-up protocol ---------------------------------------- */

/* The one way onto each queue for the engine's producers: puts a copy of `cmd` on the queue and
 * wakes its consumer when the consumer is asleep (inside a burst: when the burst ends).
 * Same status codes as atcmder_enqueue; a refused record wakes nobody. */
uint32_t atcmder_send_to_tx(const AtCmder_t *cmd);
uint32_t atcmder_send_to_rx(const AtCmder_t *cmd);
uint32_t atcmder_send_to_timeout(const AtCmder_t *cmd);

/* Where the records the calling thread queues from now on were read: the generation of the
 * accessory's USB port (VuartSeen.changes) for its receive thread, 0 (the default) for every
 * other link and producer. atcmder_taken_origin gives the origin of the record the calling
 * thread last took off a queue, so that a parser can weigh what a line says about the link
 * against the port held when it is handled. */
void atcmder_set_origin(uint32_t origin);
uint32_t atcmder_taken_origin(void);

/* A burst of records from one thread (one received chunk): the records it queues are held by
 * the thread and join their queues, in order, at the matching end, each queue under one lock
 * and with one wake-up, so the consumer wakes once and drains the whole burst. Nests; per
 * thread. The statuses are those of atcmder_enqueue, given when the record is held. */
void atcmder_burst_begin(void);
void atcmder_burst_end(void);

/* A consumer's wait: returns once `head` (Rx_head, Tx_head or Timeout_head) holds a record.
 * Marks the consumer asleep and tests emptiness under `wait_mutex`, then sleeps on `not_empty`
 * with no time limit: a producer that sees the mark signals under the same mutex, so the
 * wake-up cannot be lost. The consumer drains the queue before it waits again. */
void atcmder_wait_queue(struct atcmder_queue_head *head, pthread_mutex_t *list_mutex,
                        pthread_mutex_t *wait_mutex, pthread_cond_t *not_empty);

#endif /* ATCMD_ENGINE_ENGINE_H */
