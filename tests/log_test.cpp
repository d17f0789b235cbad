// The logging facility: prefix, thresholds, the log file and running on without it.
#define LOG_TAG "ATCMD_TEST"

#include <gtest/gtest.h>
#include <regex>

#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

class LogTest : public ::testing::Test {
protected:
    void SetUp() override { log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE); }
    Sandbox sb;
};

}  // namespace

TEST_F(LogTest, FileLineCarriesPrefixAndAddsNoNewline) {
    ASSERT_NE(fd_logfile, nullptr);
    ATCMD_LOG(4, "first %d", 1);
    ATCMD_LOG(4, "second\n");
    const std::string text = sb.log_text();
    // "[sec.usec][tid:N]function:line: message", two messages run on in one line.
    std::regex line(R"(\[\d+\.\d+\]\[tid:\d+\]TestBody:\d+: first 1\[\d+\.\d+\]\[tid:\d+\]TestBody:\d+: second\n)");
    EXPECT_TRUE(std::regex_search(text, line)) << text;
}

TEST_F(LogTest, ThresholdAgainstLevel) {
    struct Case {
        int32_t level;
        int threshold;
        bool written;
    } cases[] = {
        {4, 4, true}, {4, 0, true}, {3, 4, false}, {0, 0, true}, {-1, 0, false}, {2, 3, false},
    };
    for (const Case &c : cases) {
        log_level = c.level;
        const std::string marker = "marker-" + std::to_string(c.level) + "-" +
                                   std::to_string(c.threshold);
        ATCMD_LOG_TAG("ATCMD_TEST", c.threshold, "%s", marker.c_str());
        EXPECT_EQ(sb.log_text().find(marker) != std::string::npos, c.written)
            << "level " << c.level << " threshold " << c.threshold;
    }
}

TEST_F(LogTest, EachSinkEvaluatesTheArgumentsOnce) {
    int evaluated = 0;
    ATCMD_LOG(3, "count %d", ++evaluated);
    EXPECT_EQ(evaluated, 3);  // console, Android log, file
    fclose(fd_logfile);
    fd_logfile = nullptr;
    evaluated = 0;
    ATCMD_LOG(3, "count %d", ++evaluated);
    EXPECT_EQ(evaluated, 2);
}

TEST_F(LogTest, TimestampHasNoLeadingZerosAndHonoursBase) {
    const std::string stamp = get_timestamp();
    std::smatch m;
    ASSERT_TRUE(std::regex_match(stamp, m, std::regex(R"((\d+)\.([1-9]\d*|0))"))) << stamp;
    const long now = std::stol(m[1]);
    ts_base_sec = 1000;
    const long based = std::stol(std::string(get_timestamp()));
    EXPECT_NEAR(based, now - 1000, 1);
}

TEST(LogFileTest, RunsOnWhenTheDirectoryCannotBeMade) {
    Sandbox sb;
    // A file where the log directory's parent should be makes mkdir and fopen fail.
    write_file(sb.path("/sdcard"), "not a directory");
    log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE);
    EXPECT_EQ(fd_logfile, nullptr);
    ATCMD_LOG(0, "still logging");  // stdout and the Android log only; must not crash
    SUCCEED();
}

TEST(LogFileTest, ReopeningAppends) {
    Sandbox sb;
    log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE);
    ATCMD_LOG(4, "before");
    log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE);
    ATCMD_LOG(4, "after");
    const std::string text = sb.log_text();
    EXPECT_LT(text.find("before"), text.find("after"));
    EXPECT_NE(text.find("log_filename=" + sb.log_path() + "\n"), std::string::npos);
}
