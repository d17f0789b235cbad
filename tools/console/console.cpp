/*
 * The console's state and commands: the loaded module, the decoded messages (with a cursor per
 * message kind for "wait"), the simulators, and the command table. Commands run on the main
 * thread; the callback on the module's threads; the simulators' observers on theirs.
 */
#include "console/console.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include <cutils/properties.h>

#include "console/loader.h"
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
constexpr uint16_t kFirstSeq = 100;  // the console's own sequence numbers start here
constexpr const char kResendLog[] = "Re-send timeout cmd";
constexpr int32_t kTimedOut = -110;

struct ConsoleState {
    ConsoleOptions options;
    LoadedModule module;
    Clock::time_point started = Clock::now();
    std::mutex out_mu;  // guards standard output; taken last, after any simulator's mutex

    std::mutex msg_mu;  // guards messages and cursors
    std::condition_variable msg_arrived;
    std::vector<DecodedMessage> messages;
    std::map<int, size_t> cursors;  // per msg_id: messages before this index are consumed
    size_t mark = 0;                // messages before the last action are not waited for

    AccSim *acc = nullptr;
    DaemonSim *daemon = nullptr;
    std::atomic<bool> relay{true};  // set by the main thread, read by the daemon's reporter
    size_t acc_mark = 0;  // lines the accessory had received before the last action
    int failures = 0;
    uint16_t next_seq = kFirstSeq;
    bool tracing = false;  // written before the module opens, then only read
};

ConsoleState g;

std::string stamp() {
    char buf[16];
    const double s = std::chrono::duration<double>(Clock::now() - g.started).count();
    snprintf(buf, sizeof buf, "%7.3f", s);
    return buf;
}

void emit(const std::string &text, const std::string &json) {
    std::lock_guard<std::mutex> lock(g.out_mu);
    if (g.options.json) {
        fprintf(g.options.out, "%s\n", json.c_str());
        fflush(g.options.out);
        return;
    }
    const std::string at = stamp();
    for (size_t start = 0, nl; start <= text.size(); start = nl + 1) {
        nl = text.find('\n', start);
        if (nl == std::string::npos) nl = text.size();
        fprintf(g.options.out, "%s  %s\n", at.c_str(), text.substr(start, nl - start).c_str());
    }
    fflush(g.options.out);
}

std::string json_event(const char *event, const std::string &fields) {
    return std::string("{\"event\":\"") + event + "\"," + fields + "}";
}

std::string jstr(const char *key, const std::string &value) {
    return std::string("\"") + key + "\":\"" + json_escape(value) + "\"";
}

// What a message carried, as "wait NAME=VALUE" compares it.
std::string plain_value(const DecodedMessage &m) {
    std::string out;
    for (size_t i = 0; i < m.ints.size(); ++i) out += (i ? "," : "") + std::to_string(m.ints[i]);
    for (size_t i = 0; i < m.texts.size(); ++i) out += (i ? "|" : "") + m.texts[i];
    return out;
}

void on_message(const AT_CMD_CbMsg_t *msg) {
    const DecodedMessage m = decode_message(msg);
    // Printed before a "wait" can see it, so that a script ending on that wait shows it.
    emit("msg   " + message_text(m), message_json(m));
    if (g.tracing) timeline_callback(m);
    std::lock_guard<std::mutex> lock(g.msg_mu);
    g.messages.push_back(m);
    g.msg_arrived.notify_all();
}

void on_acc_event(void *, AccLink link, const char *dir, const std::string &text) {
    const std::string name = link == AccLink::Usb ? "usb" : "wifi";
    if (g.tracing) timeline_link_line(link, dir, text);
    emit("acc   " + name + " " + dir + " " + text,
         json_event("accessory", jstr("link", name) + "," + jstr("dir", dir) + "," + jstr("text", text)));
}

void on_daemon_event(void *, const std::string &event) {
    if (g.tracing) timeline_daemon_event(event);
    emit("dsim  " + event, json_event("daemon", jstr("text", event)));
}

// The daemon's reports reach the module as the upper layer relays them.
void on_daemon_report(void *, const std::string &status) {
    if (!g.relay) return;
    if (g.tracing) timeline_daemon_status(status);
    g.module.dev->atcmdprocess_hiddemon_stchange(status.c_str());
}

CommandResult ok(const std::string &text = "") { return {true, text}; }
CommandResult fail(const std::string &text) { return {false, text}; }

