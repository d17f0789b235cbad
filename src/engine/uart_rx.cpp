/*
 * The UART receive thread (platform 2): reads "/dev/ttyS4", re-opens the line after every
 * failed read and reports a line that cannot be re-opened, frames the bytes into complete
 * lines with the shared framing routine and hands them to the line parser as accessory lines.
 * Runs on "uartRx_thread"; writes g_uart_fd when it re-opens the line.
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <string.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <unistd.h>

#include "engine/engine.h"
#include "log/atcmd_log.h"
#include "serial/serial.h"
#include "supervision/supervision.h"

pthread_t g_uartRx_thread = 0;

namespace {

constexpr int32_t kWaitForever = -1;
// With no line open there is nothing to read; instead of spinning through open attempts (and
// flooding the log and the upper layer with reports) the loop waits this long between them.
constexpr useconds_t kClosedLineRetryUs = 200000;

struct UartLine {
    AtCmder_t cmd;
    char text[AT_LINE_BUF_SIZE];
};

void deliver(void *ctx, char *text, size_t len) {
    auto *line = static_cast<UartLine *>(ctx);
    ATCMD_LOG_AS("atcmder_uartRx_thread", LOG_TAG, ATCMD_LEVEL_STATE,
                 "Uart rcv data length is %zu, receive data is %s", len, text);
    memset(&line->cmd, 0, sizeof line->cmd);
    line->cmd.source = AT_NODE_ACCESSORY;
    line->cmd.data = line->text;
    cmd_Parse_from_buffer(&line->cmd, text);
}

void too_long(void * /*ctx*/, const char *held) {
    ATCMD_LOG_AS("atcmder_uartRx_thread", LOG_TAG, ATCMD_LEVEL_STATE,
                 "Uart receive data length is too long, skip it, receive data is %s ", held);
}

// A descriptor the read set cannot hold (-1 after a failed re-open) counts as a failed read
// instead of being handed to UART_Recv, whose select would end the process on it.
int read_uart(struct at_rx_buffer *rx) {
    const int32_t fd = g_uart_fd;
    if (fd < 0 || fd >= FD_SETSIZE) {
        usleep(kClosedLineRetryUs);
        return -1;
    }
    return UART_Recv(fd, rx->data + rx->fill, at_rx_room(rx), kWaitForever);
}

// Closes the dead line and opens it again; a line that will not open is reported upward and
// left at -1 (UART_init may leave the number of a descriptor it closed itself).
void reopen_uart(void) {
    ATCMD_LOG_AS("atcmder_uartRx_thread", LOG_TAG, ATCMD_LEVEL_STATE,
                 "uart cannot receive data, uart will be re-init!");
    if (g_uart_fd != -1) close(g_uart_fd);
    g_uart_fd = -1;
    if (UART_init(&g_uart_fd) != 0) {
        g_uart_fd = -1;
        notifyUartNotWork();
    }
}

}  // namespace

void *atcmder_uartRx_thread(void * /*arg*/) {
    prctl(PR_SET_NAME, "uartRx_thread");
    struct at_rx_buffer rx;
    UartLine line;
    memset(&rx, 0, sizeof rx);
    memset(&line, 0, sizeof line);
    ATCMD_LOG(ATCMD_LEVEL_STATE, "atcmder_uartRx_thread is running!");
    for (;;) {
        int n = read_uart(&rx);
        while (n < 1) {
            reopen_uart();
            n = read_uart(&rx);
        }
        at_rx_frame(&rx, static_cast<size_t>(n), deliver, too_long, &line);
    }
    return nullptr;
}
