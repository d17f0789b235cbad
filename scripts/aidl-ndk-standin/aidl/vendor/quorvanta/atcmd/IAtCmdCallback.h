/*
 * STAND-IN for the compile check only (scripts/android-check.py); never built into anything.
 * Mirrors the declarations the platform's AIDL compiler (Android 14, NDK backend) generates for
 * the interface IAtCmdCallback of vendor.quorvanta.atcmd version 1 (interfaces/atcmd/aidl), so that the service and
 * the console compile against bionic and the binder NDK headers without that compiler. It
 * declares; it defines nothing the generated .cpp would. A platform build uses the generated
 * header of the same name instead. scripts/aidl-ndk-standin/README.md says how it is kept.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <android/binder_interface_utils.h>
#include <android/binder_parcel_utils.h>
#include <android/binder_parcelable_utils.h>
#include <android/binder_to_string.h>
#ifdef BINDER_STABILITY_SUPPORT
#include <android/binder_stability.h>
#endif  // BINDER_STABILITY_SUPPORT

#include <aidl/vendor/quorvanta/atcmd/AtCmdMessage.h>

namespace aidl {
namespace vendor {
namespace quorvanta {
namespace atcmd {
class IAtCmdCallbackDelegator;

class IAtCmdCallback : public ::ndk::ICInterface {
public:
  typedef IAtCmdCallbackDelegator DefaultDelegator;
  static const char* descriptor;
  IAtCmdCallback();
  virtual ~IAtCmdCallback();

  static inline const int32_t version = 1;
  static inline const std::string hash = "b50d4fd0994592a9aee2696490f535ac42ba27ef";
  static constexpr uint32_t TRANSACTION_onMessage = FIRST_CALL_TRANSACTION + 0;
  static constexpr uint32_t TRANSACTION_getInterfaceVersion = 16777214;
  static constexpr uint32_t TRANSACTION_getInterfaceHash = 16777213;

  static std::shared_ptr<IAtCmdCallback> fromBinder(const ::ndk::SpAIBinder& binder);
  static binder_status_t writeToParcel(AParcel* parcel, const std::shared_ptr<IAtCmdCallback>& instance);
  static binder_status_t readFromParcel(const AParcel* parcel, std::shared_ptr<IAtCmdCallback>* instance);
  static bool setDefaultImpl(const std::shared_ptr<IAtCmdCallback>& impl);
  static const std::shared_ptr<IAtCmdCallback>& getDefaultImpl();
  virtual ::ndk::ScopedAStatus onMessage(const ::aidl::vendor::quorvanta::atcmd::AtCmdMessage& in_message) = 0;
  virtual ::ndk::ScopedAStatus getInterfaceVersion(int32_t* _aidl_return) = 0;
  virtual ::ndk::ScopedAStatus getInterfaceHash(std::string* _aidl_return) = 0;
private:
  static std::shared_ptr<IAtCmdCallback> default_impl;
};

class IAtCmdCallbackDefault : public IAtCmdCallback {
public:
  ::ndk::ScopedAStatus onMessage(const ::aidl::vendor::quorvanta::atcmd::AtCmdMessage& in_message) override;
  ::ndk::ScopedAStatus getInterfaceVersion(int32_t* _aidl_return) override;
  ::ndk::ScopedAStatus getInterfaceHash(std::string* _aidl_return) override;
  ::ndk::SpAIBinder asBinder() override;
  bool isRemote() override;
};
}  // namespace atcmd
}  // namespace quorvanta
}  // namespace vendor
}  // namespace aidl