std::string rest_of(const std::vector<std::string> &w, size_t from) {
    std::string out;
    for (size_t i = from; i < w.size(); ++i) out += (i > from ? " " : "") + w[i];
    return out;
}

int int_arg(const std::vector<std::string> &w, size_t i, int fallback) {
    return i < w.size() ? atoi(w[i].c_str()) : fallback;
}

// A wait command's deadline: its MS argument (or the default) times the console's wait scale.
int wait_ms(const std::vector<std::string> &w, size_t i) {
    return int_arg(w, i, kDefaultWaitMs) * std::max(1, g.options.wait_scale);
}

CommandResult send_line(std::string line) {
    if (line.size() < 2 || line.compare(line.size() - 2, 2, "\r\n") != 0) line += "\r\n";
    if (line.size() >= AT_LINE_BUF_SIZE) return fail("line longer than 159 bytes");
    char buf[AT_LINE_BUF_SIZE] = {};
    memcpy(buf, line.data(), line.size());
    AtCmder_t cmd = {};
    const bool known = record_from_line(line, &cmd);
    cmd.data = buf;
    if (g.tracing) timeline_request_handed(line, link_load(g.module.dev->system_status.mode));
    g.module.dev->atcmdprocess_cmd_from_hidl(&cmd);
    // A keyword outside the table is sent all the same (a raw line is the person's choice), with
    // cmd_id 0, and said so.
    return ok("sent " + trim_line_end(line) + " (type " + std::to_string(cmd.type) + ", cmd_id " +
              std::to_string(cmd.cmd_id) + ", seq " + std::to_string(cmd.seq_num) + ")" +
              (known ? "" : "; its keyword is not in the table"));
}

CommandResult cmd_send(const std::vector<std::string> &w) {
    if (w.size() < 2) return fail("usage: send AT-LINE");
    return send_line(rest_of(w, 1));
}

CommandResult cmd_query(const std::vector<std::string> &w) {
    const int id = w.size() > 1 ? message_id(w[1]) : -1;
    if (id < 0) return fail("usage: query NAME (ver, sn, sid, type, bat, state, usbstate, ...)");
    const uint16_t seq = g.next_seq++;
    return send_line(std::string("AT+") + message_name(static_cast<uint16_t>(id)) + "?#" +
                     std::to_string(seq) + "&" + std::to_string(g.module.dev->system_status.platform));
}

template <typename Fn>
Fn *symbol(const char *name) {
    return reinterpret_cast<Fn *>(module_symbol(g.module, name));
}

CommandResult cmd_info(const std::vector<std::string> &) {
    auto *fn = symbol<int()>("get_corvel_info");
    if (fn == nullptr) return fail("the module exports no get_corvel_info");
    fn();
    return ok("start-up interrogation queued");
}

CommandResult cmd_handshake(const std::vector<std::string> &) {
    return ok("handshake: " + std::to_string(g.module.dev->atcmdprocess_amlogic_shake_hands()));
}

CommandResult cmd_wifi_init(const std::vector<std::string> &w) {
    if (w.size() < 2) return fail("usage: wifi-init IP");
    return ok("wifi_init: " + std::to_string(g.module.dev->atcmdprocess_wifi_init(w[1].c_str())));
}

CommandResult cmd_wifi_state(const std::vector<std::string> &w) {
    const int state = w[0] == "wifi-down" ? 0 : int_arg(w, 1, 0);
    return ok("wifi_stchange(" + std::to_string(state) +
              "): " + std::to_string(g.module.dev->atcmdprocess_wifi_stchange(state)));
}

CommandResult cmd_daemon(const std::vector<std::string> &w) {
    if (w.size() < 2) return fail("usage: daemon STATUS (running, heartbeat:N, error, ...)");
    const std::string status = rest_of(w, 1);
    if (g.tracing) timeline_daemon_status(status);
    return ok("hiddemon_stchange: " + std::to_string(g.module.dev->atcmdprocess_hiddemon_stchange(status.c_str())));
}

CommandResult cmd_relay(const std::vector<std::string> &w) {
    g.relay = !(w.size() > 1 && w[1] == "off");
    return ok(std::string("daemon reports ") + (g.relay ? "relayed" : "not relayed"));
}

