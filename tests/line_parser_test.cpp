// The line parser and the keyword lookups: which records reach Rx_head for each line shape,
// the carry-over between lines of one buffer, rejects and garbage, the 159-character limit.
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

struct Expected {
    uint8_t type;
    uint8_t cmd_id;
    uint16_t seq_num;
    uint8_t flag;
    std::string text;
};

struct ParseCase {
    const char *name;
    std::string input;
    std::vector<Expected> records;
};

// Parses `text` the way a receive loop does: a zeroed record from the accessory.
std::vector<QueuedLine> parse(const std::string &text) {
    char line[AT_LINE_BUF_SIZE];
    AtCmder_t cmd = {};
    cmd.source = AT_NODE_ACCESSORY;
    cmd.data = line;
    cmd_Parse_from_buffer(&cmd, text.c_str());
    return drain_queue(&Rx_head, &g_rxqueue_mutex);
}

const std::string k157(157 - 5, 'a');  // "+VER=" plus this is 157 characters

const ParseCase kParseCases[] = {
    {"QueryWithEmptySeq", "AT+VER?#&1\r\n", {{AT_TYPE_QUERY, AT_MSG_VER, 0, 1, "AT+VER?#&1\r\n"}}},
    {"ExecCommand", "AT+STARTUP\r\n", {{AT_TYPE_EXEC, AT_MSG_STARTUP, 0, 0, "AT+STARTUP\r\n"}}},
    {"ExecCommandWithSeq", "AT+SN#7&1\r\n", {{AT_TYPE_EXEC, AT_MSG_SN, 7, 1, "AT+SN#7&1\r\n"}}},
    {"SetUsesExactLookup", "AT+BT=1\r\n", {{AT_TYPE_SET, AT_MSG_BT, 0, 0, "AT+BT=1\r\n"}}},
    {"ResponseUsesPrefixLookup", "+BT=1\r\n", {{AT_TYPE_RESPONSE, AT_MSG_BTMAC, 0, 0, "+BT=1\r\n"}}},
    {"ResponseWifiFindsWificon", "+WIFI=1\r\n",
     {{AT_TYPE_RESPONSE, AT_MSG_WIFICON, 0, 0, "+WIFI=1\r\n"}}},
    {"SetWifiIsExact", "AT+WIFI=1\r\n", {{AT_TYPE_SET, AT_MSG_WIFI, 0, 0, "AT+WIFI=1\r\n"}}},
    {"LonePlusIsRowZero", "+\r\n", {{AT_TYPE_RESPONSE, AT_MSG_REBOOT, 0, 0, "+\r\n"}}},
    {"ResponseWithSeqAndNoValue", "+OK#3&1\r\n", {{AT_TYPE_RESPONSE, AT_MSG_OK, 3, 1, "+OK#3&1\r\n"}}},
    {"ReportRowBecomesType5", "+BATCG=1#5&2\r\n",
     {{AT_TYPE_REPORT, AT_MSG_BATCG, 5, 2, "+BATCG=1#5&2\r\n"}}},
    {"ReportRowWhateverShape", "AT+HRM\r\n+HALLCG=1,0,1\r\n",
     {{AT_TYPE_REPORT, AT_MSG_HRM, 0, 0, "AT+HRM\r\n"},
      {AT_TYPE_REPORT, AT_MSG_HALLCG, 0, 0, "+HALLCG=1,0,1\r\n"}}},
    {"NumbersWrapToFieldWidth", "+OK#65537&258\r\n",
     {{AT_TYPE_RESPONSE, AT_MSG_OK, 1, 2, "+OK#65537&258\r\n"}}},
    {"NumberStopsAtFirstNonDigit", "+VER=1#12x&3y\r\n",
     {{AT_TYPE_RESPONSE, AT_MSG_VER, 12, 3, "+VER=1#12x&3y\r\n"}}},
    {"SeveralLinesInOrder", "+OK\r\n+VER=1\r\nAT+BAT?\r\n",
     {{AT_TYPE_RESPONSE, AT_MSG_OK, 0, 0, "+OK\r\n"},
      {AT_TYPE_RESPONSE, AT_MSG_VER, 0, 0, "+VER=1\r\n"},
      {AT_TYPE_QUERY, AT_MSG_BAT, 0, 0, "AT+BAT?\r\n"}}},
    {"SeqAndFlagCarryOverToNextLine", "+VER=1#9&2\r\n+OK\r\n",
     {{AT_TYPE_RESPONSE, AT_MSG_VER, 9, 2, "+VER=1#9&2\r\n"},
      {AT_TYPE_RESPONSE, AT_MSG_OK, 9, 2, "+OK\r\n"}}},
    {"UnknownCommandQueuesNothing", "AT+XYZ\r\n", {}},
    {"ShortCommandQueuesNothing", "AB\r\n", {}},
    {"UnknownResponseSkipsOnlyItsLine", "+XYZ=1\r\n+OK\r\n",
     {{AT_TYPE_RESPONSE, AT_MSG_OK, 0, 0, "+OK\r\n"}}},
    {"GarbageSkippedToNextLineFeed", "xyz+OK\r\n+SN=1\r\n",
     {{AT_TYPE_RESPONSE, AT_MSG_SN, 0, 0, "+SN=1\r\n"}}},
    {"BinaryGarbageSkipped", "\x01\x02\xff\r\n+OK\r\n", {{AT_TYPE_RESPONSE, AT_MSG_OK, 0, 0, "+OK\r\n"}}},
    {"MissingLineFeedRestartsAtPlus", "+OK\r+SN=1\r\n",
     {{AT_TYPE_RESPONSE, AT_MSG_SN, 0, 0, "+SN=1\r\n"}}},
    {"UnfinishedLineIsDiscarded", "+OK\r\n+VER=1", {{AT_TYPE_RESPONSE, AT_MSG_OK, 0, 0, "+OK\r\n"}}},
    {"EmptyText", "", {}},
    {"LongestLineAccepted", "+VER=" + k157 + "\r\n",
     {{AT_TYPE_RESPONSE, AT_MSG_VER, 0, 0, "+VER=" + k157 + "\r\n"}}},
    {"OneMoreIsTooLong", "+VER=" + k157 + "a\r\n+OK\r\n",
     {{AT_TYPE_RESPONSE, AT_MSG_OK, 0, 0, "+OK\r\n"}}},
    {"CharacterAfter159StartsNewLine", "+VER=" + k157 + "ab+OK\r\n",
     {{AT_TYPE_RESPONSE, AT_MSG_OK, 0, 0, "+OK\r\n"}}},
};

