// The logging facility: prefix and time stamp, the log file and running on without it, and the
// thread id in the prefix: each thread's own, also in a forked child after its parent logged.
// (Thresholds show in the line parser's reject logs.)
#define LOG_TAG "ATCMD_TEST"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <regex>
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
    std::regex lines(R"(\[\d+\.\d+\]\[tid:\d+\]TestBody:\d+: first 1)"
                     R"(\[\d+\.\d+\]\[tid:\d+\]named_entry:\d+: second\n)");
    EXPECT_TRUE(std::regex_search(sb.log_text(), lines)) << sb.log_text();

    log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE);  // reopening appends
    ATCMD_LOG(ATCMD_LEVEL_DETAIL, "third");
    const std::string text = sb.log_text();
    EXPECT_LT(text.find("first"), text.find("third"));
    EXPECT_NE(text.find("log_filename=" + sb.log_path() + "\n"), std::string::npos);
}

TEST(LogTest, TimestampHasNoLeadingZerosAndHonoursBase) {
    std::smatch m;
    const std::string stamp = get_timestamp();
    ASSERT_TRUE(std::regex_match(stamp, m, std::regex(R"((\d+)\.([1-9]\d*|0))"))) << stamp;
    ts_base_sec = 1000;
    EXPECT_NEAR(std::stol(std::string(get_timestamp())), std::stol(m[1]) - 1000, 1);
}

TEST(LogTest, RunsOnWhenTheDirectoryCannotBeMade) {
    Sandbox sb;
    write_text_file(sb.path("/sdcard"), "a file where the log directory's parent should be");
    log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE);
    EXPECT_EQ(fd_logfile, nullptr);
    ATCMD_LOG(ATCMD_LEVEL_ERROR, "still logging");  // standard output and the Android log only
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
        EXPECT_TRUE(std::regex_search(log, std::regex("\\[tid:" + std::to_string(tid) + "\\][^:]*:\\d+: " + marker + "\n")))
            << marker << "\n" << log;
    }
}
