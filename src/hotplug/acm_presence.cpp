/*
 * What is under "/dev" for the USB link: whether the port the module holds is still the same
 * live port, and which entry, if any, is the accessory's port now. Runs on the supervisor only,
 * which compares this with what the module holds; keeps the identity of entries already found
 * foreign or unopenable so that they are not read and logged again on every look.
 */
#define LOG_TAG "ATCMD_HOTPLUG"

#include <dirent.h>
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <sys/stat.h>

#include <array>

#include "hotplug/hotplug.h"
#include "log/atcmd_log.h"
#include "platform/root_path.h"
#include "serial/serial.h"

namespace {

constexpr char kDevDir[] = "/dev";
constexpr short kPortGone = POLLHUP | POLLERR | POLLNVAL;

// An entry as it stands: a node made anew (a re-plug, even under the same name) differs.
// The fields take stat's own types: on 32-bit bionic st_dev and st_ino are wider than dev_t.
struct EntryId {
    int32_t number = -1;
    decltype(stat::st_dev) dev = 0;
    decltype(stat::st_ino) ino = 0;
    bool operator==(const EntryId &o) const {
        return number == o.number && dev == o.dev && ino == o.ino;
    }
};

// Entries found foreign or unopenable, oldest overwritten first. Supervisor thread only.
std::array<EntryId, 8> g_passed_over;
size_t g_passed_over_next = 0;

bool port_path(int32_t number, char *out, size_t size) {
    char as_written[32];
    snprintf(as_written, sizeof as_written, "%s%ld", ATCMD_VUART_PATH_PREFIX,
             static_cast<long>(number));
    return atcmd_root_path(as_written, out, size) == 0;
}

// The entry "/dev/ttyACM<n>" itself (not what a link leads to); false when there is none or it
// is a directory, which is no port.
bool entry_id(int32_t number, EntryId *id) {
    char path[ATCMD_ROOTED_PATH_MAX];
    struct stat st;
    if (!port_path(number, path, sizeof path) || lstat(path, &st) != 0 || S_ISDIR(st.st_mode)) {
        return false;
    }
    *id = EntryId{number, st.st_dev, st.st_ino};
    return true;
}

bool passed_over(const EntryId &id) {
    for (const EntryId &p : g_passed_over) {
        if (p == id) return true;
    }
    return false;
}

void pass_over(const EntryId &id) {
    g_passed_over[g_passed_over_next] = id;
    g_passed_over_next = (g_passed_over_next + 1) % g_passed_over.size();
}

}  // namespace

bool acm_is_accessory_port(int32_t number) {
    EntryId id;
    if (!entry_id(number, &id) || passed_over(id)) return false;
    char name[32];
    snprintf(name, sizeof name, "ttyACM%ld", static_cast<long>(number));
    if (corvel_port_matches(name) == 1) return true;
    pass_over(id);
    return false;
}

bool acm_port_alive(int32_t number, int fd) {
    struct pollfd p = {fd, POLLIN, 0};
    int n;
    do {
        n = poll(&p, 1, 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0 || (p.revents & kPortGone) != 0) return false;
    char path[ATCMD_ROOTED_PATH_MAX];
    struct stat held, now;
    if (fstat(fd, &held) != 0 || !port_path(number, path, sizeof path) || stat(path, &now) != 0) {
        return false;
    }
    return held.st_dev == now.st_dev && held.st_ino == now.st_ino && held.st_rdev == now.st_rdev;
}

int32_t acm_find_accessory_port(int32_t preferred) {
    if (preferred >= 0 && acm_is_accessory_port(preferred)) return preferred;
    char path[ATCMD_ROOTED_PATH_MAX];
    DIR *dir = atcmd_root_path(kDevDir, path, sizeof path) == 0 ? opendir(path) : nullptr;
    if (dir == nullptr) return -1;
    int32_t found = -1;
    while (const struct dirent *entry = readdir(dir)) {
        const int32_t n = acm_port_number(entry->d_name);
        if (n >= 0 && n != preferred && acm_is_accessory_port(n)) {
            found = n;
            break;
        }
    }
    closedir(dir);
    return found;
}

void acm_port_unusable(int32_t number) {
    EntryId id;
    if (entry_id(number, &id)) pass_over(id);
}
