// Inputs the fuzz targets found, kept as regression tests of the whole receive road.
#include <gtest/gtest.h>

#include <string.h>

#include <string>

#include "engine/engine.h"
#include "log/atcmd_log.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

void parse(void * /*ctx*/, char *text, size_t /*len*/) { parse_line(text); }

void receive(struct at_rx_buffer *rx, const std::string &bytes) {
    memcpy(rx->data + rx->fill, bytes.data(), bytes.size());
    at_rx_frame(rx, bytes.size(), parse, nullptr, nullptr);
}

}  // namespace

// An over-long unfinished line is dropped right after its CR; its LF comes with the next read,
// in front of the next line. That line must still reach the dispatch queue, whole and alone.
TEST(FuzzRegressions, LineAfterAnOverLongLineCutBetweenCrAndLfIsStillQueued) {
    log_level = -1;
    atcmder_queue_init(&Rx_head);
    struct at_rx_buffer rx = {};
    receive(&rx, "+SN=" + std::string(AT_RX_HOLD_MAX, '9') + "\r");
    EXPECT_EQ(rx.fill, 0u);  // dropped as too long
    receive(&rx, "\n+OK#8&1\r\n");
    const auto queued = drain_queue(&Rx_head, &g_rxqueue_mutex);
    ASSERT_EQ(queued.size(), 1u);
    EXPECT_EQ(queued[0].text, "+OK#8&1\r\n");
    EXPECT_EQ(queued[0].cmd.cmd_id, AT_MSG_OK);
    EXPECT_EQ(queued[0].cmd.seq_num, 8);
}
