/*
 * The Wi-Fi daemon simulator. Thread "daemon_sim" waits on inotify (the property store),
 * the command FIFO and a wake-up pipe, and sends heartbeats on time; thread "daemon_report"
 * hands the queued status reports to the upper layer's stand-in, which may block.
 */
#include "sim/daemon_sim.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include <cutils/properties.h>

#include "platform/root_path.h"
#include "sim/sim_util.h"

namespace atcmd_tools {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kHeartbeatMs = 1000;
// A daemon needs a moment to bring its link up; the module also only takes status reports once
// its Wi-Fi init has finished, which happens just after it wrote the start command.
constexpr int kLinkUpMs = 300;
constexpr const char kCmdProperty[] = "vendor.hid_cmd";
constexpr const char kStsProperty[] = "vendor.hid_sts";
constexpr const char kFifoTx[] = "/dev/fifo_tx";   // the phone writes, the daemon reads
constexpr const char kFifoRx[] = "/dev/fifo_rx";   // the daemon writes, the phone reads
constexpr const char kFifoCmd[] = "/dev/fifo_cmd";
constexpr const char kDefaultStore[] = "/tmp/atcmdprocess/property";

// What a value of "vendor.hid_cmd" asks for.
struct CommandRow {
    const char *value;
    bool start;
};

constexpr CommandRow kCommands[] = {
    {"start_server", true}, {"start_client", true}, {"stop_server", false}, {"stop_client", false},
};

std::string property_dir() {
    const char *root = atcmd_root();
    return root[0] != '\0' ? std::string(root) + "/property" : kDefaultStore;
}

}  // namespace

struct DaemonSim {
    AccSim *accessory;
    DaemonReport report;
    DaemonObserver observer;
    void *ctx;
    std::thread watcher;
    std::thread reporter;
    int wake[2] = {-1, -1};
    int inotify = -1;

    std::mutex mu;  // guards every field below; taken before the accessory simulator's mutex
    std::condition_variable reports_ready;
    std::deque<std::string> reports;
    bool stopping = false;
    bool running = false;
    bool silent = false;
    bool announced = false;  // "running" reported since the last start
    unsigned beat = 0;
    Clock::time_point next_beat;  // the "running" report until announced, then the next beat
    int fifo_tx = -1;
    int fifo_rx = -1;
    int fifo_cmd = -1;
    DaemonCounters counters;
};

namespace {

void note(DaemonSim *d, const std::string &event) {
    if (d->observer != nullptr) d->observer(d->ctx, event);
}

void queue_report_locked(DaemonSim *d, const std::string &status) {
    d->reports.push_back(status);
    d->reports_ready.notify_all();
}

int open_fifo(const char *as_written) {
    const std::string path = rooted(as_written);
    if (mkfifo(path.c_str(), 0666) != 0 && errno != EEXIST) return -1;
    return open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
}

void start_locked(DaemonSim *d, const std::string &how) {
    if (d->running) return;
    d->fifo_tx = open_fifo(kFifoTx);
    d->fifo_rx = open_fifo(kFifoRx);
    d->fifo_cmd = open_fifo(kFifoCmd);
    if (d->fifo_tx < 0 || d->fifo_rx < 0 || d->fifo_cmd < 0) {
        note(d, std::string("cannot make the FIFOs: ") + strerror(errno) + "; reporting error");
        close_fd(&d->fifo_tx);
        close_fd(&d->fifo_rx);
        close_fd(&d->fifo_cmd);
        queue_report_locked(d, "error");
        return;
    }
    d->running = true;
    d->silent = false;
    d->announced = false;
    d->beat = 0;
    d->next_beat = Clock::now() + std::chrono::milliseconds(kLinkUpMs);
    d->counters.starts++;
    if (d->accessory != nullptr) acc_sim_attach_wifi(d->accessory, d->fifo_tx, d->fifo_rx);
    note(d, "started (" + how + "), FIFOs ready");
}

void stop_locked(DaemonSim *d, bool orderly_exit) {
    if (!d->running) return;
    if (d->accessory != nullptr) acc_sim_detach_wifi(d->accessory);
    close_fd(&d->fifo_tx);
    close_fd(&d->fifo_rx);
    close_fd(&d->fifo_cmd);
    d->running = false;
    if (!orderly_exit) {
        note(d, "stopped");
        return;
    }
    d->counters.exits++;
    // The module waits a second for this value; a store that refuses it (read-only) makes the
    // module fall back to its forced stop, so say so rather than claim an orderly exit.
    note(d, property_set(kStsProperty, "exit") == 0
                ? "exit requested on fifo_cmd: stopped, vendor.hid_sts=exit"
                : "exit requested on fifo_cmd: stopped, but vendor.hid_sts=exit could not be set");
}

void read_command_property_locked(DaemonSim *d) {
    char value[PROPERTY_VALUE_MAX];
    property_get(kCmdProperty, value, "");
    for (const CommandRow &row : kCommands) {
        if (strcmp(value, row.value) != 0) continue;
        if (row.start) {
            start_locked(d, value);
        } else {
            stop_locked(d, false);
        }
        return;
    }
    if (value[0] != '\0') note(d, std::string("ignored vendor.hid_cmd=") + value);
}

// Handles one batch of property-store events: only a new "vendor.hid_cmd" matters.
void read_inotify_locked(DaemonSim *d) {
    alignas(struct inotify_event) char buf[4096];
    const ssize_t n = read(d->inotify, buf, sizeof buf);
    bool command_changed = false;
    for (ssize_t at = 0; n > 0 && at < n;) {
        const auto *ev = reinterpret_cast<const struct inotify_event *>(buf + at);
        if (ev->len > 0 && strcmp(ev->name, kCmdProperty) == 0) command_changed = true;
        at += static_cast<ssize_t>(sizeof(struct inotify_event) + ev->len);
    }
    if (command_changed) read_command_property_locked(d);
}

void read_fifo_cmd_locked(DaemonSim *d) {
    char buf[128];
    const ssize_t n = read(d->fifo_cmd, buf, sizeof buf - 1);
    if (n <= 0) return;
    buf[n] = '\0';
    if (strstr(buf, "exit") != nullptr) {
        stop_locked(d, true);
    } else {
        note(d, std::string("ignored on fifo_cmd: ") + buf);
    }
}

// Reports "running" once the link is up, then a heartbeat each period; returns the poll
// time-out until the next report (-1: none).
int beat_locked(DaemonSim *d) {
    if (!d->running || (d->silent && d->announced)) return -1;
    const auto now = Clock::now();
    if (now >= d->next_beat && !d->announced) {
        d->announced = true;
        queue_report_locked(d, "running");
        d->next_beat = now + std::chrono::milliseconds(kHeartbeatMs);
    } else if (now >= d->next_beat) {
        d->counters.heartbeats++;
        queue_report_locked(d, "heartbeat:" + std::to_string(++d->beat));
        d->next_beat += std::chrono::milliseconds(kHeartbeatMs);
    }
    return static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(d->next_beat - now).count() + 1);
}

