/*
 * The console's state and commands: the loaded module, the decoded messages (with where the
 * next "wait" looks from), the requests it handed over (what an ERROR or a time-out belongs to),
 * the simulators, and the command table with each command's argument check. Commands run on the main thread; the callback on the module's threads; the simulators'
 * observers on theirs; the log watch on its own. Every line printed goes through emit().
 */
#include "console/console.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include <cutils/properties.h>

#include "console/loader.h"
#include "console/service_link.h"
#include "console/log_watch.h"
#include "console/timeline.h"
#include "console/trace.h"
#include "device/link_words.h"
#include "hal/hal.h"
#include "sim/accessory_sim.h"
#include "sim/daemon_sim.h"
#include "sim/messages.h"
#include "sim/sim_util.h"
#include "sim/status_relay.h"

namespace atcmd_tools {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDefaultWaitMs = 5000;
constexpr long kMaxWaitMs = 3600 * 1000;  // an hour: anything longer is a typing mistake
constexpr int kSliceMs = 50;              // how often a wait looks for Ctrl-C
constexpr int kMaxLogLevel = 4;           // the module's most detailed threshold
constexpr uint16_t kFirstSeq = 100;  // the console's own sequence numbers start here
constexpr const char kResendLog[] = "Re-send timeout cmd";
constexpr int32_t kTimedOut = -110;
constexpr const char kHeartbeatReport[] = "report \"heartbeat:";

struct ConsoleState {
    ConsoleOptions options;
    LoadedModule module;
    Clock::time_point started = Clock::now();
    std::mutex out_mu;  // guards the output streams; taken last, after any simulator's mutex
    void (*sink)(FILE *, const std::string &) = nullptr;  // set before the first command

    std::mutex msg_mu;  // guards messages, arrived_at, wait_from and requests
    std::condition_variable msg_arrived;
    std::vector<DecodedMessage> messages;
    std::vector<double> arrived_at;  // per message: seconds since start
    // A wait looks at messages from here on: those after the last action (which may bring its
    // answer before the wait starts) and after the message the last wait met.
    size_t wait_from = 0;
    // The requests this console handed over, by sequence number: what an ERROR or a time-out
    // belongs to.
    struct Request {
        std::string line;
        double sent = 0;
        std::string ended;  // "ERROR seq 100: -110 at 1.234 s", or "" while unanswered
    };
    std::map<uint16_t, Request> requests;
    uint16_t last_seq = 0;  // the last request handed over

    AccSim *acc = nullptr;
    DaemonSim *daemon = nullptr;
    std::atomic<bool> relay{true};       // set by the main thread, read by the daemon's reporter
    std::atomic<bool> heartbeats{true};  // print the daemon's heartbeat reports
    size_t acc_mark = 0;  // lines the accessory had received before the last action
    int first_failure = kExitOk;
    uint16_t next_seq = kFirstSeq;
    bool tracing = false;  // written before the module opens, then only read
    bool (*cancelled)() = nullptr;

