// The receive framing every loop shares: what is delivered and what is dropped for a given
// sequence of reads, and a continuous stream cut at several read sizes.
#include <gtest/gtest.h>

#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

struct Seen {
    std::vector<std::string> delivered;
    std::vector<std::string> dropped;
};

void on_deliver(void *ctx, char *text, size_t len) {
    // The parser relies on the terminator: the length must be that of the C string.
    EXPECT_EQ(strlen(text), len);
    static_cast<Seen *>(ctx)->delivered.emplace_back(text, len);
}

void on_too_long(void *ctx, const char *held) { static_cast<Seen *>(ctx)->dropped.emplace_back(held); }

// Plays one read of `bytes` into the loop's buffer, as a receive loop does.
void receive(at_rx_buffer &rx, const std::string &bytes, Seen &seen) {
    ASSERT_LE(bytes.size(), at_rx_room(&rx));
    memcpy(rx.data + rx.fill, bytes.data(), bytes.size());
    at_rx_frame(&rx, bytes.size(), on_deliver, on_too_long, &seen);
}

std::vector<std::string> split_lines(const std::vector<std::string> &chunks) {
    std::vector<std::string> lines;
    for (const std::string &chunk : chunks) {
        size_t start = 0;
        for (size_t end; (end = chunk.find("\r\n", start)) != std::string::npos; start = end + 2) {
            lines.push_back(chunk.substr(start, end + 2 - start));
        }
        EXPECT_EQ(start, chunk.size()) << "a delivery ends mid-line: " << chunk;
    }
    return lines;
}

struct FrameCase {
    const char *name;
    std::vector<std::string> reads;
    std::vector<std::string> delivered;
    std::vector<size_t> dropped_sizes;
};

const std::string k510(510, 'v');
const std::string k600(600, 'x');
const std::string k400 = "+VER=" + std::string(395, '1');

const FrameCase kFrameCases[] = {
    {"LineSplitAcrossReadsIsJoined", {"+VER=1.", "0\r", "\n"}, {"+VER=1.0\r\n"}, {}},
    {"SeveralLinesInOneReadGoOutTogether", {"+OK\r\n+SN=1\r\n"}, {"+OK\r\n+SN=1\r\n"}, {}},
    {"UnfinishedLineIsHeld", {"+OK\r\n+VE"}, {}, {}},
    {"HeldLineCompletesLater", {"+OK\r\n+VE", "R=2\r\n"}, {"+OK\r\n+VER=2\r\n"}, {}},
    {"LongestKeptLineIsDelivered", {k510 + "\r\n"}, {k510 + "\r\n"}, {}},
    {"NoLineEndPastLimitIsDropped", {k600, "+OK\r\n"}, {"+OK\r\n"}, {600}},
    {"LimitDeliversCompleteLinesFirst", {"+OK\r\n" + k400, std::string(200, '2') + "\r\n+SN"},
     {"+OK\r\n" + k400 + std::string(200, '2') + "\r\n"}, {}},
    {"LimitKeepsShortUnfinishedRest", {k400, "\r\n+SN=" + std::string(150, '9'), "\r\n"},
     {k400 + "\r\n", "+SN=" + std::string(150, '9') + "\r\n"}, {}},
    {"LimitDropsOnlyLongUnfinishedRest", {"+OK\r\n" + std::string(300, 'y'), std::string(300, 'y')},
     {"+OK\r\n"}, {600}},
    {"NulSplitsTheChunk", {std::string("+OK\r\n\0+SN=1\r\n", 13)}, {"+OK\r\n", "+SN=1\r\n"}, {}},
    {"NulInsideLineDeliversBothSides", {std::string("+VE\0+OK\r\n", 9)}, {"+VE", "+OK\r\n"}, {}},
    {"TextAfterNulIsHeldUntilComplete", {std::string("+OK\r\n\0+VER", 10), "=1\r\n"},
     {"+OK\r\n", "+VER=1\r\n"}, {}},
    {"RunOfNulsDeliversNothingEmpty", {std::string("\0\0\0+OK\r\n", 8)}, {"+OK\r\n"}, {}},
};

void PrintTo(const FrameCase &c, std::ostream *os) { *os << c.name; }

class RxFramingCases : public ::testing::TestWithParam<FrameCase> {};

}  // namespace

TEST_P(RxFramingCases, DeliversAndDrops) {
    const FrameCase &c = GetParam();
    at_rx_buffer rx = {};
    Seen seen;
    for (const std::string &read : c.reads) receive(rx, read, seen);
    EXPECT_EQ(seen.delivered, c.delivered);
    std::vector<size_t> dropped_sizes;
    for (const std::string &d : seen.dropped) dropped_sizes.push_back(d.size());
    EXPECT_EQ(dropped_sizes, c.dropped_sizes);
    EXPECT_LE(rx.fill, static_cast<size_t>(AT_RX_HOLD_MAX));
}

INSTANTIATE_TEST_SUITE_P(RxFramingReads, RxFramingCases, ::testing::ValuesIn(kFrameCases),
                         [](const ::testing::TestParamInfo<FrameCase> &info) {
                             return std::string(info.param.name);
                         });

// A busy link: answer lines of varied length back to back, read in fixed-size pieces. Every line
// must come out once, whole and in order, whatever the cut.
class RxFramingStream : public ::testing::TestWithParam<size_t> {};

TEST_P(RxFramingStream, EveryLineArrivesOnceInOrder) {
    std::vector<std::string> sent;
    std::string stream;
    for (int i = 0; i < 400; ++i) {
        std::string line = "+VER=" + std::to_string(i) + "." + std::string(i % 97, 'a') + "#" +
                           std::to_string(i) + "&1\r\n";
        sent.push_back(line);
        stream += line;
    }
    const size_t read_size = GetParam();
    at_rx_buffer rx = {};
    Seen seen;
    for (size_t pos = 0; pos < stream.size();) {
        const size_t n = std::min({read_size, at_rx_room(&rx), stream.size() - pos});
        receive(rx, stream.substr(pos, n), seen);
        pos += n;
    }
    EXPECT_TRUE(seen.dropped.empty());
    EXPECT_EQ(rx.fill, 0u);
    EXPECT_EQ(split_lines(seen.delivered), sent);
}

INSTANTIATE_TEST_SUITE_P(RxFramingReadSizes, RxFramingStream, ::testing::Values(1, 7, 64, 512));

TEST(RxFraming, BadArgumentsChangeNothing) {
    at_rx_buffer rx = {};
    Seen seen;
    at_rx_frame(nullptr, 5, on_deliver, on_too_long, &seen);
    at_rx_frame(&rx, 5, nullptr, on_too_long, &seen);
    EXPECT_EQ(rx.fill, 0u);
    EXPECT_EQ(at_rx_room(nullptr), 0u);

    // A count beyond the room is cut to the room, never past the buffer.
    memset(rx.data, 'z', AT_RX_BUF_SIZE);
    at_rx_frame(&rx, AT_RX_BUF_SIZE + 100, on_deliver, on_too_long, &seen);
    ASSERT_EQ(seen.dropped.size(), 1u);
    EXPECT_EQ(seen.dropped[0].size(), static_cast<size_t>(AT_RX_BUF_SIZE));
    EXPECT_EQ(rx.fill, 0u);
}
