/*
 * The console's timeline: one track (a named thread of the trace's one process) per actor, a
 * span per watched request on its link's track, instants for lines, link events and callbacks,
 * and a counter of requests in flight. Any thread reports into it under its lock; the log
 * follower thread adds what only the module's log tells (a lost heartbeat, a daemon restart).
 */
#include "console/timeline.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <thread>
#include <vector>

#include "console/trace.h"
#include "hal/hal.h"
#include "sim/sim_util.h"

namespace atcmd_tools {

namespace {

// Tracks by trace thread id. Spans that overlap on one link (requests sent back to back) go
// on extra lanes of that link: tid track + kLaneStride * lane, named after the link.
enum Track { kUpper = 1, kUsb, kUart, kWifi, kAccessory, kDaemon, kTrackCount };
constexpr const char *kTrackNames[kTrackCount] = {
    "", "upper layer", "USB link", "UART", "Wi-Fi FIFOs", "accessory simulator", "daemon simulator",
};
constexpr int kLaneStride = 10;
constexpr uint8_t kFirstUnwatchedRow = AT_MSG_WIFICON + 1;  // the module watches rows below 19
constexpr int32_t kTimedOut = -110;
constexpr const char kTimedOutName[] = "-110 ETIMEDOUT";
constexpr int kLogPollMs = 50;

// What only the module's log tells, and the global event each becomes.
struct LogEvent {
    const char *words;
    const char *event;
};
constexpr LogEvent kLogEvents[] = {
    {"lost heart beat", "heartbeat lost"},
    {"Hid_daemon stopped, begin re-init wifi", "daemon restart"},
};
constexpr size_t kLongestLogWords = 38;  // the longest of the words above
static_assert(sizeof "Hid_daemon stopped, begin re-init wifi" - 1 == kLongestLogWords, "kLongestLogWords");

// The link events the accessory simulator tells as it makes them (dir "!!"), by their start.
struct SimLinkEvent {
    const char *starts;
    const char *event;
};
constexpr SimLinkEvent kSimLinkEvents[] = {
    {"plugged ", "plug"},
    {"unplugged ", "unplug"},
    {"Wi-Fi link attached", "Wi-Fi up"},
    {"Wi-Fi link detached", "Wi-Fi down"},
};

struct Span {
    uint16_t seq = 0;
    uint8_t cmd_id = 0;
    std::string keyword;  // "+SN"
    std::string name;     // "AT+SN? #100"
    int tid = 0;
    int64_t start_us = 0;
    int resends = 0;
    std::string answer;   // the answer line, when a simulator saw it
};

struct Timeline {
    std::mutex mu;  // guards everything below; taken before the trace writer's lock
    int32_t platform = PLATFORM_VUART;
    bool links_seen = false;                // a simulator reports the lines on the links
    std::vector<std::string> handed;        // watched requests handed over, not yet seen sent
    std::vector<Span> open;                 // in the order they were sent
    std::array<int32_t, 2> link_state = {{-1, -1}};  // USB connected, Wi-Fi up; -1 unknown
    std::vector<std::vector<bool>> lanes = std::vector<std::vector<bool>>(kTrackCount);  // busy lanes
    std::string command;                    // the command running, "" between commands
    int64_t command_start_us = 0;
};

Timeline tl;

std::string quoted(const std::string &text) { return "\"" + json_escape(text) + "\""; }

std::string head(const char *ph, const std::string &name, const char *cat, int tid, int64_t ts) {
    return std::string("\"ph\":\"") + ph + "\",\"name\":" + quoted(name) + ",\"cat\":\"" + cat +
           "\",\"pid\":" + std::to_string(kTracePid) + ",\"tid\":" + std::to_string(tid) +
           ",\"ts\":" + std::to_string(ts);
}

// An instant: on its track ("t") or, for a link event, across the whole trace ("g").
void instant(const std::string &name, const char *cat, int tid, const std::string &args = "{}",
             char scope = 't') {
    trace_write(head("i", name, cat, tid, trace_now_us()) + ",\"s\":\"" + scope + "\",\"args\":" + args);
}

void name_thread(int tid, const std::string &name, int sort_index) {
    trace_write(head("M", "thread_name", "", tid, 0) + ",\"args\":{\"name\":" + quoted(name) + "}");
    trace_write(head("M", "thread_sort_index", "", tid, 0) + ",\"args\":{\"sort_index\":" +
                std::to_string(sort_index) + "}");
}

void count_in_flight_locked(int64_t ts) {
    trace_write(head("C", "requests in flight", "request", kUpper, ts) + ",\"args\":{\"requests\":" +
                std::to_string(tl.open.size()) + "}");
}

// The first free lane of a link's track, named when first used.
int take_lane_locked(int track) {
    std::vector<bool> &busy = tl.lanes[track];
    size_t lane = 0;
    while (lane < busy.size() && busy[lane]) ++lane;
    if (lane == busy.size()) {
        busy.push_back(false);
        if (lane > 0) {
            name_thread(track + kLaneStride * static_cast<int>(lane),
                        std::string(kTrackNames[track]) + " (" + std::to_string(lane + 1) + ")",
                        track * kLaneStride + static_cast<int>(lane));
        }
    }
    busy[lane] = true;
    return track + kLaneStride * static_cast<int>(lane);
}

// The module watches a request (and resends it) when it is of kind 1 to 3, carries a sequence
// number, names this platform in its flag and has a row below 19.
bool watched(const AtCmder_t &cmd) {
    return cmd.type >= AT_TYPE_EXEC && cmd.type <= AT_TYPE_QUERY && cmd.seq_num != 0 &&
           cmd.flag == tl.platform && cmd.cmd_id < kFirstUnwatchedRow;
}

// "AT+SN? #100": the request without its tail, and its number.
std::string span_name(const std::string &line, uint16_t seq) {
    return line.substr(0, line.find('#')) + " #" + std::to_string(seq);
}

void open_span_locked(int track, const std::string &line, const AtCmder_t &cmd) {
    const size_t key_end = line.find_first_of("=?#");
    const std::string keyword = line.substr(2, key_end == std::string::npos ? std::string::npos : key_end - 2);
    const int64_t now = trace_now_us();
    Span s;
    s.seq = cmd.seq_num;
    s.cmd_id = cmd.cmd_id;
    s.keyword = keyword;
    s.name = span_name(line, cmd.seq_num);
    s.tid = take_lane_locked(track);
    s.start_us = now;
    tl.open.push_back(s);
    count_in_flight_locked(now);
}

// Writes a span whole, from its first transmission to now, and frees its lane.
void close_span_locked(size_t index, const std::string &outcome, bool timed_out) {
    const Span s = tl.open[index];
    tl.open.erase(tl.open.begin() + static_cast<long>(index));
    const int64_t now = trace_now_us();
    tl.lanes[s.tid % kLaneStride][s.tid / kLaneStride] = false;
    std::string args = "{\"seq\":" + std::to_string(s.seq) + ",\"keyword\":" + quoted(s.keyword) +
                       ",\"resends\":" + std::to_string(s.resends) + ",\"outcome\":" + quoted(outcome);
    if (!s.answer.empty()) args += ",\"answer\":" + quoted(s.answer);
    trace_write(head("X", timed_out ? s.name + " " + kTimedOutName : s.name, "request", s.tid, s.start_us) +
                ",\"dur\":" + std::to_string(now - s.start_us) + ",\"args\":" + args + "}");
    count_in_flight_locked(now);
}

// The oldest open span with this sequence number (the module matches answers the same way).
int span_of_locked(uint16_t seq) {
    for (size_t i = 0; i < tl.open.size(); ++i) {
        if (tl.open[i].seq == seq) return static_cast<int>(i);
    }
    return -1;
}

// The span a callback ends: by its number; a callback without one (some answers are reported
// with 0) ends the oldest span of its keyword whose answer was seen, or, when no simulator
// sees the lines, the oldest of its keyword.
int span_of_callback_locked(const DecodedMessage &m) {
    if (m.seq_num != 0) return span_of_locked(m.seq_num);
    for (size_t i = 0; i < tl.open.size(); ++i) {
        const Span &s = tl.open[i];
        if (s.cmd_id == m.msg_id && (!s.answer.empty() || !tl.links_seen)) return static_cast<int>(i);
    }
    return -1;
}

// Whether a line seen leaving the phone opens a span: a request the console handed over and
// the module watches, or one of the module's own queries (its other lines, such as the MAC it
// tells the accessory, go out as answers and are not watched, whatever their text says).
bool opens_span_locked(const std::string &text, const AtCmder_t &cmd) {
    const auto handed = std::find(tl.handed.begin(), tl.handed.end(), text);
    if (handed == tl.handed.end()) return cmd.type == AT_TYPE_QUERY && watched(cmd);
    tl.handed.erase(handed);
    return true;
}

std::string text_args(const std::string &text) { return "{\"line\":" + quoted(text) + "}"; }

// A line from the phone: a watched request opens its span or is resent inside it; anything
// else (an answer to the accessory's question, an unwatched line) is an instant.
void line_from_phone_locked(int track, const std::string &text) {
    AtCmder_t cmd = {};
    record_from_line(text, &cmd);
    const int at = text.rfind("AT", 0) == 0 && cmd.seq_num != 0 ? span_of_locked(cmd.seq_num) : -1;
    const bool resend = at >= 0 && tl.open[static_cast<size_t>(at)].name == span_name(text, cmd.seq_num);
    if (!resend && text.rfind("AT", 0) == 0 && opens_span_locked(text, cmd)) {
        open_span_locked(track, text, cmd);
        return;
    }
    if (!resend) {
        instant((text.rfind("AT", 0) == 0 ? "line " : "module answer ") + text, "line", track, text_args(text));
        return;
    }
    Span &s = tl.open[static_cast<size_t>(at)];
    s.resends++;
    instant("resend " + std::to_string(s.resends) + " " + s.name, "resend", s.tid,
            "{\"seq\":" + std::to_string(s.seq) + ",\"resend\":" + std::to_string(s.resends) + "}");
}

// A line to the phone: a question, an answer (inside its request's span when one is open) or
// an unsolicited report.
void line_to_phone_locked(int track, const std::string &text) {
    if (text.rfind("AT", 0) == 0) {
        instant("question " + text, "line", track, text_args(text));
        return;
    }
    AtCmder_t cmd = {};
    record_from_line(text, &cmd);
    const int at = cmd.seq_num != 0 ? span_of_locked(cmd.seq_num) : -1;
    if (at >= 0) {
        tl.open[static_cast<size_t>(at)].answer = text;
        instant("answer " + text, "line", tl.open[static_cast<size_t>(at)].tid, text_args(text));
    } else {
        instant((cmd.seq_num != 0 ? "answer " : "report ") + text, "line", track, text_args(text));
    }
}

// Link events a callback tells, when no simulator in this process sees the links: plug and
// unplug, Wi-Fi up and down. An answer to a query of the same keyword looks alike, so only a
// change of state is an event.
const char *link_event_locked(const DecodedMessage &m) {
    const bool usb = m.msg_id == AT_MSG_USBSTATE;
    if ((!usb && m.msg_id != AT_MSG_WIFICON) || m.ints.empty()) return nullptr;
    int32_t &state = tl.link_state[usb ? 0 : 1];
    const int32_t now = m.ints[0] == 1 ? 1 : 0;
    if (state == now) return nullptr;
    state = now;
    return usb ? (now ? "plug" : "unplug") : (now ? "Wi-Fi up" : "Wi-Fi down");
}

// The first of kLogEvents in `text`: its place (and which in *which), or npos.
size_t next_log_event(const std::string &text, const LogEvent **which) {
    size_t first = std::string::npos;
    for (const LogEvent &e : kLogEvents) {
        const size_t at = text.find(e.words);
        if (at < first) {
            first = at;
            *which = &e;
        }
    }
    return first;
}

// Reads what the module appends to its log, for the events only the log tells. The time of an
// event is when this thread read it: woken by inotify as the module writes (a millisecond or
// so), or within kLogPollMs when the log's directory cannot be watched.
void follow_log() {
    const std::string dir = rooted(ATCMD_LOG_DIR);
    const std::string path = dir + "/" ATCMD_LOG_FILE;
    int watch = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (watch >= 0 && inotify_add_watch(watch, dir.c_str(), IN_MODIFY | IN_CREATE) < 0) close_fd(&watch);
    off_t offset = -1;
    std::string held;
    while (trace_is_open()) {
        struct pollfd pfd = {watch, POLLIN, 0};
        if (poll(&pfd, 1, kLogPollMs) > 0) {
            alignas(struct inotify_event) char events[4096];
            while (read(watch, events, sizeof events) > 0) {
            }
        }
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) continue;
        const off_t size = lseek(fd, 0, SEEK_END);
        if (offset < 0 || size < offset) offset = size;  // what was there before is not news
        char buf[4096];
        for (ssize_t n; (n = pread(fd, buf, sizeof buf, offset)) > 0; offset += n) held.append(buf, static_cast<size_t>(n));
        close(fd);
        // The module's log lines carry no line end of their own: look for the words, and keep
        // a tail that may hold the beginning of the next.
        const LogEvent *e = nullptr;
        for (size_t at; (at = next_log_event(held, &e)) != std::string::npos; held.erase(0, at + 1)) {
            instant(e->event, "link", kUpper, "{}", 'g');
        }
        if (held.size() >= kLongestLogWords) held.erase(0, held.size() - (kLongestLogWords - 1));
    }
    close_fd(&watch);
}

// Writes what is still open when the trace ends: the running command and unanswered requests.
void finish_open() {
    std::lock_guard<std::mutex> lock(tl.mu);
    if (!tl.command.empty()) {
        trace_write(head("X", tl.command, "command", kUpper, tl.command_start_us) + ",\"dur\":" +
                    std::to_string(trace_now_us() - tl.command_start_us) + ",\"args\":{\"ok\":null}");
    }
    while (!tl.open.empty()) close_span_locked(0, "still open when the trace ended", false);
}

}  // namespace

