/*
 * The sandbox prefix for every absolute path the module touches. On the host, when ATCMD_ROOT
 * names a directory, it is put in front of the path as written; unset or empty, the path is used
 * as it stands. The phone build has no such variable and uses paths as written.
 */
#ifndef ATCMD_PLATFORM_ROOT_PATH_H
#define ATCMD_PLATFORM_ROOT_PATH_H

#include <stddef.h>

/* Room for a path as written plus any sandbox root. */
#define ATCMD_ROOTED_PATH_MAX 4096

/* Writes the rooted form of `path` into `out`; 0 on success, -1 when it does not fit. */
int atcmd_root_path(const char *path, char *out, size_t size);

/* Opens the rooted form of `path` with `flags`, retrying on EINTR; -1 with errno set on failure
 * (ENAMETOOLONG when the rooted path does not fit). */
int atcmd_open_rooted(const char *path, int flags);

/* The sandbox root, or "" when there is none. */
const char *atcmd_root(void);

#endif /* ATCMD_PLATFORM_ROOT_PATH_H */
