/*
 * Descriptor and file helpers for the tools: whole writes, closing once, mkdir -p, small files
 * and sandbox paths. Stateless; called from any of the tools' threads.
 */
#include "sim/sim_util.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/root_path.h"

namespace atcmd_tools {

namespace {
constexpr int kFullPipeWaitMs = 200;  // how long a full pipe or terminal may hold up a writer
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

}  // namespace atcmd_tools