    std::mutex exit_mu;  // guards at_exit; the clean-up runs whole under it
    std::vector<void (*)()> at_exit;
};

ConsoleState g;

double seconds() { return std::chrono::duration<double>(Clock::now() - g.started).count(); }

void print(FILE *stream, const std::string &lines) {
    if (g.sink != nullptr) {
        g.sink(stream, lines);
        return;
    }
    fputs(lines.c_str(), stream);
    fflush(stream);
}

// One event: text lines stamped with the seconds since start, or one JSON object with its
// "time". Text-mode errors and warnings go to the error stream; with --json everything is an
// object on the output stream, so that it stays a stream of JSON and nothing else.
void emit(const std::string &text, const std::string &json, bool to_err = false) {
    char at[32];
    snprintf(at, sizeof at, "%7.3f", seconds());
    std::lock_guard<std::mutex> lock(g.out_mu);
    if (g.options.json) {
        print(g.options.out, "{\"time\":" + std::string(at + strspn(at, " ")) + "," + json.substr(1) + "\n");
        return;
    }
    std::string lines;
    for (size_t start = 0, nl; start <= text.size(); start = nl + 1) {
        nl = text.find('\n', start);
        if (nl == std::string::npos) nl = text.size();
        lines += std::string(at) + "  " + text.substr(start, nl - start) + "\n";
    }
    print(to_err ? g.options.err : g.options.out, lines);
}

std::string json_event(const char *event, const std::string &fields) {
    return std::string("{\"event\":\"") + event + "\"" + (fields.empty() ? "" : ",") + fields + "}";
}

std::string jstr(const char *key, const std::string &value) {
    return std::string("\"") + key + "\":\"" + json_escape(value) + "\"";
}

std::string jnum(const char *key, long long value) { return std::string("\"") + key + "\":" + std::to_string(value); }

// What a message carried, as "wait NAME=VALUE" compares it.
std::string plain_value(const DecodedMessage &m) {
    std::string out;
    for (size_t i = 0; i < m.ints.size(); ++i) out += (i ? "," : "") + std::to_string(m.ints[i]);
    for (size_t i = 0; i < m.texts.size(); ++i) out += (i ? "|" : "") + m.texts[i];
    return out;
}

std::string seconds_text(double at) {
    char buf[32];
    snprintf(buf, sizeof buf, "%.3f s", at);
    return buf;
}

// The request an ERROR message answers, as text and as a JSON field; both empty for other
// messages. The module's own queries (its start-up interrogation) carry their keyword's row,
// which is the message id, as sequence number.
void request_of(const DecodedMessage &m, double now, std::string *text, std::string *json) {
    if (m.msg_id != AT_MSG_ERROR) return;
    std::lock_guard<std::mutex> lock(g.msg_mu);
    const auto it = g.requests.find(m.seq_num);
    if (it == g.requests.end()) {
        *text = m.seq_num < AT_MSG_COUNT && m.seq_num != 0
                    ? std::string("; not a request of this console: the module's own ") + message_name(m.seq_num) +
                          " query (its sequence number is the keyword's row)"
                    : "; no request of this console carries this sequence number";
        *json = ",\"request\":null";
        return;
    }
    it->second.ended = "ERROR seq " + std::to_string(m.seq_num) + ": " + plain_value(m) + " at " + seconds_text(now);
    *text = "; the request " + it->second.line + ", sent at " + seconds_text(it->second.sent);
    *json = ",\"request\":{" + jstr("line", it->second.line) + ",\"sent\":" + std::to_string(it->second.sent) + "}";
}

void on_message(const AT_CMD_CbMsg_t *msg) {
    const DecodedMessage m = decode_message(msg);
    const double now = seconds();
    std::string request, request_json;
    request_of(m, now, &request, &request_json);
    // Printed before a "wait" can see it, so that a script ending on that wait shows it.
    const std::string json = message_json(m);
    emit("msg   " + message_text(m) + request, json.substr(0, json.size() - 1) + request_json + "}");
    if (g.tracing) timeline_callback(m);
    log_watch_message(m);
    std::lock_guard<std::mutex> lock(g.msg_mu);
    g.messages.push_back(m);
    g.arrived_at.push_back(now);
    g.msg_arrived.notify_all();
}

void on_acc_event(void *, AccLink link, const char *dir, const std::string &text) {
    const std::string name = link == AccLink::Usb ? "usb" : "wifi";
    if (g.tracing) timeline_link_line(link, dir, text);
    emit("acc   " + name + " " + dir + " " + text,
         json_event("accessory", jstr("link", name) + "," + jstr("dir", dir) + "," + jstr("text", text)));
}

// The daemon simulator's events; a report ("report \"heartbeat:3\"") carries its status word.
void on_daemon_event(void *, const std::string &event) {
    if (g.tracing) timeline_daemon_event(event);
    const bool heartbeat = event.rfind(kHeartbeatReport, 0) == 0;
    if (heartbeat && !g.heartbeats) return;
    std::string fields = jstr("text", event);
    constexpr const char kReport[] = "report \"";
    if (event.rfind(kReport, 0) == 0 && event.size() > sizeof kReport) {
        fields += "," + jstr("report", event.substr(sizeof kReport - 1, event.size() - sizeof kReport));
    }
    emit("dsim  " + event, json_event("daemon", fields + ",\"heartbeat\":" + (heartbeat ? "true" : "false")));
}

// The daemon's reports reach the module as the upper layer relays them.
void on_daemon_report(void *, const std::string &status) {
    if (!g.relay) return;
    if (g.tracing) timeline_daemon_status(status);
    g.module.dev->atcmdprocess_hiddemon_stchange(status.c_str());
}

// A command's outcome: its exit status, its text, and what the JSON result carries besides.
struct Outcome {
    int code;
    std::string text;
    std::string fields;  // "\"key\":value,..." or empty
};

Outcome ok(const std::string &text = "", const std::string &fields = "") { return {kExitOk, text, fields}; }
Outcome failed(const std::string &text) { return {kExitFailed, text, ""}; }
// An argument refused: the command's usage line is added to `why`.
Outcome bad_args(const std::string &why = "") { return {kExitUsage, why, ""}; }
Outcome timed_out(const std::string &text) { return {kExitTimedOut, text, ""}; }

using Words = std::vector<std::string>;

std::string rest_of(const Words &w, size_t from) {
    std::string out;
    for (size_t i = from; i < w.size(); ++i) out += (i > from ? " " : "") + w[i];
    return out;
}

bool parse_ms(const Words &w, size_t i, int *ms) {
    long v = kDefaultWaitMs;
    if (i < w.size() && !parse_number(w[i], 0, kMaxWaitMs, &v)) return false;
    *ms = static_cast<int>(v);
    return true;
}

std::string message_names() {
    std::string out;
    for (uint16_t id = 0; id < AT_MSG_COUNT; ++id) out += (id ? " " : "") + std::string(message_name(id));
    return out;
}

enum class WaitEnd { Met, TimedOut, Cancelled };

// Waits until `met(slice_ms)` holds; `met` itself waits at most a slice, so that Ctrl-C is seen
// within one. The deadline is scaled by --wait-scale.
WaitEnd wait_for(int ms, const std::function<bool(int)> &met) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(static_cast<long long>(ms) * g.options.wait_scale);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (met(static_cast<int>(std::max<long long>(0, std::min<long long>(left, kSliceMs))))) return WaitEnd::Met;
        if (g.cancelled != nullptr && g.cancelled()) return WaitEnd::Cancelled;
        if (Clock::now() >= deadline) return WaitEnd::TimedOut;
    }
}

