/*
 * Descriptor and file helpers for the tools: whole writes, closing once, mkdir -p, small files,
 * sandbox paths and the sandbox claim. Stateless; called from any of the tools' threads.
 */
#include "sim/sim_util.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "platform/root_path.h"

namespace atcmd_tools {

namespace {
constexpr int kFullPipeWaitMs = 200;  // how long a full pipe or terminal may hold up a writer
// An owner writes its pid just after it takes the lock: how long a refused claimant waits to
// read it, in steps.
constexpr int kOwnerPidWaitMs = 200;
constexpr int kOwnerPidStepMs = 10;

// The pid written in a lock file held by another process; "unknown" when it wrote none in time.
std::string owner_pid(int fd) {
    for (int waited = 0;; waited += kOwnerPidStepMs) {
        char buf[32] = {};
        const ssize_t n = pread(fd, buf, sizeof buf - 1, 0);
        if (n > 0 && buf[n - 1] == '\n') return std::string(buf, static_cast<size_t>(n - 1));
        if (waited >= kOwnerPidWaitMs) return "unknown";
        std::this_thread::sleep_for(std::chrono::milliseconds(kOwnerPidStepMs));
    }
}
}

bool write_all(int fd, const char *bytes, size_t n) {
    size_t done = 0;
    while (done < n) {
        const ssize_t w = write(fd, bytes + done, n - done);
        if (w > 0) {
            done += static_cast<size_t>(w);
        } else if (w < 0 && errno == EAGAIN) {
            struct pollfd pfd = {fd, POLLOUT, 0};
            if (poll(&pfd, 1, kFullPipeWaitMs) <= 0) return false;
        } else if (!(w < 0 && errno == EINTR)) {
            return false;
        }
    }
    return true;
}

void close_fd(int *fd) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
}

std::string trim_line_end(const std::string &line) {
    size_t end = line.size();
    while (end > 0 && (line[end - 1] == '\r' || line[end - 1] == '\n')) --end;
    return line.substr(0, end);
}

bool make_dirs(const std::string &path) {
    for (size_t at = 1; at <= path.size(); ++at) {
        if (at == path.size() || path[at] == '/') {
            const std::string part = path.substr(0, at);
            if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
        }
    }
    return true;
}

bool write_text_file(const std::string &path, const std::string &text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const bool ok = write_all(fd, text.data(), text.size());
    close(fd);
    return ok;
}

void poke_pipe(int write_end) {
    const char b = 1;
    ssize_t r;
    do {
        r = write(write_end, &b, 1);
    } while (r < 0 && errno == EINTR);
}

void drain_pipe(int read_end) {
    char buf[64];
    while (read(read_end, buf, sizeof buf) > 0) {
    }
}

std::string rooted(const std::string &as_written) {
    char out[ATCMD_ROOTED_PATH_MAX];
    return atcmd_root_path(as_written.c_str(), out, sizeof out) == 0 ? out : "";
}

int sandbox_claim(const char *role, std::string *error) {
    const char *root = atcmd_root();
    if (root[0] == '\0') {
        *error = "ATCMD_ROOT is not set: a simulator only works inside a sandbox root";
        return -1;
    }
    const std::string dir = rooted("/sim");
    const std::string path = dir + "/" + role + ".lock";
    int fd = -1;
    if (dir.empty() || !make_dirs(dir) ||
        (fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) < 0) {
        *error = "cannot claim the sandbox " + std::string(root) + ": " + path + ": " + strerror(errno);
        return -1;
    }
    int r;
    do {
        r = flock(fd, LOCK_EX | LOCK_NB);
    } while (r != 0 && errno == EINTR);
    if (r != 0) {
        const int err = errno;
        *error = err == EWOULDBLOCK ? "the sandbox " + std::string(root) + " is taken: its " + role +
                                          " role is held by pid " + owner_pid(fd) + " (" + path + ")"
                                    : "cannot lock " + path + ": " + strerror(err);
        close(fd);
        return -1;
    }
    // A lock left by a process that died holds its pid still: the new owner's replaces it.
    const std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(fd, 0) != 0 || pwrite(fd, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        *error = "cannot write " + path + ": " + strerror(errno);
        close(fd);
        return -1;
    }
    return fd;
}

bool parse_number(const std::string &text, long min, long max, long *out) {
    char *end = nullptr;
    errno = 0;
    const long v = strtol(text.c_str(), &end, 10);
    if (text.empty() || end == text.c_str() || *end != '\0' || errno == ERANGE || v < min || v > max) return false;
    *out = v;
    return true;
}

}  // namespace atcmd_tools