void watch_loop(DaemonSim *d) {
    prctl(PR_SET_NAME, "daemon_sim");
    std::unique_lock<std::mutex> lock(d->mu);
    read_command_property_locked(d);  // a start written before the simulator came up
    while (!d->stopping) {
        const int timeout = beat_locked(d);
        struct pollfd fds[3] = {{d->wake[0], POLLIN, 0}, {d->inotify, POLLIN, 0}, {d->fifo_cmd, POLLIN, 0}};
        const int cmd_fd = d->fifo_cmd;
        lock.unlock();
        const int r = poll(fds, 3, timeout);
        lock.lock();
        if (r <= 0) continue;
        if (fds[0].revents != 0) drain_pipe(d->wake[0]);
        if (fds[1].revents != 0) read_inotify_locked(d);
        if (fds[2].revents != 0 && cmd_fd == d->fifo_cmd && d->fifo_cmd >= 0) read_fifo_cmd_locked(d);
    }
    stop_locked(d, false);
}

void report_loop(DaemonSim *d) {
    prctl(PR_SET_NAME, "daemon_report");
    std::unique_lock<std::mutex> lock(d->mu);
    for (;;) {
        d->reports_ready.wait(lock, [d] { return d->stopping || !d->reports.empty(); });
        if (d->stopping) return;
        const std::string status = d->reports.front();
        d->reports.pop_front();
        lock.unlock();
        note(d, "report \"" + status + "\"");
        if (d->report != nullptr) d->report(d->ctx, status);
        lock.lock();
    }
}

void wake(DaemonSim *d) { poke_pipe(d->wake[1]); }

}  // namespace

DaemonSim *daemon_sim_create(AccSim *accessory, DaemonReport report, DaemonObserver observer,
                             void *ctx) {
    auto *d = new DaemonSim;
    d->accessory = accessory;
    d->report = report;
    d->observer = observer;
    d->ctx = ctx;
    const std::string dir = property_dir();
    d->inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (!make_dirs(dir) || d->inotify < 0 || pipe2(d->wake, O_CLOEXEC | O_NONBLOCK) != 0 ||
        inotify_add_watch(d->inotify, dir.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE) < 0) {
        note(d, "cannot watch " + dir + ": " + strerror(errno));
        close_fd(&d->inotify);
        close_fd(&d->wake[0]);
        close_fd(&d->wake[1]);
        delete d;
        return nullptr;
    }
    d->watcher = std::thread(watch_loop, d);
    d->reporter = std::thread(report_loop, d);
    return d;
}

void daemon_sim_destroy(DaemonSim *d) {
    if (d == nullptr) return;
    {
        std::lock_guard<std::mutex> lock(d->mu);
        d->stopping = true;
        d->reports_ready.notify_all();
        wake(d);
    }
    d->watcher.join();
    d->reporter.join();
    close_fd(&d->inotify);
    close_fd(&d->wake[0]);
    close_fd(&d->wake[1]);
    delete d;
}

bool daemon_sim_running(DaemonSim *d) {
    std::lock_guard<std::mutex> lock(d->mu);
    return d->running;
}

void daemon_sim_set_silent(DaemonSim *d, bool silent) {
    std::lock_guard<std::mutex> lock(d->mu);
    d->silent = silent;
    if (!silent) d->next_beat = Clock::now() + std::chrono::milliseconds(kHeartbeatMs);
    note(d, silent ? "heartbeat silenced" : "heartbeat resumed");
    wake(d);
}

void daemon_sim_report_error(DaemonSim *d) {
    std::lock_guard<std::mutex> lock(d->mu);
    queue_report_locked(d, "error");
}

DaemonCounters daemon_sim_counters(DaemonSim *d) {
    std::lock_guard<std::mutex> lock(d->mu);
    return d->counters;
}

}  // namespace atcmd_tools
