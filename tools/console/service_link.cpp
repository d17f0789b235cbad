/*
 * The console's choice of module: the service's, reached through IAtCmd, where the device
 * declares the service; its own, loaded from the library, elsewhere. On the phone the forwarding
 * device's operations run on the console's main thread and its messages arrive on binder
 * threads; g_remote is written once at connection and then only read.
 */
#include "console/service_link.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "service/service_names.h"
#include "sim/sim_util.h"

#ifdef __ANDROID__
#include <aidl/vendor/quorvanta/atcmd/BnAtCmdCallback.h>
#include <aidl/vendor/quorvanta/atcmd/IAtCmd.h>
#include <android/binder_manager.h>
#include <android/binder_process.h>

#include "console/console.h"
#endif

namespace atcmd_tools {

namespace {

#ifndef __ANDROID__
constexpr const char kManifestDir[] = "/vendor/etc/vintf/manifest";
constexpr const char kManifest[] = "/vendor/etc/vintf/manifest.xml";

// The trimmed text of each <tag>...</tag> in `text`, in order.
std::vector<std::string> elements(const std::string &text, const std::string &tag) {
    std::vector<std::string> out;
    const std::string open = "<" + tag + ">", close = "</" + tag + ">";
    for (size_t at = text.find(open); at != std::string::npos; at = text.find(open, at)) {
        const size_t from = at + open.size(), to = text.find(close, from);
        if (to == std::string::npos) break;
        std::string inner = text.substr(from, to - from);
        inner.erase(0, inner.find_first_not_of(" \t\r\n"));
        inner.erase(inner.find_last_not_of(" \t\r\n") + 1);
        out.push_back(inner);
        at = to + close.size();
    }
    return out;
}

bool holds(const std::vector<std::string> &values, const std::string &value) {
    return std::find(values.begin(), values.end(), value) != values.end();
}

// Whether a VINTF manifest's text declares the service's instance: an AIDL <hal> with the
// package's name and the instance, as <fqname> or as <interface><name>/<instance>.
bool manifest_declares(std::string text) {
    for (size_t at = text.find("<!--"); at != std::string::npos; at = text.find("<!--", at)) {
        const size_t end = text.find("-->", at + 4);
        text.erase(at, end == std::string::npos ? std::string::npos : end + 3 - at);
    }
    for (size_t at = text.find("<hal"); at != std::string::npos; at = text.find("<hal", at + 4)) {
        const size_t tag_end = text.find('>', at);
        const size_t hal_end = text.find("</hal>", at);
        if (tag_end == std::string::npos || hal_end == std::string::npos) break;
        const std::string tag = text.substr(at, tag_end - at);
        if (tag.size() < 5 || !isspace(static_cast<unsigned char>(tag[4])) ||
            tag.find("format=\"aidl\"") == std::string::npos) {
            continue;
        }
        const std::string block = text.substr(tag_end + 1, hal_end - tag_end - 1);
        if (!holds(elements(block, "name"), atcmd_service::kPackage)) continue;
        if (holds(elements(block, "fqname"), std::string(atcmd_service::kInterface) + "/default")) return true;
        for (const std::string &iface : elements(block, "interface")) {
            if (holds(elements(iface, "name"), atcmd_service::kInterface) &&
                holds(elements(iface, "instance"), "default")) {
                return true;
            }
        }
    }
    return false;
}

bool read_whole(const std::string &path, std::string *text) {
    FILE *f = fopen(path.c_str(), "re");
    if (f == nullptr) return false;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) text->append(buf, n);
    fclose(f);
    return true;
}

// The desk's stand-in for the service manager's declaration: the device manifest and its
// fragments, under the sandbox root.
bool manifest_files_declare(std::string *where) {
    std::vector<std::string> files = {rooted(kManifest)};
    const std::string dir = rooted(kManifestDir);
    if (DIR *d = opendir(dir.c_str())) {
        while (const dirent *e = readdir(d)) {
            const std::string n = e->d_name;
            if (n.size() > 4 && n.compare(n.size() - 4, 4, ".xml") == 0) files.push_back(dir + "/" + n);
        }
        closedir(d);
    }
    std::sort(files.begin() + 1, files.end());
    for (const std::string &f : files) {
        std::string text;
        if (!f.empty() && read_whole(f, &text) && manifest_declares(text)) {
            *where = f;
            return true;
        }
    }
    return false;
}

#else  // __ANDROID__

using aidl::vendor::quorvanta::atcmd::AtCmdMessage;
using aidl::vendor::quorvanta::atcmd::AtCmdRecord;
using aidl::vendor::quorvanta::atcmd::AtCmdStatus;
using aidl::vendor::quorvanta::atcmd::BnAtCmdCallback;
using aidl::vendor::quorvanta::atcmd::IAtCmd;

// Ids the forwarding device reports when the service did not answer (it died, or refused).
constexpr int kNoReply = -EPIPE;

struct Remote {
    std::shared_ptr<IAtCmd> service;
    atcmdprocess_device_t dev = {};  // what the console drives; its operations forward
    hw_module_t hmi = {};
    atcmdprocess_notify_cb notify = nullptr;
};
Remote g_remote;

// Copies the service's state into the forwarding device, where the console reads it.
void refresh_status() {
    AtCmdStatus s;
    if (!g_remote.service->getStatus(&s).isOk()) return;
    g_remote.dev.system_status = {s.platform, s.mode, s.wifiStatus, s.phoneState};
    g_remote.dev.usb_status = s.usbStatus;
    g_remote.dev.usb_connected = s.usbConnected;
}

int reply(const ndk::ScopedAStatus &status, int32_t result) {
    refresh_status();
    return status.isOk() ? result : kNoReply;
}

// The module's message rebuilt from its copy, so that the console decodes it as it decodes the
// module's own: the copy, zero-padded to the widest value.
class ConsoleCallback : public BnAtCmdCallback {
public:
    ndk::ScopedAStatus onMessage(const AtCmdMessage &m) override {
        std::vector<uint8_t> bytes(m.data.begin(), m.data.end());
        bytes.resize(std::max<size_t>(bytes.size(), CORVEL_VER_BLOCK_SIZE) + 1, 0);
        const AT_CMD_CbMsg_t msg = {static_cast<uint16_t>(m.msgId), static_cast<uint16_t>(m.seqNum),
                                    m.hasData ? bytes.data() : nullptr};
        refresh_status();
        if (g_remote.notify != nullptr) g_remote.notify(&msg);
        return ndk::ScopedAStatus::ok();
    }
};

// Without the callback the console would print nothing the module says: it does not start.
int remote_set_callback(atcmdprocess_device_t *, atcmdprocess_notify_cb cb) {
    g_remote.notify = cb;
    static const std::shared_ptr<ConsoleCallback> callback = ndk::SharedRefBase::make<ConsoleCallback>();
    const ndk::ScopedAStatus status = g_remote.service->setCallback(callback);
    if (!status.isOk()) {
        fprintf(stderr, "error: %s refused the console's callback (%s): another client holds it\n",
                atcmd_service::kInstance, status.getDescription().c_str());
        console_cleanup();
        _exit(kExitNoModule);
    }
    return reply(status, 0);
}

int remote_send(const AtCmder_t *cmd) {
    AtCmdRecord r;
    r.type = cmd->type;
    r.source = cmd->source;
    r.dest = cmd->dest;
    r.flag = cmd->flag;
    r.resendTimes = cmd->resendtimes;
    r.cmdId = cmd->cmd_id;
    r.seqNum = cmd->seq_num;
    r.line = cmd->data != nullptr ? cmd->data : "";
    int32_t result = 0;
    return reply(g_remote.service->sendCommand(r, &result), result);
}

int remote_wifi_init(const char *ip) {
    int32_t result = 0;
    return reply(g_remote.service->wifiInit(ip, &result), result);
}

int remote_wifi_stchange(int32_t state) {
    int32_t result = 0;
    return reply(g_remote.service->wifiStateChange(state, &result), result);
}

int remote_daemon_stchange(const char *status) {
    int32_t result = 0;
    return reply(g_remote.service->daemonStatusChange(status, &result), result);
}

int remote_shake_hands() {
    int32_t result = 0;
    return reply(g_remote.service->shakeHands(&result), result);
}

// Closing the service's device ends the service; the console ends with it, as it does when it
// closes its own module.
int remote_close(hw_device_t *) {
    g_remote.service->close();  // a dead-object status: the service is gone
    console_quit();
}

bool service_connect(LoadedModule *out, std::string *error) {
    ABinderProcess_setThreadPoolMaxThreadCount(1);
    ABinderProcess_startThreadPool();  // the service's messages arrive on this thread
    g_remote.service = IAtCmd::fromBinder(ndk::SpAIBinder(AServiceManager_waitForService(atcmd_service::kInstance)));
    if (g_remote.service == nullptr) {
        *error = std::string(atcmd_service::kInstance) + " is declared but could not be reached";
        return false;
    }
    g_remote.hmi.tag = HARDWARE_MODULE_TAG;
    g_remote.hmi.id = ATCMDPROCESS_HARDWARE_MODULE_ID;
    g_remote.hmi.name = "At cmd process HAL, hosted by vendor.atcmd-service";
    atcmdprocess_device_t &d = g_remote.dev;
    d.common.tag = HARDWARE_DEVICE_TAG;
    d.common.module = &g_remote.hmi;
    d.common.close = remote_close;
    d.set_notify_callback = remote_set_callback;
    d.atcmdprocess_cmd_from_hidl = remote_send;
    d.atcmdprocess_wifi_init = remote_wifi_init;
    d.atcmdprocess_wifi_stchange = remote_wifi_stchange;
    d.atcmdprocess_hiddemon_stchange = remote_daemon_stchange;
    d.atcmdprocess_amlogic_shake_hands = remote_shake_hands;
    refresh_status();
    out->handle = nullptr;  // no library of its own: the module's names are the service's
    out->hmi = &g_remote.hmi;
    out->dev = &d;
    out->path = std::string("service ") + atcmd_service::kInstance;
    return true;
}

#endif  // __ANDROID__

}  // namespace

bool service_declared(std::string *where) {
#ifdef __ANDROID__
    *where = "the device's VINTF manifest";
    return AServiceManager_isDeclared(atcmd_service::kInstance);
#else
    return manifest_files_declare(where);
#endif
}

bool link_module(const std::string &explicit_path, int log_level, LoadedModule *out, std::string *error) {
    std::string where;
    if (!service_declared(&where)) return load_module(explicit_path, log_level, out, error);
#ifdef __ANDROID__
    (void)explicit_path;
    (void)log_level;  // the service's module keeps its own level
    return service_connect(out, error);
#else
    *error = std::string(atcmd_service::kInstance) + " is declared (" + where +
             "): the service hosts the module, and a second one beside it would fight it for the port, the "
             "FIFOs and the properties; this console opens none (on the phone it is the service's client)";
    return false;
#endif
}

}  // namespace atcmd_tools
