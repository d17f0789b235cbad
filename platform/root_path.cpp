/*
 * The one helper that puts the sandbox root (ATCMD_ROOT) in front of an absolute path. Called
 * from any thread; it only reads the environment.
 */
#include "platform/root_path.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>

// The phone's module uses the paths as written; the tools built for the phone keep the sandbox
// (ATCMD_ROOT_FROM_ENV), so a simulator started there never touches the real /dev.
const char *atcmd_root(void) {
#if defined(__ANDROID__) && !defined(ATCMD_ROOT_FROM_ENV)
    return "";
#else
    const char *root = getenv("ATCMD_ROOT");
    return root != nullptr ? root : "";
#endif
}

int atcmd_root_path(const char *path, char *out, size_t size) {
    if (path == nullptr || out == nullptr || size == 0) return -1;
    int n = snprintf(out, size, "%s%s", atcmd_root(), path);
    return (n < 0 || static_cast<size_t>(n) >= size) ? -1 : 0;
}

int atcmd_open_rooted(const char *path, int flags) {
    char rooted[ATCMD_ROOTED_PATH_MAX];
    if (atcmd_root_path(path, rooted, sizeof rooted) != 0) {
        errno = ENAMETOOLONG;
        return -1;
    }
    int fd;
    do {
        fd = open(rooted, flags);
    } while (fd < 0 && errno == EINTR);
    return fd;
}
