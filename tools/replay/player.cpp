/*
 * The player: the world of one run played against the module in the sandbox. The accessory
 * simulator carries each channel's logged bytes (its own answers silenced), the daemon
 * simulator plays the daemon, and this thread plays the upper layer's calls. Each input waits
 * for the output the log shows before it (so the module's own timers keep their pace at any
 * speed), then for its gap in the log, scaled. The module's log in the sandbox is read back the
 * same way as the phone's and matched as it grows. Main thread; the simulators' threads call in.
 */
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <map>
#include <mutex>
#include <thread>

#include <cutils/properties.h>

#include "console/loader.h"
#include "console/timeline.h"
#include "console/trace.h"
#include "device/link_words.h"
#include "hal/hal.h"
#include "replay/replay.h"
#include "sim/accessory_sim.h"
#include "sim/daemon_sim.h"
#include "sim/messages.h"
#include "sim/sim_util.h"

namespace atcmd_tools {

namespace {

using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

constexpr int kPollMs = 5;
constexpr int kSettleMs = 3000;  // after the last input: this long without a new output ends the play
constexpr int kGraceMs = 300;    // after the last expected output: room for one the phone had not
constexpr const char kHeartbeat[] = "heartbeat:";
constexpr const char kSentCmd[] = "cmd is ";
constexpr size_t kLookahead = 3;  // inputs

// What the simulators' threads and the callback read.
struct Shared {
    atcmdprocess_device_t *dev = nullptr;
    std::vector<long> caps;        // written before the simulators start, then only read
    std::atomic<int> life{-1};     // the daemon simulator's starts, counted by its "running"
    bool tracing = false;
    std::mutex mu;  // guards callbacks; nothing else is taken under it
    std::condition_variable called;
    std::map<std::string, int> callbacks;  // by callback_key
};
Shared s;

// The callbacks that the module's link and time-out lines stand for, by the line's key.
struct CallbackLine {
    const char *key_head;
    const char *callback;
};
constexpr CallbackLine kCallbackLines[] = {
    {"Wi-Fi state: notify_wifi_stated ", "WIFICON "},
    {"USB event: Notify usb evt ", "USBSTATE "},
    {"timed out: ", "ERROR -110"},
};

std::string callback_key(const DecodedMessage &m) {
    std::string key = m.name;
    for (int32_t v : m.ints) key += " " + std::to_string(v);
    return key;
}

// The callback an expected output goes with ("WIFICON 1"), or "".
std::string callback_of(const Output &o) {
    for (const CallbackLine &c : kCallbackLines) {
        const size_t n = strlen(c.key_head);
        if (o.key.compare(0, n, c.key_head) != 0) continue;
        return c.callback[strlen(c.callback) - 1] == ' ' ? c.callback + o.key.substr(n) : c.callback;
    }
    return "";
}

// The upper layer acts on callbacks: an input that followed one in the log waits for the same
// callback on the desk, as promptly as the upper layer woke on the phone.
void on_message(const AT_CMD_CbMsg_t *msg) {
    const DecodedMessage m = decode_message(msg);
    if (s.tracing) timeline_callback(m);
    std::lock_guard<std::mutex> lock(s.mu);
    s.callbacks[callback_key(m)]++;
    s.called.notify_all();
}

bool wait_callback(const std::string &key, int count, std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(s.mu);
    return s.called.wait_until(lock, deadline, [&] { return s.callbacks[key] >= count; });
}

void on_acc_event(void *, AccLink link, const char *dir, const std::string &text) {
    if (s.tracing && text.rfind("answer dropped", 0) != 0) timeline_link_line(link, dir, text);
}

void on_daemon_event(void *, const std::string &event) {
    if (s.tracing) timeline_daemon_event(event);
}

// The daemon's heartbeats are not in the log: each is relayed as the upper layer would, up to
// the count after which the log says the module found the daemon lost. Its other reports are
// in the log and played from it.
void on_daemon_report(void *, const std::string &status) {
    if (status == "running") s.life++;
    if (status.rfind(kHeartbeat, 0) != 0 || s.dev == nullptr) return;
    const int life = s.life;
    const long cap = life >= 0 && static_cast<size_t>(life) < s.caps.size() ? s.caps[static_cast<size_t>(life)] : -1;
    if (cap >= 0 && atol(status.c_str() + strlen(kHeartbeat)) > cap) return;
    if (s.tracing) timeline_daemon_status(status);
    s.dev->atcmdprocess_hiddemon_stchange(status.c_str());
}

// The module's log in the sandbox, read as it grows.
struct DeskLog {
    std::string path;
    std::streamoff offset = 0;
    std::string held;
    size_t line = 1;
    bool grew = true;
};

struct Play {
    const World *world = nullptr;
    DeskRun *desk = nullptr;
    Matcher *matcher = nullptr;
    DeskLog log;
    std::vector<Clock::time_point> matched_at;  // per expected output
    Clock::time_point last_output = Clock::now();
    std::thread relay;  // the last daemon report relayed
    int limit = -1;     // the last expected output that the inputs played so far may cause
};

void take_entries(Play *p, const ParsedLog &parsed) {
    for (const LogEntry &e : parsed.entries) {
        Output o;
        if (!output_of(e, &o)) continue;
        p->desk->outputs.push_back(o);
        p->last_output = Clock::now();
        const int index = matcher_add(p->matcher, o, p->limit);
        if (index < 0) continue;
        p->desk->matched_by[static_cast<size_t>(index)] = static_cast<int>(p->desk->outputs.size()) - 1;
        p->matched_at[static_cast<size_t>(index)] = Clock::now();
    }
}

// Reads what the module appended; a last message is taken once the file stood still a poll.
void poll_desk(Play *p, bool at_end = false) {
    DeskLog &d = p->log;
    std::ifstream in(d.path, std::ios::binary);
    if (!in) return;
    in.seekg(d.offset);
    std::string more((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    d.offset += static_cast<std::streamoff>(more.size());
    d.held += more;
    const bool still = more.empty() && !d.grew;
    d.grew = !more.empty();
    ParsedLog parsed;
    const size_t used = split_log(d.held, d.line, at_end || still, &parsed);
    d.line += static_cast<size_t>(std::count(d.held.begin(), d.held.begin() + static_cast<long>(used), '\n'));
    d.held.erase(0, used);
    take_entries(p, parsed);
}

// Polls the desk until `done` or the deadline; false at the deadline.
template <typename Done>
bool wait_for(Play *p, Clock::time_point deadline, Done done) {
    for (;;) {
        poll_desk(p);
        if (done()) return true;
        const Clock::time_point now = Clock::now();
        if (now >= deadline) return false;
        std::this_thread::sleep_until(std::min(deadline, now + Ms(kPollMs)));
    }
}

Clock::time_point after(Clock::time_point from, int64_t log_us, double speed) {
    return from + std::chrono::microseconds(static_cast<int64_t>(static_cast<double>(std::max<int64_t>(log_us, 0)) / speed));
}

void send_request(const Input &in, Play *p) {
    if (in.text.size() >= AT_LINE_BUF_SIZE) {
        p->desk->notes.push_back("log line " + std::to_string(in.line) + ": a request longer than a line buffer, not played");
        return;
    }
    char buf[AT_LINE_BUF_SIZE] = {};
    memcpy(buf, in.text.data(), in.text.size());
    AtCmder_t cmd = {};
    cmd.type = in.type;
    cmd.dest = in.dest;
    cmd.flag = in.flag;
    cmd.cmd_id = in.cmd_id;
    cmd.seq_num = in.seq;
    cmd.data = buf;
    if (s.tracing) timeline_request_handed(in.text, link_load(s.dev->system_status.mode));
    s.dev->atcmdprocess_cmd_from_hidl(&cmd);
}

void act(const Input &in, AccSim *acc, DaemonSim *daemon, Play *p, int patience_ms) {
    const Clock::time_point deadline = Clock::now() + Ms(patience_ms);
    const std::string at = "log line " + std::to_string(in.line) + ": ";
    switch (in.kind) {
    case InputKind::Plug:
        if (acc_sim_plug(acc, in.number) != 0) p->desk->notes.push_back(at + "the plug could not be made");
        break;
    case InputKind::Unplug: acc_sim_unplug(acc); break;
    case InputKind::UsbBytes:
        // Before the module's first line the port is not raw yet and would echo.
        if (!wait_for(p, deadline, [acc] { return acc_sim_port_open(acc); })) {
            p->desk->notes.push_back(at + "the module had not opened the port; bytes written all the same");
        }
        if (!acc_sim_send_part(acc, in.text)) p->desk->notes.push_back(at + "bytes could not be written on USB");
        break;
    case InputKind::WifiBytes:
        if (!wait_for(p, deadline, [acc, &in] { return acc_sim_send_on(acc, AccLink::Wifi, in.text); })) {
            p->desk->notes.push_back(at + "no Wi-Fi link to carry the bytes");
        }
        break;
    case InputKind::WifiInit: s.dev->atcmdprocess_wifi_init(in.text.c_str()); break;
    case InputKind::WifiDown: s.dev->atcmdprocess_wifi_stchange(0); break;
    case InputKind::DaemonStatus:
        // The module opens the daemon's FIFOs on "running": they must be there.
        if (in.text == "running" && !wait_for(p, deadline, [daemon] { return daemon_sim_running(daemon); })) {
            p->desk->notes.push_back(at + "the daemon simulator had not started; status relayed all the same");
        }
        if (s.tracing) timeline_daemon_status(in.text);
        // On the phone the daemon's reports reach the module on a thread of their own, which
        // the module holds a while (a start waits for the link); the upper layer's other calls
        // go on meanwhile, so the relay here has its own thread too.
        if (p->relay.joinable()) p->relay.join();
        p->relay = std::thread([status = in.text] { s.dev->atcmdprocess_hiddemon_stchange(status.c_str()); });
        break;
    case InputKind::Request: send_request(in, p); break;
    case InputKind::Handshake: s.dev->atcmdprocess_amlogic_shake_hands(); break;
    }
}

void silence_answers(AccSim *acc) {
    for (uint16_t id = 0; id < AT_MSG_COUNT; ++id) acc_sim_set_silent(acc, std::string("+") + message_name(id), true);
}

// Waits for the output an input followed in the log: by its callback when it has one, else
// by the desk's log. The time it came, or the deadline's.
// A line the module sent is seen by the accessory simulator at once: the n-th time it got it.
bool wait_received(AccSim *acc, const std::string &line, int n, Clock::time_point deadline) {
    for (;;) {
        const std::vector<std::string> got = acc_sim_received(acc);
        if (std::count(got.begin(), got.end(), line) >= n) return true;
        const auto left = std::chrono::duration_cast<Ms>(deadline - Clock::now()).count();
        if (left <= 0 || !acc_sim_wait_received(acc, line, static_cast<int>(left), got.size())) {
            const std::vector<std::string> last = acc_sim_received(acc);
            return std::count(last.begin(), last.end(), line) >= n;
        }
    }
}

// How many of the expected outputs up to `a` have the same `key_of`.
template <typename KeyOf>
int occurrence(const World &w, size_t a, KeyOf key_of) {
    int n = 0;
    for (size_t i = 0; i <= a; ++i) n += key_of(w.expected[i]) == key_of(w.expected[a]);
    return n;
}

std::string sent_line(const Output &o) {
    const size_t at = o.key.find(kSentCmd);
    return o.kind == OutputKind::Sent && at != std::string::npos ? o.key.substr(at + strlen(kSentCmd)) : "";
}

bool wait_anchor(const World &w, const Input &in, int patience_ms, AccSim *acc, Play *p, Clock::time_point *when) {
    const size_t a = static_cast<size_t>(in.anchor);
    const Clock::time_point deadline = Clock::now() + Ms(patience_ms + (in.time_us - w.expected[a].time_us) / 1000);
    // A line the module sent while the log shows the port gone reached no accessory.
    const auto received_line = [](const Output &o) { return o.port_gone ? "" : sent_line(o); };
    const std::string line = received_line(w.expected[a]);
    if (!line.empty()) {
        const bool came = wait_received(acc, line, occurrence(w, a, received_line), deadline);
        *when = Clock::now();
        return came;
    }
    const std::string callback = callback_of(w.expected[a]);
    if (!callback.empty()) {
        const bool came = wait_callback(callback, occurrence(w, a, callback_of), deadline);
        *when = Clock::now();
        return came;
    }
    const bool came = wait_for(p, deadline, [p, &in] { return matcher_done(p->matcher, in.anchor); });
    *when = p->matched_at[a];
    return came;
}

// When lines are missing from the log between the previous input and an output waited for,
// the output may never come on the desk: says so.
std::string missing_before(const World &w, size_t anchor, size_t since_line) {
    for (size_t i = anchor + 1; i-- > 0 && w.expected[i].line > since_line;) {
        if (!w.expected[i].unexplained.empty()) {
            return "; lines are missing from the log before line " + std::to_string(w.expected[i].line) + ": " +
                   w.expected[i].unexplained;
        }
    }
    return "";
}

void play_inputs(const World &w, const PlayOptions &o, AccSim *acc, DaemonSim *daemon, Play *p) {
    Clock::time_point prev_desk = Clock::now();
    int64_t prev_log = w.origin_us;
    for (size_t k = 0; k < w.inputs.size(); ++k) {
        const Input &in = w.inputs[k];
        // The module's threads may run a little ahead of the phone's interleaving: outputs are
        // matched up to a few inputs ahead.
        p->limit = std::max(p->limit, w.inputs[std::min(k + kLookahead, w.inputs.size() - 1)].anchor);
        Clock::time_point target = after(prev_desk, in.time_us - prev_log, o.speed);
        if (in.anchor >= 0) {
            const size_t a = static_cast<size_t>(in.anchor);
            Clock::time_point when;
            if (wait_anchor(w, in, o.patience_ms, acc, p, &when)) {
                // The nearer cause sets the pace: an output after the previous input counts
                // from when it came on the desk.
                const Clock::time_point from_anchor = after(when, in.time_us - w.expected[a].time_us, o.speed);
                target = w.expected[a].time_us >= prev_log ? from_anchor : std::max(target, from_anchor);
            } else {
                p->desk->notes.push_back("log line " + std::to_string(in.line) + ": played without the output of log line " +
                                         std::to_string(w.expected[a].line) + " that came before it on the phone" +
                                         missing_before(w, a, k == 0 ? 0 : w.inputs[k - 1].line));
            }
        }
        // A short gap is slept whole: reading the desk's log would make the input late.
        if (target > Clock::now() + Ms(kPollMs)) wait_for(p, target - Ms(kPollMs), [] { return false; });
        std::this_thread::sleep_until(target);
        // The gap to the next input counts from this one's start: some calls block a while.
        prev_desk = Clock::now();
        act(in, acc, daemon, p, o.patience_ms);
        prev_log = in.time_us;
    }
}

// After the last input: until every expected output came (and a little more), or the module
// has been quiet for a while.
void settle(Play *p, int patience_ms) {
    p->limit = static_cast<int>(p->world->expected.size()) - 1;
    const Clock::time_point deadline = Clock::now() + Ms(patience_ms);
    p->last_output = Clock::now();
    wait_for(p, deadline, [p] {
        return matcher_all_done(p->matcher) || Clock::now() - p->last_output > Ms(kSettleMs);
    });
    wait_for(p, Clock::now() + Ms(kGraceMs), [] { return false; });
    poll_desk(p, true);
}

}  // namespace

void play_world(const World &world, const PlayOptions &options, DeskRun *desk) {
    desk->matched_by.assign(world.expected.size(), -1);
    make_dirs(rooted("/dev"));
    if (!world.bt_mac.empty()) property_set("net.bluetooth.macaddr", world.bt_mac.c_str());
    s.caps = world.heartbeat_caps;
    s.tracing = !options.trace.empty();
    AccSim *acc = acc_sim_create(AccIdentity{}, on_acc_event, nullptr);
    silence_answers(acc);
    DaemonSim *daemon = daemon_sim_create(acc, on_daemon_report, on_daemon_event, nullptr);
    if (world.plugged_at_open) acc_sim_plug(acc, world.plugged_number);

    Play p;
    p.log.path = rooted(ATCMD_LOG_DIR "/" ATCMD_LOG_FILE);
    std::ifstream before(p.log.path, std::ios::binary | std::ios::ate);
    if (before) p.log.offset = before.tellg();  // an earlier run in the same sandbox is not this one's

    LoadedModule module;
    std::string error;
    if (s.tracing && !trace_open(options.trace, Clock::now(), &error)) desk->notes.push_back(error);
    s.tracing = s.tracing && trace_is_open();
    if (!load_module(options.module, -1, &module, &error)) {
        desk->notes.push_back(error);
        return;
    }
    desk->started = true;
    s.dev = module.dev;
    module.dev->set_notify_callback(module.dev, on_message);
    if (s.tracing) timeline_start(module.dev->system_status.platform, true);

    p.world = &world;
    p.desk = desk;
    p.matcher = matcher_create(world.expected);
    p.matched_at.assign(world.expected.size(), Clock::now());
    play_inputs(world, options, acc, daemon, &p);
    settle(&p, options.patience_ms);
    if (p.relay.joinable()) p.relay.join();
    matcher_destroy(p.matcher);
    if (s.tracing) trace_finish();
    // The module and the simulators stay up: closing the module ends the process by signal,
    // and the caller leaves right after its report.
}

}  // namespace atcmd_tools