CommandResult cmd_devinfo(const std::vector<std::string> &) {
    const auto *info = symbol<corvel_devInfo_t>("g_corvel_devInfo");
    if (info == nullptr) return fail("the module exports no g_corvel_devInfo");
    constexpr int offsets[] = CORVEL_VER_SLOT_OFFSETS;
    constexpr int sizes[] = CORVEL_VER_SLOT_SIZES;
    std::string ver;
    for (int i = 0; i < CORVEL_VER_ITEMS; ++i) {
        ver += (i ? " | " : "") + std::string(info->ver + offsets[i], strnlen(info->ver + offsets[i], sizes[i]));
    }
    const auto text = [](const char *field, size_t size) { return std::string(field, strnlen(field, size)); };
    return ok("sn \"" + text(info->sn, sizeof info->sn) + "\" sid \"" + text(info->sid, sizeof info->sid) +
              "\" type \"" + text(info->type, sizeof info->type) + "\" model " + std::to_string(info->model) +
              " bt_mac \"" + text(info->bt_mac, sizeof info->bt_mac) + "\" ver " + ver);
}

CommandResult cmd_status(const std::vector<std::string> &) {
    const atcmdprocess_device_t *d = g.module.dev;
    return ok("platform " + std::to_string(link_load(d->system_status.platform)) + " mode " +
              std::to_string(link_load(d->system_status.mode)) + " wifi_status " +
              std::to_string(link_load(d->system_status.wifi_status)) + " usb_connected " +
              std::to_string(link_load(d->usb_connected)) + " usb_status " +
              std::to_string(link_load(d->usb_status)));
}

CommandResult cmd_loglevel(const std::vector<std::string> &w) {
    auto *level = symbol<int32_t>("log_level");
    if (level == nullptr) return fail("the module exports no log_level");
    // The module's threads read the level without a lock: a change made here, while they run,
    // is seen by each thread at its next message. --log-level sets it before they start.
    if (w.size() > 1) link_store(*level, static_cast<int32_t>(atoi(w[1].c_str())));
    return ok("log_level " + std::to_string(link_load(*level)));
}

CommandResult cmd_setprop(const std::vector<std::string> &w) {
    if (w.size() < 3) return fail("usage: setprop KEY VALUE");
    property_set(w[1].c_str(), rest_of(w, 2).c_str());
    return ok(w[1] + "=" + rest_of(w, 2));
}

CommandResult cmd_getprop(const std::vector<std::string> &w) {
    if (w.size() < 2) return fail("usage: getprop KEY");
    char value[PROPERTY_VALUE_MAX];
    property_get(w[1].c_str(), value, "");
    return ok(w[1] + "=" + value);
}

CommandResult cmd_acc(const std::vector<std::string> &w) {
    if (g.acc == nullptr) return fail("no accessory simulator (start the console with --sim)");
    return acc_command(g.acc, std::vector<std::string>(w.begin() + 1, w.end()));
}

CommandResult cmd_dsim(const std::vector<std::string> &w) {
    if (g.daemon == nullptr) return fail("no daemon simulator (start the console with --sim)");
    return daemon_command(g.daemon, std::vector<std::string>(w.begin() + 1, w.end()));
}

// Waits for the next message of a kind (optionally with a value) after the last one waited for.
CommandResult cmd_wait(const std::vector<std::string> &w) {
    const std::string wanted = w.size() > 1 ? w[1] : "";
    const size_t eq = wanted.find('=');
    const int id = message_id(wanted.substr(0, eq));
    if (id < 0) return fail("usage: wait NAME[=VALUE] [MS]");
    const std::string value = eq == std::string::npos ? "" : wanted.substr(eq + 1);
    std::unique_lock<std::mutex> lock(g.msg_mu);
    const auto deadline = std::chrono::milliseconds(wait_ms(w, 2));
    const bool found = g.msg_arrived.wait_for(lock, deadline, [&] {
        for (size_t i = std::max(g.cursors[id], g.mark); i < g.messages.size(); ++i) {
            const DecodedMessage &m = g.messages[i];
            if (m.msg_id == id && (eq == std::string::npos || plain_value(m) == value)) {
                g.cursors[id] = i + 1;
                return true;
            }
        }
        return false;
    });
    return found ? ok() : fail("timed out waiting for " + wanted);
}

