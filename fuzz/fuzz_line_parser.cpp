/*
 * Fuzz target: arbitrary received bytes through the receive framing into the line parser, as a
 * receive thread feeds it; every record handed over to the dispatch queue is checked: text
 * NUL-terminated inside its 160-byte buffer and ending in CR LF, keyword row below 39, a line
 * kind from 1 to 5.
 */
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "engine/engine.h"
#include "log/atcmd_log.h"

namespace {

void parse(void * /*ctx*/, char *text, size_t /*len*/) {
    char line[AT_LINE_BUF_SIZE];
    AtCmder_t cmd = {};
    cmd.source = AT_NODE_ACCESSORY;
    cmd.data = line;
    cmd_Parse_from_buffer(&cmd, text);
}

void check_queued_records() {
    char text[AT_LINE_BUF_SIZE];
    AtCmder_t cmd = {};
    cmd.data = text;
    while (atcmder_dequeue(&Rx_head, &g_rxqueue_mutex, &cmd) == ATCMDER_QUEUE_OK) {
        const size_t len = strnlen(text, sizeof text);
        if (len == sizeof text || len < 3 || text[len - 2] != '\r' || text[len - 1] != '\n') abort();
        if (text[0] != '+' && text[0] != 'A') abort();
        if (cmd.cmd_id >= AT_MSG_COUNT) abort();
        if (cmd.type < AT_TYPE_EXEC || cmd.type > AT_TYPE_REPORT) abort();
        if (cmd.source != AT_NODE_ACCESSORY) abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    log_level = -1;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    struct at_rx_buffer rx = {};
    size_t at = 0;
    while (at < size) {  // reads as large as the room, as a receive thread makes them
        const size_t n = size - at < at_rx_room(&rx) ? size - at : at_rx_room(&rx);
        memcpy(rx.data + rx.fill, data + at, n);
        at += n;
        at_rx_frame(&rx, n, parse, nullptr, nullptr);
        check_queued_records();
    }
    return 0;
}
