/*
 * The calling thread's kernel id, for log prefixes and unique file names. gettid() itself is in
 * bionic but not in the glibc a platform build's host variants compile against (it came in
 * glibc 2.30), so every caller asks the kernel directly through this one helper.
 */
#ifndef ATCMD_PLATFORM_THREAD_ID_H
#define ATCMD_PLATFORM_THREAD_ID_H

#include <sys/syscall.h>
#include <unistd.h>

static inline int atcmd_thread_id(void) { return (int)syscall(SYS_gettid); }

#endif /* ATCMD_PLATFORM_THREAD_ID_H */
