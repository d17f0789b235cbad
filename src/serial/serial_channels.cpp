/*
 * The UART ("/dev/ttyS4") and VUART ("/dev/ttyACM" + n) channels: open and configure, timed
 * receive, single-shot send, and the held VUART port's copies, waits and bounded send. Run by the
 * open path, the supervisor, the receive threads and the transmit thread. Owns g_uart_fd, g_vuart_fd and g_dev_ACM; the initialisers
 * write the descriptor the caller points them at, nothing else here writes a global.
 */
#define LOG_TAG ATCMD_UART_TAG

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

#include "device/link_words.h"
#include "device/sys_io.h"
#include "log/atcmd_log.h"
#include "platform/root_path.h"
#include "serial/serial.h"

int32_t g_uart_fd = -1;
int32_t g_vuart_fd = -1;
int32_t g_dev_ACM = -1;

namespace {

// Guards each replacement of g_vuart_fd against the receive and transmit threads taking their
// copies, and counts the replacements (g_vuart_changes, written under it, read without it).
// Taken alone, or last after the USB state lock (supervisor's unplug).
pthread_mutex_t g_vuart_fd_mutex = PTHREAD_MUTEX_INITIALIZER;
uint32_t g_vuart_changes = 0;
// The pipe whose write end vuart_hold closes when the port it was made for is replaced or
// closed; copies of the read end go out with vuart_take. Guarded by g_vuart_fd_mutex.
int g_vuart_ended_r = -1;
int g_vuart_ended_w = -1;

// The one line setting both links use: 460800 bit/s, 8 data bits, no parity, 1 stop bit.
constexpr int32_t kLineSpeed = 460800;
constexpr int32_t kLineDataBits = 8;
constexpr char kLineParity = 'n';
constexpr int32_t kLineStopBits = 1;

// The ACM path as written ("/dev/ttyACM" + n) must fit this buffer, which bounds n to 0..9999.
constexpr size_t kVuartPathSize = 16;

constexpr int kPortOpenFlags = O_RDWR | O_NOCTTY | O_NDELAY | O_CLOEXEC;

// What differs between the two sets once the port is open. The formats themselves are written
// at the call sites, so the compiler checks them against their arguments on every target; the
// rows hold only the words that differ.
struct Channel {
    const char *init_name;  // the initialiser whose name the log lines carry
    const char *tag;
    int32_t (*set_opt)(int32_t, int32_t, int32_t, char, int32_t);
    const char *fcntl_end;      // what follows the fcntl result
    const char *not_a_tty;
    const char *opened;         // the descriptor follows, then "!", when opened_shows_fd
    bool opened_shows_fd;
    const char *set_opt_error;
    const char *link_name;      // "Init <link> <path> successfully, <link> fd is <fd> "
};

constexpr Channel kUart = {
    "UART_init",
    ATCMD_UART_TAG,
    UART_setOpt,
    "",
    "serial standard input is not a terminal device\n",
    "serial open success!",
    false,
    "serial Set opt Error\n",
    "uart",
};

constexpr Channel kVuart = {
    "VUART_init",
    ATCMD_VUART_TAG,
    VUART_setOpt,
    "\n",
    "serial standard input is not a terminal device!",
    "serial open successfully, vuart fd is ",
    true,
    "Vserial Set opt Error!",
    "Vuart",
};

int open_port(const char *as_written) { return atcmd_open_rooted(as_written, kPortOpenFlags); }

// Steps after a successful open: blocking mode, terminal check, line setting. On failure the
// descriptor is closed but the caller's copy keeps its number, as callers expect.
int configure_port(const Channel &ch, const char *as_written, int32_t fd) {
    UniqueFd owned(fd);  // closed on every failure; given back to the caller on success
    // fcntl runs once more for each sink that prints the line; it is idempotent.
    if (fcntl(fd, F_SETFL, 0) < 0) {
        ATCMD_LOG_AS(ch.init_name, ch.tag, ATCMD_LEVEL_DETAIL, "serial fcntl failed!");
    } else {
        ATCMD_LOG_AS(ch.init_name, ch.tag, ATCMD_LEVEL_DETAIL, "serial fcntl=%d%s",
                     fcntl(fd, F_SETFL, 0), ch.fcntl_end);
    }
    if (!isatty(fd)) {
        ATCMD_LOG_AS(ch.init_name, ch.tag, ATCMD_LEVEL_DETAIL, "%s", ch.not_a_tty);
        return -1;
    }
    if (ch.opened_shows_fd) {
        ATCMD_LOG_AS(ch.init_name, ch.tag, ATCMD_LEVEL_DETAIL, "%s%d!", ch.opened, fd);
    } else {
        ATCMD_LOG_AS(ch.init_name, ch.tag, ATCMD_LEVEL_DETAIL, "%s", ch.opened);
    }
    if (ch.set_opt(fd, kLineSpeed, kLineDataBits, kLineParity, kLineStopBits) == -1) {
        ATCMD_LOG_AS(ch.init_name, ch.tag, ATCMD_LEVEL_DETAIL, "%s", ch.set_opt_error);
        return -1;
    }
    tcflush(fd, TCIOFLUSH);
    fcntl(fd, F_SETFL, 0);
    ATCMD_LOG_AS(ch.init_name, ch.tag, ATCMD_LEVEL_STATE, "Init %s %s successfully, %s fd is %d ",
                 ch.link_name, as_written, ch.link_name, fd);
    owned.release();
    return 0;
}

// A negative wait (the receive threads pass -1) makes select fail at once; the error falls
// through to the blocking read, which then waits for the first byte without limit.
int serial_recv(const char *func, int32_t fd, char *buf, size_t len, int32_t wait_ms) {
    if (fd < 0 || fd >= FD_SETSIZE) {
        // A descriptor outside the select set is a caller's bug that would write past it.
        ATCMD_LOG_AS(func, LOG_TAG, ATCMD_LEVEL_ERROR,
                     "serial receive on descriptor %d outside 0..%d, giving up", fd,
                     FD_SETSIZE - 1);
        abort();
    }
    struct timeval tv;
    tv.tv_sec = wait_ms / 1000;
    tv.tv_usec = (wait_ms % 1000) * 1000;
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    if (select(fd + 1, &readable, nullptr, nullptr, &tv) == 0) return -1;
    return static_cast<int>(read(fd, buf, len));
}

// `func` and `tag` are the entry point's name and its channel's tag, which every line carries.
int serial_send(const char *func, const char *tag, int32_t fd, const char *buf, size_t len) {
    if (buf == nullptr) {
        ATCMD_LOG_AS(func, tag, ATCMD_LEVEL_ERROR, "serial send without data, nothing written");
        return -1;
    }
    const ssize_t written = retry_eintr([&] { return write(fd, buf, len); });
    if (written < 0 || static_cast<size_t>(written) != len) {
        ATCMD_LOG_AS(func, tag, ATCMD_LEVEL_DETAIL, "serial write device error\n");
        tcflush(fd, TCOFLUSH);
        return -1;
    }
    // Bounded by len: a caller's text that lacks its terminator is still printed safely.
    ATCMD_LOG_AS(func, tag, ATCMD_LEVEL_DETAIL, "serial send data is %.*s", static_cast<int>(len),
                 buf);
    return static_cast<int>(len);
}

}  // namespace

