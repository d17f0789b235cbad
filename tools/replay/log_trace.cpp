/*
 * A run of a log drawn as a trace with the phone's own times, without replaying it: each
 * channel's lines in and out, the upper layer's calls, link changes, parsed values, and a span
 * per watched request from its first sending to its answer or time-out. Written through the
 * console's trace writer, so it opens where a live run's trace does. Main thread.
 */
#include <stdlib.h>

#include <map>

#include "console/trace.h"
#include "replay/replay.h"
#include "sim/messages.h"

namespace atcmd_tools {

namespace {

enum Track { kUpper = 1, kUsb, kUart, kWifi, kModule };
struct TrackName {
    Track track;
    const char *name;
};
constexpr TrackName kTracks[] = {
    {kUpper, "upper layer"}, {kUsb, "USB link"}, {kUart, "UART"}, {kWifi, "Wi-Fi FIFOs"}, {kModule, "module"},
};
constexpr const char kRemoved[] = "atcmd has been removed";

std::string quoted(const std::string &s) { return "\"" + json_escape(s) + "\""; }

std::string event(const char *ph, const std::string &name, const char *cat, int tid, int64_t ts) {
    return std::string("\"ph\":\"") + ph + "\",\"name\":" + quoted(name) + ",\"cat\":\"" + cat +
           "\",\"pid\":" + std::to_string(kTracePid) + ",\"tid\":" + std::to_string(tid) + ",\"ts\":" + std::to_string(ts);
}

void instant(const std::string &name, const char *cat, int tid, int64_t ts, size_t line, char scope = 't') {
    trace_write(event("i", name, cat, tid, ts) + ",\"s\":\"" + scope + "\",\"args\":{\"log_line\":" +
                std::to_string(line) + "}");
}

std::string trimmed(const std::string &s) {
    size_t end = s.size();
    while (end > 0 && (s[end - 1] == '\r' || s[end - 1] == '\n')) --end;
    return s.substr(0, end);
}

const char *input_name(InputKind k) {
    switch (k) {
    case InputKind::Plug: return "plug";
    case InputKind::Unplug: return "unplug";
    case InputKind::WifiInit: return "wifi_init";
    case InputKind::WifiDown: return "wifi_stchange(0)";
    case InputKind::DaemonStatus: return "daemon status";
    case InputKind::Request: return "request";
    case InputKind::Handshake: return "handshake";
    default: return "";
    }
}

struct OpenSpan {
    int64_t start = 0;
    std::string name;
    int tid = kUsb;
};

// A line leaving the phone: its instant, and the start of its request's span.
void sent(const Output &o, int64_t ts, std::map<long, OpenSpan> *open) {
    const size_t mode_at = o.key.find("mode is ");
    const int tid = mode_at != std::string::npos && atoi(o.key.c_str() + mode_at + 8) == 1 ? kWifi : kUsb;
    const size_t cmd_at = o.key.find("cmd is ");
    const std::string line = cmd_at == std::string::npos ? o.key : trimmed(o.key.substr(cmd_at + 7));
    instant("-> " + line, "line", tid, ts, o.line);
    const size_t hash = line.find('#');
    if (line.rfind("AT", 0) != 0 || hash == std::string::npos) return;
    const long seq = atol(line.c_str() + hash + 1);
    if (seq != 0 && open->count(seq) == 0) (*open)[seq] = {ts, line.substr(0, hash) + " #" + std::to_string(seq), tid};
}

}  // namespace

bool log_to_trace(const ParsedLog &log, const LogRun &run, const std::string &path, std::string *error) {
    if (!trace_open(path, std::chrono::steady_clock::now(), error)) return false;
    trace_write(event("M", "process_name", "", 0, 0) + ",\"args\":{\"name\":\"phone log\"}");
    for (const TrackName &t : kTracks) {
        trace_write(event("M", "thread_name", "", t.track, 0) + ",\"args\":{\"name\":" + quoted(t.name) + "}");
    }
    const int64_t origin = log.entries[run.first].time_us;
    const World w = rebuild_world(log, run);
    std::map<long, OpenSpan> open;
    size_t next_input = 0;
    for (size_t i = run.first; i < run.end; ++i) {
        const LogEntry &e = log.entries[i];
        const int64_t ts = e.time_us - origin;
        Output o;
        if (next_input < w.inputs.size() && w.inputs[next_input].line == e.line) {
            const Input &in = w.inputs[next_input++];
            if (in.kind == InputKind::UsbBytes || in.kind == InputKind::WifiBytes) {
                instant("<- " + trimmed(in.text), "line", in.kind == InputKind::UsbBytes ? kUsb : kWifi, ts, e.line);
            } else {
                const bool link = in.kind == InputKind::Plug || in.kind == InputKind::Unplug;
                instant(std::string(input_name(in.kind)) + " " + trimmed(in.text) + (link ? " ttyACM" + std::to_string(in.number) : ""),
                        link ? "link" : "call", link ? kUsb : kUpper, ts, e.line, link ? 'g' : 't');
            }
        } else if (output_of(e, &o)) {
            if (o.kind == OutputKind::Sent) {
                sent(o, ts, &open);
            } else {
                const bool link = o.kind == OutputKind::Link;
                instant(trimmed(o.key), link ? "link" : "module", kModule, ts, e.line, link ? 'g' : 't');
            }
        } else if (e.text.find(kRemoved) != std::string::npos && e.text.rfind("No. ", 0) == 0) {
            const long seq = atol(e.text.c_str() + 4);
            auto it = open.find(seq);
            if (it == open.end()) continue;
            const bool timed_out = e.text.find("since timeout") != std::string::npos;
            trace_write(event("X", it->second.name + (timed_out ? " -110 ETIMEDOUT" : ""), "request", it->second.tid,
                              it->second.start) +
                        ",\"dur\":" + std::to_string(ts - it->second.start) + ",\"args\":{\"log_line\":" +
                        std::to_string(e.line) + "}");
            open.erase(it);
        }
    }
    trace_finish();
    return true;
}

}  // namespace atcmd_tools
