/*
 * Terminal line settings (to be filled).
 */
#define LOG_TAG "ATCMD_UART"

#include "serial/serial.h"

int32_t UART_setOpt(int32_t, int32_t, int32_t, char, int32_t) { return -1; }
int32_t VUART_setOpt(int32_t, int32_t, int32_t, char, int32_t) { return -1; }
