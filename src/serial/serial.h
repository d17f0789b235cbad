/*
 * The wired links to the accessory: line settings and the UART ("/dev/ttyS4") and VUART
 * ("/dev/ttyACM" + n) open, receive and send functions.
 */
#ifndef ATCMD_SERIAL_SERIAL_H
#define ATCMD_SERIAL_SERIAL_H

#include <stddef.h>
#include <stdint.h>

#include "device/c_exports.h"

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

/* The accessory's port held in g_vuart_fd, for its one reader. The supervisor replaces or closes
 * it only through vuart_hold; the receive thread reads from its own copy (vuart_copy), taken
 * under the same lock, so it never reads a number that was closed and perhaps given out again,
 * and drops the copy once vuart_held_changed says the port held is another. */
void vuart_hold(int32_t fd);
struct VuartSeen {
    uint32_t changes;
    int32_t fd;
};
int32_t vuart_copy(struct VuartSeen *seen);
bool vuart_held_changed(const struct VuartSeen *seen);

/* Log tags of the two channels; every line about a channel carries its own. */
#define ATCMD_UART_TAG "ATCMD_UART"
#define ATCMD_VUART_TAG "ATCMD_VUART"

#endif /* ATCMD_SERIAL_SERIAL_H */