void timeline_start(int32_t platform, bool links_seen) {
    {
        std::lock_guard<std::mutex> lock(tl.mu);
        tl.platform = platform;
        tl.links_seen = links_seen;
        trace_write(head("M", "process_name", "", 0, 0) + ",\"args\":{\"name\":\"atcmd_console\"}");
        for (int track = kUpper; track < kTrackCount; ++track) name_thread(track, kTrackNames[track], track * kLaneStride);
        count_in_flight_locked(0);
    }
    trace_set_finisher(finish_open);  // outside tl.mu: finishing takes its lock before tl.mu
    std::thread(follow_log).detach();
}

void timeline_command_begin(const std::string &line) {
    std::lock_guard<std::mutex> lock(tl.mu);
    tl.command = line;
    tl.command_start_us = trace_now_us();
}

void timeline_command_end(bool ok) {
    std::lock_guard<std::mutex> lock(tl.mu);
    trace_write(head("X", tl.command, "command", kUpper, tl.command_start_us) + ",\"dur\":" +
                std::to_string(trace_now_us() - tl.command_start_us) + ",\"args\":{\"ok\":" +
                (ok ? "true" : "false") + "}");
    tl.command.clear();
}

void timeline_callback(const DecodedMessage &m) {
    std::lock_guard<std::mutex> lock(tl.mu);
    const bool timed_out = m.msg_id == AT_MSG_ERROR && m.ints.size() == 1 && m.ints[0] == kTimedOut;
    const std::string name = m.name + " #" + std::to_string(m.seq_num) + (timed_out ? std::string(" ") + kTimedOutName : "");
    instant(name, "callback", kUpper, "{\"message\":" + quoted(message_text(m)) + "}");
    const char *event = tl.links_seen ? nullptr : link_event_locked(m);  // else the simulators tell them
    if (event != nullptr) instant(event, "link", kUpper, "{\"message\":" + quoted(message_text(m)) + "}", 'g');
    const int at = span_of_callback_locked(m);
    if (at < 0) return;
    const bool error = m.msg_id == AT_MSG_ERROR && m.ints.size() == 1;
    close_span_locked(static_cast<size_t>(at),
                      timed_out ? kTimedOutName : error ? "error " + std::to_string(m.ints[0]) : "answered " + m.name,
                      timed_out);
}

