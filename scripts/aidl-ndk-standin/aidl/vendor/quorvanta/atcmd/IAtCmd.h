/*
 * STAND-IN for the compile check only (scripts/android-check.py); never built into anything.
 * Mirrors the declarations the platform's AIDL compiler (Android 14, NDK backend) generates for
 * the interface IAtCmd of vendor.quorvanta.atcmd version 1 (interfaces/atcmd/aidl), so that the service and
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

#include <aidl/vendor/quorvanta/atcmd/AtCmdRecord.h>
#include <aidl/vendor/quorvanta/atcmd/AtCmdStatus.h>
#include <aidl/vendor/quorvanta/atcmd/IAtCmdCallback.h>

namespace aidl {
namespace vendor {
namespace quorvanta {
namespace atcmd {
class IAtCmdDelegator;

class IAtCmd : public ::ndk::ICInterface {
public:
  typedef IAtCmdDelegator DefaultDelegator;
  static const char* descriptor;
  IAtCmd();
  virtual ~IAtCmd();

  static inline const int32_t version = 1;
  static inline const std::string hash = "b50d4fd0994592a9aee2696490f535ac42ba27ef";
  static constexpr uint32_t TRANSACTION_setCallback = FIRST_CALL_TRANSACTION + 0;
  static constexpr uint32_t TRANSACTION_clearCallback = FIRST_CALL_TRANSACTION + 1;
  static constexpr uint32_t TRANSACTION_sendCommand = FIRST_CALL_TRANSACTION + 2;
  static constexpr uint32_t TRANSACTION_wifiInit = FIRST_CALL_TRANSACTION + 3;
  static constexpr uint32_t TRANSACTION_wifiStateChange = FIRST_CALL_TRANSACTION + 4;
  static constexpr uint32_t TRANSACTION_daemonStatusChange = FIRST_CALL_TRANSACTION + 5;
  static constexpr uint32_t TRANSACTION_shakeHands = FIRST_CALL_TRANSACTION + 6;
  static constexpr uint32_t TRANSACTION_setBluetoothAddress = FIRST_CALL_TRANSACTION + 7;
  static constexpr uint32_t TRANSACTION_getStatus = FIRST_CALL_TRANSACTION + 8;
  static constexpr uint32_t TRANSACTION_close = FIRST_CALL_TRANSACTION + 9;
  static constexpr uint32_t TRANSACTION_getInterfaceVersion = 16777214;
  static constexpr uint32_t TRANSACTION_getInterfaceHash = 16777213;

  static std::shared_ptr<IAtCmd> fromBinder(const ::ndk::SpAIBinder& binder);
  static binder_status_t writeToParcel(AParcel* parcel, const std::shared_ptr<IAtCmd>& instance);
  static binder_status_t readFromParcel(const AParcel* parcel, std::shared_ptr<IAtCmd>* instance);
  static bool setDefaultImpl(const std::shared_ptr<IAtCmd>& impl);
  static const std::shared_ptr<IAtCmd>& getDefaultImpl();
  virtual ::ndk::ScopedAStatus setCallback(const std::shared_ptr<::aidl::vendor::quorvanta::atcmd::IAtCmdCallback>& in_callback) = 0;
  virtual ::ndk::ScopedAStatus clearCallback(const std::shared_ptr<::aidl::vendor::quorvanta::atcmd::IAtCmdCallback>& in_callback) = 0;
  virtual ::ndk::ScopedAStatus sendCommand(const ::aidl::vendor::quorvanta::atcmd::AtCmdRecord& in_record, int32_t* _aidl_return) = 0;
  virtual ::ndk::ScopedAStatus wifiInit(const std::string& in_ipAddress, int32_t* _aidl_return) = 0;
  virtual ::ndk::ScopedAStatus wifiStateChange(int32_t in_state, int32_t* _aidl_return) = 0;
  virtual ::ndk::ScopedAStatus daemonStatusChange(const std::string& in_status, int32_t* _aidl_return) = 0;
  virtual ::ndk::ScopedAStatus shakeHands(int32_t* _aidl_return) = 0;
  virtual ::ndk::ScopedAStatus setBluetoothAddress(const std::string& in_address) = 0;
  virtual ::ndk::ScopedAStatus getStatus(::aidl::vendor::quorvanta::atcmd::AtCmdStatus* _aidl_return) = 0;
  virtual ::ndk::ScopedAStatus close() = 0;
  virtual ::ndk::ScopedAStatus getInterfaceVersion(int32_t* _aidl_return) = 0;
  virtual ::ndk::ScopedAStatus getInterfaceHash(std::string* _aidl_return) = 0;
private:
  static std::shared_ptr<IAtCmd> default_impl;
};

class IAtCmdDefault : public IAtCmd {
public:
  ::ndk::ScopedAStatus setCallback(const std::shared_ptr<::aidl::vendor::quorvanta::atcmd::IAtCmdCallback>& in_callback) override;
  ::ndk::ScopedAStatus clearCallback(const std::shared_ptr<::aidl::vendor::quorvanta::atcmd::IAtCmdCallback>& in_callback) override;
  ::ndk::ScopedAStatus sendCommand(const ::aidl::vendor::quorvanta::atcmd::AtCmdRecord& in_record, int32_t* _aidl_return) override;
  ::ndk::ScopedAStatus wifiInit(const std::string& in_ipAddress, int32_t* _aidl_return) override;
  ::ndk::ScopedAStatus wifiStateChange(int32_t in_state, int32_t* _aidl_return) override;
  ::ndk::ScopedAStatus daemonStatusChange(const std::string& in_status, int32_t* _aidl_return) override;
  ::ndk::ScopedAStatus shakeHands(int32_t* _aidl_return) override;
  ::ndk::ScopedAStatus setBluetoothAddress(const std::string& in_address) override;
  ::ndk::ScopedAStatus getStatus(::aidl::vendor::quorvanta::atcmd::AtCmdStatus* _aidl_return) override;
  ::ndk::ScopedAStatus close() override;
  ::ndk::ScopedAStatus getInterfaceVersion(int32_t* _aidl_return) override;
  ::ndk::ScopedAStatus getInterfaceHash(std::string* _aidl_return) override;
  ::ndk::SpAIBinder asBinder() override;
  bool isRemote() override;
};
}  // namespace atcmd
}  // namespace quorvanta
}  // namespace vendor
}  // namespace aidl