Outcome wait_outcome(WaitEnd end, const std::string &what) {
    if (end == WaitEnd::Met) return ok();
    if (end == WaitEnd::Cancelled) return failed("cancelled waiting for " + what);
    return timed_out("timed out waiting for " + what);
}

Outcome send_line(std::string line) {
    if (line.size() < 2 || line.compare(line.size() - 2, 2, "\r\n") != 0) line += "\r\n";
    if (line.size() >= AT_LINE_BUF_SIZE) return bad_args("line longer than 159 bytes");
    char buf[AT_LINE_BUF_SIZE] = {};
    memcpy(buf, line.data(), line.size());
    AtCmder_t cmd = {};
    const bool known = record_from_line(line, &cmd);
    cmd.data = buf;
    const std::string shown = trim_line_end(line);
    if (cmd.seq_num != 0) {
        std::lock_guard<std::mutex> lock(g.msg_mu);
        g.requests[cmd.seq_num] = {shown, seconds(), ""};
        g.last_seq = cmd.seq_num;
    }
    if (g.tracing) timeline_request_handed(line, link_load(g.module.dev->system_status.mode));
    g.module.dev->atcmdprocess_cmd_from_hidl(&cmd);
    // A keyword outside the table is sent all the same (a raw line is the person's choice), with
    // cmd_id 0, and said so.
    return ok("sent " + shown + " (type " + std::to_string(cmd.type) + ", cmd_id " + std::to_string(cmd.cmd_id) +
                  ", seq " + std::to_string(cmd.seq_num) + ")" + (known ? "" : "; its keyword is not in the table"),
              jstr("line", shown) + "," + jnum("type", cmd.type) + "," + jnum("cmd_id", cmd.cmd_id) + "," +
                  jnum("seq_num", cmd.seq_num) + ",\"known\":" + (known ? "true" : "false"));
}

Outcome cmd_send(const Words &w) { return send_line(rest_of(w, 1)); }

Outcome cmd_query(const Words &w) {
    const int id = message_id(w[1]);
    if (id < 0) return bad_args("no message named \"" + w[1] + "\"; names: " + message_names());
    const uint16_t seq = g.next_seq++;
    return send_line(std::string("AT+") + message_name(static_cast<uint16_t>(id)) + "?#" + std::to_string(seq) + "&" +
                     std::to_string(g.module.dev->system_status.platform));
}

template <typename T>
T *symbol(const char *name) {
    return static_cast<T *>(module_symbol(g.module, name));
}

// A device operation's return value, as text and as the result's "return" field.
Outcome returned(const std::string &call, int value) { return ok(call + ": " + std::to_string(value), jnum("return", value)); }

Outcome cmd_info(const Words &) {
    auto *fn = reinterpret_cast<int (*)()>(module_symbol(g.module, "get_corvel_info"));
    if (fn == nullptr) return failed("the module exports no get_corvel_info");
    fn();
    return ok("start-up interrogation queued");
}

Outcome cmd_handshake(const Words &) {
    return returned("handshake", g.module.dev->atcmdprocess_amlogic_shake_hands());
}

Outcome cmd_wifi_init(const Words &w) { return returned("wifi_init", g.module.dev->atcmdprocess_wifi_init(w[1].c_str())); }

Outcome cmd_wifi_state(const Words &w) {
    long state = 0;
    if (w[0] == "wifi-state" && !parse_number(w[1], -1000000, 1000000, &state)) return bad_args("\"" + w[1] + "\" is not a number");
    return returned("wifi_stchange(" + std::to_string(state) + ")",
                    g.module.dev->atcmdprocess_wifi_stchange(static_cast<int>(state)));
}

Outcome cmd_daemon(const Words &w) {
    const std::string status = rest_of(w, 1);
    if (g.tracing) timeline_daemon_status(status);
    return returned("hiddemon_stchange", g.module.dev->atcmdprocess_hiddemon_stchange(status.c_str()));
}

// "on" or "off" in w[1]; false when it is neither.
bool on_off(const Words &w, bool *on) {
    if (w[1] != "on" && w[1] != "off") return false;
    *on = w[1] == "on";
    return true;
}

Outcome cmd_relay(const Words &w) {
    bool on = true;
    if (!on_off(w, &on)) return bad_args();
    g.relay = on;
    return ok(std::string("daemon reports ") + (on ? "relayed" : "not relayed"));
}

