// The logging facility: prefix and time stamp, the log file and running on without it, and the
// thread id in the prefix: each thread's own, also in a forked child after its parent logged.
// (Thresholds show in the line parser's reject logs.)
#define LOG_TAG "ATCMD_TEST"

#include <gtest/gtest.h>

#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "platform/thread_id.h"
#include "support/test_support.h"

using namespace atcmd_test;

TEST(LogTest, FileLinesCarryThePrefixAndRunOnWithoutAddedNewline) {
    Sandbox sb(kWithLog);
    ASSERT_NE(fd_logfile, nullptr);
    ATCMD_LOG(ATCMD_LEVEL_DETAIL, "first %d", 1);
    ATCMD_LOG_AS("named_entry", "ATCMD_TEST", ATCMD_LEVEL_DETAIL, "second\n");
    const std::string lines = R"(\[\d+\.\d+\]\[tid:\d+\]TestBody:\d+: first 1)"
                              R"(\[\d+\.\d+\]\[tid:\d+\]named_entry:\d+: second\n)";
    EXPECT_TRUE(pattern_search(sb.log_text(), lines)) << sb.log_text();

    log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE);  // reopening appends
    ATCMD_LOG(ATCMD_LEVEL_DETAIL, "third");
    const std::string text = sb.log_text();
    EXPECT_LT(text.find("first"), text.find("third"));
    EXPECT_NE(text.find("log_filename=" + sb.log_path() + "\n"), std::string::npos);
}

TEST(LogTest, TimestampHasNoLeadingZerosAndHonoursBase) {
    std::vector<std::string> m;
    const std::string stamp = get_timestamp();
    ASSERT_TRUE(pattern_match(stamp, R"((\d+)\.([1-9]\d*|0))", &m)) << stamp;
    ts_base_sec = 1000;
    EXPECT_NEAR(std::stol(std::string(get_timestamp())), std::stol(m[1]) - 1000, 1);
}

// The directory is made level by level with mkdir(2): every missing level, each 0777 less the
// umask, and an existing directory is used as it is.
TEST(LogTest, MakesEveryMissingLevelOfTheDirectory) {
    Sandbox sb;
    const mode_t mask = umask(027);
    testing::internal::CaptureStderr();
    log_file_init("/var/a/b//c/", "named");
    log_file_init("/var/a/b/c", "named");  // all there now: nothing made, nothing reported
    const std::string errors = testing::internal::GetCapturedStderr();
    umask(mask);
    EXPECT_EQ(errors.find("failed"), std::string::npos) << errors;  // the Android log is there too
    ASSERT_NE(fd_logfile, nullptr);
    for (const char *level : {"/var", "/var/a", "/var/a/b", "/var/a/b/c"}) {
        struct stat st;
        ASSERT_EQ(stat(sb.path(level).c_str(), &st), 0) << level;
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << level;
        EXPECT_EQ(st.st_mode & 07777, 0750u) << level;
    }
    EXPECT_EQ(access(sb.path("/var/a/b/c/named").c_str(), F_OK), 0);
}

// Whatever stands in the way, the failure line names the directory as the sandbox sees it and
// the module runs on without a log file.
TEST(LogTest, RunsOnWhenTheDirectoryCannotBeMade) {
    for (const char *in_the_way : {"/sdcard", "/sdcard/quorvanta", "/sdcard/quorvanta/.log"}) {
        SCOPED_TRACE(in_the_way);
        Sandbox sb;
        for (std::string level : {"/sdcard", "/sdcard/quorvanta"}) {
            if (level.size() < strlen(in_the_way)) mkdir(sb.path(level).c_str(), 0755);
        }
        write_text_file(sb.path(in_the_way), "a file where a directory should be");
        testing::internal::CaptureStderr();
        log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE);
        const std::string errors = testing::internal::GetCapturedStderr();
        EXPECT_NE(errors.find("mkdir -p " + sb.path(ATCMD_LOG_DIR) + " failed\n"), std::string::npos)
            << errors;
        EXPECT_NE(errors.find("create log file error!\n"), std::string::npos) << errors;
        EXPECT_EQ(fd_logfile, nullptr);
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "still logging");  // standard output and the Android log
    }
}

TEST(LogTest, EachThreadAndAForkedChildLogTheirOwnId) {
    Sandbox sb(kWithLog);
    const auto log_marked = [](const char *marker) {  // the tid the prefix should carry
        ATCMD_LOG(ATCMD_LEVEL_DETAIL, "%s\n", marker);
        return atcmd_thread_id();
    };
    const int main_tid = log_marked("from-main");
    int other_tid = 0;
    std::thread([&] { other_tid = log_marked("from-thread"); }).join();
    const pid_t child = fork();
    if (child == 0) {
        log_marked("from-child");
        _exit(0);
    }
    ASSERT_GT(child, 0);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    const std::string log = sb.log_text();
    EXPECT_NE(main_tid, other_tid);
    for (const auto &[marker, tid] : {std::pair<const char *, int>{"from-main", main_tid},
                                      {"from-thread", other_tid}, {"from-child", child}}) {
        EXPECT_TRUE(pattern_search(log, "\\[tid:" + std::to_string(tid) + "\\][^:]*:\\d+: " + marker + "\n"))
            << marker << "\n" << log;
    }
}