int UART_init(int32_t *fd) {
    if (fd == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "UART_init without a place for the descriptor");
        return -1;
    }
    *fd = open_port(ATCMD_UART_PATH);
    if (*fd < 0) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "open AMLOGIC UART fails");
        return -1;
    }
    return configure_port(kUart, ATCMD_UART_PATH, *fd);
}

int VUART_init(int32_t *fd, long acm_index) {
    if (fd == nullptr) {
        ATCMD_LOG_TAG(ATCMD_VUART_TAG, ATCMD_LEVEL_ERROR,
                      "VUART_init without a place for the descriptor");
        return -1;
    }
    char path[kVuartPathSize];
    const int n = snprintf(path, sizeof path, ATCMD_VUART_PATH_PREFIX "%ld", acm_index);
    if (n < 0 || static_cast<size_t>(n) >= sizeof path) {
        ATCMD_LOG_TAG(ATCMD_VUART_TAG, ATCMD_LEVEL_ERROR,
                      "ACM port number %ld does not fit a %zu-byte path, abort", acm_index,
                      sizeof path);
        abort();
    }
    *fd = open_port(path);
    if (*fd < 0) {
        const int err = errno;  // the log's sinks may change errno between them
        ATCMD_LOG_TAG(ATCMD_VUART_TAG, ATCMD_LEVEL_ERROR,
                      "open serial %s fails, error num is %d, error num is %s", path, *fd,
                      strerror(err));
        return -1;
    }
    return configure_port(kVuart, path, *fd);
}

void vuart_hold(int32_t fd) {
    pthread_mutex_lock(&g_vuart_fd_mutex);
    link_close(g_vuart_fd);
    link_store(g_vuart_fd, fd);
    link_store(g_vuart_changes, g_vuart_changes + 1);
    // Closing the write end wakes every thread that waits on a copy of the old read end.
    if (g_vuart_ended_w != -1) close(g_vuart_ended_w);
    if (g_vuart_ended_r != -1) close(g_vuart_ended_r);
    g_vuart_ended_w = g_vuart_ended_r = -1;
    int ends[2];
    if (fd != -1 && pipe2(ends, O_CLOEXEC) == 0) {
        g_vuart_ended_r = ends[0];
        g_vuart_ended_w = ends[1];
    } else if (fd != -1) {
        // Without the pipe the threads still notice the change, one retry pace later.
        ATCMD_LOG_TAG(ATCMD_VUART_TAG, ATCMD_LEVEL_ERROR,
                      "no end-of-port pipe for descriptor %d: %s; switches are seen by a timed look",
                      fd, strerror(errno));
    }
    pthread_mutex_unlock(&g_vuart_fd_mutex);
}