Outcome cmd_heartbeats(const Words &w) {
    bool on = true;
    if (!on_off(w, &on)) return bad_args();
    g.heartbeats = on;
    return ok(std::string("daemon heartbeats ") + (on ? "shown" : "hidden"));
}

Outcome cmd_devinfo(const Words &) {
    const auto *info = symbol<corvel_devInfo_t>("g_corvel_devInfo");
    if (info == nullptr) return failed("the module exports no g_corvel_devInfo");
    constexpr int offsets[] = CORVEL_VER_SLOT_OFFSETS;
    constexpr int sizes[] = CORVEL_VER_SLOT_SIZES;
    std::string ver, ver_json;
    for (int i = 0; i < CORVEL_VER_ITEMS; ++i) {
        const std::string item(info->ver + offsets[i], strnlen(info->ver + offsets[i], sizes[i]));
        ver += (i ? " | " : "") + item;
        ver_json += (i ? ",\"" : "\"") + json_escape(item) + "\"";
    }
    const auto text = [](const char *field, size_t size) { return std::string(field, strnlen(field, size)); };
    const std::string sn = text(info->sn, sizeof info->sn), sid = text(info->sid, sizeof info->sid);
    const std::string type = text(info->type, sizeof info->type), mac = text(info->bt_mac, sizeof info->bt_mac);
    return ok("sn \"" + sn + "\" sid \"" + sid + "\" type \"" + type + "\" model " + std::to_string(info->model) +
                  " bt_mac \"" + mac + "\" ver " + ver,
              jstr("sn", sn) + "," + jstr("sid", sid) + "," + jstr("type", type) + "," + jnum("model", info->model) +
                  "," + jstr("bt_mac", mac) + ",\"ver\":[" + ver_json + "]");
}

Outcome cmd_status(const Words &) {
    const atcmdprocess_device_t *d = g.module.dev;
    const std::pair<const char *, int32_t> fields[] = {
        {"platform", link_load(d->system_status.platform)}, {"mode", link_load(d->system_status.mode)},
        {"wifi_status", link_load(d->system_status.wifi_status)}, {"usb_connected", link_load(d->usb_connected)},
        {"usb_status", link_load(d->usb_status)},
    };
    std::string text, json;
    for (const auto &f : fields) {
        text += (text.empty() ? "" : " ") + std::string(f.first) + " " + std::to_string(f.second);
        json += (json.empty() ? "" : ",") + jnum(f.first, f.second);
    }
    return ok(text, json);
}

Outcome cmd_loglevel(const Words &w) {
    auto *level = symbol<int32_t>("log_level");
    if (level == nullptr) return failed("the module exports no log_level");
    long wanted = 0;
    if (w.size() > 1 && !parse_number(w[1], 0, kMaxLogLevel, &wanted)) {
        return bad_args("\"" + w[1] + "\" is not a level from 0 to " + std::to_string(kMaxLogLevel));
    }
    // The module's threads read the level without a lock: a change made here, while they run,
    // is seen by each thread at its next message. --log-level sets it before they start.
    if (w.size() > 1) link_store(*level, static_cast<int32_t>(wanted));
    return ok("log_level " + std::to_string(link_load(*level)), jnum("log_level", link_load(*level)));
}

// A property is stored only when property_set says so and reading it back gives the value:
// an over-long value, a key the store refuses or a read-only store all fail here.
Outcome cmd_setprop(const Words &w) {
    const std::string value = rest_of(w, 2);
    if (value.size() >= PROPERTY_VALUE_MAX) {
        return bad_args("a value holds at most " + std::to_string(PROPERTY_VALUE_MAX - 1) + " bytes; this one has " +
                        std::to_string(value.size()));
    }
    if (property_set(w[1].c_str(), value.c_str()) != 0) return failed("property " + w[1] + " was not stored");
    char stored[PROPERTY_VALUE_MAX] = {};
    property_get(w[1].c_str(), stored, "");
    if (value != stored) return failed("property " + w[1] + " reads back \"" + stored + "\", not the value set");
    return ok(w[1] + "=" + value, jstr("key", w[1]) + "," + jstr("value", value));
}

Outcome cmd_getprop(const Words &w) {
    char value[PROPERTY_VALUE_MAX] = {};
    const int n = property_get(w[1].c_str(), value, "");
    return ok(w[1] + "=" + value, jstr("key", w[1]) + "," + jstr("value", value) + ",\"set\":" + (n > 0 ? "true" : "false"));
}

Outcome from_simulator(const CommandResult &r) {
    if (r.ok) return ok(r.text);
    // The simulators' tables say "usage: ..." or "unknown ... command" for what they refuse.
    const bool refused = r.text.rfind("usage:", 0) == 0 || r.text.rfind("unknown ", 0) == 0;
    return {refused ? kExitUsage : kExitFailed, r.text, ""};
}

Outcome cmd_acc(const Words &w) {
    if (w[1] == "help") return ok(acc_command_help());
    if (g.acc == nullptr) return failed("no accessory simulator (start the console with --sim)");
    return from_simulator(acc_command(g.acc, Words(w.begin() + 1, w.end())));
}

