/*
 * The keyword table AT_CMDS and its two lookups. A row's index is the record's cmd_id and the
 * msg_id of every notification about that keyword, so the order is part of the protocol.
 * Constant; read by the receive threads and the dispatcher without a lock.
 */
#define LOG_TAG "ATCMD_PARSE"

#include <string.h>

#include "accessory/accessory.h"
#include "engine/engine.h"
#include "engine/keyword_rows.h"
#include "log/atcmd_log.h"

namespace {

// Every row names its keyword, and its parser unless it says it has none.
#define ATCMD_CHECK_ROW(name, parser)                                                \
    static_assert(sizeof #name > 1 && sizeof #parser > 1,                              \
                  "AT_CMDS: a row of ATCMD_KEYWORD_ROWS without a name or a parser (" \
                  #name "); a keyword without a parser is NO_PARSER(name)");
#define ATCMD_CHECK_ROW_NO_PARSER(name) \
    static_assert(sizeof #name > 1, "AT_CMDS: a NO_PARSER row of ATCMD_KEYWORD_ROWS without a name");
ATCMD_KEYWORD_ROWS(ATCMD_CHECK_ROW, ATCMD_CHECK_ROW_NO_PARSER)

// Each row's message id, in the rows' order: the rows must follow the upper layer's ids one to
// one, or the table would hand up wrong message ids.
#define ATCMD_ROW_ID(name, parser) AT_MSG_##name,
#define ATCMD_ROW_ID_NO_PARSER(name) AT_MSG_##name,
constexpr int kRowIds[] = {ATCMD_KEYWORD_ROWS(ATCMD_ROW_ID, ATCMD_ROW_ID_NO_PARSER)};

constexpr bool rows_in_message_id_order() {
    for (size_t row = 0; row < sizeof kRowIds / sizeof kRowIds[0]; ++row) {
        if (kRowIds[row] != static_cast<int>(row)) return false;
    }
    return true;
}

static_assert(sizeof kRowIds / sizeof kRowIds[0] == AT_MSG_COUNT,
              "AT_CMDS: ATCMD_KEYWORD_ROWS (engine/keyword_rows.h) needs one row per message id "
              "of atcmdprocess.h, AT_MSG_COUNT rows");
static_assert(rows_in_message_id_order(),
              "AT_CMDS: ATCMD_KEYWORD_ROWS (engine/keyword_rows.h) must list its rows in "
              "message-id order, AT_MSG_REBOOT first");

}  // namespace

// constexpr so that the lookup chains below are built from it at compile time.
#define ATCMD_TABLE_ROW(name, parser) {"+" #name, parser},
#define ATCMD_TABLE_ROW_NO_PARSER(name) {"+" #name, nullptr},
constexpr AT_CMD_Table_t AT_CMDS[AT_MSG_COUNT] = {
    ATCMD_KEYWORD_ROWS(ATCMD_TABLE_ROW, ATCMD_TABLE_ROW_NO_PARSER)};

namespace {
constexpr size_t kAtCommandMinLen = 4;  // "AT" and at least "+" and one letter
constexpr uint8_t kNoRow = 0xFF;
constexpr size_t kCharCount = 256;

// Every keyword is "+" and a letter or more. Rows are chained by that letter, in row order, so
// a lookup of a text of two characters or more compares only the rows that share its letter;
// row order (and so the first-match rules) is kept within each chain.
struct LetterChains {
    uint8_t first[kCharCount];  // first row with this second character, or kNoRow
    uint8_t next[AT_MSG_COUNT]; // next row with the same second character, or kNoRow
};

constexpr LetterChains build_chains() {
    LetterChains chains{};
    for (size_t c = 0; c < kCharCount; ++c) chains.first[c] = kNoRow;
    for (size_t row = AT_MSG_COUNT; row-- > 0;) {
        const auto letter = static_cast<unsigned char>(AT_CMDS[row].keyword[1]);
        chains.next[row] = chains.first[letter];
        chains.first[letter] = static_cast<uint8_t>(row);
    }
    return chains;
}

constexpr LetterChains kChains = build_chains();

// First row, in row order, that `matches` accepts; the text has at least two characters.
template <typename Match>
int find_in_chain(const char *text, uint8_t *idx, Match matches) {
    for (uint8_t row = kChains.first[static_cast<unsigned char>(text[1])]; row != kNoRow;
         row = kChains.next[row]) {
        if (matches(AT_CMDS[row].keyword)) {
            *idx = row;
            return 1;
        }
    }
    return 0;
}

}  // namespace

int findAtCmdIdx(const char *line, uint8_t *idx) {
    if (line == nullptr || strlen(line) < kAtCommandMinLen || line[0] != 'A' || line[1] != 'T') {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "Invalidate AT command!");
        return 0;
    }
    const char *keyword = line + 2;  // two characters at least, by the length test above
    return find_in_chain(keyword, idx, [&](const char *kw) { return strcmp(keyword, kw) == 0; });
}

int findResCmdIdx(const char *line, uint8_t *idx) {
    if (line == nullptr) return 0;
    const size_t len = strlen(line);
    // Prefix rule: the first keyword that begins with the line wins ("+BT" finds "+BTMAC").
    if (len >= 2) {
        return find_in_chain(line, idx, [&](const char *kw) { return strncmp(line, kw, len) == 0; });
    }
    for (uint8_t row = 0; row < AT_MSG_COUNT; ++row) {  // "" and "+" match row 0
        if (strncmp(line, AT_CMDS[row].keyword, len) == 0) {
            *idx = row;
            return 1;
        }
    }
    return 0;
}
