// Answer time-outs: the exclusive-or due rule, resend and final report, retiring a request by
// its answer, and the two error notices. The time-out thread runs alone here, so resends stay
// on Tx_head where the test reads them.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/time.h>

#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "supervision/supervision.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

class TimeoutTest : public ::testing::Test {
protected:
    void SetUp() override {
        log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE);
        bare_device(PLATFORM_VUART);
        Recorder::instance().clear();
        g_timeout = ATCMD_TIMEOUT_DEFAULT;
    }
    void start_thread() {
        ASSERT_EQ(pthread_create(&g_timeout_thread, nullptr, atcmder_Timeout_thread, nullptr), 0);
    }
    bool log_has(const std::string &text) const {
        return sb.log_text().find(text) != std::string::npos;
    }

    Sandbox sb;
};

void watch(const char *text, uint16_t seq, int32_t sec, int32_t usec, uint8_t resends = 0) {
    char buf[AT_LINE_BUF_SIZE];
    snprintf(buf, sizeof buf, "%s", text);
    AtCmder_t cmd = {AT_TYPE_QUERY, 0, AT_NODE_ACCESSORY, 1, resends, AT_MSG_VER, seq, sec, usec,
                     buf};
    atcmder_enqueue(&Timeout_head, &g_timeoutqueue_mutex, &cmd);
    pthread_cond_signal(&timeoutbuffer_notempty);
}

std::vector<uint16_t> seqs(const std::vector<QueuedLine> &lines) {
    std::vector<uint16_t> out;
    for (const QueuedLine &q : lines) out.push_back(q.cmd.seq_num);
    return out;
}

struct timeval now() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return tv;
}

// Waits until the wall clock is between `from_us` and `to_us` into a second.
struct timeval clock_within(int from_us, int to_us) {
    struct timeval tv;
    wait_until([&] {
        tv = now();
        return tv.tv_usec >= from_us && tv.tv_usec < to_us;
    }, 2000);
    return tv;
}

}  // namespace

TEST_F(TimeoutTest, DueRuleIsExclusiveOrNotElapsedTime) {
    g_timeout = ATCMD_TIMEOUT_WIFI_SERVER;  // 400 ms, a wide margin for the "not yet" checks
    const struct timeval t = clock_within(50000, 300000);
    const int32_t sec = static_cast<int32_t>(t.tv_sec), usec = static_cast<int32_t>(t.tv_usec);
    watch("five seconds old\r\n", 1, sec - 5, usec);      // (5 * 10) ^ small: not due
    watch("previous second\r\n", 2, sec - 1, usec + 500000);  // micros wrap below 0: due at once
    watch("just now\r\n", 3, sec, usec);
    start_thread();

    ASSERT_TRUE(wait_until([] { return atcmder_empty_queue(&Tx_head, &g_txqueue_mutex) == 0; }));
    EXPECT_EQ(seqs(drain_tx_queue()), std::vector<uint16_t>{2});
    // The request stamped five seconds ago is judged like the fresh one.
    const auto waiting = drain_queue(&Timeout_head, &g_timeoutqueue_mutex);
    EXPECT_EQ(seqs(waiting), (std::vector<uint16_t>{1, 3}));
}

TEST_F(TimeoutTest, ThirdExpiryIsReportedThenDropped) {
    const struct timeval t = now();
    watch("AT+TYPE?#15&1\r\n", 15, static_cast<int32_t>(t.tv_sec) - 1, 999999, 2);
    start_thread();

    ASSERT_TRUE(Recorder::instance().wait_for(AT_MSG_ERROR));
    const Notice n = Recorder::instance().notices().at(0);
    EXPECT_EQ(n.seq_num, 15);
    EXPECT_EQ(n.values, std::vector<int32_t>{-110});
    ASSERT_TRUE(sb.wait_log("No. 15 atcmd has been removed since timeout, data is AT+TYPE?#15&1"));
    const std::string log = sb.log_text();
    EXPECT_LT(log.find("Timeout happened, cmd is AT+TYPE?#15&1"),
              log.find("has been removed since timeout"));
    EXPECT_EQ(atcmder_empty_queue(&Timeout_head, &g_timeoutqueue_mutex), 1u);
    EXPECT_EQ(atcmder_empty_queue(&Tx_head, &g_txqueue_mutex), 1u);
}

