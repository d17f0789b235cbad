// The record queues: order, status codes, refusals, and the locked-mutex path of an empty text.
#include <gtest/gtest.h>

#include <string.h>
#include <time.h>

#include "engine/engine.h"
#include "log/atcmd_log.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

struct QueueTest : ::testing::Test {
    void SetUp() override {
        atcmder_queue_init(&head);
        pthread_mutex_init(&mutex, nullptr);
    }
    uint32_t push(const char *text, uint16_t seq = 0) {
        char buf[AT_LINE_BUF_SIZE * 2];
        snprintf(buf, sizeof buf, "%s", text);
        AtCmder_t cmd = {};
        cmd.type = AT_TYPE_QUERY;
        cmd.seq_num = seq;
        cmd.data = buf;
        return atcmder_enqueue(&head, &mutex, &cmd);
    }
    struct atcmder_queue_head head;
    pthread_mutex_t mutex;
};

}  // namespace

TEST_F(QueueTest, RecordsLeaveInEnqueueOrderWithEveryField) {
    char line[] = "AT+VER?#11&1\r\n";
    AtCmder_t in = {AT_TYPE_QUERY, 0, AT_NODE_ACCESSORY, 1, 2, AT_MSG_VER, 11, 123, 456, line};
    ASSERT_EQ(atcmder_enqueue(&head, &mutex, &in), ATCMDER_QUEUE_OK);
    line[0] = 'X';  // the queue holds its own copy
    ASSERT_EQ(push("second", 2), ATCMDER_QUEUE_OK);
    ASSERT_EQ(push("third", 3), ATCMDER_QUEUE_OK);

    const auto out = drain_queue(&head, &mutex);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0].text, "AT+VER?#11&1\r\n");
    EXPECT_EQ(out[0].cmd.dest, AT_NODE_ACCESSORY);
    EXPECT_EQ(out[0].cmd.flag, 1);
    EXPECT_EQ(out[0].cmd.resendtimes, 2);
    EXPECT_EQ(out[0].cmd.cmd_id, AT_MSG_VER);
    EXPECT_EQ(out[0].cmd.seq_num, 11);
    EXPECT_EQ(out[0].cmd.tv_sec, 123);
    EXPECT_EQ(out[0].cmd.tv_usec, 456);
    EXPECT_EQ(out[1].text, "second");
    EXPECT_EQ(out[2].text, "third");
}

TEST_F(QueueTest, EmptinessAndStatusCodes) {
    EXPECT_EQ(atcmder_empty_queue(&head, &mutex), 1u);
    char buf[AT_LINE_BUF_SIZE] = "untouched";
    AtCmder_t out = {};
    out.seq_num = 77;
    out.data = buf;
    EXPECT_EQ(atcmder_dequeue(&head, &mutex, &out), ATCMDER_QUEUE_EMPTY);
    EXPECT_EQ(out.seq_num, 77);
    EXPECT_STREQ(buf, "untouched");

    AtCmder_t no_text = {};
    EXPECT_EQ(atcmder_enqueue(&head, &mutex, &no_text), ATCMDER_QUEUE_NULL);
    EXPECT_EQ(atcmder_enqueue(&head, &mutex, nullptr), ATCMDER_QUEUE_NULL);
    EXPECT_EQ(atcmder_dequeue(&head, &mutex, nullptr), ATCMDER_QUEUE_NULL);
    AtCmder_t no_buffer = {};
    EXPECT_EQ(atcmder_dequeue(&head, &mutex, &no_buffer), ATCMDER_QUEUE_NULL);

    ASSERT_EQ(push("one"), ATCMDER_QUEUE_OK);
    EXPECT_EQ(atcmder_empty_queue(&head, &mutex), 0u);
    EXPECT_EQ(atcmder_queue_exit(&head, &mutex), ATCMDER_QUEUE_OK);
    EXPECT_EQ(atcmder_empty_queue(&head, &mutex), 1u);
}

TEST_F(QueueTest, OverLongTextIsRefusedWhole) {
    const std::string longest(AT_LINE_BUF_SIZE - 1, 'a');
    const std::string too_long(AT_LINE_BUF_SIZE, 'b');
    EXPECT_EQ(push(longest.c_str()), ATCMDER_QUEUE_OK);
    EXPECT_EQ(push(too_long.c_str()), ATCMDER_QUEUE_TOO_LONG);
    const auto out = drain_queue(&head, &mutex);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].text, longest);
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

    // The queue's mutex is still held, so any other thread's operation on it would wait.
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_nsec += 50 * 1000 * 1000;
    if (deadline.tv_nsec >= 1000000000) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000;
    }
    pthread_t other;
    int lock_result = 0;
    struct Arg {
        pthread_mutex_t *mutex;
        struct timespec *deadline;
        int *result;
    } arg{&mutex, &deadline, &lock_result};
    pthread_create(&other, nullptr, [](void *p) -> void * {
        auto *a = static_cast<Arg *>(p);
        *a->result = pthread_mutex_timedlock(a->mutex, a->deadline);
        return nullptr;
    }, &arg);
    pthread_join(other, nullptr);
    EXPECT_EQ(lock_result, ETIMEDOUT);

    pthread_mutex_unlock(&mutex);  // held by this thread since the dequeue
    EXPECT_EQ(drain_queue(&head, &mutex).size(), 1u);
}