Outcome cmd_dsim(const Words &w) {
    if (w[1] == "help") return ok(daemon_command_help());
    if (g.daemon == nullptr) return failed("no daemon simulator (start the console with --sim)");
    return from_simulator(daemon_command(g.daemon, Words(w.begin() + 1, w.end())));
}

// The request a wait for `id` is about: the last one this console sent for that keyword (for
// ERROR: the last one sent), with what became of it; "" when there is none.
std::string request_for(int id) {
    std::lock_guard<std::mutex> lock(g.msg_mu);
    const ConsoleState::Request *found = nullptr;
    double latest = -1;
    const std::string head = std::string("AT+") + message_name(static_cast<uint16_t>(id));
    for (const auto &r : g.requests) {
        const bool same = id == AT_MSG_ERROR ? r.first == g.last_seq
                                             : r.second.line.compare(0, head.size(), head) == 0 &&
                                                   head.size() < r.second.line.size() &&
                                                   strchr("?=#", r.second.line[head.size()]) != nullptr;
        if (same && r.second.sent > latest) {
            found = &r.second;
            latest = r.second.sent;
        }
    }
    if (found == nullptr) {
        return id == AT_MSG_ERROR ? "" : std::string("; this console sent no request for ") + message_name(static_cast<uint16_t>(id));
    }
    return "; the request " + found->line + ", sent at " + seconds_text(found->sent) +
           (found->ended.empty() ? ", has no answer yet" : ", ended with " + found->ended);
}

// Waits for the next message of a kind (optionally with a value): one that arrives after the
// last action and after the message the last wait met. With --seen, the last such message
// that already came is taken too, and the result says when it came.
Outcome cmd_wait(const Words &given) {
    Words w = given;
    const bool seen_ok = w.size() > 1 && w[1] == "--seen";
    if (seen_ok) w.erase(w.begin() + 1);
    if (w.size() < 2 || w.size() > 3) return bad_args();
    const size_t eq = w[1].find('=');
    const int id = message_id(w[1].substr(0, eq));
    if (id < 0) return bad_args("no message named \"" + w[1].substr(0, eq) + "\"; names: " + message_names());
    int ms = 0;
    if (!parse_ms(w, 2, &ms)) return bad_args("\"" + w[2] + "\" is not a number of milliseconds");
    const std::string value = eq == std::string::npos ? "" : w[1].substr(eq + 1);
    const auto matches = [&](const DecodedMessage &m) {
        return m.msg_id == id && (eq == std::string::npos || plain_value(m) == value);
    };
    const double started = seconds();
    if (seen_ok) {
        std::lock_guard<std::mutex> lock(g.msg_mu);
        for (size_t i = g.messages.size(); i-- > 0;) {
            if (!matches(g.messages[i])) continue;
            g.wait_from = std::max(g.wait_from, i + 1);
            return ok(g.messages[i].name + " seq " + std::to_string(g.messages[i].seq_num) + " came at " +
                          seconds_text(g.arrived_at[i]) + ", before this wait (" + seconds_text(started) + ")",
                      "\"seen_at\":" + std::to_string(g.arrived_at[i]));
        }
    }
    const auto seen = [&] {
        for (size_t i = g.wait_from; i < g.messages.size(); ++i) {
            if (matches(g.messages[i])) {
                g.wait_from = i + 1;
                return true;
            }
        }
        return false;
    };
    const WaitEnd end = wait_for(ms, [&](int slice) {
        std::unique_lock<std::mutex> lock(g.msg_mu);
        return g.msg_arrived.wait_for(lock, std::chrono::milliseconds(slice), seen);
    });
    if (end == WaitEnd::Met) return ok();
    const std::string what = w[1] + " (" + std::to_string(ms) + " ms from " + seconds_text(started) + ")" + request_for(id);
    return wait_outcome(end, what);
}

Outcome cmd_wait_acc(const Words &w) {
    if (g.acc == nullptr) return failed("no accessory simulator (start the console with --sim)");
    int ms = 0;
    if (!parse_ms(w, 2, &ms)) return bad_args("\"" + w[2] + "\" is not a number of milliseconds");
    return wait_outcome(
        wait_for(ms, [&](int slice) { return acc_sim_wait_received(g.acc, w[1], slice, g.acc_mark); }),
        "the accessory to receive " + w[1]);
}

std::string log_text() {
    FILE *f = fopen(rooted(ATCMD_LOG_DIR "/" ATCMD_LOG_FILE).c_str(), "re");
    std::string text;
    if (f == nullptr) return text;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) text.append(buf, n);
    fclose(f);
    return text;
}

