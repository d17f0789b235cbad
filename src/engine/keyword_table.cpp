/*
 * The keyword table AT_CMDS and its two lookups. A row's index is the record's cmd_id and the
 * msg_id of every notification about that keyword, so the order is part of the protocol.
 * Constant; read by the receive threads and the dispatcher without a lock.
 */
#define LOG_TAG "ATCMD_PARSE"

#include <string.h>

#include "accessory/accessory.h"
#include "engine/engine.h"
#include "log/atcmd_log.h"

// constexpr so that the lookup chains below are built from it at compile time.
constexpr AT_CMD_Table_t AT_CMDS[AT_MSG_COUNT] = {
    {"+REBOOT", REBOOT_parser},     {"+UPGRADE", UPGRADE_parser},
    {"+RECOVERY", RECOVERY_parser}, {"+SHUTDOWN", SHUTDOWN_parser},
    {"+POWEROFF", POWEROFF_parser}, {"+RESET", RESET_parser},
    {"+STARTUP", nullptr},          {"+BTMAC", BTMAC_parser},
    {"+BLEMAC", BLEMAC_parser},     {"+BAT", BAT_parser},
    {"+STATE", STATE_parser},       {"+VER", VER_parser},
    {"+HALL", HALL_parser},         {"+SN", SN_parser},
    {"+SID", SID_parser},           {"+TYPE", TYPE_parser},
    {"+USBSTATE", USBSTATE_parser}, {"+SCREEN", SCREEN_parser},
    {"+WIFICON", nullptr},          {"+MICMODE", MICMODE_parser},
    {"+WIFI", WIFI_parser},         {"+BT", BT_parser},
    {"+TIME", TIME_parser},         {"+OK", OK_parser},
    {"+ERROR", ERROR_parser},       {"+SLEEP", SLEEP_parser},
    {"+BATCG", BATCG_parser},       {"+BKL", BKL_parser},
    {"+MODE", MODE_parser},         {"+ACC", ACC_parser},
    {"+LIGHT", LIGHT_parser},       {"+HALLCG", HALLCG_parser},
    {"+TEST", TEST_parser},         {"+HRM", HRM_TEMP_parser},
    {"+DTR", DTR_parser},           {"+PTEST", PTEST_parser},
    {"+MMI1", MMI1_parser},         {"+PT", PT_parser},
    {"+WT", WT_parser},
};

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
        ATCMD_LOG(0, "Invalidate AT command!");
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
