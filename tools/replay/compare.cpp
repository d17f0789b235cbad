/*
 * The comparer: what the module did on the desk against what the log says it did on the phone.
 * Outputs are matched by their whole text in any order (threads' lines interleave differently
 * from run to run); a divergence is an output one side has and the other has not. The player's
 * thread feeds the matcher; the result is read after the play.
 */
#include <algorithm>
#include <deque>
#include <map>

#include "replay/replay.h"

namespace atcmd_tools {

struct Matcher {
    std::map<std::string, std::deque<int>> waiting;  // unmatched expected outputs by text
    std::vector<bool> done;
    size_t left = 0;
    // The file's last message, when it is an output: the file may end inside it, so a desk
    // output that begins with its text matches it.
    int last = -1;
    std::string last_key;
};

Matcher *matcher_create(const std::vector<Output> &expected) {
    auto *m = new Matcher;
    m->done.assign(expected.size(), false);
    m->left = expected.size();
    for (size_t i = 0; i < expected.size(); ++i) {
        m->waiting[expected[i].key].push_back(static_cast<int>(i));
        if (expected[i].at_file_end) {
            m->last = static_cast<int>(i);
            m->last_key = expected[i].key;
        }
    }
    return m;
}

void matcher_destroy(Matcher *m) { delete m; }

namespace {

// The part of a key that says what kind of thing it is: "sent", "TYPE_parser".
std::string head_of(const std::string &key) { return key.substr(0, key.find(':')); }

// A desk output nothing waits for takes the place of the earliest waiting output of its kind
// (the same value differs): that one is then no longer waited for. False when none waits.
bool pair_off(Matcher *m, const std::string &key, int limit) {
    const std::string head = head_of(key);
    int best = -1;
    std::deque<int> *from = nullptr;
    for (auto &w : m->waiting) {
        if (w.second.empty() || head_of(w.first) != head || w.second.front() > limit) continue;
        if (best < 0 || w.second.front() < best) {
            best = w.second.front();
            from = &w.second;
        }
    }
    if (from == nullptr) return false;
    from->pop_front();
    return true;
}

}  // namespace

int matcher_add(Matcher *m, const Output &desk, int limit) {
    auto it = m->waiting.find(desk.key);
    if ((it == m->waiting.end() || it->second.empty()) && m->last >= 0 && !m->done[static_cast<size_t>(m->last)] &&
        desk.key.size() > m->last_key.size() && desk.key.compare(0, m->last_key.size(), m->last_key) == 0) {
        it = m->waiting.find(m->last_key);
        auto at = std::find(it->second.begin(), it->second.end(), m->last);
        if (at != it->second.end()) it->second.erase(at);
        m->done[static_cast<size_t>(m->last)] = true;
        m->left--;
        return m->last;
    }
    if (it == m->waiting.end() || it->second.empty()) {
        pair_off(m, desk.key, limit);
        return -1;
    }
    // Beyond the limit it is matched only when nothing of its kind is waited for before: an
    // output on the module's own timer (a resend) may run ahead of the inputs.
    if (it->second.front() > limit && pair_off(m, desk.key, limit)) return -1;
    const int index = it->second.front();
    it->second.pop_front();
    m->done[static_cast<size_t>(index)] = true;
    m->left--;
    return index;
}

bool matcher_done(const Matcher *m, int expected_index) {
    return expected_index < 0 || m->done[static_cast<size_t>(expected_index)];
}

bool matcher_all_done(const Matcher *m) { return m->left == 0; }

namespace {

const char *kind_name(OutputKind k) {
    switch (k) {
    case OutputKind::Sent: return "a line sent";
    case OutputKind::Resent: return "a resend";
    case OutputKind::TimedOut: return "a time-out";
    case OutputKind::Link: return "a link change";
    case OutputKind::Parsed: return "a parsed value";
    }
    return "";
}

// What the log does not hold that could account for a difference in this output.
std::string explain(const World &w, const std::string &key) {
    const char *words[][2] = {
        {"lost heart beat", "the daemon's heartbeats"},
        {"Wi-Fi state", "the daemon's heartbeats"},
        {"AT+BTMAC=", "properties the module reads"},
        {"uevent", "the accessory port's uevent file"},
        {"NUL", "how each channel's bytes were cut into reads"},
    };
    for (const auto &word : words) {
        if (key.find(word[0]) == std::string::npos) continue;
        for (const Gap &g : w.gaps) {
            if (g.what.rfind(word[1], 0) == 0) return g.what + ": " + g.how;
        }
    }
    return "";
}

constexpr int64_t kRaceUs = 1000;  // an upper-layer call this soon after a callback raced the module

// A call of the upper layer that followed a callback by less than the scheduler's grain, before
// the divergence: the module's own threads raced it, and the phone's winner is not the desk's.
std::string race_before(const World &w, size_t line) {
    const Input *race = nullptr;
    for (const Input &in : w.inputs) {
        if (in.line > line) break;
        const bool call = in.kind == InputKind::WifiInit || in.kind == InputKind::WifiDown ||
                          in.kind == InputKind::Request || in.kind == InputKind::Handshake;
        if (call && in.anchor >= 0 && in.time_us - w.expected[static_cast<size_t>(in.anchor)].time_us < kRaceUs) race = &in;
    }
    if (race == nullptr) return "";
    const Output &cb = w.expected[static_cast<size_t>(race->anchor)];
    return "the upper layer's call at log line " + std::to_string(race->line) + " came " +
           std::to_string(race->time_us - cb.time_us) + " us after what it answered (log line " + std::to_string(cb.line) +
           "), racing the module's own threads; the phone's winner need not be the desk's";
}

constexpr int64_t kInterrogationUs = 1000000;  // a plug's start-up interrogation is over by then

// Two of the module's own threads that the log shows racing around a plug, with no input
// between them to order them: named when the difference falls there.
std::string module_race(const World &w, size_t line, int64_t time_us, const std::string &key) {
    const Input *plug = nullptr;
    for (const Input &in : w.inputs) {
        if (in.line > line) break;
        if (in.kind == InputKind::Plug) plug = &in;
    }
    if (plug == nullptr || time_us - plug->time_us > kInterrogationUs) return "";
    for (const Input *in = plug + 1; in < w.inputs.data() + w.inputs.size(); ++in) {
        if (in->kind == InputKind::Unplug && in->time_us - plug->time_us < kInterrogationUs) {
            return "the unplug at log line " + std::to_string(in->line) + " came " +
                   std::to_string((in->time_us - plug->time_us) / 1000) +
                   " ms after the plug at log line " + std::to_string(plug->line) +
                   ", during the start-up interrogation: the module handles it once the interrogation's queries are "
                   "queued, racing its transmit thread for the last of them; the phone's winner need not be the desk's";
        }
    }
    if (key.rfind("USB event: ", 0) == 0) {
        return "the plug at log line " + std::to_string(plug->line) +
               ": the supervisor tells the USB pair after queueing the interrogation, while the dispatch thread may "
               "already have parsed the accessory's +USBSTATE answer, which sets the status; which comes first decides "
               "the status told (-1 or the answer's), on the phone and on the desk alike";
    }
    return "";
}

// A note of the reader (another writer's bytes, a chunk cut off, a clock that jumps) on a line
// from `after` (exclusive) to `upto`: the log is damaged just where the two sides part.
const LogNote *damage_between(const World &w, size_t after, size_t upto) {
    for (const LogNote &n : w.notes) {
        if (n.line > after && n.line <= upto) return &n;
    }
    return nullptr;
}

// The line of the last expected output before index `i`, or 0.
size_t line_before(const World &w, size_t i) { return i == 0 ? 0 : w.expected[i - 1].line; }

}  // namespace

Divergence first_divergence(const World &world, const DeskRun &desk) {
    Divergence d;
    // The file's last message cut off: matched as far as the log goes.
    for (size_t i = 0; i < world.expected.size(); ++i) {
        const int by = desk.matched_by[i];
        if (world.expected[i].at_file_end && by >= 0 && desk.outputs[static_cast<size_t>(by)].key != world.expected[i].key) {
            d.cut.push_back("the log ends inside a message at line " + std::to_string(world.expected[i].line) +
                            ": it stops at \"" + world.expected[i].key + "\", which the desk's \"" +
                            desk.outputs[static_cast<size_t>(by)].key + "\" begins with; compared as far as it goes");
        }
    }
    // The earliest expected output the desk did not produce...
    size_t missing = world.expected.size();
    for (size_t i = 0; i < world.expected.size(); ++i) {
        if (desk.matched_by[i] < 0) {
            missing = i;
            break;
        }
    }
    // ...and the earliest desk output the log does not hold, placed after the log line its
    // predecessor on the desk matched. Desk outputs after the last one that matched come after
    // the log's end when the log holds nothing more: they are not compared.
    std::vector<bool> used(desk.outputs.size(), false);
    size_t last_used = 0;
    for (int by : desk.matched_by) {
        if (by < 0) continue;
        used[static_cast<size_t>(by)] = true;
        last_used = std::max(last_used, static_cast<size_t>(by) + 1);
    }
    const bool have_missing = missing < world.expected.size();
    const size_t compared = have_missing ? desk.outputs.size() : last_used;
    if (!have_missing) {
        for (size_t j = last_used; j < desk.outputs.size(); ++j) d.went_on++;
    }
    size_t extra = desk.outputs.size();
    size_t extra_after_line = 0;
    std::vector<size_t> line_of_desk(desk.outputs.size(), 0);
    for (size_t i = 0; i < world.expected.size(); ++i) {
        if (desk.matched_by[i] >= 0) line_of_desk[static_cast<size_t>(desk.matched_by[i])] = world.expected[i].line;
    }
    size_t last_line = 0;
    for (size_t j = 0; j < compared; ++j) {
        if (used[j]) {
            last_line = std::max(last_line, line_of_desk[j]);
        } else {
            extra = j;
            extra_after_line = last_line;
            break;
        }
    }
    const bool have_extra = extra < desk.outputs.size();
    if (!have_missing && !have_extra) return d;
    d.went_on = 0;
    d.found = true;
    // A missing output and an extra one of the same kind are the two sides of one difference.
    const bool pair = have_missing && have_extra && head_of(world.expected[missing].key) == head_of(desk.outputs[extra].key);
    const bool lines_missing = have_missing && !world.expected[missing].unexplained.empty();
    if (have_missing && (lines_missing || !have_extra || pair || world.expected[missing].line <= extra_after_line + 1)) {
        const Output &want = world.expected[missing];
        d.log_line = want.line;
        d.log_side = kind_name(want.kind) + std::string(": ") + want.key;
        d.desk_side = "nothing like it";
        // The desk's nearest counterpart: an unmatched output of the same kind and source.
        for (size_t j = 0; j < desk.outputs.size(); ++j) {
            if (!used[j] && head_of(desk.outputs[j].key) == head_of(want.key)) {
                d.desk_side = desk.outputs[j].key;
                break;
            }
        }
        if (const LogNote *n = damage_between(world, line_before(world, missing), want.line)) {
            d.damage = Damage::LogNote;
            d.damage_text = "log line " + std::to_string(n->line) + ": " + n->text;
        } else if (lines_missing) {
            d.damage = Damage::LinesMissing;
            d.damage_text = "lines are missing from the log before line " + std::to_string(want.line) + ": " + want.unexplained;
        }
        d.explained = explain(world, want.key);
        if (d.explained.empty() && d.damage == Damage::None) d.explained = module_race(world, want.line, want.time_us, want.key);
        if (d.explained.empty() && !pair && d.damage == Damage::None) d.explained = race_before(world, d.log_line);
        return d;
    }
    const Output &got = desk.outputs[extra];
    d.log_line = extra_after_line;
    d.log_side = "nothing like it after this line";
    d.desk_side = kind_name(got.kind) + std::string(": ") + got.key;
    size_t next_line = world.end_line;
    for (const Output &o : world.expected) {
        if (o.line > extra_after_line) {
            next_line = o.line;
            break;
        }
    }
    if (const LogNote *n = damage_between(world, extra_after_line, next_line)) {
        d.damage = Damage::LogNote;
        d.damage_text = "log line " + std::to_string(n->line) + ": " + n->text;
    }
    d.explained = explain(world, got.key);
    int64_t at_us = world.origin_us;
    for (const Output &o : world.expected) {
        if (o.line <= extra_after_line) at_us = o.time_us;
    }
    if (d.explained.empty() && d.damage == Damage::None) d.explained = module_race(world, extra_after_line, at_us, got.key);
    if (d.explained.empty() && d.damage == Damage::None) d.explained = race_before(world, d.log_line);
    return d;
}

}  // namespace atcmd_tools
