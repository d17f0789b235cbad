/*
 * The names the service is known by: the interface's package and type, the instance it
 * registers, its version. The .aidl files, the VINTF fragment, the compatibility matrix, the
 * init file and the service contexts say the same (tests/service_names_test.cpp checks them).
 */
#ifndef ATCMD_SERVICE_SERVICE_NAMES_H
#define ATCMD_SERVICE_SERVICE_NAMES_H

namespace atcmd_service {

constexpr char kPackage[] = "vendor.quorvanta.atcmd";
constexpr char kInterface[] = "IAtCmd";
constexpr char kInstance[] = "vendor.quorvanta.atcmd.IAtCmd/default";  // package.interface/default
constexpr int kVersion = 1;
constexpr char kLogTag[] = "vendor.atcmd-service";

}  // namespace atcmd_service

#endif  // ATCMD_SERVICE_SERVICE_NAMES_H
