/*
 * The service's logic: the hosted device, the one registered client and the relay of notify
 * messages to it. Binder threads run the operations and the registration; the module's threads
 * (dispatch, time-out, supervisor, receive) run the relay, several at once. Writes g_client.
 */
#include "service/service_core.h"

#include <dlfcn.h>
#include <errno.h>
#include <string.h>

#include <mutex>

#include <android/log.h>

#include "device/link_words.h"
#include "service/service_names.h"
#include "sim/messages.h"

#define SERVICE_LOG(prio, ...) __android_log_print(prio, atcmd_service::kLogTag, __VA_ARGS__)

namespace atcmd_service {

namespace {

constexpr int32_t kMaxByte = 255;
constexpr int32_t kMaxSeq = 65535;

// Set once by core_start, before any client can call; read by every operation.
atcmdprocess_device_t *g_dev = nullptr;
atcmdprocess_set_bt_macaddr_fn g_set_bt_macaddr = nullptr;

// Guards g_client. The relay holds it while it delivers, so that once a client is dropped no
// delivery to it is under way. Taken after the module's own locks (the time-out thread calls the
// relay holding its queue lock); nothing calls into the module while holding it.
std::mutex g_client_mutex;
Client g_client;

// Copies what the module's message points to while the call lasts, and hands it on.
void relay(const AT_CMD_CbMsg_t *msg) {
    CopiedMessage copy;
    copy.msg_id = msg->msg_id;
    copy.seq_num = msg->seq_num;
    copy.has_data = msg->data != nullptr;
    const size_t n = atcmd_tools::message_data_size(msg);
    const auto *bytes = static_cast<const uint8_t *>(msg->data);
    if (n > 0) copy.data.assign(bytes, bytes + n);
    std::lock_guard<std::mutex> lock(g_client_mutex);
    if (g_client.deliver == nullptr) {
        SERVICE_LOG(ANDROID_LOG_INFO, "message %u seq %u dropped: no client registered", copy.msg_id,
                    copy.seq_num);
        return;
    }
    g_client.deliver(g_client.ctx, copy);
}

void release(const Client &c) {
    if (c.release != nullptr) c.release(c.ctx);
}

bool in_range(int32_t v, int32_t max) { return v >= 0 && v <= max; }

Outcome refused(const char *op, const char *why) {
    SERVICE_LOG(ANDROID_LOG_ERROR, "%s refused: %s", op, why);
    return {false, -EINVAL};
}

Outcome no_device(const char *op) {
    SERVICE_LOG(ANDROID_LOG_ERROR, "%s: no device", op);
    return {true, -ENODEV};
}

}  // namespace

bool core_start(atcmdprocess_device_t *dev, void *dso) {
    if (dev == nullptr) {
        SERVICE_LOG(ANDROID_LOG_ERROR, "no device to serve");
        return false;
    }
    g_dev = dev;
    // Not a device operation: the device object's layout is the module's fixed contract, so the
    // hand-over is a name the module exports. A module without it still serves everything else.
    g_set_bt_macaddr = dso != nullptr ? reinterpret_cast<atcmdprocess_set_bt_macaddr_fn>(
                                            dlsym(dso, ATCMDPROCESS_SET_BT_MACADDR_SYM))
                                      : nullptr;
    if (g_set_bt_macaddr == nullptr) {
        SERVICE_LOG(ANDROID_LOG_ERROR, "the module has no %s: Bluetooth address hand-over refused",
                    ATCMDPROCESS_SET_BT_MACADDR_SYM);
    }
    dev->set_notify_callback(dev, relay);
    return true;
}

RegisterResult core_register(const Client &c) {
    Client old;
    RegisterResult result = RegisterResult::kRegistered;
    {
        std::lock_guard<std::mutex> lock(g_client_mutex);
        if (g_client.deliver != nullptr && g_client.id != c.id) {
            result = RegisterResult::kBusy;
        } else {
            if (g_client.deliver != nullptr) result = RegisterResult::kAlreadyRegistered;
            old = g_client;
            g_client = c;
        }
    }
    if (result == RegisterResult::kBusy) {
        SERVICE_LOG(ANDROID_LOG_ERROR, "callback refused: another client is registered");
        release(c);
        return result;
    }
    release(old);
    SERVICE_LOG(ANDROID_LOG_INFO, "client registered%s",
                result == RegisterResult::kAlreadyRegistered ? " again" : "");
    return result;
}

void core_unregister(uintptr_t id) {
    Client old;
    {
        std::lock_guard<std::mutex> lock(g_client_mutex);
        if (g_client.deliver == nullptr || g_client.id != id) return;
        old = g_client;
        g_client = Client{};
    }
    release(old);
    SERVICE_LOG(ANDROID_LOG_INFO, "client dropped; another may register");
}

bool core_has_client() {
    std::lock_guard<std::mutex> lock(g_client_mutex);
    return g_client.deliver != nullptr;
}

Outcome core_send_command(const CommandIn &cmd) {
    if (g_dev == nullptr) return no_device(__func__);
    const int32_t bytes[] = {cmd.type, cmd.source, cmd.dest, cmd.flag, cmd.resend_times, cmd.cmd_id};
    for (int32_t b : bytes) {
        if (!in_range(b, kMaxByte)) return refused(__func__, "a record field is outside 0..255");
    }
    if (!in_range(cmd.seq_num, kMaxSeq)) return refused(__func__, "seqNum is outside 0..65535");
    if (cmd.line.size() >= AT_LINE_BUF_SIZE || memchr(cmd.line.data(), '\0', cmd.line.size()) != nullptr) {
        return refused(__func__, "the line is 160 bytes or longer, or holds a NUL");
    }
    AtCmder_t record = {};
    record.type = static_cast<uint8_t>(cmd.type);
    record.source = static_cast<uint8_t>(cmd.source);
    record.dest = static_cast<uint8_t>(cmd.dest);
    record.flag = static_cast<uint8_t>(cmd.flag);
    record.resendtimes = static_cast<uint8_t>(cmd.resend_times);
    record.cmd_id = static_cast<uint8_t>(cmd.cmd_id);
    record.seq_num = static_cast<uint16_t>(cmd.seq_num);
    char line[AT_LINE_BUF_SIZE] = {};
    memcpy(line, cmd.line.data(), cmd.line.size());
    record.data = line;
    return {true, g_dev->atcmdprocess_cmd_from_hidl(&record)};
}

Outcome core_wifi_init(const std::string &ip) {
    if (g_dev == nullptr) return no_device(__func__);
    return {true, g_dev->atcmdprocess_wifi_init(ip.c_str())};
}

Outcome core_wifi_state_change(int32_t state) {
    if (g_dev == nullptr) return no_device(__func__);
    return {true, g_dev->atcmdprocess_wifi_stchange(state)};
}

Outcome core_daemon_status(const std::string &status) {
    if (g_dev == nullptr) return no_device(__func__);
    return {true, g_dev->atcmdprocess_hiddemon_stchange(status.c_str())};
}

Outcome core_shake_hands() {
    if (g_dev == nullptr) return no_device(__func__);
    return {true, g_dev->atcmdprocess_amlogic_shake_hands()};
}

Outcome core_set_bt_address(const std::string &mac) {
    if (g_set_bt_macaddr == nullptr) return refused(__func__, "the module takes no Bluetooth address");
    const int result = g_set_bt_macaddr(mac.c_str());  // the module logs what it refuses
    return {result == 0, result};
}

Status core_status() {
    if (g_dev == nullptr) return {0, AT_MODE_NONE, -1, 0, -1, -1};
    // The module's threads change these words as links come and go: read each whole.
    const auto &s = g_dev->system_status;
    return {link_load(s.platform), link_load(s.mode), link_load(s.wifi_status), link_load(s.phone_state),
            link_load(g_dev->usb_status), link_load(g_dev->usb_connected)};
}

void core_close() {
    if (g_dev == nullptr) {
        SERVICE_LOG(ANDROID_LOG_ERROR, "close: no device");
        return;
    }
    SERVICE_LOG(ANDROID_LOG_INFO, "closing the device: the service ends, init starts it again");
    g_dev->common.close(&g_dev->common);
}

}  // namespace atcmd_service
