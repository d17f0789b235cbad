/*
 * The replay's report, for a person triaging a field log: the runs a file holds, what the run
 * replayed held and how the inputs the log lacks were filled in, and the result (the counts, or
 * the first divergence with both sides). Main thread.
 */
#include <stdio.h>

#include "replay/replay.h"

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
    return out + buf;
}

}  // namespace atcmd_tools
