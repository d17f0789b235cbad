/*
 * STAND-IN for the compile check only (scripts/android-check.py); never built into anything.
 * Mirrors the declarations the platform's AIDL compiler (Android 14, NDK backend) generates for
 * the parcelable AtCmdRecord of vendor.quorvanta.atcmd version 1 (interfaces/atcmd/aidl), so that the service and
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

namespace aidl {
namespace vendor {
namespace quorvanta {
namespace atcmd {
class AtCmdRecord {
public:
  typedef std::false_type fixed_size;
  static const char* descriptor;

  int32_t type = 0;
  int32_t source = 0;
  int32_t dest = 0;
  int32_t flag = 0;
  int32_t resendTimes = 0;
  int32_t cmdId = 0;
  int32_t seqNum = 0;
  std::string line;

  binder_status_t readFromParcel(const AParcel* parcel);
  binder_status_t writeToParcel(AParcel* parcel) const;

  inline bool operator==(const AtCmdRecord& _rhs) const {
    return std::tie(type, source, dest, flag, resendTimes, cmdId, seqNum, line) == std::tie(_rhs.type, _rhs.source, _rhs.dest, _rhs.flag, _rhs.resendTimes, _rhs.cmdId, _rhs.seqNum, _rhs.line);
  }
  inline bool operator!=(const AtCmdRecord& _rhs) const { return !(*this == _rhs); }

  static const ::ndk::parcelable_stability_t _aidl_stability = ::ndk::STABILITY_VINTF;
  std::string toString() const;
};
}  // namespace atcmd
}  // namespace quorvanta
}  // namespace vendor
}  // namespace aidl
