/*
 * Fuzz target: the receive framing with arbitrary bytes in reads of arbitrary sizes. Every
 * CR LF-terminated line of up to AT_RX_HOLD_MAX bytes must be delivered once, whole and in
 * order; a longer line may only show up as its tail; nothing else is delivered.
 * Input: two bytes seed the read sizes, the rest is the stream (NUL bytes, which the framing
 * splits on by design, are replaced so the stream is plain text).
 */
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "engine/engine.h"
#include "log/atcmd_log.h"

namespace {

void collect(void *ctx, char *text, size_t len) {
    static_cast<std::string *>(ctx)->append(text, len);
}

// Pieces of `s` that end in CR LF, and the unfinished rest (if any) as the last piece.
std::vector<std::string> lines_of(const std::string &s) {
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t i = 1; i < s.size(); ++i) {
        if (s[i - 1] == '\r' && s[i] == '\n') {
            lines.push_back(s.substr(start, i + 1 - start));
            start = i + 1;
        }
    }
    if (start < s.size()) lines.push_back(s.substr(start));
    return lines;
}

bool ends_with(const std::string &s, const std::string &tail) {
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

// When an over-long unfinished line is dropped just after its CR, the LF that completes it
// arrives with the next bytes and is handed on in front of the next line; the parser skips a
// lone LF at the start of a line. So a line that fits may arrive with that one LF in front.
bool arrived_as(const std::vector<std::string> &want, size_t i, const std::string &got) {
    if (ends_with(want[i], got)) return true;
    return i > 0 && want[i - 1].size() > AT_RX_HOLD_MAX && got.size() == want[i].size() + 1 &&
           got[0] == '\n' && got.compare(1, std::string::npos, want[i]) == 0;
}

void check(const std::string &sent, const std::string &delivered) {
    const std::vector<std::string> want = lines_of(sent);
    size_t next = 0;
    for (const std::string &got : lines_of(delivered)) {
        if (!ends_with(got, "\r\n")) abort();  // only whole lines are handed on
        // Lines skipped on the way must have been too long to hold.
        while (next < want.size() && !arrived_as(want, next, got)) {
            if (want[next].size() <= AT_RX_HOLD_MAX) abort();
            ++next;
        }
        if (next == want.size()) abort();  // delivered something that was not sent, or twice
        if (want[next].size() <= AT_RX_HOLD_MAX && !ends_with(got, want[next])) abort();
        ++next;
    }
    for (; next < want.size(); ++next) {
        if (want[next].size() <= AT_RX_HOLD_MAX) abort();  // a line that fits never arrived
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    log_level = -1;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    uint32_t rng = (uint32_t{data[0]} << 8 | data[1]) + 1;
    std::string sent(reinterpret_cast<const char *>(data + 2), size - 2);
    for (char &c : sent) {
        if (c == '\0') c = '\x01';
    }
    sent += "\r\n";  // the final line completes, so everything that fits must be out
    struct at_rx_buffer rx = {};
    std::string delivered;
    size_t at = 0;
    while (at < sent.size()) {
        rng ^= rng << 13;
        rng ^= rng >> 17;
        rng ^= rng << 5;
        size_t n = 1 + rng % 600;
        if (n > at_rx_room(&rx)) n = at_rx_room(&rx);
        if (n > sent.size() - at) n = sent.size() - at;
        memcpy(rx.data + rx.fill, sent.data() + at, n);
        at += n;
        at_rx_frame(&rx, n, collect, nullptr, &delivered);
    }
    check(sent, delivered);
    return 0;
}
