// Answer time-outs: the thread runs alone, so resends stay on Tx_head. (Which answer retires a
// request, and the UART's failure notice, are the engine's live tests' to check.)
#include <gtest/gtest.h>

#include <sys/time.h>

#include "supervision/supervision.h"
#include "support/test_support.h"

using namespace atcmd_test;

struct TimeoutTest : ::testing::Test {
    void SetUp() override { bare_device(PLATFORM_VUART); }
    Sandbox sb{kWithLog};
};

static void watch(const char *text, uint16_t seq, int32_t sec, int32_t usec) {
    AtCmder_t cmd = {AT_TYPE_QUERY, 0, AT_NODE_ACCESSORY, 1, 0, AT_MSG_VER, seq, sec, usec,
                     const_cast<char *>(text)};
    atcmder_send_to_timeout(&cmd);
}

static std::string texts(const std::vector<QueuedLine> &lines) {
    std::string out;
    for (const QueuedLine &q : lines) out += q.text;
    return out;
}

TEST_F(TimeoutTest, DueRuleIsExclusiveOrNotElapsedTimeAndEmptyTextIsDroppedSilently) {
    g_timeout = ATCMD_TIMEOUT_WIFI_SERVER;  // 400 ms, a wide margin for the "not yet" checks
    struct timeval t;
    ASSERT_TRUE(wait_until(
        [&] { return !gettimeofday(&t, nullptr) && t.tv_usec >= 50000 && t.tv_usec < 300000; }));
    const int32_t sec = static_cast<int32_t>(t.tv_sec), usec = static_cast<int32_t>(t.tv_usec);
    watch("five seconds old\r\n", 1, sec - 5, usec);          // (5 * 10) ^ small: not due
    watch("previous second\r\n", 2, sec - 1, usec + 500000);  // micros wrap below 0: due at once
    watch("just now\r\n", 3, sec, usec);
    watch("", 9, 0, 0);  // no text: dropped unseen, never resent or reported
    ASSERT_EQ(pthread_create(&g_timeout_thread, nullptr, atcmder_Timeout_thread, nullptr), 0);
    ASSERT_TRUE(wait_until([] { return atcmder_empty_queue(&Tx_head, &g_txqueue_mutex) == 0; }));
    EXPECT_EQ(texts(drain_tx_queue()), "previous second\r\n");
    EXPECT_EQ(texts(drain_queue(&Timeout_head, &g_timeoutqueue_mutex)), "five seconds old\r\njust now\r\n");
    EXPECT_TRUE(Recorder::instance().notices().empty());
}
