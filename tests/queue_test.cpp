// The record queues: order, status codes, refusals, and the locked-mutex path of an empty text.
// (The wake-up of a sleeping consumer is every live test's: the engine's threads wait on it.)
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "engine/engine.h"
#include "log/atcmd_log.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

struct QueueTest : ::testing::Test {
    void SetUp() override { atcmder_queue_init(&head); }
    uint32_t push(std::string text, uint16_t seq = 0) {
        AtCmder_t cmd = {AT_TYPE_QUERY, 0, AT_NODE_ACCESSORY, 1, 2, AT_MSG_VER, seq, 3, 4, nullptr};
        cmd.data = text.data();
        return atcmder_enqueue(&head, &mutex, &cmd);
    }
    struct atcmder_queue_head head;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

}  // namespace

TEST_F(QueueTest, RecordsLeaveInOrderWithEveryFieldAndStatusCodesTellTheRest) {
    EXPECT_EQ(atcmder_empty_queue(&head, &mutex), 1u);
    char buf[AT_LINE_BUF_SIZE] = "untouched";
    AtCmder_t out = {};
    out.seq_num = 77;
    out.data = buf;
    EXPECT_EQ(atcmder_dequeue(&head, &mutex, &out), ATCMDER_QUEUE_EMPTY);
    EXPECT_TRUE(out.seq_num == 77 && std::string(buf) == "untouched");
    AtCmder_t no_text = {};
    EXPECT_EQ(atcmder_enqueue(&head, &mutex, &no_text), ATCMDER_QUEUE_NULL);
    EXPECT_EQ(atcmder_enqueue(&head, &mutex, nullptr), ATCMDER_QUEUE_NULL);
    EXPECT_EQ(atcmder_dequeue(&head, &mutex, nullptr), ATCMDER_QUEUE_NULL);
    EXPECT_EQ(atcmder_dequeue(&head, &mutex, &no_text), ATCMDER_QUEUE_NULL);
    EXPECT_EQ(push(std::string(AT_LINE_BUF_SIZE, 'b')), ATCMDER_QUEUE_TOO_LONG);
    ASSERT_EQ(push(std::string(AT_LINE_BUF_SIZE - 1, 'a')), ATCMDER_QUEUE_OK);
    EXPECT_EQ(atcmder_empty_queue(&head, &mutex), 0u);
    EXPECT_EQ(atcmder_queue_exit(&head, &mutex), ATCMDER_QUEUE_OK);
    EXPECT_EQ(atcmder_empty_queue(&head, &mutex), 1u);

    for (uint16_t seq = 1; seq <= 3; ++seq) ASSERT_EQ(push("line " + std::to_string(seq), seq), 0u);
    const auto got = drain_queue(&head, &mutex);
    ASSERT_EQ(got.size(), 3u);
    for (uint16_t i = 0; i < 3; ++i) {
        const AtCmder_t &c = got[i].cmd;
        EXPECT_EQ(std::make_tuple(got[i].text, c.type, c.dest, c.flag, c.resendtimes, c.cmd_id, c.seq_num,
                                  c.tv_sec, c.tv_usec),
                  std::make_tuple("line " + std::to_string(i + 1), AT_TYPE_QUERY, AT_NODE_ACCESSORY, 1, 2,
                                  AT_MSG_VER, i + 1, 3, 4));
    }
}

TEST_F(QueueTest, EmptyTextIsAcceptedThenDroppedLeavingTheQueueLocked) {
    Sandbox sb;
    log_file_init("/log", "q");
    ASSERT_EQ(push(""), ATCMDER_QUEUE_OK);
    ASSERT_EQ(push("behind it"), ATCMDER_QUEUE_OK);
    char buf[AT_LINE_BUF_SIZE];
    AtCmder_t out = {};
    out.data = buf;
    EXPECT_EQ(atcmder_dequeue(&head, &mutex, &out), ATCMDER_QUEUE_EMPTY);
    EXPECT_NE(read_file(sb.path("/log/q")).find("Atcmd queue has null pointer, remove it!"),
              std::string::npos);

    // The mutex is still held, so another thread's operation on the queue would wait.
    int lock_result = 0;
    std::thread([&] { lock_result = pthread_mutex_trylock(&mutex); }).join();
    EXPECT_EQ(lock_result, EBUSY);

    pthread_mutex_unlock(&mutex);  // held by this thread since the dequeue
    EXPECT_EQ(drain_queue(&head, &mutex).size(), 1u);
}
