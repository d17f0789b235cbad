// The line parser and keyword lookups: the records that reach Rx_head for each line shape, the
// carry-over between lines of one buffer, rejects, garbage, the 159-character limit.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "engine/engine.h"
#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

struct Rec {
    uint8_t type, cmd_id;
    uint16_t seq_num;
    uint8_t flag;
    std::string text;
};

// Parses `text` as a receive loop does, with a fresh record from `source`.
std::vector<QueuedLine> parse(const std::string &text, uint8_t source = AT_NODE_ACCESSORY) {
    char line[AT_LINE_BUF_SIZE];
    AtCmder_t cmd = {};
    cmd.source = source;
    cmd.data = line;
    cmd_Parse_from_buffer(&cmd, text.c_str());
    return drain_queue(&Rx_head, &g_rxqueue_mutex);
}

const std::string k157 = "+VER=" + std::string(152, 'a');  // the longest line without CR LF
constexpr uint8_t R = AT_TYPE_RESPONSE;

}  // namespace

TEST(LineParser, QueuesOneRecordPerAcceptedLine) {
    Sandbox sb;
    bare_device(PLATFORM_VUART);
    const struct {
        std::string in;
        std::vector<Rec> out;
    } cases[] = {
        {"AT+VER?#&1\r\n", {{AT_TYPE_QUERY, AT_MSG_VER, 0, 1, "AT+VER?#&1\r\n"}}},
        {"AT+SN#7&1\r\n", {{AT_TYPE_EXEC, AT_MSG_SN, 7, 1, "AT+SN#7&1\r\n"}}},
        {"AT+BT=1\r\n", {{AT_TYPE_SET, AT_MSG_BT, 0, 0, "AT+BT=1\r\n"}}},  // exact lookup
        {"+BT=1\r\n", {{R, AT_MSG_BTMAC, 0, 0, "+BT=1\r\n"}}},          // prefix lookup
        {"+\r\n", {{R, AT_MSG_REBOOT, 0, 0, "+\r\n"}}},
        {"+BATCG=1#5&2\r\n", {{AT_TYPE_REPORT, AT_MSG_BATCG, 5, 2, "+BATCG=1#5&2\r\n"}}},
        {"AT+HRM\r\n", {{AT_TYPE_REPORT, AT_MSG_HRM, 0, 0, "AT+HRM\r\n"}}},
        {"+OK#65537&258\r\n", {{R, AT_MSG_OK, 1, 2, "+OK#65537&258\r\n"}}},  // field widths
        {"+VER=1#12x&3y\r\n", {{R, AT_MSG_VER, 12, 3, "+VER=1#12x&3y\r\n"}}},
        // seq_num and flag carry over to the next line of the same buffer
        {"+VER=1#9&2\r\n+OK\r\nAT+BAT?\r\n",
         {{R, AT_MSG_VER, 9, 2, "+VER=1#9&2\r\n"}, {R, AT_MSG_OK, 9, 2, "+OK\r\n"},
          {AT_TYPE_QUERY, AT_MSG_BAT, 9, 2, "AT+BAT?\r\n"}}},
        {"AT+XYZ\r\nAB\r\n", {}},
        {"+XYZ=1\r\n+OK\r\n", {{R, AT_MSG_OK, 0, 0, "+OK\r\n"}}},
        {"xyz+OK\r\n\x01\xff\r\n+SN=1\r\n", {{R, AT_MSG_SN, 0, 0, "+SN=1\r\n"}}},
        {"+OK\r+SN=1\r\n", {{R, AT_MSG_SN, 0, 0, "+SN=1\r\n"}}},  // "+" after a lone CR
        {"+OK\r\n+VER=1", {{R, AT_MSG_OK, 0, 0, "+OK\r\n"}}},
        {k157 + "\r\n", {{R, AT_MSG_VER, 0, 0, k157 + "\r\n"}}},
        {k157 + "a\r\n+OK\r\n", {{R, AT_MSG_OK, 0, 0, "+OK\r\n"}}},
        {k157 + "ab+OK\r\n", {{R, AT_MSG_OK, 0, 0, "+OK\r\n"}}},  // 160th char starts anew
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.in);
        const auto got = parse(c.in);
        ASSERT_EQ(got.size(), c.out.size());
        for (size_t i = 0; i < got.size(); ++i) {
            const Rec &want = c.out[i];
            EXPECT_EQ(got[i].text, want.text);
            EXPECT_EQ(got[i].cmd.type, want.type);
            EXPECT_EQ(got[i].cmd.cmd_id, want.cmd_id);
            EXPECT_EQ(got[i].cmd.seq_num, want.seq_num);
            EXPECT_EQ(got[i].cmd.flag, want.flag);
            EXPECT_EQ(got[i].cmd.source, AT_NODE_ACCESSORY);
        }
    }
}

