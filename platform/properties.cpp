/*
 * File-backed system properties for host builds: one file per key in $ATCMD_ROOT/property/
 * (or /tmp/atcmdprocess/property/), holding the value's bytes with no newline. Writers rename a
 * temporary file over the key, so readers on any thread or process never see half a value.
 */
#include <cutils/properties.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/root_path.h"
#include "platform/thread_id.h"

namespace {

constexpr const char kDefaultStore[] = "/tmp/atcmdprocess/property";
constexpr const char kRootedStore[] = "/property";

struct Fd {
    int fd;
    ~Fd() {
        if (fd >= 0) close(fd);
    }
};

int store_dir(char *out, size_t size) {
    const char *root = atcmd_root();
    int n = root[0] != '\0' ? snprintf(out, size, "%s%s", root, kRootedStore)
                            : snprintf(out, size, "%s", kDefaultStore);
    return (n < 0 || static_cast<size_t>(n) >= size) ? -1 : 0;
}

bool key_is_valid(const char *key) {
    return key != nullptr && key[0] != '\0' && strchr(key, '/') == nullptr &&
           strcmp(key, ".") != 0 && strcmp(key, "..") != 0;
}

int key_path(const char *key, char *out, size_t size) {
    char dir[ATCMD_ROOTED_PATH_MAX];
    if (!key_is_valid(key) || store_dir(dir, sizeof dir) != 0) return -1;
    int n = snprintf(out, size, "%s/%s", dir, key);
    return (n < 0 || static_cast<size_t>(n) >= size) ? -1 : 0;
}

// mkdir -p without a shell.
int make_dirs(const char *dir) {
    char path[ATCMD_ROOTED_PATH_MAX];
    if (snprintf(path, sizeof path, "%s", dir) >= static_cast<int>(sizeof path)) return -1;
    for (char *p = path + 1; *p != '\0'; ++p) {
        if (*p != '/') continue;
        *p = '\0';
        if (mkdir(path, 0755) != 0 && errno != EEXIST) return -1;
        *p = '/';
    }
    return (mkdir(path, 0755) == 0 || errno == EEXIST) ? 0 : -1;
}

// Reads at most PROP_VALUE_MAX - 1 bytes of the key's file; returns the length, 0 when unset.
int read_value(const char *key, char *value) {
    value[0] = '\0';
    char path[ATCMD_ROOTED_PATH_MAX];
    if (key_path(key, path, sizeof path) != 0) return 0;
    Fd file{open(path, O_RDONLY | O_CLOEXEC)};
    if (file.fd < 0) return 0;
    size_t got = 0;
    while (got < PROP_VALUE_MAX - 1) {
        ssize_t n = read(file.fd, value + got, PROP_VALUE_MAX - 1 - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    value[got] = '\0';
    return static_cast<int>(strlen(value));  // a NUL inside the file ends the value
}

int write_all(int fd, const char *buf, size_t len) {
    while (len > 0) {
        ssize_t n = write(fd, buf, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return -1;
        buf += n;
        len -= static_cast<size_t>(n);
    }
    return 0;
}

}  // namespace

int __system_property_get(const char *name, char *value) {
    if (value == nullptr) return 0;
    return read_value(name, value);
}

int property_get(const char *key, char *value, const char *default_value) {
    if (value == nullptr) return 0;
    int len = read_value(key, value);
    if (len > 0) return len;
    if (default_value == nullptr) {
        value[0] = '\0';
        return 0;
    }
    snprintf(value, PROPERTY_VALUE_MAX, "%s", default_value);
    return static_cast<int>(strlen(value));
}

int property_set(const char *key, const char *value) {
    if (value == nullptr) value = "";
    size_t len = strlen(value);
    if (len >= PROPERTY_VALUE_MAX) return -1;  // as on the phone: over-long values are refused
    char dir[ATCMD_ROOTED_PATH_MAX];
    char path[ATCMD_ROOTED_PATH_MAX];
    char tmp[ATCMD_ROOTED_PATH_MAX + 32];
    if (key_path(key, path, sizeof path) != 0 || store_dir(dir, sizeof dir) != 0) return -1;
    if (make_dirs(dir) != 0) return -1;
    snprintf(tmp, sizeof tmp, "%s/.%s.%d.%d.tmp", dir, key, (int)getpid(), atcmd_thread_id());
    {
        Fd file{open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)};
        if (file.fd < 0) return -1;
        if (write_all(file.fd, value, len) != 0) {
            unlink(tmp);
            return -1;
        }
    }
    if (rename(tmp, path) != 0) {
        unlink(tmp);
        return -1;
    }
    return 0;
}
