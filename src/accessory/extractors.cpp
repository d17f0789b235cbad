/*
 * Field extractors: cut one value (a number, a text, a state word, a list of numbers or the seven
 * version items) out of a whole received line. Pure functions of the line, run on the dispatch
 * thread by the answer parsers and on any thread by tests; they write no global, only the
 * caller's output. Every copy is bounded by its destination.
 */
#define LOG_TAG "ATCMD_PARSE"

#include <stdlib.h>
#include <string.h>

#include <array>

#include "accessory/accessory.h"
#include "log/atcmd_log.h"

namespace {

constexpr char kValueMark = '=';   // the payload follows the first "="
constexpr char kSeqMark = '#';     // the sequence-and-flag tail begins here
constexpr char kLineEnd = '\r';    // end of a text payload on a line without "#"
constexpr char kVerNameEnd = ':';  // a version item's name ends here, its value follows
constexpr char kVerItemEnd = ',';  // separates version items
constexpr int kDecimal = 10;
constexpr char kEmptyVerItem[] = "NULL";
// The bounded copy behind getstr_fromCmdString logs under the extractor's own name.
constexpr char kGetstr[] = "getstr_fromCmdString";

struct StateWord {
    const char *word;
    int32_t state;
};

// Searched in this order; the first word found anywhere in the line wins, so IDLE beats ACTIVE.
constexpr std::array<StateWord, 7> kStateWords = {{
    {"IDLE", 1},
    {"ACTIVE", 2},
    {"READY", 3},
    {"PWROFF", 4},
    {"INIT", 7},
    {"UPDATE", 5},
    {"NOACK", 6},
}};
constexpr int32_t kUnknownState = -1;

constexpr std::array<size_t, CORVEL_VER_ITEMS> kVerSlotOffsets = CORVEL_VER_SLOT_OFFSETS;
constexpr std::array<size_t, CORVEL_VER_ITEMS> kVerSlotSizes = CORVEL_VER_SLOT_SIZES;

// One list of numbers: how many, the extractor that reads it (named in its log lines) and the
// text of its error line.
struct NumberList {
    const char *func;
    size_t count;
    const char *error;
};

constexpr NumberList kBatinfo = {"getBatinfo_fromCmdString", 6, "Batinfo para error"};
constexpr NumberList kTmpinfo = {"getTmpinfo_fromCmdString", 2, "Tmpinfo para error"};
constexpr NumberList kUsbDevinfo = {"getUsbDevinfo_fromCmdString", 2, "usbstate para error"};
constexpr NumberList kHallinfo = {"getHALLinfo_fromCmdString", 3, "get Hall info error"};
constexpr NumberList kAccinfo = {"getACCinfo_fromCmdString", 3, "get Acc sensor info error"};

// Reads `list.count` numbers: the first after the first "=", each further one after exactly one
// separator character that follows the previous number. A number that is absent reads as 0 as
// long as the cursor is still inside the line; running off the end gives NO_VALUE.
uint32_t extract_numbers(const NumberList &list, const char *line, int32_t *values) {
    if (line == nullptr || values == nullptr) {
        ATCMD_LOG_AS(list.func, LOG_TAG, ATCMD_LEVEL_ERROR, "%s, raw data is %s! ", list.error,
                     "(null)");
        return ATCMD_EXTRACT_NO_VALUE;
    }
    const char *const end = line + strlen(line);
    memset(values, 0, list.count * sizeof *values);
    const char *cursor = strchr(line, kValueMark);
    for (size_t i = 0; i < list.count; ++i) {
        if (cursor == nullptr || cursor >= end) {
            ATCMD_LOG_AS(list.func, LOG_TAG, ATCMD_LEVEL_ERROR, "%s, raw data is %s! ", list.error,
                         line);
            return ATCMD_EXTRACT_NO_VALUE;
        }
        char *next = nullptr;
        values[i] = static_cast<int32_t>(strtol(cursor + 1, &next, kDecimal));
        cursor = next;
    }
    return ATCMD_EXTRACT_OK;
}

// Copies `len` bytes of `value` into a slot of `size` bytes and terminates it. A value that does
// not fit is cut so the slot keeps its terminator, and the cut is logged: nothing from the wire
// ever writes past its field. `func` is the extractor the log line is written for.
void copy_bounded(const char *func, char *slot, size_t size, const char *value, size_t len) {
    if (len >= size) {
        ATCMD_LOG_AS(func, LOG_TAG, ATCMD_LEVEL_ERROR, "value of %zu bytes cut to %zu bytes: %.*s",
                     len, size - 1, static_cast<int>(len), value);
        len = size - 1;
    }
    memcpy(slot, value, len);
    slot[len] = '\0';
}

// Where version item `item` ends: items 0-5 at the first "," after their ":"; the last at the
// first "#", or else at the line's last character (which is thus left out). Null when missing.
const char *ver_item_end(const char *line, const char *colon, size_t item) {
    if (item + 1 < CORVEL_VER_ITEMS) return strchr(colon + 1, kVerItemEnd);
    const char *hash = strchr(colon + 1, kSeqMark);
    if (hash != nullptr) return hash;
    const size_t len = strlen(line);
    return line + len - 1;  // len > 0: the line holds at least the ":"
}

}  // namespace