size_t count_of(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

Outcome cmd_wait_log(const Words &w) {
    int ms = 0;
    if (!parse_ms(w, 1, &ms)) return bad_args("\"" + w[1] + "\" is not a number of milliseconds (MS comes first)");
    const std::string text = rest_of(w, 2);
    const size_t before = count_of(log_text(), text);
    // The log is a file another thread appends to: look again every slice.
    return wait_outcome(wait_for(ms,
                                 [&](int slice) {
                                     if (count_of(log_text(), text) > before) return true;
                                     std::this_thread::sleep_for(std::chrono::milliseconds(slice));
                                     return false;
                                 }),
                        "the log to say \"" + text + "\"");
}

Outcome cmd_echo(const Words &w) {
    emit("===== " + rest_of(w, 1), json_event("note", jstr("text", rest_of(w, 1))));
    return ok();
}

Outcome cmd_sleep(const Words &w) {
    long ms = 0;
    if (!parse_number(w[1], 0, kMaxWaitMs, &ms)) return bad_args("\"" + w[1] + "\" is not a number of milliseconds");
    const auto until = Clock::now() + std::chrono::milliseconds(ms);
    // Not scaled: a sleep paces the accessory or the daemon, whose clocks run at their own speed.
    while (Clock::now() < until) {
        if (g.cancelled != nullptr && g.cancelled()) return failed("sleep cancelled");
        std::this_thread::sleep_for(std::min<Clock::duration>(until - Clock::now(), std::chrono::milliseconds(kSliceMs)));
    }
    return ok();
}

Outcome cmd_summary(const Words &) {
    std::map<std::string, int> by_kind;
    int timeouts = 0;
    {
        std::lock_guard<std::mutex> lock(g.msg_mu);
        for (const DecodedMessage &m : g.messages) {
            by_kind[m.name]++;
            timeouts += m.msg_id == AT_MSG_ERROR && m.ints.size() == 1 && m.ints[0] == kTimedOut;
        }
    }
    std::string kinds, kinds_json;
    for (const auto &k : by_kind) {
        kinds += (kinds.empty() ? "" : ", ") + k.first + " " + std::to_string(k.second);
        kinds_json += (kinds_json.empty() ? "" : ",") + jnum(k.first.c_str(), k.second);
    }
    const AccCounters acc = g.acc != nullptr ? acc_sim_counters(g.acc) : AccCounters{};
    const DaemonCounters dmn = g.daemon != nullptr ? daemon_sim_counters(g.daemon) : DaemonCounters{};
    const long long resends = static_cast<long long>(count_of(log_text(), kResendLog));
    emit("summary: messages by kind: " + kinds + "\nsummary: lines phone->accessory " +
             std::to_string(acc.lines_from_phone) + ", accessory->phone " + std::to_string(acc.lines_to_phone) +
             ", answers dropped " + std::to_string(acc.dropped) + "\nsummary: resends " + std::to_string(resends) +
             ", time-outs " + std::to_string(timeouts) + "\nsummary: daemon starts " + std::to_string(dmn.starts) +
             ", orderly exits " + std::to_string(dmn.exits) + ", heartbeats " + std::to_string(dmn.heartbeats),
         json_event("summary", "\"messages\":{" + kinds_json + "}," + jnum("lines_to_accessory", acc.lines_from_phone) +
                                   "," + jnum("lines_to_phone", acc.lines_to_phone) + "," +
                                   jnum("answers_dropped", acc.dropped) + "," + jnum("resends", resends) + "," +
                                   jnum("timeouts", timeouts) + "," + jnum("daemon_starts", dmn.starts) + "," +
                                   jnum("daemon_exits", dmn.exits) + "," + jnum("heartbeats", dmn.heartbeats)));
    return ok();
}

Outcome cmd_close(const Words &) {
    console_say("closing the device: this ends the process");
    console_cleanup();
    g.module.dev->common.close(&g.module.dev->common);
    return failed("the device closed without ending the process");
}

Outcome cmd_help(const Words &w) {
    const std::string text = console_help(w.size() > 1 ? w[1] : "");
    return text.empty() ? bad_args("no command \"" + w[1] + "\"") : ok(text);
}

struct ConsoleCommand {
    const char *name;
    const char *usage;
    Outcome (*run)(const Words &);
    // An action starts a new step: what arrived before it no longer satisfies a wait.
    bool action;
    size_t min_args, max_args;  // words after the name; kAnyArgs: the rest of the line is one text
    // What Tab offers after the name: "messages", "commands", the "acc" or "dsim" commands, or
    // the words given.
    const char *completes;
};

constexpr size_t kAnyArgs = 1000;

constexpr ConsoleCommand kCommands[] = {
    {"help", "help [COMMAND]            every command, or one", cmd_help, false, 0, 1, "commands"},
    {"send", "send AT-LINE              hand a raw AT line to the module (CR LF added)", cmd_send, true, 1, kAnyArgs, ""},
    {"query", "query NAME                ask the accessory (ver, sn, sid, type, bat, state, ...)", cmd_query, true, 1, 1,
     "messages"},
    {"info", "info                      the start-up interrogation (get_corvel_info)", cmd_info, true, 0, 0, ""},
    {"handshake", "handshake                 the handshake with the accessory's SoC", cmd_handshake, true, 0, 0, ""},
    {"wifi-init", "wifi-init IP              start the Wi-Fi link through the daemon", cmd_wifi_init, true, 1, 1, ""},
    {"wifi-down", "wifi-down                 disconnect Wi-Fi (wifi_stchange 0)", cmd_wifi_state, true, 0, 0, ""},
    {"wifi-state", "wifi-state N              wifi_stchange(N)", cmd_wifi_state, true, 1, 1, ""},
    {"daemon", "daemon STATUS             relay a daemon status (running, heartbeat:N, error)", cmd_daemon, true, 1,
     kAnyArgs, "running error exit"},
    {"relay", "relay on|off              relay the daemon simulator's reports (default on)", cmd_relay, true, 1, 1,
     "on off"},
    {"heartbeats", "heartbeats on|off         print the daemon simulator's heartbeats (default on)", cmd_heartbeats,
     false, 1, 1, "on off"},
    {"devinfo", "devinfo                   print the accessory information record", cmd_devinfo, false, 0, 0, ""},
    {"status", "status                    platform, cast mode, Wi-Fi and USB state", cmd_status, false, 0, 0, ""},
    {"loglevel", "loglevel [N]              read or set the module's log level, 0 to 4", cmd_loglevel, true, 0, 1, ""},
    {"setprop", "setprop KEY VALUE         set a system property (fails when it is not stored)", cmd_setprop, true, 2,
     kAnyArgs, ""},
    {"getprop", "getprop KEY               read a system property", cmd_getprop, false, 1, 1, ""},
    {"acc", "acc COMMAND               accessory simulator (acc help lists)", cmd_acc, true, 1, kAnyArgs,
     "acc"},
    {"dsim", "dsim COMMAND              daemon simulator (dsim help lists)", cmd_dsim, true, 1, kAnyArgs,
     "dsim"},
    {"wait", "wait [--seen] NAME[=VALUE] [MS]  wait for the next message of a kind (--seen: or the last already come)",
     cmd_wait, false, 1, 3, "messages"},
    {"wait-acc", "wait-acc TEXT [MS]        wait until the accessory receives a line with TEXT", cmd_wait_acc, false,
     1, 2, ""},
    {"wait-log", "wait-log MS TEXT          wait until the module logs TEXT again", cmd_wait_log, false, 2, kAnyArgs, ""},
    {"echo", "echo TEXT                 print a note", cmd_echo, false, 0, kAnyArgs, ""},
    {"sleep", "sleep MS                  pause", cmd_sleep, false, 1, 1, ""},
    {"summary", "summary                   messages by kind, lines, resends, time-outs", cmd_summary, false, 0, 0, ""},
    {"close", "close                     close the device (ends the process)", cmd_close, true, 0, 0, ""},
};

constexpr const char kHelpTail[] =
    "  history / !N              (interactive) list earlier commands, run number N\n"
    "  quit                      leave (the device stays open until the process ends)";

const ConsoleCommand *find_command(const std::string &name) {
    for (const ConsoleCommand &c : kCommands) {
        if (name == c.name) return &c;
    }
    return nullptr;
}

std::string command_names() {
    std::string out;
    for (const ConsoleCommand &c : kCommands) out += std::string(out.empty() ? "" : " ") + c.name;
    return out + " history quit";
}

void mark_step() {
    {
        std::lock_guard<std::mutex> lock(g.msg_mu);
        g.wait_from = g.messages.size();
    }
    if (g.acc != nullptr) g.acc_mark = acc_sim_received(g.acc).size();
}

Outcome run_command(const Words &words) {
    const ConsoleCommand *c = find_command(words[0]);
    if (c == nullptr) return bad_args("unknown command \"" + words[0] + "\"; commands: " + command_names());
    const size_t args = words.size() - 1;
    Outcome r = args < c->min_args || args > c->max_args ? bad_args() : Outcome{};
    if (r.code == kExitOk) {
        if (c->action) mark_step();
        if (g.tracing) timeline_command_begin(rest_of(words, 0));
        r = c->run(words);
        if (g.tracing) timeline_command_end(r.code == kExitOk);
    }
    if (r.code == kExitUsage && r.text.rfind("unknown", 0) != 0 && r.text.rfind("usage:", 0) != 0) {
        const std::string usage = c->usage;
        r.text += (r.text.empty() ? "" : "; ") + ("usage: " + usage.substr(0, usage.find("  ")));
    }
    return r;
}

}  // namespace

