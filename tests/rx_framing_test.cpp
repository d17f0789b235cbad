// The receive framing every loop shares. What comes out of a run of reads is written as
// "<text>|" per delivery and "drop <size>|" per unfinished rest that was dropped.
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "support/test_support.h"

using namespace std::string_literals;

static void on_deliver(void *ctx, char *text, size_t len) {
    EXPECT_EQ(strlen(text), len);  // the parser relies on the terminator
    *static_cast<std::string *>(ctx) += std::string(text, len) + "|";
}

static void on_too_long(void *ctx, const char *held) {
    *static_cast<std::string *>(ctx) += "drop " + std::to_string(strlen(held)) + "|";
}

static std::string receive_all(const std::vector<std::string> &reads, size_t read_size = SIZE_MAX) {
    at_rx_buffer rx = {};
    std::string seen;
    for (const std::string &bytes : reads)
        for (size_t pos = 0, n; pos < bytes.size(); pos += n) {
            n = std::min({read_size, at_rx_room(&rx), bytes.size() - pos});
            memcpy(rx.data + rx.fill, bytes.data() + pos, n);
            at_rx_frame(&rx, n, on_deliver, on_too_long, &seen);
            EXPECT_LE(rx.fill, static_cast<size_t>(AT_RX_HOLD_MAX));
        }
    return seen;
}

static std::string s(size_t n, char c) { return std::string(n, c); }

TEST(RxFraming, DeliversWholeLinesAndDropsOnlyLongRests) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"+VER", "=1\r", "\n", "+OK\r\n+SN=1\r\n", "+OK\r\n+VE"}, "+VER=1\r\n|+OK\r\n+SN=1\r\n|"},
        {{s(510, 'v') + "\r\n", s(600, 'x'), "+OK\r\n"}, s(510, 'v') + "\r\n|drop 600|+OK\r\n|"},
        // Past the hold limit complete lines still go out; only a long unfinished rest is lost.
        {{s(400, 'v'), s(200, 'v') + "\r\n+SN", "=1\r\n"}, s(600, 'v') + "\r\n|+SN=1\r\n|"},
        {{"+OK\r\n" + s(300, 'y'), s(300, 'y')}, "+OK\r\n|drop 600|"},
        {{"+OK\r\n\0+SN=1\r\n"s}, "+OK\r\n|+SN=1\r\n|"},  // a NUL ends the text before it
        {{"\0+VE\0+OK\r\n\0+VER"s, "=1\r\n"}, "+VE|+OK\r\n|+VER=1\r\n|"},
        // Found by fuzzing: an over-long rest dropped at its CR; its LF leads the next line.
        {{"+SN=" + s(AT_RX_HOLD_MAX, '9') + "\r", "\n+OK#8&1\r\n"}, "drop 517|\n+OK#8&1\r\n|"},
    };
    for (const auto &[reads, seen] : cases) EXPECT_EQ(receive_all(reads), seen) << reads[0];

    // A busy link cut at any read size: every line comes out once, whole and in order.
    std::string stream;
    for (int i = 0; i < 400; ++i)
        stream += "+VER=" + std::to_string(i) + s(i % 97, 'a') + "#" + std::to_string(i) + "&1\r\n";
    for (size_t read_size : {1, 7, 64, 512}) {
        std::string seen = receive_all({stream}, read_size);
        for (size_t at = 0; (at = seen.find("\r\n|", at)) != seen.npos;) seen.erase(at += 2, 1);
        EXPECT_EQ(seen, stream) << read_size;  // so no drop, and no "|" inside a line
    }

    at_rx_buffer rx = {};  // a count reported beyond the room is cut to the room
    std::string seen;
    memset(rx.data, 'z', AT_RX_BUF_SIZE);
    at_rx_frame(&rx, AT_RX_BUF_SIZE + 100, on_deliver, on_too_long, &seen);
    EXPECT_EQ(seen, "drop " + std::to_string(AT_RX_BUF_SIZE) + "|");
}

// A peer that floods NULs costs a few log lines, not one a read: the run's first read, a count
// every 4096 reads, and the count at its end; the lines around the NULs still come out.
TEST(RxFraming, AFloodOfNulsIsLoggedAsACount) {
    atcmd_test::Sandbox sb(atcmd_test::kWithLog);
    at_rx_buffer rx = {};
    std::string seen;
    for (int i = 0; i < 10000; ++i) {
        memset(rx.data, 0, 512);
        at_rx_frame(&rx, 512, on_deliver, on_too_long, &seen);
    }
    memcpy(rx.data, "+OK\r\n", 5);
    at_rx_frame(&rx, 5, on_deliver, on_too_long, &seen);
    EXPECT_EQ(seen, "+OK\r\n|");
    const std::string log = sb.log_text();
    auto count = [&](const std::string &text) {
        size_t n = 0;
        for (size_t at = log.find(text); at != log.npos; at = log.find(text, at + 1)) ++n;
        return n;
    };
    EXPECT_EQ(count("receive data held 512 NUL byte(s)"), 1u);
    EXPECT_EQ(count("receive data held NUL bytes in 4096 read(s) so far, 2097152 dropped in all"), 1u);
    EXPECT_EQ(count("receive data held NUL bytes in 8192 read(s) so far"), 1u);
    EXPECT_EQ(count("receive data held NUL bytes in 10000 read(s) until now, 5120000 dropped"), 1u);
}
