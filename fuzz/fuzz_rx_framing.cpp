/*
 * Fuzz target: the receive framing with arbitrary bytes in reads of arbitrary sizes. Only whole
 * CR LF-terminated lines are delivered, never more of them than were sent, and every line of up
 * to AT_RX_HOLD_MAX bytes that follows another such line arrives once, whole and in order. (A
 * line after an over-long one may arrive with that one's LF in front; the unit test holds it.)
 * Input: two bytes seed the read sizes, the rest is the stream (NUL bytes, which the framing
 * splits on deliberately, are replaced so the stream is plain text).
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

// Whole lines that fit, after one that fits, must all be there in order; a line after an
// over-long one, or the tail of an over-long one, may sit between them.
void check(const std::string &sent, const std::string &delivered) {
    const std::vector<std::string> want = lines_of(sent), got = lines_of(delivered);
    if (got.size() > want.size()) abort();  // delivered twice, or made up
    for (const std::string &line : got) {
        if (line.size() < 2 || line.compare(line.size() - 2, 2, "\r\n") != 0) abort();  // not whole
    }
    size_t g = 0;
    for (size_t w = 0; w < want.size(); ++w) {
        if (want[w].size() > AT_RX_HOLD_MAX || (w > 0 && want[w - 1].size() > AT_RX_HOLD_MAX)) continue;
        while (g < got.size() && got[g] != want[w]) ++g;
        if (g++ == got.size()) abort();  // a line that fits never arrived
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