bool vuart_take(struct VuartCopy *copy) {
    copy->port.reset();  // the old copies go first, as always
    copy->ended.reset();
    pthread_mutex_lock(&g_vuart_fd_mutex);
    copy->seen.changes = g_vuart_changes;
    copy->seen.fd = link_load(g_vuart_fd);
    const int32_t held = copy->seen.fd;
    if (held != -1) {
        copy->port.reset(fcntl(held, F_DUPFD_CLOEXEC, 0));
        // Ended only while the pipe belongs to this very port (a harness may store its own).
        if (g_vuart_ended_r != -1) copy->ended.reset(fcntl(g_vuart_ended_r, F_DUPFD_CLOEXEC, 0));
    }
    pthread_mutex_unlock(&g_vuart_fd_mutex);
    if (held != -1 && copy->port.get() < 0) {
        ATCMD_LOG_TAG(ATCMD_VUART_TAG, ATCMD_LEVEL_ERROR,
                      "copy of the port's descriptor %d failed: %s", held, strerror(errno));
    }
    return copy->port.get() >= 0;
}

// A harness that stores g_vuart_fd itself changes the number without counting; both are looked at.
bool vuart_held_changed(const struct VuartSeen *seen) {
    return link_load(g_vuart_changes) != seen->changes || link_load(g_vuart_fd) != seen->fd;
}

uint32_t vuart_generation(void) { return link_load(g_vuart_changes); }

enum VuartWait vuart_wait(const struct VuartCopy *copy, short events, int limit_ms) {
    struct pollfd p[2] = {{copy->port.get(), events, 0}, {copy->ended.get(), POLLIN, 0}};
    const nfds_t count = copy->ended.get() >= 0 ? 2 : 1;
    const int n = poll(p, count, limit_ms);
    if (n < 0 && errno == EINTR) return kVuartTimedOut;  // the caller looks again
    if (n == 0) return vuart_held_changed(&copy->seen) ? kVuartChanged : kVuartTimedOut;
    if (count == 2 && p[1].revents != 0) return kVuartChanged;
    return kVuartReady;
}

int vuart_send_bounded(const struct VuartCopy *copy, const char *buf, size_t len, int stall_ms) {
    const int fd = copy->port.get();
    if (buf == nullptr || fd < 0) {
        ATCMD_LOG_AS("VUART_Send", ATCMD_VUART_TAG, ATCMD_LEVEL_ERROR,
                     "serial send without data or port, nothing written");
        return -1;
    }
    // The copy shares the port's open file: from here on no write on the port blocks.
    const int flags = fcntl(fd, F_GETFL);
    if (flags != -1 && (flags & O_NONBLOCK) == 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    size_t sent = 0;
    while (sent < len) {
        const ssize_t n = write(fd, buf + sent, len - sent);
        if (n > 0) {
            sent += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            ATCMD_LOG_AS("VUART_Send", ATCMD_VUART_TAG, ATCMD_LEVEL_DETAIL,
                         "serial write device error\n");
            tcflush(fd, TCOFLUSH);
            return -1;
        }
        const enum VuartWait w = vuart_wait(copy, POLLOUT, stall_ms);
        if (w == kVuartReady) continue;
        if (w == kVuartChanged) {
            ATCMD_LOG_AS("VUART_Send", ATCMD_VUART_TAG, ATCMD_LEVEL_ERROR,
                         "port switched during a write, %zu of %zu bytes sent: %.*s", sent, len,
                         static_cast<int>(len), buf);
            return -1;
        }
        ATCMD_LOG_AS("VUART_Send", ATCMD_VUART_TAG, ATCMD_LEVEL_ERROR,
                     "peer took nothing for %d ms, %zu of %zu bytes sent, its output flushed: %.*s",
                     stall_ms, sent, len, static_cast<int>(len), buf);
        tcflush(fd, TCOFLUSH);
        return -1;
    }
    ATCMD_LOG_AS("VUART_Send", ATCMD_VUART_TAG, ATCMD_LEVEL_DETAIL, "serial send data is %.*s",
                 static_cast<int>(len), buf);
    return static_cast<int>(len);
}

int UART_Recv(int32_t fd, char *buf, size_t len, int32_t wait_ms) {
    return serial_recv(__func__, fd, buf, len, wait_ms);
}

int VUART_Recv(int32_t fd, char *buf, size_t len, int32_t wait_ms) {
    return serial_recv(__func__, fd, buf, len, wait_ms);
}

int UART_Send(int32_t fd, const char *buf, size_t len) {
    return serial_send(__func__, ATCMD_UART_TAG, fd, buf, len);
}

int VUART_Send(int32_t fd, const char *buf, size_t len) {
    return serial_send(__func__, ATCMD_VUART_TAG, fd, buf, len);
}
