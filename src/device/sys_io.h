/*
 * The module's two helpers for system calls: retry_eintr, which repeats a call that a signal
 * interrupted, and UniqueFd, which closes the descriptor a function opened on every path out of
 * it. Both are for use inside functions; descriptors kept in globals stay plain integers, as the
 * callers and the upper layer expect. Any thread may use them.
 */
#ifndef ATCMD_DEVICE_SYS_IO_H
#define ATCMD_DEVICE_SYS_IO_H

#include <errno.h>
#include <unistd.h>

// Runs `call` until it returns something other than -1 with errno EINTR; returns its result.
// Only for calls where a retry is the right answer to a signal; a wait whose interruption means
// "look again" checks EINTR itself.
template <typename Call>
inline auto retry_eintr(Call call) -> decltype(call()) {
    decltype(call()) result;
    do {
        result = call();
    } while (result == -1 && errno == EINTR);
    return result;
}

// Owns one descriptor (or none, -1) and closes it when it goes out of scope. Move-only.
struct UniqueFd {
    UniqueFd() = default;
    explicit UniqueFd(int owned) : fd(owned) {}
    UniqueFd(UniqueFd &&other) noexcept : fd(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd; }
    // Gives the descriptor up without closing it, e.g. to a global that now owns it.
    int release() {
        const int owned = fd;
        fd = -1;
        return owned;
    }
    // Closes what it holds (a close is not retried: the descriptor is gone either way).
    void reset(int owned = -1) {
        if (fd >= 0) close(fd);
        fd = owned;
    }

  private:
    int fd = -1;
};

#endif /* ATCMD_DEVICE_SYS_IO_H */
