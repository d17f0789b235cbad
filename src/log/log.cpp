/*
 * Logging for every thread of the module: the level, the time stamp, the log file and the three
 * sinks. Any thread writes; buf_timestamp is shared without a lock (a prefix may carry another
 * thread's concurrent stamp), fd_logfile changes only in log_file_init, called at open. Each
 * thread keeps its own kernel thread id in a thread-local word, looked up once.
 */
#define LOG_TAG "AtCmdProcessHal"

#include "log/atcmd_log.h"

#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>

#include "platform/root_path.h"
#include "platform/thread_id.h"

int32_t log_level = 4;
FILE *fd_logfile = nullptr;
char buf_timestamp[32];
uint32_t ts_base_sec = 0;

namespace {

constexpr size_t kAndroidLineMax = 4096;
constexpr size_t kLogPathMax = 256;  // as written, before any root prefix
constexpr const char kPrefixFormat[] = "[%s][tid:%d]%s:%d: ";
constexpr size_t kLongDigitsMax = 20;  // a 64-bit value with its sign

// The calling thread's kernel id, looked up once per thread: an id never changes while its
// thread runs. A forked child's only thread has a new id, so the child forgets the cached one.
thread_local int t_tid = 0;

void forget_tid_in_child() { t_tid = 0; }

int cached_tid() {
    if (t_tid == 0) {
        static const int registered = pthread_atfork(nullptr, nullptr, forget_tid_in_child);
        (void)registered;
        t_tid = atcmd_thread_id();
    }
    return t_tid;
}

// Writes `value` in decimal at `out` (room for kLongDigitsMax + 1 bytes); returns its end.
// The stamp is formatted on every message of every sink, so it avoids the printf machinery;
// the text is the same as "%ld" gives.
char *put_long(char *out, long value) {
    char digits[kLongDigitsMax];
    size_t n = 0;
    unsigned long magnitude = value < 0 ? 0UL - (unsigned long)value : (unsigned long)value;
    do {
        digits[n++] = (char)('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (value < 0) *out++ = '-';
    while (n > 0) *out++ = digits[--n];
    return out;
}

// Makes every missing level of `path` with mkdir(2), as "mkdir -p" would, without starting a
// shell (the service that hosts the module may execute nothing). Each level gets 0777 less the
// umask, which is what "mkdir -p" gives. Returns 0 when the whole path is then a directory, -1
// when a level cannot be made or something other than a directory is in the way.
int make_missing_levels(const char *path) {
    char level[ATCMD_ROOTED_PATH_MAX];
    const size_t length = strlen(path);
    if (length == 0 || length >= sizeof level) return -1;
    memcpy(level, path, length + 1);
    for (size_t at = 1; at <= length; ++at) {
        if (level[at] != '/' && level[at] != '\0') continue;
        const char kept = level[at];
        level[at] = '\0';
        const bool made = mkdir(level, 0777) == 0 || errno == EEXIST;
        level[at] = kept;
        if (!made) return -1;
    }
    struct stat st;
    return (stat(path, &st) == 0 && S_ISDIR(st.st_mode)) ? 0 : -1;
}

}  // namespace

char *get_timestamp(void) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    // "%ld.%ld" written by hand: microseconds without leading zeros, 5 us after second 12 reads
    // "12.5". A text longer than the buffer is cut as snprintf would cut it.
    char text[2 * kLongDigitsMax + 2];
    char *end = put_long(text, (long)(tv.tv_sec - ts_base_sec));
    *end++ = '.';
    end = put_long(end, (long)tv.tv_usec);
    const size_t length = std::min((size_t)(end - text), sizeof buf_timestamp - 1);
    memcpy(buf_timestamp, text, length);
    buf_timestamp[length] = '\0';
    return buf_timestamp;
}

void atcmd_log_stdout(const char *func, int line, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    flockfile(stdout);
    printf(kPrefixFormat, get_timestamp(), cached_tid(), func, line);
    vprintf(fmt, ap);
    funlockfile(stdout);
    va_end(ap);
}

void atcmd_log_android(int prio, const char *tag, const char *func, int line, const char *fmt,
                       ...) {
    char text[kAndroidLineMax];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    __android_log_print(prio, tag, "[%s][tid:%d]%s:%d: %s", get_timestamp(), cached_tid(), func,
                        line, text);
}

void atcmd_log_file(const char *func, int line, const char *fmt, ...) {
    FILE *file = fd_logfile;
    if (file == nullptr) return;
    va_list ap;
    va_start(ap, fmt);
    flockfile(file);
    fprintf(file, kPrefixFormat, get_timestamp(), cached_tid(), func, line);
    vfprintf(file, fmt, ap);
    fflush(file);  // on storage at once, even if the process is killed right after
    funlockfile(file);
    va_end(ap);
}

int log_file_init(const char *dir, const char *name) {
    char written[kLogPathMax];
    char rooted[ATCMD_ROOTED_PATH_MAX];

    if (atcmd_root_path(dir, rooted, sizeof rooted) != 0) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "log directory %s does not fit the path buffer\n", dir);
        return 0;
    }
    // The failure line reads as "mkdir -p" of the directory would have it.
    if (make_missing_levels(rooted) != 0) fprintf(stderr, "mkdir -p %s failed\n", rooted);

    snprintf(written, sizeof written, "%s/%s", dir, name);
    if (atcmd_root_path(written, rooted, sizeof rooted) != 0) rooted[0] = '\0';
    ATCMD_LOG(ATCMD_LEVEL_STATE, "log_filename=%s\n", rooted);

    if (fd_logfile != nullptr) {
        fclose(fd_logfile);
        fd_logfile = nullptr;
    }
    fd_logfile = fopen(rooted, "a+e");  // append, close-on-exec
    if (fd_logfile == nullptr) fprintf(stderr, "create log file error!\n");
    return 0;
}