int console_start(const ConsoleOptions &options, std::string *error) {
    g.options = options;
    g.options.wait_scale = std::max(1, options.wait_scale);
    if (!options.trace.empty() && !trace_open(options.trace, g.started, error)) return kExitFailed;
    log_watch_start();  // from the log's present end: what the module says as it opens is news
    if (!link_module(options.module, options.log_level, &g.module, error)) return kExitNoModule;
    log_watch_opened();
    if (!options.trace.empty()) {
        timeline_start(g.module.dev->system_status.platform, options.simulators);
        g.tracing = true;
    }
    g.module.dev->set_notify_callback(g.module.dev, on_message);
    console_say("module \"" + std::string(g.module.hmi->id) + "\" (" + g.module.hmi->name + ") from " + g.module.path);
    if (!options.simulators) {
        status_relay_listen(on_daemon_report, on_daemon_event, nullptr);  // a daemon simulator elsewhere
        return kExitOk;
    }
    g.acc = acc_sim_create(AccIdentity{}, on_acc_event, nullptr);
    g.daemon = g.acc != nullptr ? daemon_sim_create(g.acc, on_daemon_report, on_daemon_event, nullptr) : nullptr;
    if (g.daemon == nullptr) {
        *error = "the simulators could not start";
        return kExitFailed;
    }
    return kExitOk;
}

