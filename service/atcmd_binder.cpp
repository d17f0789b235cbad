/*
 * The binder glue: IAtCmd calls go to the core as they come, on binder threads; the registered
 * client's callback receives the core's copies on the module's threads, one-way, so the module
 * never waits for a client. A client's death drops its callback through a death recipient whose
 * cookie is freed when the link goes (at death or at unlink).
 */
#include "service/atcmd_binder.h"

#include <errno.h>

#include <memory>
#include <string>

#include <aidl/vendor/quorvanta/atcmd/BnAtCmd.h>
#include <android/binder_ibinder.h>
#include <android/binder_manager.h>
#include <android/log.h>

#include "service/service_core.h"
#include "service/service_names.h"

#define SERVICE_LOG(prio, ...) __android_log_print(prio, atcmd_service::kLogTag, __VA_ARGS__)

namespace atcmd_service {

namespace {

using aidl::vendor::quorvanta::atcmd::AtCmdMessage;
using aidl::vendor::quorvanta::atcmd::AtCmdRecord;
using aidl::vendor::quorvanta::atcmd::AtCmdStatus;
using aidl::vendor::quorvanta::atcmd::BnAtCmd;
using aidl::vendor::quorvanta::atcmd::IAtCmd;
using aidl::vendor::quorvanta::atcmd::IAtCmdCallback;

// The death link's cookie: the client's id only. Freed by on_unlinked, which binder calls once
// the link is gone, after a death or after AIBinder_unlinkToDeath.
struct DeathCookie {
    uintptr_t id;
};

// What the core's Client carries for one registered callback.
struct CallbackLink {
    std::shared_ptr<IAtCmdCallback> callback;
    AIBinder_DeathRecipient *recipient;  // the service's one recipient, never freed
    DeathCookie *cookie;                 // owned by the death link, see DeathCookie
};

void on_client_died(void *cookie) {
    const uintptr_t id = static_cast<DeathCookie *>(cookie)->id;
    SERVICE_LOG(ANDROID_LOG_INFO, "the client died");
    core_unregister(id);
}

void on_unlinked(void *cookie) { delete static_cast<DeathCookie *>(cookie); }

void deliver(void *ctx, const CopiedMessage &m) {
    AtCmdMessage out;
    out.msgId = m.msg_id;
    out.seqNum = m.seq_num;
    out.hasData = m.has_data;
    out.data.assign(m.data.begin(), m.data.end());
    const ndk::ScopedAStatus status = static_cast<CallbackLink *>(ctx)->callback->onMessage(out);
    if (!status.isOk()) {
        SERVICE_LOG(ANDROID_LOG_ERROR, "message %u not delivered: %s", m.msg_id,
                    status.getDescription().c_str());
    }
}

void release(void *ctx) {
    auto *link = static_cast<CallbackLink *>(ctx);
    // Fails harmlessly when the client already died (the link is gone, its cookie freed).
    AIBinder_unlinkToDeath(link->callback->asBinder().get(), link->recipient, link->cookie);
    delete link;
}

ndk::ScopedAStatus from_outcome(const Outcome &o, int32_t *result) {
    if (!o.accepted) return ndk::ScopedAStatus::fromExceptionCode(EX_ILLEGAL_ARGUMENT);
    *result = o.result;
    return ndk::ScopedAStatus::ok();
}

class AtCmdService : public BnAtCmd {
public:
    AtCmdService() : recipient_(AIBinder_DeathRecipient_new(on_client_died)) {
        AIBinder_DeathRecipient_setOnUnlinked(recipient_, on_unlinked);
    }

    ndk::ScopedAStatus setCallback(const std::shared_ptr<IAtCmdCallback> &callback) override {
        if (callback == nullptr) return ndk::ScopedAStatus::fromExceptionCode(EX_NULL_POINTER);
        AIBinder *binder = callback->asBinder().get();
        auto *cookie = new DeathCookie{reinterpret_cast<uintptr_t>(binder)};
        if (AIBinder_linkToDeath(binder, recipient_, cookie) != STATUS_OK) {
            delete cookie;  // never linked, so on_unlinked will not free it
            SERVICE_LOG(ANDROID_LOG_ERROR, "callback refused: its client is already dead");
            return ndk::ScopedAStatus::fromStatus(STATUS_DEAD_OBJECT);
        }
        auto *link = new CallbackLink{callback, recipient_, cookie};
        const Client client{cookie->id, deliver, release, link};
        if (core_register(client) == RegisterResult::kBusy) {  // the core released the link
            return ndk::ScopedAStatus::fromExceptionCode(EX_ILLEGAL_STATE);
        }
        return ndk::ScopedAStatus::ok();
    }

    ndk::ScopedAStatus clearCallback(const std::shared_ptr<IAtCmdCallback> &callback) override {
        if (callback != nullptr) core_unregister(reinterpret_cast<uintptr_t>(callback->asBinder().get()));
        return ndk::ScopedAStatus::ok();
    }

    ndk::ScopedAStatus sendCommand(const AtCmdRecord &r, int32_t *result) override {
        return from_outcome(core_send_command({r.type, r.source, r.dest, r.flag, r.resendTimes, r.cmdId,
                                               r.seqNum, r.line}),
                            result);
    }

    ndk::ScopedAStatus wifiInit(const std::string &ip, int32_t *result) override {
        return from_outcome(core_wifi_init(ip), result);
    }

    ndk::ScopedAStatus wifiStateChange(int32_t state, int32_t *result) override {
        return from_outcome(core_wifi_state_change(state), result);
    }

    ndk::ScopedAStatus daemonStatusChange(const std::string &status, int32_t *result) override {
        return from_outcome(core_daemon_status(status), result);
    }

    ndk::ScopedAStatus shakeHands(int32_t *result) override { return from_outcome(core_shake_hands(), result); }

    ndk::ScopedAStatus setBluetoothAddress(const std::string &address) override {
        int32_t result = 0;  // 0 whenever the module took the address
        return from_outcome(core_set_bt_address(address), &result);
    }

    ndk::ScopedAStatus getStatus(AtCmdStatus *out) override {
        const Status s = core_status();
        out->platform = s.platform;
        out->mode = s.mode;
        out->wifiStatus = s.wifi_status;
        out->phoneState = s.phone_state;
        out->usbStatus = s.usb_status;
        out->usbConnected = s.usb_connected;
        return ndk::ScopedAStatus::ok();
    }

    ndk::ScopedAStatus close() override {
        core_close();  // ends the process; the caller sees a dead object
        return ndk::ScopedAStatus::fromServiceSpecificError(ENODEV);
    }

private:
    AIBinder_DeathRecipient *recipient_;  // one for every client; lives as long as the process
};

}  // namespace

bool binder_register_service() {
    const std::string instance = std::string(IAtCmd::descriptor) + "/default";
    if (instance != kInstance) {
        SERVICE_LOG(ANDROID_LOG_ERROR, "instance %s differs from %s", instance.c_str(), kInstance);
        return false;
    }
    // Made once and never released: the service lives as long as the process.
    static const std::shared_ptr<AtCmdService> service = ndk::SharedRefBase::make<AtCmdService>();
    const binder_exception_t e = AServiceManager_addService(service->asBinder().get(), kInstance);
    if (e != EX_NONE) {
        SERVICE_LOG(ANDROID_LOG_ERROR, "could not register %s (exception %d)", kInstance, e);
        return false;
    }
    SERVICE_LOG(ANDROID_LOG_INFO, "%s registered, version %d", kInstance, kVersion);
    return true;
}

}  // namespace atcmd_service
