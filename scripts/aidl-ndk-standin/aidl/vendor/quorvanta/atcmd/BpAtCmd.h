/*
 * STAND-IN for the compile check only (scripts/android-check.py); never built into anything.
 * Mirrors the declarations the platform's AIDL compiler (Android 14, NDK backend) generates for
 * the client side of IAtCmd of vendor.quorvanta.atcmd version 1 (interfaces/atcmd/aidl), so that the service and
 * the console compile against bionic and the binder NDK headers without that compiler. It
 * declares; it defines nothing the generated .cpp would. A platform build uses the generated
 * header of the same name instead. scripts/aidl-ndk-standin/README.md says how it is kept.
 */
#pragma once

#include "aidl/vendor/quorvanta/atcmd/IAtCmd.h"

#include <android/binder_ibinder.h>

namespace aidl {
namespace vendor {
namespace quorvanta {
namespace atcmd {
class BpAtCmd : public ::ndk::BpCInterface<IAtCmd> {
public:
  explicit BpAtCmd(const ::ndk::SpAIBinder& binder);
  virtual ~BpAtCmd();

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
  int32_t _aidl_cached_version = -1;
  std::string _aidl_cached_hash = "-1";
  std::mutex _aidl_cached_hash_mutex;
};
}  // namespace atcmd
}  // namespace quorvanta
}  // namespace vendor
}  // namespace aidl
