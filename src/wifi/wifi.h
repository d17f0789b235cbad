/*
 * The Wi-Fi channel: the FIFOs to the HID daemon, their receive thread, and the daemon's
 * control and heartbeat.
 */
#ifndef ATCMD_WIFI_WIFI_H
#define ATCMD_WIFI_WIFI_H

#include <pthread.h>
#include <stdint.h>

#include "hal/c_exports.h"

ATCMD_EXPORTS_BEGIN

extern int32_t g_fifo_rx_fd; /* "/dev/fifo_rx", -1 while closed */
extern int32_t g_fifo_tx_fd; /* "/dev/fifo_tx", -1 while closed */
extern int32_t epfd_socket;  /* epoll instance on g_fifo_rx_fd; 0 while none */
extern pthread_t g_wifiRx_thread;
extern pthread_t g_wifiHBeat_thread;
extern uint32_t g_wifiHBeat_num;

int atcmdprocess_wifi_init(const char *ip_addr);
int atcmdprocess_wifi_stchange(int32_t state);
int atcmdprocess_hiddemon_stchange(const char *status);

ATCMD_EXPORTS_END

#endif /* ATCMD_WIFI_WIFI_H */