void console_say(const std::string &text) { emit(text, json_event("info", jstr("text", text))); }

void console_warn(const char *kind, const std::string &text) {
    emit("warning: " + text, json_event("warning", jstr("kind", kind) + "," + jstr("text", text)), true);
}

void console_set_cancel_check(bool (*cancelled)()) { g.cancelled = cancelled; }

void console_set_print_sink(void (*sink)(FILE *, const std::string &)) {
    std::lock_guard<std::mutex> lock(g.out_mu);
    g.sink = sink;
}

int console_run(const std::string &line) {
    const Words words = split_words(line);
    if (words.empty() || words[0][0] == '#') return kExitOk;
    if (words[0] == "quit" || words[0] == "exit") console_quit();
    if (g.options.echo_commands && words[0] != "echo") {
        emit("> " + rest_of(words, 0), json_event("command", jstr("text", rest_of(words, 0))));
    }
    const double started = seconds();
    const Outcome r = run_command(words);
    if (r.code != kExitOk && g.first_failure == kExitOk) g.first_failure = r.code;
    if (r.code != kExitOk || !r.text.empty() || !r.fields.empty()) {
        emit((r.code == kExitOk ? "" : "error: ") + r.text,
             json_event("result", jstr("command", words[0]) + ",\"ok\":" + (r.code == kExitOk ? "true" : "false") +
                                      "," + jnum("exit_code", r.code) + "," + jstr("text", r.text) +
                                      (r.fields.empty() ? "" : "," + r.fields) +
                                      (r.code == kExitOk ? "" : "," + jstr("line", rest_of(words, 0)) +
                                                                    ",\"started\":" + std::to_string(started))),
             r.code != kExitOk);
    }
    return r.code;
}

void console_at_exit(void (*fn)()) {
    std::lock_guard<std::mutex> lock(g.exit_mu);
    g.at_exit.push_back(fn);
}

void console_cleanup() {
    std::lock_guard<std::mutex> lock(g.exit_mu);
    trace_finish();
    for (void (*fn)() : g.at_exit) fn();
    g.at_exit.clear();
}

void console_quit() {
    console_cleanup();
    {
        std::lock_guard<std::mutex> lock(g.out_mu);
        fflush(g.options.out);
        fflush(g.options.err);
    }
    _exit(g.first_failure);
}

std::string console_help(const std::string &command) {
    if (!command.empty()) {
        const ConsoleCommand *c = find_command(command);
        if (c == nullptr) return "";
        std::string out = std::string("  ") + c->usage;
        if (command == "acc") out += "\n" + acc_command_help();
        if (command == "dsim") out += "\n" + daemon_command_help();
        if (strcmp(c->completes, "messages") == 0) out += "\n  names: " + message_names();
        return out;
    }
    std::string out = "commands:\n";
    for (const ConsoleCommand &c : kCommands) out += std::string("  ") + c.usage + "\n";
    return out + kHelpTail;
}

std::vector<std::string> console_completions(const Words &before) {
    std::vector<std::string> out;
    if (before.empty()) {
        for (const ConsoleCommand &c : kCommands) out.push_back(c.name);
        out.push_back("history");
        out.push_back("quit");
        return out;
    }
    const ConsoleCommand *c = before.size() == 1 ? find_command(before[0]) : nullptr;
    if (c == nullptr) return out;
    if (strcmp(c->completes, "commands") == 0) return console_completions({});
    if (strcmp(c->completes, "messages") == 0) {
        for (uint16_t id = 0; id < AT_MSG_COUNT; ++id) out.push_back(message_name(id));
        return out;
    }
    // The simulators' commands are the first words of their help lines.
    const bool acc = strcmp(c->completes, "acc") == 0, dsim = strcmp(c->completes, "dsim") == 0;
    if (!acc && !dsim) return split_words(c->completes);
    const std::string help = acc ? acc_command_help() : daemon_command_help();
    for (size_t at = 0; at < help.size(); at = help.find('\n', at) + 1) {
        const Words line = split_words(help.substr(at, help.find('\n', at) - at));
        if (!line.empty()) out.push_back(line[0]);
        if (help.find('\n', at) == std::string::npos) break;
    }
    out.push_back("help");
    return out;
}

}  // namespace atcmd_tools
