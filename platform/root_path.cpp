/*
 * The one helper that puts the sandbox root (ATCMD_ROOT) in front of an absolute path. Called
 * from any thread; it only reads the environment.
 */
#include "platform/root_path.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>

const char *atcmd_root(void) {
#ifdef __ANDROID__
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
