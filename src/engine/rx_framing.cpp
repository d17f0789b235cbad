/*
 * The receive framing shared by every receive loop (UART, VUART, Wi-Fi): collects the bytes of
 * one channel until they end in CR LF and hands complete lines on, never holding more than
 * AT_RX_HOLD_MAX bytes of an unfinished line. Runs on each receive thread with that thread's own
 * buffer; writes no globals.
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <string.h>

#include "engine/engine.h"
#include "log/atcmd_log.h"

namespace {

// Held bytes of this many or more are no longer kept as one pending line.
constexpr size_t kTooLong = AT_RX_HOLD_MAX + 1;

bool ends_in_crlf(const char *data, size_t len) {
    return len >= 2 && data[len - 2] == '\r' && data[len - 1] == '\n';
}

// Length of the held text up to and including its last CR LF, 0 when it holds none.
size_t complete_prefix(const char *data, size_t len) {
    for (size_t end = len; end >= 2; --end) {
        if (ends_in_crlf(data, end)) return end;
    }
    return 0;
}

void drop_front(struct at_rx_buffer *rx, size_t count) {
    memmove(rx->data, rx->data + count, rx->fill - count);
    rx->fill -= count;
    rx->data[rx->fill] = '\0';
}

// A run of reads with NULs is logged at its first read, every kNulRunReport reads after that,
// and at its end, with the reads and bytes so far; the reads between are counted only.
constexpr size_t kNulRunReport = 4096;

void log_nul_run(const struct at_rx_buffer *rx, const char *state) {
    ATCMD_LOG(ATCMD_LEVEL_STATE,
              "receive data held NUL bytes in %zu read(s) %s, %zu dropped in all; the text "
              "around them was parsed",
              rx->nul_run_reads, state, rx->nul_run_bytes);
}

void count_nuls(struct at_rx_buffer *rx, size_t nuls) {
    if (nuls == 0) {
        if (rx->nul_run_reads > 1) log_nul_run(rx, "until now");
        rx->nul_run_reads = 0;
        rx->nul_run_bytes = 0;
        return;
    }
    if (rx->nul_run_reads == 0) {
        ATCMD_LOG(ATCMD_LEVEL_STATE,
                  "receive data held %zu NUL byte(s), dropped them and parsed the text around them",
                  nuls);
    }
    ++rx->nul_run_reads;
    rx->nul_run_bytes += nuls;
    if (rx->nul_run_reads % kNulRunReport == 0) log_nul_run(rx, "so far");
}

// The parser works on NUL-terminated text, so a NUL received from the link would hide what
// follows it. Each NUL ends the text before it, which goes out on its own; the NUL is dropped.
void split_at_nuls(struct at_rx_buffer *rx, at_rx_deliver_fn deliver, void *ctx) {
    size_t start = 0;
    size_t nuls = 0;
    for (;;) {
        const void *nul = memchr(rx->data + start, '\0', rx->fill - start);
        if (nul == nullptr) break;
        const size_t at = static_cast<size_t>(static_cast<const char *>(nul) - rx->data);
        if (at > start) deliver(ctx, rx->data + start, at - start);
        ++nuls;
        start = at + 1;
    }
    count_nuls(rx, nuls);
    if (nuls > 0) drop_front(rx, start);
}

// Over the hold limit: every complete line goes out, and only an unfinished rest that is itself
// too long is dropped, so a busy link never loses whole lines to the limit.
void frame_over_limit(struct at_rx_buffer *rx, at_rx_deliver_fn deliver,
                      at_rx_too_long_fn too_long, void *ctx) {
    const size_t complete = complete_prefix(rx->data, rx->fill);
    if (complete > 0) {
        const char first_of_rest = rx->data[complete];
        rx->data[complete] = '\0';
        deliver(ctx, rx->data, complete);
        rx->data[complete] = first_of_rest;
        drop_front(rx, complete);
    }
    if (rx->fill >= kTooLong) {
        if (too_long != nullptr) too_long(ctx, rx->data);
        rx->fill = 0;
        rx->data[0] = '\0';
    }
}

}  // namespace

size_t at_rx_room(const struct at_rx_buffer *rx) {
    return rx != nullptr ? AT_RX_BUF_SIZE - rx->fill : 0;
}

void at_rx_drop(struct at_rx_buffer *rx, const char *why) {
    if (rx == nullptr || rx->fill == 0) return;
    ATCMD_LOG(ATCMD_LEVEL_STATE, "receive data dropped, %zu bytes of an unfinished line (%s): %s",
              rx->fill, why != nullptr ? why : "link changed", rx->data);
    rx->fill = 0;
    rx->data[0] = '\0';
}

void at_rx_frame(struct at_rx_buffer *rx, size_t received, at_rx_deliver_fn deliver,
                 at_rx_too_long_fn too_long, void *ctx) {
    if (rx == nullptr || deliver == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "at_rx_frame: null buffer or delivery, %zu bytes ignored",
                  received);
        return;
    }
    if (received > at_rx_room(rx)) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR,
                  "at_rx_frame: %zu bytes reported for %zu bytes of room, keeping the room",
                  received, at_rx_room(rx));
        received = at_rx_room(rx);
    }
    rx->fill += received;
    rx->data[rx->fill] = '\0';
    split_at_nuls(rx, deliver, ctx);

    if (rx->fill >= kTooLong) {
        frame_over_limit(rx, deliver, too_long, ctx);
    } else if (ends_in_crlf(rx->data, rx->fill)) {
        deliver(ctx, rx->data, rx->fill);
        rx->fill = 0;
        rx->data[0] = '\0';
    }
}
