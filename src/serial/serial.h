/*
 * The wired links to the accessory: line settings and the UART ("/dev/ttyS4") and VUART
 * ("/dev/ttyACM" + n) open, receive and send functions.
 */
#ifndef ATCMD_SERIAL_SERIAL_H
#define ATCMD_SERIAL_SERIAL_H

#include <stddef.h>
#include <stdint.h>

#include "device/c_exports.h"
#include "device/sys_io.h"

ATCMD_EXPORTS_BEGIN

extern int32_t g_uart_fd;  /* "/dev/ttyS4", -1 while closed */
extern int32_t g_vuart_fd; /* the accessory's ACM port, -1 while closed */
extern int32_t g_dev_ACM;  /* n of "/dev/ttyACM" + n, -1 until found; 32 bits on every target */

int32_t UART_setOpt(int32_t fd, int32_t speed, int32_t data_bits, char parity, int32_t stop_bits);
int32_t VUART_setOpt(int32_t fd, int32_t speed, int32_t data_bits, char parity,
                     int32_t stop_bits);

int UART_init(int32_t *fd);
int VUART_init(int32_t *fd, long acm_index);
int UART_Recv(int32_t fd, char *buf, size_t len, int32_t wait_ms);
int VUART_Recv(int32_t fd, char *buf, size_t len, int32_t wait_ms);
int UART_Send(int32_t fd, const char *buf, size_t len);
int VUART_Send(int32_t fd, const char *buf, size_t len);

ATCMD_EXPORTS_END

#define ATCMD_UART_PATH "/dev/ttyS4"
#define ATCMD_VUART_PATH_PREFIX "/dev/ttyACM"

/* The accessory's port held in g_vuart_fd. The supervisor replaces or closes it only through
 * vuart_hold; the receive and transmit threads use their own copy (vuart_take), taken under the
 * same lock, so they never use a number that was closed and perhaps given out again. With each
 * copy comes `ended`, a descriptor that turns readable (hang-up) the moment the port held changes
 * or is closed: a thread waits on it beside the port, so a switch or a stop reaches it as an event,
 * never through a timed look. `ended` is -1 for a port stored by someone else (a test harness), and
 * then only vuart_held_changed tells. */
void vuart_hold(int32_t fd);
struct VuartSeen {
    uint32_t changes;  // the port's generation: counts every vuart_hold, 0 before the first
    int32_t fd;
};
struct VuartCopy {
    UniqueFd port;
    UniqueFd ended;
    struct VuartSeen seen;
};
/* Replaces `copy` with copies of the port held now; false when none is held. */
bool vuart_take(struct VuartCopy *copy);
bool vuart_held_changed(const struct VuartSeen *seen);
/* The generation of the port held now (VuartSeen.changes of a copy taken now). */
uint32_t vuart_generation(void);

/* What vuart_wait saw first. */
enum VuartWait { kVuartReady, kVuartChanged, kVuartTimedOut };
/* Waits at most `limit_ms` (-1: without limit) for `events` on the copy's port, or for the port
 * held to change, whichever comes first. A failed wait is reported as ready: the read or write
 * that follows reports the failure itself. */
enum VuartWait vuart_wait(const struct VuartCopy *copy, short events, int limit_ms);

/* Writes `len` bytes to the copy's port without ever blocking on the peer: a peer that takes
 * nothing for `stall_ms` or a port switch ends the write as failed (-1, logged), and a stalled
 * peer's unsent output is flushed so that later lines find room. `len` on success. */
int vuart_send_bounded(const struct VuartCopy *copy, const char *buf, size_t len, int stall_ms);

/* Log tags of the two channels; every line about a channel carries its own. */
#define ATCMD_UART_TAG "ATCMD_UART"
#define ATCMD_VUART_TAG "ATCMD_VUART"

#endif /* ATCMD_SERIAL_SERIAL_H */
