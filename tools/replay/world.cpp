/*
 * The world's side of one run, rebuilt from its messages: the inputs the module got (plugs,
 * unplugs, each channel's bytes, the upper layer's calls, the daemon's reports), what the module
 * did in answer (the outputs both logs are compared by), the daemon's heartbeats as far as the
 * log tells them, and the inputs the log does not hold. Pure functions over the parsed log.
 */
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>

#include "replay/replay.h"

namespace atcmd_tools {

namespace {

// Messages that record an input, by function and the start of their text.
struct InputRule {
    const char *func;
    const char *starts;
    InputKind kind;
};
constexpr InputRule kInputRules[] = {
    {"dev_event_process", "New file ttyACM", InputKind::Plug},
    {"dev_event_process", "File ttyACM", InputKind::Unplug},
    {"atcmder_VuartRx_thread", "Vuart receive data length is ", InputKind::UsbBytes},
    {"atcmder_wifiRx_thread", "Wifi receive data length is ", InputKind::WifiBytes},
    {"atcmdprocess_wifi_init", "wifi connection init begin with IPADDR ", InputKind::WifiInit},
    {"atcmdprocess_wifi_stchange", "Get wifi disconnect", InputKind::WifiDown},
    {"atcmdprocess_hiddemon_stchange", "hiddemon status is ", InputKind::DaemonStatus},
    {"atcmdprocess_cmd_from_hidl", "atcmdprocess_cmd_from_hidl type is ", InputKind::Request},
    {"atcmdprocess_amlogic_shake_hands", "atcmdprocess_amlogic_shake_hands.", InputKind::Handshake},
};

// Messages that record what the module did; parsers and extractors are taken whole besides.
struct OutputRule {
    const char *func;
    const char *starts;
    OutputKind kind;
    const char *label;
};
constexpr OutputRule kOutputRules[] = {
    {"atcmder_Tx_thread", "atcmder_Tx_thread send cmd success,", OutputKind::Sent, "sent"},
    {"atcmder_Timeout_thread", "Re-send timeout cmd: ", OutputKind::Resent, "resent"},
    {"notifytimeout", "Timeout happened, cmd is ", OutputKind::TimedOut, "timed out"},
    {"notify_usbevent", "Notify usb evt ", OutputKind::Link, "USB event"},
    {"notify_wifi_state", "notify_wifi_stated ", OutputKind::Link, "Wi-Fi state"},
    {"atcmder_wifiHBeat_thread", "!! HID demon lost heart beat", OutputKind::Link, "daemon lost"},
    {"atcmder_sigProcess_thread", "hot pluged device is corvel.", OutputKind::Link, "accessory recognised"},
    {"stop_hiddemon", "Process Hiddemon exits successfully!", OutputKind::Link, "daemon stopped"},
};

// Messages whose threshold tells the level a run was written at: the needed level's own
// (ports coming and going, lines sent at the port) and a few written at every start.
struct LevelMark {
    const char *func;
    int threshold;
};
constexpr LevelMark kLevelMarks[] = {
    {"set_notify_callback", 4}, {"dev_event_process", 4}, {"parse_dev_name", 4}, {"VUART_Send", 4},
    {"notify_usbevent", 4},     {"atcmder_hal_open", 3},  {"atcmder_Tx_thread", 3},
    {"atcmder_VuartRx_thread", 3},
};

constexpr const char kLostText[] = "wifiHBeat_num is ";
constexpr const char kReinitText[] = "Hid_daemon stopped, begin re-init wifi";
constexpr const char kScanText[] = "scan_acm_devices begin!";
constexpr const char kMacLine[] = "AT+BTMAC=";
constexpr const char kChunkData[] = ", receive data is ";

bool starts(const std::string &s, const char *head) { return s.compare(0, strlen(head), head) == 0; }

bool ends_with(const std::string &s, const char *tail) {
    const size_t n = strlen(tail);
    return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

// The text without the line end a message may close with.
std::string bare(const std::string &s) {
    size_t end = s.size();
    while (end > 0 && (s[end - 1] == '\r' || s[end - 1] == '\n' || s[end - 1] == ' ')) --end;
    return s.substr(0, end);
}

// "name is 12, other is 3": the number after "name is ".
long field(const std::string &text, const char *name) {
    const size_t at = text.find(name);
    return at == std::string::npos ? -1 : strtol(text.c_str() + at + strlen(name), nullptr, 10);
}

bool read_input(const LogEntry &e, Input *in) {
    for (const InputRule &r : kInputRules) {
        if (e.func != r.func || !starts(e.text, r.starts)) continue;
        in->kind = r.kind;
        in->line = e.line;
        in->time_us = e.time_us;
        const std::string rest = e.text.substr(strlen(r.starts));
        switch (r.kind) {
        case InputKind::Plug:
        case InputKind::Unplug: in->number = atoi(rest.c_str()); break;
        case InputKind::UsbBytes:
        case InputKind::WifiBytes: {
            const size_t d = e.text.find(kChunkData);
            if (d == std::string::npos) return false;
            in->text = e.text.substr(d + sizeof kChunkData - 1);
            if (in->text.empty()) return false;  // cut off: the reader has said so
            break;
        }
        case InputKind::WifiInit: in->text = rest.substr(0, rest.find(", current platform")); break;
        case InputKind::DaemonStatus: in->text = rest.substr(0, rest.find(", wifi_status")); break;
        case InputKind::Request: {
            const size_t d = e.text.find(", data is ");
            if (d == std::string::npos) return false;
            in->text = e.text.substr(d + strlen(", data is "));
            in->type = static_cast<uint8_t>(field(e.text, "type is "));
            in->dest = static_cast<uint8_t>(field(e.text, "dest is "));
            in->flag = static_cast<uint8_t>(field(e.text, "flag is "));
            in->cmd_id = static_cast<uint8_t>(field(e.text, "cmd_id is "));
            in->seq = static_cast<uint16_t>(field(e.text, "seq num is "));
            break;
        }
        default: break;
        }
        return true;
    }
    return false;
}

int level_of(const LogEntry &e) {
    for (const LevelMark &m : kLevelMarks) {
        if (e.func == m.func) return m.threshold;
    }
    return -1;
}

// A port the start-up scan (or a later one) found while none was known: a plug the module
// saw without an inotify event.
bool scan_found_port(const ParsedLog &log, const LogRun &run, size_t i, bool plugged) {
    const LogEntry &e = log.entries[i];
    if (plugged || e.func != "parse_dev_name") return false;
    for (size_t j = i; j-- > run.first;) {
        if (log.entries[j].tid != e.tid) continue;
        return log.entries[j].func == "scan_acm_devices" && starts(log.entries[j].text, kScanText);
    }
    return false;
}

void add_gaps(World *w) {
    bool wifi = false, bytes = false;
    for (const Input &in : w->inputs) {
        wifi |= in.kind == InputKind::WifiInit;
        bytes |= in.kind == InputKind::UsbBytes || in.kind == InputKind::WifiBytes;
    }
    w->gaps.push_back({"the notify callbacks to the upper layer",
                       "not in the log; the module's own log lines of what it parsed and reported are compared instead"});
    w->gaps.push_back({"properties the module reads (net.bluetooth.macaddr, ro.quorvanta.version, persist.vendor.corvel.factory.wt)",
                       w->bt_mac.empty() ? "not in the log; left unset"
                                         : "not in the log; net.bluetooth.macaddr=" + w->bt_mac +
                                               " taken from the line the module sent the accessory, the others left unset"});
    w->gaps.push_back({"the accessory port's uevent file", "not in the log; the simulator's (PRODUCT=7a1d/5101/100)"});
    if (bytes) {
        w->gaps.push_back({"how each channel's bytes were cut into reads, and NUL bytes",
                           "the log holds whole framed lines; each is written in one piece, NUL bytes left out"});
    }
    if (!wifi) return;
    std::string how = "not logged; relayed as the daemon simulator sends them (one a second)";
    for (size_t life = 0; life < w->heartbeat_caps.size(); ++life) {
        if (w->heartbeat_caps[life] >= 0) {
            how += "; daemon start " + std::to_string(life + 1) + ": stopped after heartbeat " +
                   std::to_string(w->heartbeat_caps[life]) + ", where the log says the module found it lost";
        }
    }
    w->gaps.push_back({"the daemon's heartbeats", how});
    w->gaps.push_back({"the daemon's side of a start and stop (FIFOs, \"exit\" answer)", "played by the daemon simulator"});
}

constexpr int64_t kLoggedLateUs = 1000;  // how much later than its answer a sent line may be logged

// The module logs a line as sent after writing it, so a prompt answer can be logged before the
// line it answers: such an answer waits for that line, not for the output logged before it.
void anchor_early_answers(World *w) {
    for (Input &in : w->inputs) {
        if (in.kind != InputKind::UsbBytes && in.kind != InputKind::WifiBytes) continue;
        const size_t name_end = in.text.find_first_of("=#"), tag = in.text.find('#');
        if (in.text.empty() || in.text[0] != '+' || name_end == std::string::npos || tag == std::string::npos) continue;
        const std::string query = "cmd is AT" + in.text.substr(0, name_end);
        const std::string tag_text = in.text.substr(tag, in.text.find_first_of("\r\n", tag) - tag);
        for (size_t i = static_cast<size_t>(in.anchor + 1); i < w->expected.size(); ++i) {
            const Output &o = w->expected[i];
            if (o.time_us - in.time_us > kLoggedLateUs) break;
            if (o.kind == OutputKind::Sent && o.key.find(query) != std::string::npos && ends_with(o.key, tag_text.c_str())) {
                in.anchor = static_cast<int>(i);
                break;
            }
        }
    }
}

// The outputs that only an input can cause, checked against the inputs the log holds before
// them: a line parsed needs bytes received that carry it, a resend or a time-out needs the line
// sent first. One that has no such cause shows lines missing from the log before it.
struct Causes {
    std::string received;                 // every chunk received in the run, in order
    std::map<std::string, int> parsed;    // lines parsed so far, by text
    std::map<std::string, int> sent;      // lines sent so far, by text
};

constexpr const char kParsedLine[] = "cmd is ";
constexpr const char kResentLine[] = " data: ";

size_t occurrences(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t at = text.find(what); !what.empty() && at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

void check_cause(Causes *c, Output *o) {
    const auto after = [&o](const char *mark) {
        const size_t at = o->key.rfind(mark);
        return at == std::string::npos ? std::string() : o->key.substr(at + strlen(mark));
    };
    if (o->kind == OutputKind::Sent) {
        c->sent[after(kParsedLine)]++;
    } else if (o->kind == OutputKind::Parsed && starts(o->key, "cmd_Parse_from_buffer: ")) {
        const std::string line = after(kParsedLine);
        if (!line.empty() && static_cast<size_t>(++c->parsed[line]) > occurrences(c->received, line)) {
            o->unexplained = "the module parsed \"" + line + "\", but the log holds no bytes received that carry it";
        }
    } else if (o->kind == OutputKind::Resent || o->kind == OutputKind::TimedOut) {
        const std::string line = after(o->kind == OutputKind::Resent ? kResentLine : kParsedLine);
        if (!line.empty() && c->sent[line] == 0) {
            o->unexplained = std::string("the module ") + (o->kind == OutputKind::Resent ? "resent" : "timed out on") +
                             " \"" + line + "\", but the log holds no line of it sent before";
        }
    }
}

}  // namespace

bool output_of(const LogEntry &e, Output *out) {
    out->line = e.line;
    out->time_us = e.time_us;
    out->at_file_end = e.at_file_end;
    for (const OutputRule &r : kOutputRules) {
        if (e.func != r.func || !starts(e.text, r.starts)) continue;
        out->kind = r.kind;
        const std::string rest = r.kind == OutputKind::Sent ? e.text.substr(strlen(r.starts)) : e.text;
        out->key = std::string(r.label) + ": " + bare(rest);
        return true;
    }
    if (ends_with(e.func, "_parser") || ends_with(e.func, "_fromCmdString") || e.func == "cmd_Parse_from_buffer") {
        out->kind = OutputKind::Parsed;
        out->key = e.func + ": " + bare(e.text);
        return true;
    }
    return false;
}

World rebuild_world(const ParsedLog &log, const LogRun &run) {
    World w;
    for (const LogNote &n : log.notes) {
        if (n.line >= log.entries[run.first].line &&
            (run.end == log.entries.size() || n.line < log.entries[run.end].line)) {
            w.notes.push_back(n);
        }
    }
    w.origin_us = log.entries[run.first].time_us;
    w.end_line = log.entries[run.end - 1].line;
    w.end_us = log.entries[run.end - 1].time_us;
    bool plugged = false;
    long life = -1;
    Causes causes;
    for (size_t i = run.first; i < run.end; ++i) {
        const LogEntry &e = log.entries[i];
        w.level_seen = std::max(w.level_seen, level_of(e));
        Input in;
        Output out;
        if (read_input(e, &in) && e.at_file_end && in.kind == InputKind::Request && !ends_with(in.text, "\n")) {
            w.notes.push_back({e.line, "the log ends inside this message: the upper layer's request \"" + in.text +
                                           "\" is cut off; not played"});
        } else if (read_input(e, &in)) {
            if (in.kind == InputKind::UsbBytes || in.kind == InputKind::WifiBytes) causes.received += in.text;
            in.anchor = static_cast<int>(w.expected.size()) - 1;
            if (in.kind == InputKind::Plug) plugged = true;
            if (in.kind == InputKind::Unplug) plugged = false;
            if (in.kind == InputKind::WifiInit) ++life;
            w.inputs.push_back(in);
        } else if (scan_found_port(log, run, i, plugged)) {
            plugged = true;
            in.kind = InputKind::Plug;
            in.line = e.line;
            in.time_us = e.time_us;
            in.number = static_cast<int>(field(e.text, "file ttyACM"));
            in.anchor = static_cast<int>(w.expected.size()) - 1;
            if (w.inputs.empty() && w.expected.empty()) {
                w.plugged_at_open = true;  // the start-up scan: the port was there before open
                w.plugged_number = in.number;
            } else {
                w.inputs.push_back(in);
            }
        } else if (output_of(e, &out)) {
            out.port_gone = !plugged;
            check_cause(&causes, &out);
            w.expected.push_back(out);
            const size_t mac = out.key.find(kMacLine);
            if (out.kind == OutputKind::Sent && mac != std::string::npos) {
                w.bt_mac = out.key.substr(mac + strlen(kMacLine));
                w.bt_mac = w.bt_mac.substr(0, w.bt_mac.find('#'));
            }
        }
        if (starts(e.text, kReinitText)) ++life;
        const long lost = field(e.text, kLostText);
        if (life >= 0 && e.func == "atcmder_wifiHBeat_thread" && lost >= 0) {
            if (w.heartbeat_caps.size() <= static_cast<size_t>(life)) w.heartbeat_caps.resize(static_cast<size_t>(life) + 1, -1);
            if (w.heartbeat_caps[static_cast<size_t>(life)] < 0) w.heartbeat_caps[static_cast<size_t>(life)] = lost;
        }
    }
    if (life >= 0) w.heartbeat_caps.resize(static_cast<size_t>(life) + 1, -1);
    anchor_early_answers(&w);
    add_gaps(&w);
    return w;
}

}  // namespace atcmd_tools
