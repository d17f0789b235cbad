// The record queues: order, status codes, refusals, the locked-mutex path of an empty text, and
// the wake-up protocol between producers and a sleeping consumer.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

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

namespace {

constexpr uint8_t kStopSource = 99;

// Every engine queue shares one wake-up protocol; the receive queue stands for all three.
uint32_t send(uint8_t source, uint16_t seq) {
    char text[] = "+OK\r\n";
    AtCmder_t cmd = {AT_TYPE_RESPONSE, source, 0, 0, 0, AT_MSG_OK, seq, 0, 0, text};
    return atcmder_send_to_rx(&cmd);
}

// A consumer as the dispatch thread runs one: wait, then drain everything queued. Counts how
// often its wait returned and the records it took.
struct Consumer {
    Consumer() : thread([this] { run(); }) {}
    ~Consumer() {
        send(kStopSource, 0);
        thread.join();
    }
    void run() {
        tid = gettid();
        char text[AT_LINE_BUF_SIZE];
        AtCmder_t cmd = {};
        cmd.data = text;
        for (;;) {
            atcmder_wait_queue(&Rx_head, &g_rxqueue_mutex, &rxbuffer_Mutex, &rxbuffer_notempty);
            wakeups.fetch_add(1);
            while (atcmder_dequeue(&Rx_head, &g_rxqueue_mutex, &cmd) == ATCMDER_QUEUE_OK) {
                if (cmd.source == kStopSource) return;
                taken.fetch_add(1);
            }
        }
    }
    std::string task(const char *file) const {
        return read_file("/proc/self/task/" + std::to_string(tid.load()) + "/" + file);
    }
    // Context switches of the consumer thread so far: each sleep and wake-up counts one.
    long switches() const {
        const std::string status = task("status");
        long total = 0;
        for (size_t at = 0; (at = status.find("ctxt_switches:", at)) != std::string::npos; at += 14)
            total += std::stol(status.substr(at + 14));
        return total;
    }
    // True while the kernel has the thread asleep (state S), as it is inside its wait.
    bool sleeping() const {
        const std::string stat = task("stat");
        return stat.rfind(')') != std::string::npos && stat.compare(stat.rfind(')'), 3, ") S") == 0;
    }

    std::atomic<pid_t> tid{0};
    std::atomic<long> wakeups{0};
    std::atomic<long> taken{0};
    std::thread thread;
};

}  // namespace

// An idle consumer sleeps without a time limit; a burst joins the queue and wakes it once, at the
// burst's end. Then producers that pause now and then let it fall asleep again and again, so
// their wake-ups race its emptiness test: a lost wake-up leaves records queued with the consumer
// asleep for good (it has no periodic re-test), and the deadline fails the test. (The order of
// records from racing producers is the line parser's concurrency test to check.)
TEST(WakeupTest, IdleConsumerSleepsABurstWakesItOnceAndNoWakeUpIsLostUnderManyProducers) {
    Consumer consumer;
    // Counted only once the consumer sleeps: going to sleep is itself a switch.
    ASSERT_TRUE(wait_until([&] { return consumer.tid != 0 && consumer.sleeping(); }));
    ASSERT_EQ(consumer.wakeups, 0);
    const long asleep = consumer.switches();
    usleep(300 * 1000);  // a consumer that re-tests on a timer would switch here
    EXPECT_EQ(consumer.switches(), asleep);

    atcmder_burst_begin();
    for (uint16_t seq = 0; seq < 50; ++seq) ASSERT_EQ(send(1, seq), 0u);
    usleep(100 * 1000);
    EXPECT_EQ(consumer.wakeups, 0);  // records and wake-up are held until the burst ends
    EXPECT_EQ(atcmder_empty_queue(&Rx_head, &g_rxqueue_mutex), 1u);
    atcmder_burst_end();
    ASSERT_TRUE(wait_until([&] { return consumer.taken == 50; }));
    EXPECT_EQ(consumer.wakeups, 1);

    constexpr int kProducers = 4;
    constexpr uint16_t kPerProducer = 4000;
    std::vector<std::thread> producers;
    for (uint8_t p = 0; p < kProducers; ++p) {
        producers.emplace_back([p] {
            for (uint16_t seq = 0; seq < kPerProducer; ++seq) {
                const bool bursts = p % 2 == 1;  // half the producers hand over in bursts
                if (bursts && seq % 8 == 0) atcmder_burst_begin();
                send(p, seq);
                if (bursts && (seq % 8 == 7 || seq + 1 == kPerProducer)) atcmder_burst_end();
                if (seq % 64 == 0) usleep(50);  // let the consumer run dry and sleep
            }
        });
    }
    for (std::thread &t : producers) t.join();
    ASSERT_TRUE(wait_until([&] { return consumer.taken == 50 + kProducers * kPerProducer; }, 20000))
        << consumer.taken << " records taken";
}
