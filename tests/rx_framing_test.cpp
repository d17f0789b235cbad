// The receive framing every loop shares: what is delivered and dropped for a sequence of reads,
// and a continuous answer stream cut at several read sizes.
#include <gtest/gtest.h>

#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "engine/engine.h"

namespace {

struct Seen {
    std::vector<std::string> delivered;
    std::vector<size_t> dropped;  // sizes
};

void on_deliver(void *ctx, char *text, size_t len) {
    EXPECT_EQ(strlen(text), len);  // the parser relies on the terminator
    static_cast<Seen *>(ctx)->delivered.emplace_back(text, len);
}

void on_too_long(void *ctx, const char *held) {
    static_cast<Seen *>(ctx)->dropped.push_back(strlen(held));
}

// One read of `bytes` into the loop's buffer, as a receive loop does it.
void receive(at_rx_buffer &rx, const std::string &bytes, Seen &seen) {
    ASSERT_LE(bytes.size(), at_rx_room(&rx));
    memcpy(rx.data + rx.fill, bytes.data(), bytes.size());
    at_rx_frame(&rx, bytes.size(), on_deliver, on_too_long, &seen);
}

std::string s(size_t n, char c) { return std::string(n, c); }

}  // namespace

TEST(RxFraming, ReadSequences) {
    using namespace std::string_literals;
    const std::string k400 = "+VER=" + s(395, '1');
    const struct {
        std::vector<std::string> reads, delivered;
        std::vector<size_t> dropped;
    } cases[] = {
        {{"+VER=1.", "0\r", "\n"}, {"+VER=1.0\r\n"}, {}},
        {{"+OK\r\n+SN=1\r\n"}, {"+OK\r\n+SN=1\r\n"}, {}},
        {{"+OK\r\n+VE"}, {}, {}},
        {{s(510, 'v') + "\r\n"}, {s(510, 'v') + "\r\n"}, {}},
        {{s(600, 'x'), "+OK\r\n"}, {"+OK\r\n"}, {600}},
        // Past the hold limit complete lines still go out; only a long unfinished rest is lost.
        {{"+OK\r\n" + k400, s(200, '2') + "\r\n+SN"}, {"+OK\r\n" + k400 + s(200, '2') + "\r\n"}, {}},
        {{k400, "\r\n+SN=" + s(150, '9'), "\r\n"}, {k400 + "\r\n", "+SN=" + s(150, '9') + "\r\n"}, {}},
        {{"+OK\r\n" + s(300, 'y'), s(300, 'y')}, {"+OK\r\n"}, {600}},
        // A NUL ends the text before it; it never hides what follows.
        {{"+OK\r\n\0+SN=1\r\n"s}, {"+OK\r\n", "+SN=1\r\n"}, {}},
        {{"+VE\0+OK\r\n"s}, {"+VE", "+OK\r\n"}, {}},
        {{"\0\0+OK\r\n\0+VER"s, "=1\r\n"}, {"+OK\r\n", "+VER=1\r\n"}, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.reads[0].substr(0, 20));
        at_rx_buffer rx = {};
        Seen seen;
        for (const std::string &read : c.reads) receive(rx, read, seen);
        EXPECT_EQ(seen.delivered, c.delivered);
        EXPECT_EQ(seen.dropped, c.dropped);
        EXPECT_LE(rx.fill, static_cast<size_t>(AT_RX_HOLD_MAX));
    }
}

// A busy link: lines of varied length back to back. Every line comes out once, whole and in
// order, whatever the read size.
TEST(RxFraming, StreamSurvivesEveryReadSize) {
    std::vector<std::string> sent;
    std::string stream;
    for (int i = 0; i < 400; ++i) {
        sent.push_back("+VER=" + std::to_string(i) + s(i % 97, 'a') + "#" + std::to_string(i) +
                       "&1\r\n");
        stream += sent.back();
    }
    for (size_t read_size : {1, 7, 64, 512}) {
        SCOPED_TRACE(read_size);
        at_rx_buffer rx = {};
        Seen seen;
        for (size_t pos = 0, n; pos < stream.size(); pos += n) {
            n = std::min({read_size, at_rx_room(&rx), stream.size() - pos});
            receive(rx, stream.substr(pos, n), seen);
        }
        std::vector<std::string> lines;
        for (const std::string &chunk : seen.delivered) {
            ASSERT_EQ(chunk.substr(chunk.size() - 2), "\r\n");
            for (size_t a = 0, b; (b = chunk.find("\r\n", a)) != std::string::npos; a = b + 2) {
                lines.push_back(chunk.substr(a, b + 2 - a));
            }
        }
        EXPECT_EQ(lines, sent);
        EXPECT_TRUE(seen.dropped.empty());
    }
}

TEST(RxFraming, BadArgumentsChangeNothing) {
    at_rx_buffer rx = {};
    Seen seen;
    at_rx_frame(nullptr, 5, on_deliver, on_too_long, &seen);
    at_rx_frame(&rx, 5, nullptr, on_too_long, &seen);
    EXPECT_EQ(rx.fill, 0u);
    memset(rx.data, 'z', AT_RX_BUF_SIZE);
    at_rx_frame(&rx, AT_RX_BUF_SIZE + 100, on_deliver, on_too_long, &seen);  // cut to the room
    EXPECT_EQ(seen.dropped, std::vector<size_t>{AT_RX_BUF_SIZE});
    EXPECT_EQ(rx.fill, 0u);
}
