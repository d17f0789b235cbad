/*
 * Brackets for the declarations of names the module exports: C linkage and default visibility.
 * Everything declared outside them stays hidden (the module builds with -fvisibility=hidden).
 */
#ifndef ATCMD_DEVICE_C_EXPORTS_H
#define ATCMD_DEVICE_C_EXPORTS_H

#ifdef __cplusplus
#define ATCMD_EXPORTS_BEGIN extern "C" { _Pragma("GCC visibility push(default)")
#define ATCMD_EXPORTS_END _Pragma("GCC visibility pop") }
#else
#define ATCMD_EXPORTS_BEGIN _Pragma("GCC visibility push(default)")
#define ATCMD_EXPORTS_END _Pragma("GCC visibility pop")
#endif

#endif /* ATCMD_DEVICE_C_EXPORTS_H */
