/*
 * Fuzz target: the receive framing with arbitrary bytes in reads of arbitrary sizes. Every
 * CR LF-terminated line of up to AT_RX_HOLD_MAX bytes must be delivered once, whole and in
 * order; a longer line may only show up as its tail; nothing else is delivered.
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

bool ends_with(const std::string &s, const std::string &tail) {
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

// Matches what was delivered against what was sent. A line that fits the hold limit must come
// out whole, once and in order. When an over-long unfinished line is dropped just after its CR,
// the LF that completes it arrives with the next bytes and is handed on in front of the next
// line (the parser skips it), so that line may arrive with one LF in front, and it then fits
// only if it is one byte shorter. A line that does not fit may be lost or show up as a tail.
// Several readings can fit the same delivery (a tail of a long line can look like the next
// line), so every reading is tried; failed positions are remembered to keep this linear.
class Matcher {
public:
    Matcher(const std::vector<std::string> &want, const std::vector<std::string> &got)
        : want_(want), got_(got), failed_((want.size() + 1) * (got.size() + 1), false) {}

    bool match(size_t w, size_t g) {
        if (g == got_.size()) {
            for (; w < want_.size(); ++w) {
                if (fits(w)) return false;  // a line that fits never arrived
            }
            return true;
        }
        if (w == want_.size()) return false;  // delivered something not sent, or twice
        const size_t key = w * (got_.size() + 1) + g;
        if (failed_[key]) return false;
        const bool ok = (delivered_as(w, got_[g]) && match(w + 1, g + 1)) ||
                        (!fits(w) && match(w + 1, g));
        if (!ok) failed_[key] = true;
        return ok;
    }

private:
    bool after_long(size_t w) const { return w > 0 && want_[w - 1].size() > AT_RX_HOLD_MAX; }

    bool fits(size_t w) const {
        return want_[w].size() + (after_long(w) ? 1 : 0) <= AT_RX_HOLD_MAX;
    }

    bool delivered_as(size_t w, const std::string &got) const {
        const std::string &line = want_[w];
        const bool with_lf = after_long(w) && got == "\n" + line;
        if (fits(w)) return got == line || with_lf;
        return ends_with(line, got) || with_lf || (after_long(w) && ends_with("\n" + line, got));
    }

    const std::vector<std::string> &want_;
    const std::vector<std::string> &got_;
    std::vector<bool> failed_;
};

void check(const std::string &sent, const std::string &delivered) {
    const std::vector<std::string> got = lines_of(delivered);
    for (const std::string &line : got) {
        if (!ends_with(line, "\r\n")) abort();  // only whole lines are handed on
    }
    const std::vector<std::string> want = lines_of(sent);
    if (!Matcher(want, got).match(0, 0)) abort();
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
