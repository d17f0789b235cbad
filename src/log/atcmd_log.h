/*
 * The one logging facility of the module. Every message goes, prefixed
 * "[time][tid:N]function:line: ", to standard output, the Android log and the log file.
 * Call sites define LOG_TAG once at the top of the file and write
 *     ATCMD_LOG(ATCMD_LEVEL_STATE, "format", args...);
 * (ATCMD_LOG_TAG for another tag, ATCMD_LOG_AS for another function name in the prefix).
 * A message is written when log_level >= its threshold, one of the levels below; errors go out
 * at error priority, the rest at info.
 * The arguments are evaluated once per sink that is written, as with any per-sink print.
 * Log readers grep by the module's function names: a line carries the name of the named function
 * it belongs to (UART_Send, atcmder_Tx_process, TYPE_parser...), never a file-local helper's.
 * A helper logs with ATCMD_LOG_AS("named_function", LOG_TAG, ...), or takes the caller's
 * __func__ as a parameter when several named functions share it.
 */
#ifndef ATCMD_LOG_ATCMD_LOG_H
#define ATCMD_LOG_ATCMD_LOG_H

#include <stdint.h>
#include <stdio.h>

#include <android/log.h>

#include "device/c_exports.h"

ATCMD_EXPORTS_BEGIN

extern int32_t log_level;        /* default 4 */
extern FILE *fd_logfile;         /* the open log file, or null */
extern char buf_timestamp[32];   /* text of the latest time stamp; shared, unlocked */
extern uint32_t ts_base_sec;     /* seconds subtracted from every time stamp */

/* Writes "sec.usec" of the wall clock (minus ts_base_sec) into buf_timestamp and returns it. */
char *get_timestamp(void);

/* Creates `dir` and opens dir/name for appending as fd_logfile; returns 0 even on failure. */
int log_file_init(const char *dir, const char *name);

ATCMD_EXPORTS_END

/* The three sinks, used only through the macros below. */
void atcmd_log_stdout(const char *func, int line, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
void atcmd_log_android(int prio, const char *tag, const char *func, int line, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));
void atcmd_log_file(const char *func, int line, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

// The thresholds a message is written at; log_level (default 4) is compared with them.
constexpr int ATCMD_LEVEL_ERROR = 0;   // failures and dropped input
constexpr int ATCMD_LEVEL_EVENT = 2;   // rare events: a signal to the supervisor, a lost heartbeat
constexpr int ATCMD_LEVEL_STATE = 3;   // state changes: threads up and down, links opened, data in
constexpr int ATCMD_LEVEL_DETAIL = 4;  // detail: every line sent, every value parsed

// `func` names the function in the prefix: shared routines pass the name of the entry point
// they work for, so a line reads as that entry point's.
#define ATCMD_LOG_AS(func, tag, threshold, ...)                                          \
    do {                                                                                 \
        if (log_level >= (threshold)) {                                                  \
            const int atcmd_prio_ =                                                      \
                (threshold) == ATCMD_LEVEL_ERROR ? ANDROID_LOG_ERROR : ANDROID_LOG_INFO; \
            atcmd_log_stdout((func), __LINE__, __VA_ARGS__);                             \
            atcmd_log_android(atcmd_prio_, (tag), (func), __LINE__, __VA_ARGS__);        \
            if (fd_logfile != nullptr) atcmd_log_file((func), __LINE__, __VA_ARGS__);    \
        }                                                                                \
    } while (0)

#define ATCMD_LOG_TAG(tag, threshold, ...) ATCMD_LOG_AS(__func__, tag, threshold, __VA_ARGS__)

#define ATCMD_LOG(threshold, ...) ATCMD_LOG_TAG(LOG_TAG, threshold, __VA_ARGS__)

#endif /* ATCMD_LOG_ATCMD_LOG_H */