CommandResult cmd_wait_acc(const std::vector<std::string> &w) {
    if (g.acc == nullptr || w.size() < 2) return fail("usage: wait-acc TEXT [MS] (with --sim)");
    return acc_sim_wait_received(g.acc, w[1], wait_ms(w, 2), g.acc_mark)
               ? ok()
               : fail("timed out waiting for the accessory to receive " + w[1]);
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

CommandResult cmd_wait_log(const std::vector<std::string> &w) {
    if (w.size() < 3) return fail("usage: wait-log MS TEXT");
    const std::string text = rest_of(w, 2);
    const size_t before = count_of(log_text(), text);
    const auto deadline = Clock::now() + std::chrono::milliseconds(wait_ms(w, 1));
    // The log is a file another thread appends to: poll it for a new occurrence.
    while (count_of(log_text(), text) <= before) {
        if (Clock::now() >= deadline) return fail("timed out waiting for the log to say \"" + text + "\"");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return ok();
}

CommandResult cmd_echo(const std::vector<std::string> &w) {
    emit("===== " + rest_of(w, 1), json_event("note", jstr("text", rest_of(w, 1))));
    return ok();
}

CommandResult cmd_sleep(const std::vector<std::string> &w) {
    std::this_thread::sleep_for(std::chrono::milliseconds(int_arg(w, 1, 0)));
    return ok();
}

CommandResult cmd_summary(const std::vector<std::string> &) {
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
        kinds_json += (kinds_json.empty() ? "\"" : ",\"") + k.first + "\":" + std::to_string(k.second);
    }
    const AccCounters acc = g.acc != nullptr ? acc_sim_counters(g.acc) : AccCounters{};
    const DaemonCounters dmn = g.daemon != nullptr ? daemon_sim_counters(g.daemon) : DaemonCounters{};
    const size_t resends = count_of(log_text(), kResendLog);
    emit("summary: messages by kind: " + kinds + "\nsummary: lines phone->accessory " +
             std::to_string(acc.lines_from_phone) + ", accessory->phone " + std::to_string(acc.lines_to_phone) +
             ", answers dropped " + std::to_string(acc.dropped) + "\nsummary: resends " + std::to_string(resends) +
             ", time-outs " + std::to_string(timeouts) + "\nsummary: daemon starts " + std::to_string(dmn.starts) +
             ", orderly exits " + std::to_string(dmn.exits) + ", heartbeats " + std::to_string(dmn.heartbeats),
         json_event("summary", "\"messages\":{" + kinds_json + "},\"lines_to_accessory\":" +
                                   std::to_string(acc.lines_from_phone) + ",\"lines_to_phone\":" +
                                   std::to_string(acc.lines_to_phone) + ",\"resends\":" + std::to_string(resends) +
                                   ",\"timeouts\":" + std::to_string(timeouts) + ",\"daemon_starts\":" +
                                   std::to_string(dmn.starts) + ",\"heartbeats\":" + std::to_string(dmn.heartbeats)));
    return ok();
}

CommandResult cmd_close(const std::vector<std::string> &) {
    console_say("closing the device: this ends the process");
    trace_finish();
    g.module.dev->common.close(&g.module.dev->common);
    return fail("the device closed without ending the process");
}

CommandResult cmd_help(const std::vector<std::string> &) { return ok(console_help()); }

void mark_step();

struct ConsoleCommand {
    const char *name;
    const char *usage;
    CommandResult (*run)(const std::vector<std::string> &);
    // An action starts a new step: what arrived before it no longer satisfies a wait.
    bool action;
};

constexpr ConsoleCommand kCommands[] = {
    {"help", "help                      this list", cmd_help, false},
    {"send", "send AT-LINE              hand a raw AT line to the module (CR LF added)", cmd_send, true},
    {"query", "query NAME                ask the accessory (ver, sn, sid, type, bat, state, ...)", cmd_query, true},
    {"info", "info                      the start-up interrogation (get_corvel_info)", cmd_info, true},
    {"handshake", "handshake                 the handshake with the accessory's SoC", cmd_handshake, true},
    {"wifi-init", "wifi-init IP              start the Wi-Fi link through the daemon", cmd_wifi_init, true},
    {"wifi-down", "wifi-down                 disconnect Wi-Fi (wifi_stchange 0)", cmd_wifi_state, true},
    {"wifi-state", "wifi-state N              wifi_stchange(N)", cmd_wifi_state, true},
    {"daemon", "daemon STATUS             relay a daemon status (running, heartbeat:N, error)", cmd_daemon, true},
    {"relay", "relay on|off              relay the daemon simulator's reports (default on)", cmd_relay, true},
    {"devinfo", "devinfo                   print the accessory information record", cmd_devinfo, false},
    {"status", "status                    platform, cast mode, Wi-Fi and USB state", cmd_status, false},
    {"loglevel", "loglevel [N]              read or set the module's log level (see --log-level)", cmd_loglevel, true},
    {"setprop", "setprop KEY VALUE         set a system property", cmd_setprop, true},
    {"getprop", "getprop KEY               read a system property", cmd_getprop, false},
    {"acc", "acc COMMAND               accessory simulator (acc help lists)", cmd_acc, true},
    {"dsim", "dsim COMMAND              daemon simulator: silent, resume, error, status", cmd_dsim, true},
    {"wait", "wait NAME[=VALUE] [MS]    wait for the next message of a kind", cmd_wait, false},
    {"wait-acc", "wait-acc TEXT [MS]        wait until the accessory receives a line with TEXT", cmd_wait_acc, false},
    {"wait-log", "wait-log MS TEXT          wait until the module logs TEXT again", cmd_wait_log, false},
    {"echo", "echo TEXT                 print a note", cmd_echo, false},
    {"sleep", "sleep MS                  pause", cmd_sleep, false},
    {"summary", "summary                   messages by kind, lines, resends, time-outs", cmd_summary, false},
    {"close", "close                     close the device (ends the process)", cmd_close, true},
};

void mark_step() {
    {
        std::lock_guard<std::mutex> lock(g.msg_mu);
        g.mark = g.messages.size();
    }
    if (g.acc != nullptr) g.acc_mark = acc_sim_received(g.acc).size();
}

}  // namespace

