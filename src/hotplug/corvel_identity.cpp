/*
 * Recognition of the accessory's own ACM port: the "PRODUCT=" line of the port's sysfs uevent
 * file must carry the accessory's vendor and product id. Runs on the supervisor when it looks
 * at the ports under "/dev"; reads g_dev_ACM_name, writes nothing.
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "device/sys_io.h"
#include "hotplug/hotplug.h"
#include "hotplug/hotplug_internal.h"
#include "log/atcmd_log.h"
#include "platform/root_path.h"

namespace {

constexpr size_t kNodePathSize = 128;  // the uevent path as written
constexpr size_t kUeventBufSize = 1024;
constexpr size_t kMatchSize = 32;
constexpr char kProductKey[] = "PRODUCT=";
constexpr char kCorvelVendorId[] = "7a1d";
constexpr char kCorvelProductId[] = "5101";

// "/sys/class/tty/<name>/device/uevent"; false when it does not fit.
bool uevent_path(const char *name, char *out, size_t size) {
    const int n = snprintf(out, size, "/sys/class/tty/%s/device/uevent", name);
    if (n > 0 && static_cast<size_t>(n) < size) return true;
    // A truncated path would name some other node; such a port cannot be the accessory's.
    ATCMD_LOG_AS("corvel_plugged", LOG_TAG, ATCMD_LEVEL_ERROR,
                 "uevent path of %s does not fit %zu bytes, ignored", name, size);
    return false;
}

// Reads at most size - 1 bytes once; the text is always terminated. False when nothing opened.
bool read_uevent(const char *as_written, char *text, size_t size) {
    const UniqueFd fd(atcmd_open_rooted(as_written, O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        ATCMD_LOG_AS("corvel_plugged", LOG_TAG, ATCMD_LEVEL_ERROR, "open node fail.");
        return false;
    }
    const ssize_t n = retry_eintr([&] { return read(fd.get(), text, size - 1); });
    if (n < 0) {
        ATCMD_LOG_AS("corvel_plugged", LOG_TAG, ATCMD_LEVEL_ERROR, "read of %s failed: %s",
                     as_written, strerror(errno));
        return false;
    }
    text[n] = '\0';
    ATCMD_LOG_AS("corvel_plugged", LOG_TAG, ATCMD_LEVEL_DETAIL, "buf_read %s", text);
    return true;
}

}  // namespace

int corvel_plugged(void) {
    char name[sizeof g_dev_ACM_name];
    {
        std::lock_guard<std::mutex> lock(g_dev_ACM_name_mutex);
        memcpy(name, g_dev_ACM_name, sizeof name);
    }
    name[sizeof name - 1] = '\0';
    return corvel_port_matches(name);
}

int corvel_port_matches(const char *name) {
    char node[kNodePathSize] = {};
    if (!uevent_path(name, node, sizeof node)) return 0;
    ATCMD_LOG_AS("corvel_plugged", LOG_TAG, ATCMD_LEVEL_DETAIL, "ttyACM node name:%s", node);
    char text[kUeventBufSize] = {};
    if (!read_uevent(node, text, sizeof text)) return 0;
    char match[kMatchSize] = {};
    snprintf(match, sizeof match, "%s%s/%s", kProductKey, kCorvelVendorId, kCorvelProductId);
    ATCMD_LOG_AS("corvel_plugged", LOG_TAG, ATCMD_LEVEL_DETAIL, "buf_match %s", match);
    return strstr(text, match) != nullptr ? 1 : 0;
}
