/*
 * The status relay between a standalone daemon simulator and a console: one FIFO in the
 * sandbox, one line per report. The writer opens it for each report without blocking (no
 * reader: the report is not relayed); the reader's thread "status_relay" holds it open for
 * reading and writing, so it never sees end of file between two writers.
 */
#include "sim/status_relay.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "platform/root_path.h"
#include "sim/sim_util.h"

namespace atcmd_tools {

struct StatusListener {
    DaemonReport report;
    DaemonObserver observer;
    void *ctx;
    int fifo = -1;
    int wake[2] = {-1, -1};
    std::thread thread;
    std::string held;       // the start of a line not yet ended; listener thread only
    bool skipping = false;  // inside an over-long line, until its end
};

namespace {

void note(const StatusListener *l, const std::string &event) {
    if (l->observer != nullptr) l->observer(l->ctx, event);
}

void note_dropped(const StatusListener *l) {
    note(l, "dropped a status line longer than " + std::to_string(kMaxStatusLine) + " bytes");
}

void deliver(StatusListener *l, const std::string &status) {
    if (status.empty()) return;
    if (status.size() > kMaxStatusLine) {
        note_dropped(l);
        return;
    }
    note(l, "report \"" + status + "\"");
    if (l->report != nullptr) l->report(l->ctx, status);
}

// Splits what arrived into reports; a line longer than a report can be is dropped whole.
void take_bytes(StatusListener *l, const char *bytes, size_t n) {
    l->held.append(bytes, n);
    for (size_t nl; (nl = l->held.find('\n')) != std::string::npos;) {
        const std::string line = trim_line_end(l->held.substr(0, nl));
        l->held.erase(0, nl + 1);
        if (!l->skipping) deliver(l, line);
        l->skipping = false;
    }
    if (l->held.size() > kMaxStatusLine) {
        if (!l->skipping) note_dropped(l);
        l->skipping = true;
        l->held.clear();
    }
}

void listen_loop(StatusListener *l) {
    prctl(PR_SET_NAME, "status_relay");
    for (;;) {
        struct pollfd fds[2] = {{l->wake[0], POLLIN, 0}, {l->fifo, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR) return;
        if (fds[0].revents != 0) return;
        if (fds[1].revents == 0) continue;
        char buf[512];
        const ssize_t n = read(l->fifo, buf, sizeof buf);
        if (n > 0) take_bytes(l, buf, static_cast<size_t>(n));
    }
}

// The FIFO at `path`, made when missing; anything else in its place is refused.
int open_listening_fifo(const std::string &path, std::string *error) {
    struct stat st;
    if (mkfifo(path.c_str(), 0666) != 0 && errno != EEXIST) {
        *error = strerror(errno);
        return -1;
    }
    if (lstat(path.c_str(), &st) != 0 || !S_ISFIFO(st.st_mode)) {
        *error = "not a FIFO";
        return -1;
    }
    const int fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) *error = strerror(errno);
    return fd;
}

}  // namespace

RelayResult status_relay_send(const std::string &status) {
    if (atcmd_root()[0] == '\0') return RelayResult::NoReader;
    const int fd = open(rooted(kStatusFifo).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return errno == ENXIO || errno == ENOENT ? RelayResult::NoReader : RelayResult::Failed;
    struct stat st;
    RelayResult result = RelayResult::Failed;
    if (fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode)) {
        // One line of at most a few dozen bytes: a FIFO takes it whole or not at all.
        const std::string line = status + "\n";
        ssize_t w;
        do {
            w = write(fd, line.data(), line.size());
        } while (w < 0 && errno == EINTR);
        result = w == static_cast<ssize_t>(line.size()) ? RelayResult::Relayed
                 : w < 0 && errno == EPIPE              ? RelayResult::NoReader
                                                        : RelayResult::Failed;
    }
    close(fd);
    return result;
}

StatusListener *status_relay_listen(DaemonReport report, DaemonObserver observer, void *ctx) {
    if (atcmd_root()[0] == '\0') return nullptr;
    auto *l = new StatusListener;
    l->report = report;
    l->observer = observer;
    l->ctx = ctx;
    const std::string dir = rooted("/sim");
    const std::string path = rooted(kStatusFifo);
    std::string error = "cannot make " + dir;
    if (!make_dirs(dir) || (l->fifo = open_listening_fifo(path, &error)) < 0 ||
        pipe2(l->wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        note(l, "daemon reports from other processes are not relayed: " + path + ": " + error);
        close_fd(&l->fifo);
        delete l;
        return nullptr;
    }
    l->thread = std::thread(listen_loop, l);
    return l;
}

void status_relay_stop(StatusListener *l) {
    if (l == nullptr) return;
    poke_pipe(l->wake[1]);
    l->thread.join();
    close_fd(&l->fifo);
    close_fd(&l->wake[0]);
    close_fd(&l->wake[1]);
    delete l;
}

}  // namespace atcmd_tools