bool console_start(const ConsoleOptions &options, std::string *error) {
    g.options = options;
    if (!options.trace.empty() && !trace_open(options.trace, g.started, error)) return false;
    if (!load_module(options.module, options.log_level, &g.module, error)) return false;
    if (!options.trace.empty()) {
        timeline_start(g.module.dev->system_status.platform, options.simulators);
        g.tracing = true;
    }
    g.module.dev->set_notify_callback(g.module.dev, on_message);
    console_say("module \"" + std::string(g.module.hmi->id) + "\" (" + g.module.hmi->name + ") from " +
                g.module.path);
    if (!options.simulators) {
        status_relay_listen(on_daemon_report, on_daemon_event, nullptr);  // a daemon simulator elsewhere
        return true;
    }
    g.acc = acc_sim_create(AccIdentity{}, on_acc_event, nullptr);
    g.daemon = g.acc != nullptr ? daemon_sim_create(g.acc, on_daemon_report, on_daemon_event, nullptr) : nullptr;
    if (g.daemon == nullptr) {
        *error = "the simulators could not start";
        return false;
    }
    return true;
}

void console_say(const std::string &text) { emit(text, json_event("info", jstr("text", text))); }

CommandResult console_run(const std::string &line) {
    const std::vector<std::string> words = split_words(line);
    if (words.empty() || words[0][0] == '#') return ok();
    if (words[0] == "quit" || words[0] == "exit") console_quit();
    if (g.options.echo_commands && words[0] != "echo") {
        emit("> " + rest_of(words, 0), json_event("command", jstr("text", rest_of(words, 0))));
    }
    CommandResult r = fail("unknown command \"" + words[0] + "\" (help lists them)");
    for (const ConsoleCommand &c : kCommands) {
        if (words[0] != c.name) continue;
        if (c.action) mark_step();
        if (g.tracing) timeline_command_begin(rest_of(words, 0));
        r = c.run(words);
        if (g.tracing) timeline_command_end(r.ok);
    }
    if (words[0] == "acc" && words.size() > 1 && words[1] == "help") r = ok(acc_command_help());
    if (!r.ok) g.failures++;
    if (!r.ok || !r.text.empty()) {
        emit((r.ok ? "" : "error: ") + r.text,
             json_event("result", jstr("command", words[0]) + ",\"ok\":" + (r.ok ? "true" : "false") + "," +
                                      jstr("text", r.text)));
    }
    return r;
}

void console_quit() {
    trace_finish();
    {
        std::lock_guard<std::mutex> lock(g.out_mu);
        fflush(g.options.out);
    }
    _exit(g.failures == 0 ? 0 : 1);
}

std::string console_help() {
    std::string out = "commands:\n";
    for (const ConsoleCommand &c : kCommands) out += std::string("  ") + c.usage + "\n";
    return out + "  history / !N              (interactive) list earlier commands, run number N\n"
                 "  quit                      leave (the device stays open until the process ends)";
}

}  // namespace atcmd_tools
