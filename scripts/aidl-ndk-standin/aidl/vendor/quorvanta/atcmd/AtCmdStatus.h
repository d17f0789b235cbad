/*
 * STAND-IN for the compile check only (scripts/android-check.py); never built into anything.
 * Mirrors the declarations the platform's AIDL compiler (Android 14, NDK backend) generates for
 * the parcelable AtCmdStatus of vendor.quorvanta.atcmd version 1 (interfaces/atcmd/aidl), so that the service and
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
class AtCmdStatus {
public:
  typedef std::false_type fixed_size;
  static const char* descriptor;

  int32_t platform = 0;
  int32_t mode = 0;
  int32_t wifiStatus = 0;
  int32_t phoneState = 0;
  int32_t usbStatus = 0;
  int32_t usbConnected = 0;

  binder_status_t readFromParcel(const AParcel* parcel);
  binder_status_t writeToParcel(AParcel* parcel) const;

  inline bool operator==(const AtCmdStatus& _rhs) const {
    return std::tie(platform, mode, wifiStatus, phoneState, usbStatus, usbConnected) == std::tie(_rhs.platform, _rhs.mode, _rhs.wifiStatus, _rhs.phoneState, _rhs.usbStatus, _rhs.usbConnected);
  }
  inline bool operator!=(const AtCmdStatus& _rhs) const { return !(*this == _rhs); }

  static const ::ndk::parcelable_stability_t _aidl_stability = ::ndk::STABILITY_VINTF;
  std::string toString() const;
};
}  // namespace atcmd
}  // namespace quorvanta
}  // namespace vendor
}  // namespace aidl
