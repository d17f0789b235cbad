/*
 * The FIFO channel to the HID daemon: its descriptors and receive thread handle. Opening the
 * FIFOs and their receive thread are not wired yet; the transmit path writes g_fifo_tx_fd and
 * close resets both descriptors.
 */
#include "wifi/wifi.h"

int32_t g_fifo_rx_fd = -1;
int32_t g_fifo_tx_fd = -1;
int32_t epfd_socket = 0;
pthread_t g_wifiRx_thread = 0;

int Socket_Fifo_Init(void) { return 10; }
void *atcmder_wifiRx_thread(void * /*arg*/) {
    __atomic_store_n(&g_wifiRx_thread, 0, __ATOMIC_RELEASE);
    return nullptr;
}
void stop_wifi_channel(void) {}