TEST(LineParser, LogsRejectsAtTheirThresholdsAndDropsNulls) {
    Sandbox sb;
    log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE);
    bare_device(PLATFORM_VUART);
    parse("AT+XYZ\r\nzz\r\n" + k157 + "ab+OK\r\n");
    const std::string log = sb.log_text();
    for (const char *text : {"Cmd  AT+XYZ is not supported!", "Cmd is not supported!",
                             "Cmd  is too long and not supported!",
                             "Get one line cmd: idx is 23 ,  seq num is 0, flag is 0, cmd is +OK"}) {
        EXPECT_NE(log.find(text), std::string::npos) << text;
    }
    log_level = 3;  // the reject still shows, the garbage note does not
    parse("AT+QQQ\r\nyy\r\n");
    const std::string quieter = sb.log_text().substr(log.size());
    EXPECT_NE(quieter.find("Cmd  AT+QQQ is not supported!"), std::string::npos);
    EXPECT_EQ(quieter.find("Cmd is not supported!"), std::string::npos);

    AtCmder_t no_buffer = {};
    cmd_Parse_from_buffer(nullptr, "+OK\r\n");
    cmd_Parse_from_buffer(&no_buffer, "+OK\r\n");
    EXPECT_TRUE(parse("").empty());
}

// Receive threads parse at once, each with its own record: every line arrives with its own
// buffer's numbers, in that thread's order.
TEST(LineParser, ConcurrentCallersKeepTheirOwnState) {
    Sandbox sb;
    bare_device(PLATFORM_VUART);
    constexpr int kThreads = 4, kBuffers = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            char line[AT_LINE_BUF_SIZE];
            AtCmder_t cmd = {};
            cmd.source = static_cast<uint8_t>(t);
            cmd.data = line;
            for (int i = 0; i < kBuffers; ++i) {
                const std::string text = "+OK#" + std::to_string(t * 1000 + i) + "&1\r\n";
                cmd_Parse_from_buffer(&cmd, text.c_str());
            }
        });
    }
    for (std::thread &th : threads) th.join();
    const auto got = drain_queue(&Rx_head, &g_rxqueue_mutex);
    ASSERT_EQ(got.size(), static_cast<size_t>(kThreads * kBuffers));
    std::vector<int> next(kThreads, 0);
    for (const QueuedLine &q : got) {
        ASSERT_LT(q.cmd.source, kThreads);
        EXPECT_EQ(q.cmd.seq_num, q.cmd.source * 1000 + next[q.cmd.source]++);
    }
}

TEST(KeywordLookup, ExactAndPrefixRules) {
    const struct {
        const char *line;
        int at, at_row, res, res_row;
    } rows[] = {
        {"AT+BT", 1, AT_MSG_BT, 0, 0},   {"AT+PT", 1, AT_MSG_PT, 0, 0},
        {"AT+WT", 1, AT_MSG_WT, 0, 0},   {"AT+VE", 0, 0, 0, 0},
        {"+BT", 0, 0, 1, AT_MSG_BTMAC},  {"+PT", 0, 0, 1, AT_MSG_PTEST},
        {"+WIFI", 0, 0, 1, AT_MSG_WIFICON}, {"+HRM", 0, 0, 1, AT_MSG_HRM},
        {"+XYZ", 0, 0, 0, 0},            {"AT", 0, 0, 0, 0},
    };
    for (const auto &r : rows) {
        uint8_t at_idx = 0xff, res_idx = 0xff;
        EXPECT_EQ(findAtCmdIdx(r.line, &at_idx), r.at) << r.line;
        EXPECT_EQ(at_idx, r.at ? r.at_row : 0xff) << r.line;
        EXPECT_EQ(findResCmdIdx(r.line, &res_idx), r.res) << r.line;
        EXPECT_EQ(res_idx, r.res ? r.res_row : 0xff) << r.line;
    }
}
