/*
 * The trace file's writer: each event goes out in one write as it comes, so that the file on
 * disk is always the head and whole events; finishing appends the end of the array. Any thread
 * writes; the console finishes the trace as it ends (console/signals.cpp for the signals).
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
    std::mutex mu;  // guards fd and first; taken after the finisher's own locks
    int fd = -1;
    bool first = true;
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
    if (!write_all(fd, kHead, sizeof kHead - 1)) {
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
    const std::string line = std::string(t.first ? "" : ",\n") + "{" + fields + "}";
    t.first = false;
    // A failed write leaves the file as it was before this event; the event is lost.
    write_all(t.fd, line.data(), line.size());
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
    write_all(t.fd, kTail, sizeof kTail - 1);
    close_fd(&t.fd);
}

}  // namespace atcmd_tools
