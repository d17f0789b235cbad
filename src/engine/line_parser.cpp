/*
 * The line parser: cuts received text into AT lines, fills the caller's record for each accepted
 * line and hands it to atcmder_post_parse_process. Runs on every receive thread (UART, VUART,
 * Wi-Fi) at once; each call keeps its state on its own stack and writes only the caller's record
 * and its 160-byte line buffer. No globals are written here.
 */
#define LOG_TAG "ATCMD_PARSE"

#include <ctype.h>
#include <string.h>

#include "engine/engine.h"
#include "log/atcmd_log.h"

namespace {

// Longest line kept: the 160-byte line buffer less its terminator.
constexpr size_t kMaxLineLen = AT_LINE_BUF_SIZE - 1;

enum class State : uint8_t { Start, Response, Command, Value, Query, Seq, Flag, LineEnd };

// Which keyword lookup a transition runs on the text stored so far; a miss rejects the line.
enum class Lookup : uint8_t { None, Response, Command };

// What a transition does with the character once its lookup (if any) succeeded.
enum class Step : uint8_t {
    Store,       // keep the character
    MarkHash,    // remember where "#" sits, keep it
    ReadSeq,     // seq_num from the digits after "#", remember where "&" sits, keep it
    ReadFlag,    // flag from the digits after "&", keep the character
    EndLine,     // keep "\n", finish the line and hand it on
    StoreReject, // keep the character, then reject the line
    SkipGarbage, // not the start of a line: skip past the next "\n"
};

constexpr char kAnyChar = '\0';  // matches every character: the row for "other"
constexpr uint8_t kKeepType = 0;

struct Transition {
    State state;
    char ch;
    uint8_t type;  // the record's type is set to this first, unless kKeepType
    Lookup lookup;
    Step step;
    State next;
};

// Rows are tried in order; the first with the state and the character (or kAnyChar) applies.
constexpr Transition kTransitions[] = {
    {State::Start, '+', kKeepType, Lookup::None, Step::Store, State::Response},
    {State::Start, 'A', kKeepType, Lookup::None, Step::Store, State::Command},
    {State::Start, kAnyChar, kKeepType, Lookup::None, Step::SkipGarbage, State::Start},

    {State::Response, '=', AT_TYPE_RESPONSE, Lookup::Response, Step::Store, State::Value},
    {State::Response, '#', AT_TYPE_RESPONSE, Lookup::Response, Step::MarkHash, State::Seq},
    {State::Response, '\r', AT_TYPE_RESPONSE, Lookup::Response, Step::Store, State::LineEnd},
    {State::Response, kAnyChar, AT_TYPE_RESPONSE, Lookup::None, Step::Store, State::Response},

    {State::Command, '\r', AT_TYPE_EXEC, Lookup::Command, Step::Store, State::LineEnd},
    {State::Command, '#', AT_TYPE_EXEC, Lookup::Command, Step::MarkHash, State::Seq},
    {State::Command, '=', AT_TYPE_SET, Lookup::Command, Step::Store, State::Value},
    {State::Command, '?', AT_TYPE_QUERY, Lookup::Command, Step::Store, State::Query},
    {State::Command, kAnyChar, AT_TYPE_EXEC, Lookup::None, Step::Store, State::Command},

    {State::Value, '#', kKeepType, Lookup::None, Step::MarkHash, State::Seq},
    {State::Value, '\r', kKeepType, Lookup::None, Step::Store, State::LineEnd},
    {State::Value, kAnyChar, kKeepType, Lookup::None, Step::Store, State::Value},

    {State::Query, '#', kKeepType, Lookup::None, Step::MarkHash, State::Seq},
    {State::Query, '\r', kKeepType, Lookup::None, Step::Store, State::LineEnd},
    {State::Query, kAnyChar, kKeepType, Lookup::None, Step::Store, State::Query},

    {State::Seq, '&', kKeepType, Lookup::None, Step::ReadSeq, State::Flag},
    {State::Seq, kAnyChar, kKeepType, Lookup::None, Step::Store, State::Seq},

    {State::Flag, '\r', kKeepType, Lookup::None, Step::ReadFlag, State::LineEnd},
    {State::Flag, kAnyChar, kKeepType, Lookup::None, Step::Store, State::Flag},

    {State::LineEnd, '\n', kKeepType, Lookup::None, Step::EndLine, State::Start},
    {State::LineEnd, kAnyChar, kKeepType, Lookup::None, Step::StoreReject, State::Start},
};

constexpr size_t kStateCount = static_cast<size_t>(State::LineEnd) + 1;
constexpr size_t kCharCount = 256;
constexpr size_t kRowCount = sizeof kTransitions / sizeof kTransitions[0];

// For every state and character, the index of the first row of kTransitions that applies, so
// a character costs one table read instead of a search of the rows.
struct RowIndex {
    uint8_t row[kStateCount][kCharCount];
};

constexpr RowIndex build_row_index() {
    RowIndex index{};
    for (size_t s = 0; s < kStateCount; ++s) {
        for (size_t c = 0; c < kCharCount; ++c) {
            for (size_t r = 0; r < kRowCount; ++r) {
                const Transition &t = kTransitions[r];
                const bool hit = t.ch == kAnyChar || static_cast<unsigned char>(t.ch) == c;
                if (static_cast<size_t>(t.state) == s && hit) {
                    index.row[s][c] = static_cast<uint8_t>(r);
                    break;
                }
            }
        }
    }
    return index;
}

constexpr RowIndex kRowIndex = build_row_index();

const Transition &transition_for(State state, char c) {
    return kTransitions[kRowIndex.row[static_cast<size_t>(state)][static_cast<unsigned char>(c)]];
}

// The rows whose lines are unsolicited reports rather than answers.
constexpr uint8_t kReportRows[] = {AT_MSG_BATCG, AT_MSG_HALLCG, AT_MSG_HRM};

bool is_report_row(uint8_t cmd_id) {
    for (uint8_t row : kReportRows) {
        if (row == cmd_id) return true;
    }
    return false;
}

// Decimal prefix conversion in the manner of atoi (blanks, a sign, digits up to the first
// non-digit), computed modulo 2^32 so that a long number wraps instead of overflowing; the
// caller keeps the low bits that fit its field.
uint32_t read_decimal(const char *s) {
    while (isspace(static_cast<unsigned char>(*s))) ++s;
    const bool negative = *s == '-';
    if (*s == '-' || *s == '+') ++s;
    uint32_t value = 0;
    for (; isdigit(static_cast<unsigned char>(*s)); ++s) {
        value = value * 10u + static_cast<uint32_t>(*s - '0');
    }
    return negative ? 0u - value : value;
}

// One call's working state; the line itself lives in the caller's record.
struct Parse {
    AtCmder_t *cmd;
    const char *text;
    size_t len;
    size_t pos = 0;       // next character of `text`
    size_t line_len = 0;  // characters stored in cmd->data
    size_t hash_at = 0;   // where "#" was stored
    size_t amp_at = 0;    // where "&" was stored
    State state = State::Start;
};

void clear_line(Parse &p) {
    memset(p.cmd->data, 0, AT_LINE_BUF_SIZE);
    p.line_len = 0;
}

void store(Parse &p, char c) {
    p.cmd->data[p.line_len++] = c;
    p.cmd->data[p.line_len] = '\0';
}

bool look_up(const Parse &p, Lookup lookup) {
    switch (lookup) {
        case Lookup::None: return true;
        case Lookup::Response: return findResCmdIdx(p.cmd->data, &p.cmd->cmd_id) == 1;
        case Lookup::Command: return findAtCmdIdx(p.cmd->data, &p.cmd->cmd_id) == 1;
    }
    return false;
}

// The line is dropped and the same character is looked at again in Start.
void reject(Parse &p) {
    ATCMD_LOG_AS("cmd_Parse_from_buffer", LOG_TAG, ATCMD_LEVEL_STATE, "Cmd  %s is not supported!",
                 p.cmd->data);
    clear_line(p);
    p.state = State::Start;
}

void skip_garbage(Parse &p) {
    ATCMD_LOG_AS("cmd_Parse_from_buffer", LOG_TAG, ATCMD_LEVEL_DETAIL, "Cmd is not supported!");
    clear_line(p);
    const char *nl = static_cast<const char *>(memchr(p.text + p.pos, '\n', p.len - p.pos));
    p.pos = nl != nullptr ? static_cast<size_t>(nl - p.text) + 1 : p.pos + 1;
}

void end_line(Parse &p) {
    store(p, '\n');
    if (is_report_row(p.cmd->cmd_id)) p.cmd->type = AT_TYPE_REPORT;
    atcmder_post_parse_process(p.cmd);
    ATCMD_LOG_AS("cmd_Parse_from_buffer", LOG_TAG, ATCMD_LEVEL_STATE,
                 "Get one line cmd: idx is %u ,  seq num is %d, flag is %d, cmd is %s",
                 p.cmd->cmd_id, p.cmd->seq_num, p.cmd->flag, p.cmd->data);
    clear_line(p);
}

// A row that keeps the character and stays in its state applies again to every following
// character that maps to the same row, so such a run is copied at once, up to the line limit.
// Returns the number of characters stored.
size_t store_run(Parse &p, const Transition &t) {
    const auto row = static_cast<size_t>(&t - kTransitions);
    const uint8_t *rows = kRowIndex.row[static_cast<size_t>(p.state)];
    const size_t room = kMaxLineLen - p.line_len;
    size_t n = 1;
    if (t.next == p.state && t.lookup == Lookup::None) {
        while (n < room && p.pos + n < p.len &&
               rows[static_cast<unsigned char>(p.text[p.pos + n])] == row) {
            ++n;
        }
    }
    memcpy(p.cmd->data + p.line_len, p.text + p.pos, n);
    p.line_len += n;
    p.cmd->data[p.line_len] = '\0';
    return n;
}

// Runs one character through the table. A rejected line leaves `pos` where it is, so the same
// character is looked at again in Start.
void step(Parse &p, char c) {
    const Transition &t = transition_for(p.state, c);
    if (t.type != kKeepType) p.cmd->type = t.type;
    if (!look_up(p, t.lookup)) {
        reject(p);
        return;
    }
    switch (t.step) {
        case Step::Store: p.pos += store_run(p, t) - 1; break;
        case Step::MarkHash:
            p.hash_at = p.line_len;
            store(p, c);
            break;
        case Step::ReadSeq:
            p.cmd->seq_num = static_cast<uint16_t>(read_decimal(p.cmd->data + p.hash_at + 1));
            p.amp_at = p.line_len;
            store(p, c);
            break;
        case Step::ReadFlag:
            p.cmd->flag = static_cast<uint8_t>(read_decimal(p.cmd->data + p.amp_at + 1));
            store(p, c);
            break;
        case Step::EndLine: end_line(p); break;
        case Step::StoreReject:
            store(p, c);
            reject(p);
            return;
        case Step::SkipGarbage:
            skip_garbage(p);  // moves `pos` on by itself
            p.state = t.next;
            return;
    }
    p.state = t.next;
    ++p.pos;
}

}  // namespace

void cmd_Parse_from_buffer(AtCmder_t *cmd, const char *text) {
    if (cmd == nullptr || cmd->data == nullptr || text == nullptr) {
        ATCMD_LOG(ATCMD_LEVEL_ERROR,
                  "cmd_Parse_from_buffer: null record, line buffer or text, nothing parsed");
        return;
    }
    Parse p{cmd, text, strlen(text)};
    clear_line(p);
    atcmder_burst_begin();  // the consumers wake once for all lines of this text
    while (p.pos < p.len) {
        if (p.line_len == kMaxLineLen) {
            // The stored text is lost; this character starts afresh.
            ATCMD_LOG(ATCMD_LEVEL_DETAIL, "Cmd  is too long and not supported!");
            p.line_len = 0;
            p.state = State::Start;
        }
        step(p, text[p.pos]);
    }
    atcmder_burst_end();
}
