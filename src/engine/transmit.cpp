/*
 * The transmit thread: the one writer of the UART, the VUART and the Wi-Fi FIFO for the engine.
 * It takes records off Tx_head in order, registers requests that await an answer on
 * Timeout_head before writing them, and picks the channel by platform, mode and destination.
 * Runs on "Tx_thread"; writes Timeout_head (and stamps the records it registers). The
 * accessory's port is written through the thread's own copy of the port held, never waiting on
 * a peer that does not read for longer than an answer's time-out.
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <unistd.h>

#include "device/device.h"
#include "device/link_words.h"
#include "device/sys_io.h"
#include "engine/engine.h"
#include "log/atcmd_log.h"
#include "serial/serial.h"
#include "supervision/supervision.h"
#include "wifi/wifi.h"

pthread_t g_Tx_thread = 0;

namespace {

constexpr int32_t kAny = INT32_MIN;
constexpr uint8_t kLastWatchedRow = AT_MSG_WIFICON;  // "+REBOOT" up to "+WIFICON"

uint32_t send_uart(const char *text) {
    const int32_t fd = link_load(g_uart_fd);
    if (fd == -1) {
        ATCMD_LOG_AS("atcmder_Tx_process", LOG_TAG, ATCMD_LEVEL_ERROR, "uart is not open");
        return ATCMDER_TX_UART_CLOSED;
    }
    const size_t len = strlen(text);
    UART_Send(fd, text, len);  // a failed send is left to the time-out and resend
    ATCMD_LOG_AS("atcmder_Tx_process", LOG_TAG, ATCMD_LEVEL_DETAIL,
                 "uart successfully send cmd data len %zu, data is %s", len, text);
    return ATCMDER_TX_OK;
}

// How long a peer may take nothing before a write to it counts as failed: the answer's own
// time-out, so that a stalled port costs the other links no more than one resend period.
int vuart_stall_ms(void) {
    constexpr int kMinStallMs = 100;
    const int ms = static_cast<int>(link_load(g_timeout) / 1000);
    return ms > kMinStallMs ? ms : kMinStallMs;
}

// The accessory's port, through a copy of the port held taken for this one line (so the port
// that was dropped is never kept open here, and a number closed meanwhile is never written to).
// A write the peer does not take, or that a switch overtakes, fails like any failed send: the
// time-out and resend handle the request, and the next line goes to the port held then.
uint32_t send_vuart(const char *text) {
    VuartCopy copy;
    if (!vuart_take(&copy)) {
        ATCMD_LOG_AS("atcmder_Tx_process", LOG_TAG, ATCMD_LEVEL_ERROR, "Vuart is not open");
        return ATCMDER_TX_VUART_CLOSED;
    }
    const size_t len = strlen(text);
    vuart_send_bounded(&copy, text, len, vuart_stall_ms());
    ATCMD_LOG_AS("atcmder_Tx_process", LOG_TAG, ATCMD_LEVEL_DETAIL,
                 "Vuart successfully send cmd len is %zu, data is %s", len, text);
    return ATCMDER_TX_OK;
}

// One plain write of the whole text; a short write counts as a failure and is not continued.
bool write_fifo(const char *text) {
    const size_t len = strlen(text);
    const int32_t fd = link_load(g_fifo_tx_fd);
    const ssize_t n = retry_eintr([&] { return write(fd, text, len); });
    return n == static_cast<ssize_t>(len);
}

// Platform 2, the Wi-Fi client side.
uint32_t send_wifi_client(const char *text) {
    if (link_load(g_fifo_tx_fd) == -1) {
        ATCMD_LOG_AS("atcmder_Tx_process", LOG_TAG, ATCMD_LEVEL_ERROR, "wifi fifo is not opened!");
        return ATCMDER_TX_WIFI_CLOSED;
    }
    if (!write_fifo(text)) {
        ATCMD_LOG_AS("atcmder_Tx_process", LOG_TAG, ATCMD_LEVEL_ERROR,
                     "wifi fifotx fails to write data %s", text);
        return ATCMDER_TX_WIFI_WRITE_FAILED;
    }
    ATCMD_LOG_AS("atcmder_Tx_process", LOG_TAG, ATCMD_LEVEL_DETAIL,
                 "wifi fifotx successfully send data %s", text);
    return ATCMDER_TX_OK;
}

// Platform 1, the Wi-Fi server side: its success line is written before the result is known,
// so a failure shows both lines; the two branches keep their own texts.
uint32_t send_wifi_server(const char *text) {
    if (link_load(g_fifo_tx_fd) == -1) {
        ATCMD_LOG_AS("atcmder_Tx_process", LOG_TAG, ATCMD_LEVEL_ERROR, "wifi fifo is not opened!");
        return ATCMDER_TX_WIFI_CLOSED;
    }
    const bool written = write_fifo(text);
    ATCMD_LOG_AS("atcmder_Tx_process", LOG_TAG, ATCMD_LEVEL_DETAIL,
                 "wifi fifotx successfully send data %s", text);
    if (!written) {
        ATCMD_LOG_AS("atcmder_Tx_process", LOG_TAG, ATCMD_LEVEL_ERROR,
                     "atcmder_Tx_process fifotx fail to send data %s", text);
        return ATCMDER_TX_WIFI_WRITE_FAILED;
    }
    return ATCMDER_TX_OK;
}

struct ChannelRule {
    int32_t platform;
    int32_t mode;  // kAny: every mode
    int32_t dest;  // kAny: every destination
    uint32_t (*send)(const char *text);
};

// First matching row wins. On platform 1 Wi-Fi mode carries every record; on platform 2 only
// records for node 1 (the peer phone) go over Wi-Fi. Other platforms send nothing.
constexpr ChannelRule kChannels[] = {
    {PLATFORM_VUART, AT_MODE_WIFI, kAny, send_wifi_server},
    {PLATFORM_VUART, kAny, kAny, send_vuart},
    {PLATFORM_UART, AT_MODE_WIFI, AT_NODE_PLATFORM1, send_wifi_client},
    {PLATFORM_UART, kAny, kAny, send_uart},
};

bool matches(int32_t rule, int32_t value) { return rule == kAny || rule == value; }

bool awaits_answer(const AtCmder_t &cmd, int32_t platform) {
    const bool request = cmd.type == AT_TYPE_EXEC || cmd.type == AT_TYPE_SET ||
                         cmd.type == AT_TYPE_QUERY;
    return request && cmd.flag == platform && cmd.seq_num != 0 && cmd.cmd_id <= kLastWatchedRow;
}

// Registered before the write, so that the answer can never arrive ahead of its entry.
void watch_for_answer(AtCmder_t *cmd) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    cmd->tv_sec = static_cast<int32_t>(now.tv_sec);
    cmd->tv_usec = static_cast<int32_t>(now.tv_usec);
    atcmder_send_to_timeout(cmd);
    ATCMD_LOG_AS("atcmder_Tx_thread", LOG_TAG, ATCMD_LEVEL_DETAIL, "Timeout buf enqueued cmd %s",
                 cmd->data);
}

// A Wi-Fi peer that closed its end of the FIFO must not end the hosting process: with SIGPIPE
// blocked in this thread (the only writer) the write fails with EPIPE and is logged instead.
void block_sigpipe(void) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

}  // namespace

void *atcmder_Tx_thread(void * /*arg*/) {
    prctl(PR_SET_NAME, "Tx_thread");
    ATCMD_LOG(ATCMD_LEVEL_STATE, "atcmder_Tx_thread thread is running");
    block_sigpipe();
    char text[AT_LINE_BUF_SIZE];
    AtCmder_t cmd = {};
    cmd.data = text;
    for (;;) {
        atcmder_wait_queue(&Tx_head, &g_txqueue_mutex, &txbuffer_Mutex, &txbuffer_notempty);
        while (atcmder_empty_queue(&Tx_head, &g_txqueue_mutex) == 0) {
            memset(text, 0, sizeof text);
            if (atcmder_dequeue(&Tx_head, &g_txqueue_mutex, &cmd) != ATCMDER_QUEUE_OK) continue;
            if (awaits_answer(cmd, g_patcmd_dev->system_status.platform)) watch_for_answer(&cmd);
            if (atcmder_Tx_process(&cmd) == ATCMDER_TX_OK) {
                ATCMD_LOG(ATCMD_LEVEL_STATE,
                          "atcmder_Tx_thread send cmd success,dest is %u, mode is %d, cmd is %s",
                          cmd.dest, link_load(g_patcmd_dev->system_status.mode), text);
            }
        }
    }
    return nullptr;
}

uint32_t atcmder_Tx_process(AtCmder_t *cmd) {
    if (cmd == nullptr || cmd->data == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR,
                  "atcmder_Tx_process got a NULL record or text, nothing sent\n");
        return ATCMDER_TX_OK;
    }
    const struct atcmdprocess_device *dev = g_patcmd_dev;
    if (dev == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "atcmder_Tx_process without a device, nothing sent\n");
        return ATCMDER_TX_OK;
    }
    const int32_t platform = dev->system_status.platform;
    const int32_t mode = link_load(dev->system_status.mode);
    for (const ChannelRule &rule : kChannels) {
        if (rule.platform == platform && matches(rule.mode, mode) && matches(rule.dest, cmd->dest)) {
            return rule.send(cmd->data);
        }
    }
    return ATCMDER_TX_OK;
}
