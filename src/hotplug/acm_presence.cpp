/*
 * What is under "/dev" for the USB link: whether the port the module holds is still the same
 * live port, and which entry, if any, is the accessory's port now. Runs on the supervisor only,
 * which compares this with what the module holds; keeps the identity of entries already found
 * foreign or unopenable so that they are not read and logged again on every look. The hotplug
 * thread counts the entries made under each name, which ends such a refusal; an unopenable
 * entry's refusal also ends by time, and the supervisor looks again then (a link whose node
 * appears later is taken without a new entry).
 */
#define LOG_TAG "ATCMD_HOTPLUG"

#include <dirent.h>
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>

#include <array>

#include "device/sys_io.h"
#include "hotplug/hotplug.h"
#include "log/atcmd_log.h"
#include "platform/root_path.h"
#include "serial/serial.h"

namespace {

constexpr char kDevDir[] = "/dev";
constexpr short kPortGone = POLLHUP | POLLERR | POLLNVAL;
// A refusal lasts at most this long even when no new entry is seen (a watch that missed it, a
// link whose node appears later): a name is never given up for good.
constexpr int64_t kRefusalHoldMs = 5000;

// An entry as it stands. A file system may give a new entry the inode the old one had, so the
// number of entries made under the name is part of it: a re-plug always differs.
// The fields take stat's own types: on 32-bit bionic st_dev and st_ino are wider than dev_t.
struct EntryId {
    int32_t number = -1;
    decltype(stat::st_dev) dev = 0;
    decltype(stat::st_ino) ino = 0;
    uint32_t made = 0;
    bool operator==(const EntryId &o) const {
        return number == o.number && dev == o.dev && ino == o.ino && made == o.made;
    }
};

struct Refusal {
    EntryId id;
    int64_t at_ms = 0;
    bool look_again = false;  // the entry could not be opened: looked at again when this ends
};

// Entries made under each name, counted by the hotplug thread in slots by port number (two
// numbers that share a slot only cost a second look); read by the supervisor.
std::array<uint32_t, 64> g_entries_made{};

// Entries found foreign or unopenable, oldest overwritten first; the entry acm_is_accessory_port
// last took for the accessory's, which acm_port_unusable refuses when it fails to open. Both
// supervisor thread only.
std::array<Refusal, 8> g_refused;
size_t g_refused_next = 0;
EntryId g_last_taken;

uint32_t &entries_made(int32_t number) {
    return g_entries_made[static_cast<uint32_t>(number) % g_entries_made.size()];
}

int64_t now_ms(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool port_path(int32_t number, char *out, size_t size) {
    char as_written[32];
    snprintf(as_written, sizeof as_written, "%s%ld", ATCMD_VUART_PATH_PREFIX,
             static_cast<long>(number));
    return atcmd_root_path(as_written, out, size) == 0;
}

// The entry "/dev/ttyACM<n>" itself (not what a link leads to); false when there is none or it
// is a directory, which is no port. The count is read first: an entry made during the look is
// counted after it and so is never taken for the one looked at.
bool entry_id(int32_t number, EntryId *id) {
    const uint32_t made = __atomic_load_n(&entries_made(number), __ATOMIC_ACQUIRE);
    char path[ATCMD_ROOTED_PATH_MAX];
    struct stat st;
    if (!port_path(number, path, sizeof path) || lstat(path, &st) != 0 || S_ISDIR(st.st_mode)) {
        return false;
    }
    *id = EntryId{number, st.st_dev, st.st_ino, made};
    return true;
}

bool refused(const EntryId &id) {
    const int64_t now = now_ms();
    for (const Refusal &r : g_refused) {
        if (r.id == id && now - r.at_ms < kRefusalHoldMs) return true;
    }
    return false;
}

void refuse(const EntryId &id, bool look_again = false) {
    g_refused[g_refused_next] = Refusal{id, now_ms(), look_again};
    g_refused_next = (g_refused_next + 1) % g_refused.size();
}

}  // namespace

bool acm_is_accessory_port(int32_t number) {
    EntryId id;
    if (!entry_id(number, &id) || refused(id)) return false;
    char name[32];
    snprintf(name, sizeof name, "ttyACM%ld", static_cast<long>(number));
    if (corvel_port_matches(name) == 1) {
        g_last_taken = id;
        return true;
    }
    refuse(id);
    return false;
}

bool acm_port_alive(int32_t number, int fd) {
    struct pollfd p = {fd, POLLIN, 0};
    const int n = retry_eintr([&] { return poll(&p, 1, 0); });
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

// The entry as it was looked at before the open: one made since is not refused with it.
void acm_port_unusable(int32_t number) {
    EntryId id = g_last_taken;
    if (id.number == number || entry_id(number, &id)) refuse(id, true);
}

int acm_refusal_ends_in_ms(void) {
    const int64_t now = now_ms();
    int64_t first = -1;
    for (const Refusal &r : g_refused) {
        const int64_t left = r.at_ms + kRefusalHoldMs - now;
        if (!r.look_again || r.id.number < 0 || left < 0) continue;
        if (first < 0 || left < first) first = left;
    }
    return static_cast<int>(first);
}

void acm_entry_made(int32_t number) {
    if (number >= 0) __atomic_add_fetch(&entries_made(number), 1, __ATOMIC_ACQ_REL);
}