void timeline_link_line(AccLink link, const char *dir, const std::string &text) {
    std::lock_guard<std::mutex> lock(tl.mu);
    const int track = link == AccLink::Usb ? kUsb : kWifi;
    if (dir[0] == '<') {
        line_from_phone_locked(track, text);
    } else if (dir[0] == '-') {
        line_to_phone_locked(track, text);
    } else {
        instant(text, "sim", kAccessory, text_args(text));
        // The simulator made the link change just now: the module's callback comes later.
        for (const SimLinkEvent &e : kSimLinkEvents) {
            if (text.rfind(e.starts, 0) == 0) instant(e.event, "link", kUpper, text_args(text), 'g');
        }
    }
}

void timeline_request_handed(const std::string &line, int32_t mode) {
    std::lock_guard<std::mutex> lock(tl.mu);
    AtCmder_t cmd = {};
    record_from_line(line, &cmd);
    if (!watched(cmd)) return;
    if (tl.links_seen) {
        tl.handed.push_back(trim_line_end(line));
        return;
    }
    const int track = mode == AT_MODE_WIFI ? kWifi : tl.platform == PLATFORM_UART ? kUart : kUsb;
    open_span_locked(track, trim_line_end(line), cmd);
}

void timeline_daemon_event(const std::string &event) {
    std::lock_guard<std::mutex> lock(tl.mu);
    instant(event, "sim", kDaemon);
}

void timeline_daemon_status(const std::string &status) {
    if (status.find("running") == std::string::npos) return;
    std::lock_guard<std::mutex> lock(tl.mu);
    instant("daemon running", "link", kUpper, "{\"status\":" + quoted(status) + "}", 'g');
}

}  // namespace atcmd_tools
