/*
 * The replay's report, for a person triaging a field log: the runs a file holds, what the run
 * replayed held and how the inputs the log lacks were filled in, and the result (the counts, or
 * the first divergence with both sides). Main thread.
 */
#include <stdio.h>

#include <algorithm>

#include "replay/replay.h"
#include "supervision/resend.h"

namespace atcmd_tools {

namespace {

constexpr double kUsPerSec = 1e6;

// Bytes as a person reads them: line ends and other control bytes escaped.
std::string printable(const std::string &s) {
    std::string out;
    for (unsigned char c : s) {
        if (c == '\r') {
            out += "\\r";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c < 0x20 || c >= 0x7f) {
            char hex[8];
            snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

double seconds(int64_t us) { return static_cast<double>(us) / kUsPerSec; }

}  // namespace

std::string describe_runs(const ParsedLog &log) {
    std::string out;
    for (size_t i = 0; i < log.runs.size(); ++i) {
        const LogRun &r = log.runs[i];
        const LogEntry &first = log.entries[r.first];
        const LogEntry &last = log.entries[r.end - 1];
        char buf[200];
        snprintf(buf, sizeof buf, "run %zu: log lines %zu-%zu, %zu messages, %.3f s from %.3f\n", i + 1, first.line,
                 last.line, r.end - r.first, seconds(last.time_us - first.time_us), seconds(first.time_us));
        out += buf;
    }
    return out;
}

std::string describe_world(const ParsedLog &log, size_t run_index, const World &w) {
    std::string out = "replaying run " + std::to_string(run_index + 1) + " of " + std::to_string(log.runs.size()) +
                      ": " + std::to_string(w.inputs.size()) + " inputs, " + std::to_string(w.expected.size()) +
                      " outputs to compare\n";
    for (const LogNote &n : w.notes) out += "log line " + std::to_string(n.line) + ": " + n.text + "\n";
    out += "not in the log, filled in:\n";
    for (const Gap &g : w.gaps) out += "  " + g.what + ": " + g.how + "\n";
    return out;
}

std::string describe_result(const World &w, const DeskRun &desk, const Divergence &d) {
    std::string out;
    for (const std::string &n : desk.notes) out += "replay: " + n + "\n";
    for (const std::string &c : d.cut) out += "replay: " + printable(c) + "\n";
    if (d.found && d.damage != Damage::None) {
        out += "the log is damaged where the desk parts from it, at log line " + std::to_string(d.log_line) +
               " (no verdict on the module from here on):\n  " + printable(d.damage_text) + "\n";
        out += "  the log:  " + printable(d.log_side) + "\n";
        out += "  the desk: " + printable(d.desk_side) + "\n";
        return out;
    }
    if (d.found) {
        out += "first divergence at log line " + std::to_string(d.log_line) + "\n";
        out += "  the log:  " + printable(d.log_side) + "\n";
        out += "  the desk: " + printable(d.desk_side) + "\n";
        if (!d.explained.empty()) out += "  may be explained by what the log does not hold: " + d.explained + "\n";
        return out;
    }
    int counts[5] = {};
    for (const Output &o : w.expected) counts[static_cast<int>(o.kind)]++;
    char buf[240];
    snprintf(buf, sizeof buf,
             "no divergence: %d lines sent, %d resends, %d time-outs, %d link changes, %d values parsed, "
             "as on the phone\n",
             counts[static_cast<int>(OutputKind::Sent)], counts[static_cast<int>(OutputKind::Resent)],
             counts[static_cast<int>(OutputKind::TimedOut)], counts[static_cast<int>(OutputKind::Link)],
             counts[static_cast<int>(OutputKind::Parsed)]);
    out += buf;
    // The time stamp as the module writes it: microseconds without leading zeros.
    snprintf(buf, sizeof buf, "the log ends at line %zu (time stamp %lld.%lld, %.3f s into the run)", w.end_line,
             static_cast<long long>(w.end_us / 1000000), static_cast<long long>(w.end_us % 1000000),
             seconds(w.end_us - w.origin_us));
    out += buf;
    if (d.went_on > 0) {
        out += "; the desk went on: " + std::to_string(d.went_on) + " output" + (d.went_on == 1 ? "" : "s") +
               " not compared\n";
    } else {
        out += "; the desk did nothing more\n";
    }
    return out;
}

int64_t estimated_play_us(const World &w, double speed) {
    int64_t total = 0;
    int64_t prev = w.origin_us;
    for (const Input &in : w.inputs) {
        const int64_t gap = std::max<int64_t>(in.time_us - prev, 0);
        if (in.anchor >= 0 && w.expected[static_cast<size_t>(in.anchor)].time_us >= prev) {
            // Up to the output it waits for the module sets the pace; the rest is scaled.
            const int64_t own = std::min(w.expected[static_cast<size_t>(in.anchor)].time_us - prev, gap);
            total += own + static_cast<int64_t>(static_cast<double>(gap - own) / speed);
        } else {
            total += static_cast<int64_t>(static_cast<double>(gap) / speed);
        }
        prev = std::max(prev, in.time_us);
    }
    // After the last input the module's own outputs come at its own pace, and the player
    // watches a little longer for one the phone had not logged.
    constexpr int64_t kAfterLastUs = 300000;
    return total + std::max<int64_t>(w.end_us - prev, 0) + kAfterLastUs;
}

std::string describe_pace(const World &w, double speed) {
    char buf[400];
    std::string out;
    if (speed != 1.0) {
        snprintf(buf, sizeof buf,
                 "--speed %g: the gaps the log shows between an input and what it followed are played %g times %s;\n",
                 speed, speed > 1 ? speed : 1 / speed, speed > 1 ? "shorter" : "longer");
        out += buf;
        out += "  the module's own timers keep their time: the answer time-out (" +
               std::to_string(ATCMD_TIMEOUT_DEFAULT / 1000) + " ms, " + std::to_string(ATCMD_TIMEOUT_WIFI_SERVER / 1000) +
               " ms towards the Wi-Fi server, " + std::to_string(ATCMD_MAX_RESENDS) +
               " resends), the heartbeat check (a count that stands still for 5 s), the daemon's exit wait (1 s), the "
               "start-up interrogation's spacing (10 ms a line) and its wait for the Bluetooth MAC (up to 2 s); the "
               "daemon simulator's heartbeats come once a second\n";
    }
    snprintf(buf, sizeof buf, "this replay takes about %.1f s (the phone's run: %.1f s)\n",
             seconds(estimated_play_us(w, speed)), seconds(w.end_us - w.origin_us));
    return out + buf;
}

}  // namespace atcmd_tools