TEST_F(TimeoutTest, EmptyTextIsDroppedSilently) {
    watch("", 9, 0, 0);
    start_thread();
    ASSERT_TRUE(wait_until(
        [] { return atcmder_empty_queue(&Timeout_head, &g_timeoutqueue_mutex) == 1; }));
    EXPECT_EQ(atcmder_empty_queue(&Tx_head, &g_txqueue_mutex), 1u);
    EXPECT_FALSE(log_has("Re-send"));
    EXPECT_TRUE(Recorder::instance().notices().empty());
}

TEST_F(TimeoutTest, AnswerRemovesOnlyTheOldestMatchBySequenceNumber) {
    watch("older\r\n", 7, 1, 0);
    watch("other\r\n", 8, 1, 0);
    watch("newer\r\n", 7, 1, 0);
    AtCmder_t answer = {};
    answer.seq_num = 7;  // command, type and flag are not compared
    EXPECT_EQ(rmTimeoutItem(&answer), 0);
    EXPECT_TRUE(log_has("No. 7 atcmd has been removed!"));

    const size_t before = sb.log_text().size();
    answer.seq_num = 99;
    EXPECT_EQ(rmTimeoutItem(&answer), 0);
    EXPECT_EQ(sb.log_text().size(), before);

    const auto left = drain_queue(&Timeout_head, &g_timeoutqueue_mutex);
    ASSERT_EQ(left.size(), 2u);
    EXPECT_EQ(left[0].text, "other\r\n");
    EXPECT_EQ(left[1].text, "newer\r\n");
}

TEST_F(TimeoutTest, DispatchRetiresOnlyAnswersToThisPlatform) {
    struct Case {
        uint8_t type, flag;
        uint16_t seq_num;
        bool retires;
    } cases[] = {
        {AT_TYPE_RESPONSE, 1, 30, true},
        {AT_TYPE_REPORT, 1, 31, false},    // reports never retire a request
        {AT_TYPE_RESPONSE, 2, 32, false},  // answer to the other platform
        {AT_TYPE_QUERY, 1, 33, false},
        {AT_TYPE_RESPONSE, 1, 0, false},
    };
    for (const Case &c : cases) {
        watch("AT+STARTUP#0&1\r\n", c.seq_num, 1, 0);
        char text[] = "+STARTUP\r\n";  // a row without a parser
        AtCmder_t answer = {c.type, AT_NODE_ACCESSORY, 0, c.flag, 0, AT_MSG_STARTUP, c.seq_num,
                            0, 0, text};
        EXPECT_EQ(atcmder_dispatch(&answer), 0u);
        const auto left = drain_queue(&Timeout_head, &g_timeoutqueue_mutex);
        EXPECT_EQ(left.size(), c.retires ? 0u : 1u) << "seq " << c.seq_num;
    }
    EXPECT_TRUE(log_has("atcmder_dispatch type is 4, flag is 1, platform is 1, data is +STARTUP"));
}

TEST_F(TimeoutTest, UartNotWorkingIsAnErrorEvenAtLevelZero) {
    log_level = 0;
    notifyUartNotWork();
    log_level = 4;
    const auto notices = Recorder::instance().notices();
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].msg_id, AT_MSG_ERROR);
    EXPECT_EQ(notices[0].seq_num, 0);
    EXPECT_EQ(notices[0].values, std::vector<int32_t>{-6});
    EXPECT_TRUE(log_has("uart does not work"));
}
