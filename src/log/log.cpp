/*
 * Logging for every thread of the module: the level, the time stamp, the log file and the three
 * sinks. Any thread writes; buf_timestamp is shared without a lock (a prefix may carry another
 * thread's concurrent stamp), fd_logfile changes only in log_file_init, called at open.
 */
#define LOG_TAG "AtCmdProcessHal"

#include "log/atcmd_log.h"

#include <stdarg.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

#include "platform/root_path.h"

int32_t log_level = 4;
FILE *fd_logfile = nullptr;
char buf_timestamp[32];
uint32_t ts_base_sec = 0;

namespace {

constexpr size_t kAndroidLineMax = 4096;
constexpr size_t kLogPathMax = 256;  // as written, before any root prefix
constexpr const char kPrefixFormat[] = "[%s][tid:%d]%s:%d: ";

}  // namespace

char *get_timestamp(void) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    // Microseconds are printed without leading zeros: 5 us after second 12 reads "12.5".
    snprintf(buf_timestamp, sizeof buf_timestamp, "%ld.%ld", (long)(tv.tv_sec - ts_base_sec),
             (long)tv.tv_usec);
    return buf_timestamp;
}

void atcmd_log_stdout(const char *func, int line, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    flockfile(stdout);
    printf(kPrefixFormat, get_timestamp(), (int)gettid(), func, line);
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
    __android_log_print(prio, tag, "[%s][tid:%d]%s:%d: %s", get_timestamp(), (int)gettid(), func,
                        line, text);
}

void atcmd_log_file(const char *func, int line, const char *fmt, ...) {
    FILE *file = fd_logfile;
    if (file == nullptr) return;
    va_list ap;
    va_start(ap, fmt);
    flockfile(file);
    fprintf(file, kPrefixFormat, get_timestamp(), (int)gettid(), func, line);
    vfprintf(file, fmt, ap);
    fflush(file);  // on storage at once, even if the process is killed right after
    funlockfile(file);
    va_end(ap);
}

int log_file_init(const char *dir, const char *name) {
    char written[kLogPathMax];
    char rooted[ATCMD_ROOTED_PATH_MAX];
    char command[ATCMD_ROOTED_PATH_MAX + 16];

    if (atcmd_root_path(dir, rooted, sizeof rooted) != 0) {
        ATCMD_LOG(0, "log directory %s does not fit the path buffer\n", dir);
        return 0;
    }
    // The directory is quoted so that a sandbox root with blanks still works.
    snprintf(command, sizeof command, "mkdir -p '%s'", rooted);
    if (system(command) != 0) fprintf(stderr, "mkdir -p %s failed\n", rooted);

    snprintf(written, sizeof written, "%s/%s", dir, name);
    if (atcmd_root_path(written, rooted, sizeof rooted) != 0) rooted[0] = '\0';
    ATCMD_LOG(3, "log_filename=%s\n", rooted);

    if (fd_logfile != nullptr) {
        fclose(fd_logfile);
        fd_logfile = nullptr;
    }
    fd_logfile = fopen(rooted, "a+e");  // append, close-on-exec
    if (fd_logfile == nullptr) fprintf(stderr, "create log file error!\n");
    return 0;
}
