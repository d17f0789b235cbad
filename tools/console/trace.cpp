/*
 * The trace file's writer: the file on disk is a whole JSON document at every moment. Each
 * event goes out in one write over the end of the array ("]}"), carrying that end again after
 * it, so that a trace of a process killed by SIGKILL opens as it stood. Any thread writes; the
 * console finishes the trace, writing what is still open, as it ends (console/signals.cpp for
 * the signals).
 */
#include "console/trace.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <mutex>

#include "sim/sim_util.h"

namespace atcmd_tools {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char kHead[] = "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[\n";
constexpr const char kTail[] = "\n]}\n";

struct TraceFile {
    Clock::time_point origin = Clock::now();  // written once, before any other thread starts
    std::mutex mu;  // guards fd, first and end; taken after the finisher's own locks
    int fd = -1;
    bool first = true;
    off_t end = 0;  // where the end of the array starts: the next event is written there
    // Guards finisher; held through a whole finish, so that a second caller waits for it.
    // Lock order: finish_mu, then the finisher's own locks, then mu.
    std::mutex finish_mu;
    void (*finisher)() = nullptr;
};

TraceFile t;

}  // namespace

bool trace_open(const std::string &path, Clock::time_point origin, std::string *error) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        *error = "cannot write the trace " + path + ": " + strerror(errno);
        return false;
    }
    std::lock_guard<std::mutex> lock(t.mu);
    t.origin = origin;
    t.fd = fd;
    t.first = true;
    t.end = sizeof kHead - 1;
    const std::string empty = std::string(kHead) + kTail;
    if (!write_all(fd, empty.data(), empty.size())) {
        *error = "cannot write the trace " + path + ": " + strerror(errno);
        close_fd(&t.fd);
        return false;
    }
    return true;
}

bool trace_is_open() {
    std::lock_guard<std::mutex> lock(t.mu);
    return t.fd >= 0;
}

int64_t trace_now_us() {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - t.origin).count();
}

void trace_write(const std::string &fields) {
    std::lock_guard<std::mutex> lock(t.mu);
    if (t.fd < 0) return;
    const std::string event = std::string(t.first ? "" : ",\n") + "{" + fields + "}";
    const std::string line = event + kTail;
    // One write: the file holds the array's end before it and after it. A failed write is
    // retried at the same place by the next event; this one is lost.
    ssize_t w;
    do {
        w = pwrite(t.fd, line.data(), line.size(), t.end);
    } while (w < 0 && errno == EINTR);
    if (w != static_cast<ssize_t>(line.size())) return;
    t.first = false;
    t.end += static_cast<off_t>(event.size());
}

void trace_set_finisher(void (*fn)()) {
    std::lock_guard<std::mutex> lock(t.finish_mu);
    t.finisher = fn;
}

void trace_finish() {
    std::lock_guard<std::mutex> finishing(t.finish_mu);
    if (!trace_is_open()) return;
    if (t.finisher != nullptr) t.finisher();
    std::lock_guard<std::mutex> lock(t.mu);
    close_fd(&t.fd);  // the end of the array is in place already
}

}  // namespace atcmd_tools
