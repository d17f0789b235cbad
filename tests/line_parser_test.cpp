// The line parser: the records that reach Rx_head for each line shape, the carry-over between
// lines of one buffer, exact and prefix keyword lookups, rejects, garbage, the 159-character limit,
// and receive threads parsing at once.
#include <gtest/gtest.h>

#include <map>
#include <thread>

#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "support/test_support.h"

using namespace atcmd_test;

static std::string rec(int type, int cmd_id, int seq_num, int flag, const std::string &text) {
    return std::to_string(type) + "/" + std::to_string(cmd_id) + " #" + std::to_string(seq_num) +
           "&" + std::to_string(flag) + " " + text;
}

// Runs the line parser on `text` as a receive thread from `source` does; records go to Rx_head.
static void parse_line(const char *text, uint8_t source = AT_NODE_ACCESSORY) {
    char line[AT_LINE_BUF_SIZE];
    AtCmder_t cmd = {};
    cmd.source = source;
    cmd.data = line;
    cmd_Parse_from_buffer(&cmd, text);
}

static std::vector<std::string> parse(const std::string &text) {
    parse_line(text.c_str());
    std::vector<std::string> got;
    for (const QueuedLine &q : drain_queue(&Rx_head, &g_rxqueue_mutex))
        got.push_back(rec(q.cmd.type, q.cmd.cmd_id, q.cmd.seq_num, q.cmd.flag, q.text));
    return got;
}

static const std::string k157 = "+VER=" + std::string(152, 'a');  // longest line without CR LF
constexpr int R = AT_TYPE_RESPONSE, Q = AT_TYPE_QUERY, X = AT_TYPE_EXEC, REP = AT_TYPE_REPORT;

class LineParser : public ::testing::Test {
protected:
    void SetUp() override { bare_device(PLATFORM_VUART); }
    Sandbox sb;
};

TEST_F(LineParser, QueuesOneRecordPerAcceptedLine) {
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"AT+SN#7&1\r\nAT+VER?#&1\r\n",  // an empty number reads as 0
         {rec(X, AT_MSG_SN, 7, 1, "AT+SN#7&1\r\n"), rec(Q, AT_MSG_VER, 0, 1, "AT+VER?#&1\r\n")}},
        {"AT+BT=1\r\n", {rec(AT_TYPE_SET, AT_MSG_BT, 0, 0, "AT+BT=1\r\n")}},  // exact lookup
        {"+BT=1\r\n", {rec(R, AT_MSG_BTMAC, 0, 0, "+BT=1\r\n")}},              // prefix lookup
        {"AT+VE?\r\n+PT=1\r\n+\r\n",
         {rec(R, AT_MSG_PTEST, 0, 0, "+PT=1\r\n"), rec(R, AT_MSG_REBOOT, 0, 0, "+\r\n")}},
        {"+BATCG=1#5&2\r\n", {rec(REP, AT_MSG_BATCG, 5, 2, "+BATCG=1#5&2\r\n")}},
        {"AT+HRM\r\n", {rec(REP, AT_MSG_HRM, 0, 0, "AT+HRM\r\n")}},
        {"+OK#65537&258\r\n", {rec(R, AT_MSG_OK, 1, 2, "+OK#65537&258\r\n")}},  // field widths
        {"+VER=1#12x&3y\r\n", {rec(R, AT_MSG_VER, 12, 3, "+VER=1#12x&3y\r\n")}},
        {"+VER=1#9&2\r\n+OK\r\nAT+BAT?\r\n",  // seq_num and flag carry over to the next lines
         {rec(R, AT_MSG_VER, 9, 2, "+VER=1#9&2\r\n"), rec(R, AT_MSG_OK, 9, 2, "+OK\r\n"),
          rec(Q, AT_MSG_BAT, 9, 2, "AT+BAT?\r\n")}},
        {"AT+XYZ\r\nAT\r\nAB\r\n+XYZ=1\r\n+OK\r\n", {rec(R, AT_MSG_OK, 0, 0, "+OK\r\n")}},
        {"xyz+OK\r\n\x01\xff\r\n+SN=1\r\n", {rec(R, AT_MSG_SN, 0, 0, "+SN=1\r\n")}},
        {"+OK\r+SN=1\r\n+VER=1", {rec(R, AT_MSG_SN, 0, 0, "+SN=1\r\n")}},  // "+" after a lone CR
        {k157 + "\r\n", {rec(R, AT_MSG_VER, 0, 0, k157 + "\r\n")}},
        {"\n+OK#8&1\r\n", {rec(R, AT_MSG_OK, 8, 1, "+OK#8&1\r\n")}},  // the LF of a dropped rest
        {k157 + "a\r\n" + k157 + "ab+OK\r\n", {rec(R, AT_MSG_OK, 0, 0, "+OK\r\n")}},
    };
    for (const auto &[in, out] : cases) EXPECT_EQ(parse(in), out) << in;
}

TEST_F(LineParser, LogsRejectsAtTheirThresholds) {
    log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE);
    log_level = 3;  // the reject shows, the garbage note does not
    parse("AT+QQQ\r\nyy\r\n");
    EXPECT_EQ(sb.log_text().find("Cmd is not supported!"), std::string::npos);
    log_level = 4;
    parse("AT+XYZ\r\nzz\r\n" + k157 + "ab+OK\r\n");
    for (const char *text : {"Cmd  AT+QQQ is not supported!", "Cmd  AT+XYZ is not supported!",
                             "Cmd is not supported!", "Cmd  is too long and not supported!",
                             "Get one line cmd: idx is 23 ,  seq num is 0, flag is 0, cmd is +OK"})
        EXPECT_NE(sb.log_text().find(text), std::string::npos) << text;
    AtCmder_t no_buffer = {};  // refused without a write
    cmd_Parse_from_buffer(nullptr, "+OK\r\n");
    cmd_Parse_from_buffer(&no_buffer, "+OK\r\n");
}

// Receive threads parse at once: every line keeps its own buffer's numbers, in its thread's order.
TEST_F(LineParser, ConcurrentCallersKeepTheirOwnState) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i) parse_line(("+OK#" + std::to_string(t * 1000 + i) + "&1\r\n").c_str(), t);
        });
    for (std::thread &th : threads) th.join();
    const auto got = drain_queue(&Rx_head, &g_rxqueue_mutex);
    ASSERT_EQ(got.size(), 800u);
    std::map<int, int> next;
    for (const auto &q : got) EXPECT_EQ(q.cmd.seq_num, q.cmd.source * 1000 + next[q.cmd.source]++);
}
