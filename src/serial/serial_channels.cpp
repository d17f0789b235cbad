/*
 * UART and VUART open, receive and send (to be filled).
 */
#define LOG_TAG "ATCMD_UART"

#include "serial/serial.h"

int32_t g_uart_fd = -1;
int32_t g_vuart_fd = -1;
long g_dev_ACM = -1;

int UART_init(int32_t *) { return -1; }
int VUART_init(int32_t *, long) { return -1; }
int UART_Recv(int32_t, char *, size_t, int32_t) { return -1; }
int VUART_Recv(int32_t, char *, size_t, int32_t) { return -1; }
int UART_Send(int32_t, const char *, size_t) { return -1; }
int VUART_Send(int32_t, const char *, size_t) { return -1; }
