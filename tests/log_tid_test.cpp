// The thread id in the log prefix: each thread's own, also for a thread that logs after another
// thread of the process has, and for a forked child after its parent logged.
#define LOG_TAG "ATCMD_TEST"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <thread>

#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

// Logs one marked message and returns the tid the prefix should carry.
int log_marked(const char *marker) {
    ATCMD_LOG(4, "%s\n", marker);
    return static_cast<int>(gettid());
}

bool logged_with_tid(const std::string &log, const char *marker, int tid) {
    const std::regex line("\\[tid:" + std::to_string(tid) + "\\]log_marked:\\d+: " + marker + "\n");
    return std::regex_search(log, line);
}

}  // namespace

TEST(LogTidTest, EachThreadAndAForkedChildLogTheirOwnId) {
    Sandbox sb;
    log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE);
    ASSERT_NE(fd_logfile, nullptr);
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
    ASSERT_TRUE(WIFEXITED(status));
    const std::string log = sb.log_text();
    EXPECT_NE(main_tid, other_tid);
    EXPECT_TRUE(logged_with_tid(log, "from-main", main_tid)) << log;
    EXPECT_TRUE(logged_with_tid(log, "from-thread", other_tid)) << log;
    EXPECT_TRUE(logged_with_tid(log, "from-child", static_cast<int>(child))) << log;
}
