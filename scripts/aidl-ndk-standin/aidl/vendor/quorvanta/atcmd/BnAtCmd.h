/*
 * STAND-IN for the compile check only (scripts/android-check.py); never built into anything.
 * Mirrors the declarations the platform's AIDL compiler (Android 14, NDK backend) generates for
 * the server side of IAtCmd of vendor.quorvanta.atcmd version 1 (interfaces/atcmd/aidl), so that the service and
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
class BnAtCmd : public ::ndk::BnCInterface<IAtCmd> {
public:
  BnAtCmd();
  virtual ~BnAtCmd();
  ::ndk::ScopedAStatus getInterfaceVersion(int32_t* _aidl_return) final;
  ::ndk::ScopedAStatus getInterfaceHash(std::string* _aidl_return) final;
protected:
  ::ndk::SpAIBinder createBinder() override;
};
}  // namespace atcmd
}  // namespace quorvanta
}  // namespace vendor
}  // namespace aidl