// Keeps test names readable in CTest instead of a byte dump of the row.
void PrintTo(const ParseCase &c, std::ostream *os) { *os << c.name; }

class LineParserCases : public ::testing::TestWithParam<ParseCase> {
protected:
    void SetUp() override { bare_device(PLATFORM_VUART); }
    Sandbox sb;
};

}  // namespace

TEST_P(LineParserCases, QueuesExpectedRecords) {
    const ParseCase &c = GetParam();
    const auto got = parse(c.input);
    ASSERT_EQ(got.size(), c.records.size());
    for (size_t i = 0; i < got.size(); ++i) {
        SCOPED_TRACE(i);
        const Expected &want = c.records[i];
        EXPECT_EQ(got[i].text, want.text);
        EXPECT_EQ(got[i].cmd.type, want.type);
        EXPECT_EQ(got[i].cmd.cmd_id, want.cmd_id);
        EXPECT_EQ(got[i].cmd.seq_num, want.seq_num);
        EXPECT_EQ(got[i].cmd.flag, want.flag);
        EXPECT_EQ(got[i].cmd.source, AT_NODE_ACCESSORY);
    }
}

INSTANTIATE_TEST_SUITE_P(LineParserShapes, LineParserCases, ::testing::ValuesIn(kParseCases),
                         [](const ::testing::TestParamInfo<ParseCase> &info) {
                             return std::string(info.param.name);
                         });

TEST(LineParser, RejectsAndLimitsAreLoggedAtTheirThresholds) {
    Sandbox sb;
    log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE);
    bare_device(PLATFORM_VUART);
    parse("AT+XYZ\r\nzz\r\n+VER=" + k157 + "ab+OK\r\n");
    const std::string log = sb.log_text();
    EXPECT_NE(log.find("Cmd  AT+XYZ is not supported!"), std::string::npos);
    EXPECT_NE(log.find("Cmd is not supported!"), std::string::npos);
    EXPECT_NE(log.find("Cmd  is too long and not supported!"), std::string::npos);
    EXPECT_NE(log.find("Get one line cmd: idx is 23 ,  seq num is 0, flag is 0, cmd is +OK\r\n"),
              std::string::npos);

    // At level 3 the reject still shows, the garbage and length notes do not.
    log_level = 3;
    parse("AT+QQQ\r\nyy\r\n");
    const std::string quieter = sb.log_text().substr(log.size());
    EXPECT_NE(quieter.find("Cmd  AT+QQQ is not supported!"), std::string::npos);
    EXPECT_EQ(quieter.find("Cmd is not supported!"), std::string::npos);
}