uint32_t getvalue_fromCmdString(const char *line, int32_t *value) {
    if (line == nullptr || value == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "getvalue_fromCmdString: null line or output");
        return ATCMD_EXTRACT_NO_VALUE;
    }
    const char *eq = strchr(line, kValueMark);
    if (eq == nullptr) return ATCMD_EXTRACT_NO_VALUE;
    // Whatever follows the digits is ignored: "=12x" stores 12, "=x" stores 0.
    *value = static_cast<int32_t>(strtol(eq + 1, nullptr, kDecimal));
    return ATCMD_EXTRACT_OK;
}

uint32_t atcmd_getstr_bounded(const char *line, char *out, size_t out_size) {
    if (line == nullptr || out == nullptr || out_size == 0) {
        ATCMD_LOG_AS(kGetstr, LOG_TAG, ATCMD_LEVEL_ERROR, "getstr: null line or output");
        return ATCMD_EXTRACT_NO_DELIMITER;
    }
    const char *eq = strchr(line, kValueMark);
    const char *mark = strchr(line, kSeqMark);
    if (mark == nullptr) mark = strchr(line, kLineEnd);
    if (eq == nullptr || mark == nullptr) return ATCMD_EXTRACT_NO_DELIMITER;
    if (mark < eq) {
        // "#" (or CR) before the "=" leaves no end mark after the value. The safe reading is
        // "no value": the output is the empty text and the caller sees a missing delimiter.
        out[0] = '\0';
        ATCMD_LOG_AS(kGetstr, LOG_TAG, ATCMD_LEVEL_ERROR,
                     "getstr: end mark before '=', raw data is %s", line);
        return ATCMD_EXTRACT_NO_DELIMITER;
    }
    copy_bounded(kGetstr, out, out_size, eq + 1, static_cast<size_t>(mark - eq - 1));
    return ATCMD_EXTRACT_OK;
}

uint32_t getstr_fromCmdString(const char *line, char *out) {
    return atcmd_getstr_bounded(line, out, AT_LINE_BUF_SIZE);
}

uint32_t getstate_fromCmdString(const char *line, int32_t *state) {
    if (state == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "getstate_fromCmdString: null output");
        return ATCMD_EXTRACT_OK;
    }
    *state = kUnknownState;
    if (line == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "getstate_fromCmdString: null line");
        return ATCMD_EXTRACT_OK;
    }
    for (const StateWord &row : kStateWords) {
        if (strstr(line, row.word) != nullptr) {
            *state = row.state;
            break;
        }
    }
    return ATCMD_EXTRACT_OK;
}

uint32_t getBatinfo_fromCmdString(const char *line, int32_t *values) {
    return extract_numbers(kBatinfo, line, values);
}

uint32_t getTmpinfo_fromCmdString(const char *line, int32_t *values) {
    return extract_numbers(kTmpinfo, line, values);
}

uint32_t getUsbDevinfo_fromCmdString(const char *line, usbdev_sts_t *sts) {
    int32_t pair[2] = {0, 0};
    const uint32_t status = extract_numbers(kUsbDevinfo, line, sts != nullptr ? pair : nullptr);
    if (sts != nullptr) *sts = usbdev_sts_t{pair[0], pair[1]};
    return status;
}

uint32_t getHALLinfo_fromCmdString(const char *line, int32_t *values) {
    return extract_numbers(kHallinfo, line, values);
}

uint32_t getACCinfo_fromCmdString(const char *line, int32_t *values) {
    return extract_numbers(kAccinfo, line, values);
}

uint32_t getVerInfo_fromCmdString(const char *line, uintptr_t block_addr) {
    char *block = reinterpret_cast<char *>(block_addr);
    if (line == nullptr || block == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR, "getVerInfo_fromCmdString: null line or block");
        return ATCMD_EXTRACT_NO_DELIMITER;
    }
    memset(block, 0, CORVEL_VER_BLOCK_SIZE);
    const char *cursor = line;
    for (size_t i = 0; i < CORVEL_VER_ITEMS; ++i) {
        const char *colon = strchr(cursor, kVerNameEnd);
        if (colon == nullptr) return ATCMD_EXTRACT_NO_DELIMITER;
        const char *end = ver_item_end(line, colon, i);
        if (end == nullptr) return ATCMD_EXTRACT_NO_DELIMITER;
        char *slot = block + kVerSlotOffsets[i];
        if (end <= colon + 1) {
            copy_bounded(__func__, slot, kVerSlotSizes[i], kEmptyVerItem, strlen(kEmptyVerItem));
            end = colon + 1;  // a ":" ending the line leaves an empty last item
        } else {
            copy_bounded(__func__, slot, kVerSlotSizes[i], colon + 1,
                         static_cast<size_t>(end - colon - 1));
        }
        ATCMD_LOG(ATCMD_LEVEL_DETAIL, "ver item %d is %s", static_cast<int>(i), slot);
        cursor = end;
    }
    return ATCMD_EXTRACT_OK;
}
