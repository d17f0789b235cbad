/*
 * The log reader: cuts the module's log into messages by their prefix (the messages run on
 * without line ends), steps over what is not the module's (another process's lines, a message
 * cut off, a clock that jumps) with a note for each, and finds the runs of a file that several
 * starts of the module appended to. Main thread, and the player's desk-log reads.
 */
#include <ctype.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <sstream>

#include "replay/replay.h"

namespace atcmd_tools {

namespace {

constexpr int64_t kUsPerSec = 1000000;
constexpr int64_t kBackJumpUs = kUsPerSec;           // threads' stamps may cross by less
constexpr int64_t kForwardJumpUs = 3600 * kUsPerSec;  // a gap longer than this is the clock's
constexpr const char kRunStartFunc[] = "atcmder_hal_open";
constexpr const char kRunStartText[] = "func is atcmder_hal_open";
// Messages that carry a received chunk with its length: the chunk is that many bytes.
constexpr const char *kChunkMarks[] = {"receive data length is ", "rcv data length is "};
constexpr const char kChunkData[] = ", receive data is ";

struct Prefix {
    int64_t time_us = 0;
    int tid = 0;
    std::string func;
    size_t end = 0;  // where the text begins
};

// Digits at `at`; their value in *v; the position after them, or 0 when there are none.
size_t digits(const std::string &s, size_t at, int64_t *v) {
    size_t i = at;
    int64_t n = 0;
    while (i < s.size() && isdigit(static_cast<unsigned char>(s[i])) && i - at < 18) n = n * 10 + (s[i++] - '0');
    *v = n;
    return i > at ? i : 0;
}

size_t literal(const std::string &s, size_t at, const char *word) {
    const std::string w(word);
    return at != 0 && s.compare(at, w.size(), w) == 0 ? at + w.size() : 0;
}

// "[sec.usec][tid:N]function:line: " at `at`.
bool parse_prefix(const std::string &s, size_t at, Prefix *p) {
    int64_t sec = 0, usec = 0, tid = 0, src = 0;
    if (s[at] != '[') return false;
    size_t i = digits(s, at + 1, &sec);
    i = literal(s, i, ".");
    if (i != 0) i = digits(s, i, &usec);
    i = literal(s, i, "][tid:");
    if (i != 0) i = digits(s, i, &tid);
    i = literal(s, i, "]");
    if (i == 0 || usec >= kUsPerSec) return false;
    const size_t name = i;
    while (i < s.size() && (isalnum(static_cast<unsigned char>(s[i])) || s[i] == '_')) ++i;
    if (i == name) return false;
    p->func = s.substr(name, i - name);
    i = literal(s, i, ":");
    if (i != 0) i = digits(s, i, &src);
    i = literal(s, i, ": ");
    if (i == 0) return false;
    p->time_us = sec * kUsPerSec + usec;
    p->tid = static_cast<int>(tid);
    p->end = i;
    return true;
}

size_t count_lines(const std::string &s, size_t from, size_t to) {
    size_t n = 0;
    for (size_t i = from; i < to; ++i) n += s[i] == '\n';
    return n;
}

void note(ParsedLog *out, size_t line, const std::string &text) { out->notes.push_back({line, text}); }

// Whether the bytes from `at` to the end are the beginning of a prefix that stops short: the
// file ended while a message was being written.
bool begins_prefix(const std::string &s, size_t at) {
    enum Step { Lit, Num, Name };
    const struct {
        Step step;
        const char *text;
    } steps[] = {{Lit, "["}, {Num, ""}, {Lit, "."}, {Num, ""}, {Lit, "][tid:"}, {Num, ""},
                 {Lit, "]"}, {Name, ""}, {Lit, ":"}, {Num, ""}, {Lit, ": "}};
    size_t i = at;
    for (const auto &st : steps) {
        if (st.step == Lit) {
            for (const char *c = st.text; *c != '\0'; ++c, ++i) {
                if (i == s.size()) return true;
                if (s[i] != *c) return false;
            }
            continue;
        }
        const size_t from = i;
        while (i < s.size() && (st.step == Num ? isdigit(static_cast<unsigned char>(s[i])) != 0
                                               : isalnum(static_cast<unsigned char>(s[i])) != 0 || s[i] == '_')) {
            ++i;
        }
        if (i == s.size()) return true;
        if (i == from) return false;
    }
    return false;  // a whole prefix: the reader takes it as a message
}

// The file's last message: a prefix cut short at its end is dropped with a note.
void end_of_file(LogEntry *e, ParsedLog *out) {
    e->at_file_end = true;
    const size_t at = e->text.rfind('[');
    if (at == std::string::npos || e->text.find('\n', at) != std::string::npos || !begins_prefix(e->text, at)) return;
    note(out, e->line + count_lines(e->text, 0, at),
         "the log ends inside a message's prefix (\"" + e->text.substr(at) + "\"); skipped");
    e->text.resize(at);
}

size_t next_prefix(const std::string &s, size_t from, Prefix *p) {
    for (size_t at = s.find('[', from); at != std::string::npos; at = s.find('[', at + 1)) {
        if (parse_prefix(s, at, p)) return at;
    }
    return std::string::npos;
}

// A received chunk is exactly the length its message gives; bytes past it are not the module's,
// fewer mean the message was cut off (or held a byte the print stopped at).
void trim_chunk(LogEntry *e, ParsedLog *out) {
    for (const char *mark : kChunkMarks) {
        const size_t m = e->text.find(mark);
        const size_t d = m == std::string::npos ? m : e->text.find(kChunkData, m);
        if (d == std::string::npos) continue;
        const size_t len = strtoul(e->text.c_str() + m + strlen(mark), nullptr, 10);
        const size_t start = d + sizeof kChunkData - 1;
        const size_t have = e->text.size() - start;
        if (have < len) {
            note(out, e->line, std::string(e->at_file_end ? "the log ends inside this message: " : "") +
                                   "a received chunk holds " + std::to_string(have) + " of its " + std::to_string(len) +
                                   " bytes (cut off); skipped");
            e->text.clear();
        } else if (have > len) {
            note(out, e->line, std::to_string(have - len) + " bytes after a received chunk are not the module's; skipped");
            e->text.resize(start + len);
        }
        return;
    }
    // Any other message ends where its own text does: whole lines after a bare line end
    // (not the CR LF of an AT line it quotes) are another writer's.
    const size_t nl = e->text.find('\n');
    if (nl == std::string::npos || nl + 1 == e->text.size()) return;
    const std::string rest = e->text.substr(nl + 1);
    if (rest.back() == '\n' && (rest.size() < 2 || rest[rest.size() - 2] != '\r')) {
        note(out, e->line + 1, std::to_string(rest.size()) + " bytes of another writer inside a message; skipped");
        e->text.resize(nl + 1);
    }
}

// Times that run backwards (by more than threads' stamps cross) or leap ahead are flattened,
// so the replay's pace follows the module's own and not the clock's correction.
void flatten_clock(ParsedLog *out) {
    int64_t shift = 0;
    for (size_t i = 1; i < out->entries.size(); ++i) {
        LogEntry &e = out->entries[i];
        const int64_t prev = out->entries[i - 1].time_us;
        int64_t t = e.time_us + shift;
        if (t < prev - kBackJumpUs || t > prev + kForwardJumpUs) {
            note(out, e.line, "the clock jumps by " + std::to_string((t - prev) / kUsPerSec) + " s; taken as no time");
            shift += prev - t;
            t = prev;
        }
        e.time_us = t < prev ? prev : t;
    }
}

void find_runs(ParsedLog *out) {
    for (size_t i = 0; i < out->entries.size(); ++i) {
        const LogEntry &e = out->entries[i];
        const bool start = e.func == kRunStartFunc && e.text.rfind(kRunStartText, 0) == 0;
        if (start || out->runs.empty()) {
            if (!out->runs.empty()) out->runs.back().end = i;
            out->runs.push_back({i, out->entries.size()});
        }
    }
}

}  // namespace

size_t split_log(const std::string &bytes, size_t first_line, bool at_end, ParsedLog *out) {
    Prefix p;
    size_t at = next_prefix(bytes, 0, &p);
    if (at == std::string::npos) return at_end ? bytes.size() : 0;
    if (at > 0 && first_line == 1) note(out, 1, std::to_string(at) + " bytes before the first message are not the module's; skipped");
    size_t line = first_line + count_lines(bytes, 0, at);
    for (;;) {
        Prefix next;
        const size_t following = next_prefix(bytes, p.end, &next);
        if (following == std::string::npos && !at_end) return at;
        const size_t stop = following == std::string::npos ? bytes.size() : following;
        LogEntry e;
        e.line = line;
        e.time_us = p.time_us;
        e.tid = p.tid;
        e.func = p.func;
        e.text = bytes.substr(p.end, stop - p.end);
        if (following == std::string::npos) end_of_file(&e, out);
        trim_chunk(&e, out);
        out->entries.push_back(e);
        if (following == std::string::npos) return bytes.size();
        line += count_lines(bytes, at, following);
        at = following;
        p = next;
    }
}

bool read_log(const std::string &path, ParsedLog *out, std::string *error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = "cannot read " + path;
        return false;
    }
    std::stringstream all;
    all << in.rdbuf();
    split_log(all.str(), 1, true, out);
    if (out->entries.empty()) {
        *error = path + " holds no message of the module";
        return false;
    }
    flatten_clock(out);
    find_runs(out);
    return true;
}

}  // namespace atcmd_tools