TEST(LineParser, NullArgumentsAreDroppedWithoutQueueing) {
    Sandbox sb;
    bare_device(PLATFORM_VUART);
    char line[AT_LINE_BUF_SIZE];
    AtCmder_t cmd = {};
    cmd_Parse_from_buffer(nullptr, "+OK\r\n");
    cmd_Parse_from_buffer(&cmd, "+OK\r\n");  // no line buffer
    cmd.data = line;
    cmd_Parse_from_buffer(&cmd, nullptr);
    EXPECT_TRUE(drain_queue(&Rx_head, &g_rxqueue_mutex).empty());
}

// The receive threads parse at the same time, each with its own record; every line must reach
// the queue once with the numbers of its own buffer.
TEST(LineParser, ConcurrentCallersKeepTheirOwnState) {
    Sandbox sb;
    bare_device(PLATFORM_VUART);
    constexpr int kThreads = 4;
    constexpr int kBuffers = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            char line[AT_LINE_BUF_SIZE];
            AtCmder_t cmd = {};
            cmd.source = static_cast<uint8_t>(t);
            cmd.data = line;
            for (int i = 0; i < kBuffers; ++i) {
                const std::string text = "+VER=" + std::to_string(t) + "#" +
                                         std::to_string(t * 1000 + i) + "&1\r\n+OK\r\n";
                cmd_Parse_from_buffer(&cmd, text.c_str());
            }
        });
    }
    for (std::thread &th : threads) th.join();

    const auto got = drain_queue(&Rx_head, &g_rxqueue_mutex);
    ASSERT_EQ(got.size(), static_cast<size_t>(kThreads * kBuffers * 2));
    std::vector<int> next(kThreads, 0);  // per source, the buffers arrive in order
    for (size_t i = 0; i < got.size(); ++i) {
        const AtCmder_t &c = got[i].cmd;
        ASSERT_LT(c.source, kThreads);
        const int expected_seq = c.source * 1000 + next[c.source] / 2;
        EXPECT_EQ(c.seq_num, expected_seq);
        if (next[c.source] % 2 == 0) {
            EXPECT_EQ(got[i].text, "+VER=" + std::to_string(c.source) + "#" +
                                       std::to_string(expected_seq) + "&1\r\n");
        } else {
            EXPECT_EQ(got[i].text, "+OK\r\n");  // carries the seq_num of the line before it
        }
        ++next[c.source];
    }
}

TEST(KeywordLookup, ExactAndPrefixRules) {
    struct Row {
        const char *line;
        int at_found;
        uint8_t at_row;
        int res_found;
        uint8_t res_row;
    };
    const Row rows[] = {
        {"AT+VER", 1, AT_MSG_VER, 0, 0},
        {"AT+BT", 1, AT_MSG_BT, 0, 0},
        {"AT+PT", 1, AT_MSG_PT, 0, 0},
        {"AT+WT", 1, AT_MSG_WT, 0, 0},
        {"AT+VE", 0, 0, 0, 0},
        {"+BT", 0, 0, 1, AT_MSG_BTMAC},
        {"+PT", 0, 0, 1, AT_MSG_PTEST},
        {"+WIFI", 0, 0, 1, AT_MSG_WIFICON},
        {"+", 0, 0, 1, AT_MSG_REBOOT},
        {"+HRM", 0, 0, 1, AT_MSG_HRM},
        {"+XYZ", 0, 0, 0, 0},
        {"AT", 0, 0, 0, 0},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.line);
        uint8_t at_idx = 0xff;
        uint8_t res_idx = 0xff;
        EXPECT_EQ(findAtCmdIdx(r.line, &at_idx), r.at_found);
        if (r.at_found) {
            EXPECT_EQ(at_idx, r.at_row);
        }
        EXPECT_EQ(findResCmdIdx(r.line, &res_idx), r.res_found);
        if (r.res_found) {
            EXPECT_EQ(res_idx, r.res_row);
        }
    }
}

TEST(KeywordLookup, EveryRowFindsItselfInBothForms) {
    for (uint8_t row = 0; row < AT_MSG_COUNT; ++row) {
        const std::string keyword = AT_CMDS[row].keyword;
        uint8_t idx = 0xff;
        EXPECT_EQ(findAtCmdIdx(("AT" + keyword).c_str(), &idx), 1) << keyword;
        EXPECT_EQ(idx, row) << keyword;
        // The response lookup takes the first row that the keyword begins, which is the row
        // itself unless an earlier keyword extends it.
        ASSERT_EQ(findResCmdIdx(keyword.c_str(), &idx), 1) << keyword;
        EXPECT_LE(idx, row) << keyword;
        EXPECT_EQ(std::string(AT_CMDS[idx].keyword).rfind(keyword, 0), 0u) << keyword;
    }
}
