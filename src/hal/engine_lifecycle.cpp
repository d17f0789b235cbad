/*
 * Start and stop of the engine: atcmder_hal_open clears the accessory record, readies the
 * queues and the time-out, blocks the supervisor's signals and starts the threads;
 * atcmder_hal_close closes the channels, empties the queues and ends the process. Runs on the
 * upper layer's thread inside open and close.
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <signal.h>
#include <string.h>
#include <unistd.h>

#include "accessory/accessory.h"
#include "device/link_words.h"
#include "engine/engine.h"
#include "hal/hal.h"
#include "hotplug/hotplug.h"
#include "log/atcmd_log.h"
#include "serial/serial.h"
#include "supervision/supervision.h"
#include "wifi/wifi.h"

namespace {

constexpr int kHalOpenThreadFailed = 1;

struct EngineThread {
    pthread_t *handle;
    void *(*body)(void *);
    const char *failure;
    bool uart_platform_only;
};

// Created in this order; a failure is logged and the rest still start.
constexpr EngineThread kEngineThreads[] = {
    {&g_Sigprocess_thread, atcmder_sigProcess_thread, "atcmder_sigProcess_thread init failed!",
     false},
    {&g_uartRx_thread, atcmder_uartRx_thread, "atcmder_uartRx_thread init failed!", true},
    {&g_Tx_thread, atcmder_Tx_thread, "atcmder_Tx_thread init failed!", false},
    {&g_dispatch_thread, atcmder_dispatch_thread, "atcmder_dispatch_thread init failed!", false},
    {&g_timeout_thread, atcmder_Timeout_thread, "atcmder_Timeout_thread init failed!", false},
};


}  // namespace

int atcmder_hal_open(void) {
    int result = 0;
    ATCMD_LOG(ATCMD_LEVEL_STATE, "func is atcmder_hal_open.");
    memset(&g_corvel_devInfo, 0, sizeof g_corvel_devInfo);

    sigset_t supervisor_signals;
    atcmd_supervisor_signals(&supervisor_signals);

    atcmder_queue_init(&Rx_head);
    atcmder_queue_init(&Tx_head);
    atcmder_queue_init(&Timeout_head);

    // The module is opened with mode -1, so this always picks the default time-out; on the
    // serial-line platform the line is opened here, before its receive thread starts.
    if (Init_TimeoutPara() != ATCMD_TIMEOUT_WIFI_SERVER &&
        g_patcmd_dev->system_status.platform == PLATFORM_UART) {
        UART_init(&g_uart_fd);
    }

    // Every thread created from here on inherits the block, so only the supervisor's sigwait
    // ever takes these signals.
    if (pthread_sigmask(SIG_BLOCK, &supervisor_signals, nullptr) != 0) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "!! Set pthread mask failed\n");
    }

    const bool uart_platform = g_patcmd_dev->system_status.platform == PLATFORM_UART;
    for (const EngineThread &t : kEngineThreads) {
        if (t.uart_platform_only && !uart_platform) continue;
        if (pthread_create(t.handle, nullptr, t.body, nullptr) != 0) {
            ATCMD_LOG(ATCMD_LEVEL_ERROR, "%s", t.failure);
            result = kHalOpenThreadFailed;
        }
    }

    ATCMD_LOG(ATCMD_LEVEL_STATE, "g_patcmd_dev->system_status.platform is %d",
              g_patcmd_dev->system_status.platform);
    if (g_patcmd_dev->system_status.platform == PLATFORM_VUART) dev_hotplug_init();
    return result;
}

int atcmder_hal_close(void) {
    vuart_hold(-1);
    link_close(g_uart_fd);
    link_close(g_fifo_tx_fd);
    link_close(g_fifo_rx_fd);

    // Each queue is emptied under its consumer's wait mutex, not under the list lock that
    // engine.h names as the links' guard. Holding the wait mutex keeps the consumer from
    // starting another test-and-wait round; a dequeue already under way, or a producer's
    // enqueue, takes only the list lock and may still touch the links meanwhile. That race is
    // left as it is on purpose: the SIGKILL below follows at once and ends the process, so
    // nothing reads a queue after this, and this pairing is the one the module has always had.
    atcmder_queue_exit(&Rx_head, &rxbuffer_Mutex);
    atcmder_queue_exit(&Tx_head, &txbuffer_Mutex);
    atcmder_queue_exit(&Timeout_head, &timeoutbuffer_Mutex);

    // SIGKILL cannot be confined to one thread: the first signal that is sent ends the whole
    // hosting process, which is how closing the device stops the engine. A handle that was
    // never started is 0 and is skipped, since signalling it would crash instead.
    pthread_t *const targets[] = {&g_uartRx_thread, &g_Tx_thread, &g_dispatch_thread,
                                  &g_wifiRx_thread, &g_timeout_thread};
    for (pthread_t *handle : targets) {
        if (*handle != 0) pthread_kill(*handle, SIGKILL);
    }
    return 0;
}
