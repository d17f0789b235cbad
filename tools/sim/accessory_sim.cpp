/*
 * The accessory simulator. Its own thread ("acc_sim") polls the pseudo-terminal master, the
 * Wi-Fi input and a wake-up pipe, answers complete lines and runs the timed events (delayed
 * answers, periodic reports, scheduled unplug and re-plug). Callers on other threads change the
 * links and the faults under the simulator's mutex and wake the thread.
 */
#include "sim/accessory_sim.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <pthread.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

#include "sim/sim_util.h"
#include "sim/usb_gadget.h"

namespace atcmd_tools {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMaxHeldBytes = 1024;     // a line from the phone longer than this is dropped
constexpr int kSplitPauseMs = 5;           // between the pieces of a split line
constexpr const char kUevent[] = "PRODUCT=7a1d/5101/100\n";

enum class EventKind { Write, Unplug, Plug, Report };

struct TimedEvent {
    Clock::time_point due;
    EventKind kind;
    AccLink link;
    std::string text;  // Write: the line; Report: the report's name
    int interval_ms;   // Report: the period
};

// The identity's fields: the name a person sets them by, and the query keyword they answer.
struct IdentityRow {
    const char *name;
    const char *keyword;
    std::string AccIdentity::*field;
};

constexpr IdentityRow kIdentity[] = {
    {"type", "+TYPE", &AccIdentity::type},         {"sn", "+SN", &AccIdentity::sn},
    {"sid", "+SID", &AccIdentity::sid},            {"bat", "+BAT", &AccIdentity::bat},
    {"state", "+STATE", &AccIdentity::state},      {"usbstate", "+USBSTATE", &AccIdentity::usbstate},
    {"screen", "+SCREEN", &AccIdentity::screen},   {"micmode", "+MICMODE", &AccIdentity::micmode},
    {"mac", "+BLEMAC", &AccIdentity::mac},         {"mac", "+BTMAC", &AccIdentity::mac},
    {"castmode", "+MODE", &AccIdentity::castmode},
};

struct Question {
    const char *name;
    const char *line;
};

constexpr Question kQuestions[] = {
    {"state", "AT+STATE?\r\n"},
    {"mac", "AT+BTMAC?\r\n"},
    {"ver", "AT+VER?\r\n"},
    {"wt", "AT+WT?\r\n"},
};

}  // namespace

struct AccSim {
    AccIdentity identity;
    AccObserver observer;
    void *ctx;
    std::thread thread;
    int wake[2] = {-1, -1};

    std::mutex mu;  // guards every field below; the observer is called with it held
    std::condition_variable changed;
    bool stopping = false;
    int acm_number = -1;
    int master = -1;  // the accessory's end of the USB link: a pty master or the gadget's ttyGSn
    int slave = -1;  // held open so the master never sees a hang-up while the module reopens
    bool port_open = false;
    UsbGadget gadget;     // dir empty: the link is a pseudo-terminal
    bool reading = true;  // false: the USB port is not read, so the phone's writes back up
    int wifi_in = -1;
    int wifi_out = -1;
    std::string held[2];  // bytes of an unfinished line, by link
    std::vector<TimedEvent> events;
    std::vector<std::string> received;
    AccCounters counters;
    int delay_ms = 0;
    int drop_next = 0;
    std::set<std::string> silent;
    bool split = false;
    std::string node_path;  // as written; empty: the port is linked as dev/ttyACMn itself
    int reports_sent = 0;
};

namespace {

void note(AccSim *s, AccLink link, const char *dir, const std::string &text) {
    if (s->observer != nullptr) s->observer(s->ctx, link, dir, text);
}

void wake_thread(AccSim *s) { poke_pipe(s->wake[1]); }

int link_fd(AccSim *s, AccLink link) { return link == AccLink::Usb ? s->master : s->wifi_out; }

// Writes one whole line on a link; with `split` set it goes out in three pieces. The line is
// told to the observer before it is written: the module may parse it and call back before this
// thread runs again (a slow or emulated machine shows that), and an observer that prints both
// must show the line before what it caused.
bool write_line_locked(AccSim *s, AccLink link, const std::string &line) {
    const int fd = link_fd(s, link);
    if (fd < 0 || (link == AccLink::Usb && !s->port_open)) return false;
    note(s, link, "->", trim_line_end(line));
    const size_t piece = s->split ? (line.size() + 2) / 3 : line.size();
    for (size_t at = 0; at < line.size(); at += piece) {
        if (at != 0) std::this_thread::sleep_for(std::chrono::milliseconds(kSplitPauseMs));
        if (!write_all(fd, line.data() + at, std::min(piece, line.size() - at))) {
            note(s, link, "!!", std::string("write failed: ") + strerror(errno));
            return false;
        }
    }
    s->counters.lines_to_phone++;
    return true;
}

std::string with_line_end(const std::string &text) {
    return text.size() >= 2 && text.compare(text.size() - 2, 2, "\r\n") == 0 ? text : text + "\r\n";
}

std::string version_payload(const AccIdentity &id) {
    std::string out;
    for (size_t i = 0; i < id.ver.size(); ++i) out += (i ? "," : "") + id.ver[i];
    return out;
}

// The answer line for a query, or "" when the accessory has none.
std::string answer_for(AccIdentity id, const std::string &keyword, std::string tail, bool plugged) {
    if (id.usbstate.empty()) id.usbstate = plugged ? "1,0" : "0,0";
    // A query without "#seq&flag" is answered with sequence number 0, so the version's last
    // item still ends at a "#".
    if (tail.empty()) tail = "#0&1";
    if (keyword == "+VER") return "+VER=" + version_payload(id) + tail + "\r\n";
    for (const IdentityRow &row : kIdentity) {
        if (keyword == row.keyword) return keyword + "=" + id.*row.field + tail + "\r\n";
    }
    return "";
}

void schedule_locked(AccSim *s, int after_ms, EventKind kind, AccLink link, const std::string &text,
                     int interval_ms = 0) {
    s->events.push_back(
        {Clock::now() + std::chrono::milliseconds(after_ms), kind, link, text, interval_ms});
    wake_thread(s);
}

void answer_locked(AccSim *s, AccLink link, const std::string &keyword, const std::string &answer) {
    if (s->silent.count(keyword) != 0 || s->drop_next > 0) {
        if (s->silent.count(keyword) == 0) s->drop_next--;
        s->counters.dropped++;
        note(s, link, "!!", "answer dropped: " + trim_line_end(answer));
        return;
    }
    s->counters.answers++;
    if (s->delay_ms > 0) {
        schedule_locked(s, s->delay_ms, EventKind::Write, link, answer);
    } else {
        write_line_locked(s, link, answer);
    }
}

void handle_line_locked(AccSim *s, AccLink link, const std::string &line) {
    s->received.push_back(line);
    s->counters.lines_from_phone++;
    if (link == AccLink::Usb) s->port_open = true;
    note(s, link, "<-", line);
    s->changed.notify_all();
    const size_t q = line.find('?');
    if (line.rfind("AT+", 0) != 0 || q == std::string::npos) return;  // not a query: nothing due
    const std::string keyword = line.substr(2, q - 2);
    const std::string answer = answer_for(s->identity, keyword, line.substr(q + 1), s->master >= 0);
    if (answer.empty()) {
        note(s, link, "!!", "no answer for " + keyword);
        return;
    }
    answer_locked(s, link, keyword, answer);
}

// Splits what arrived on a link into lines; a run longer than kMaxHeldBytes is dropped.
void take_bytes_locked(AccSim *s, AccLink link, const char *bytes, size_t n) {
    std::string &held = s->held[link == AccLink::Usb ? 0 : 1];
    held.append(bytes, n);
    for (size_t nl; (nl = held.find('\n')) != std::string::npos;) {
        const std::string line = trim_line_end(held.substr(0, nl + 1));
        held.erase(0, nl + 1);
        if (!line.empty()) handle_line_locked(s, link, line);
    }
    if (held.size() > kMaxHeldBytes) {
        note(s, link, "!!", "dropped " + std::to_string(held.size()) + " bytes without a line end");
        held.clear();
    }
}

std::string report_line(AccSim *s, const std::string &what) {
    const int n = ++s->reports_sent;
    if (what == "bat") {
        return "+BATCG=" + std::to_string(100 - n % 100) + ",1,4120,250,1," + std::to_string(n) + "\r\n";
    }
    if (what == "hall") return "+HALLCG=" + std::to_string(n % 2) + ",0," + std::to_string(n) + "\r\n";
    if (what == "temp") return "+HRM=36," + std::to_string(40 + n % 5) + "\r\n";
    --s->reports_sent;
    return "";
}

void close_port_locked(AccSim *s) {
    close_fd(&s->master);
    close_fd(&s->slave);
    s->port_open = false;
    s->held[0].clear();
}

// Opens the gadget's terminal raw, so that nothing the phone sends is echoed back. "" or why not.
std::string open_gadget_tty_locked(AccSim *s) {
    const std::string tty = usb_gadget_tty(s->gadget);
    s->master = open(tty.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    struct termios tio;
    if (s->master < 0 || tcgetattr(s->master, &tio) != 0) return "open " + tty + ": " + strerror(errno);
    cfmakeraw(&tio);
    if (tcsetattr(s->master, TCSANOW, &tio) != 0) return "raw " + tty + ": " + strerror(errno);
    return "";
}

// The gadget's terminal is opened before the gadget is bound: the first line from the phone
// finds it ready. Binding hands the phone its port.
int plug_gadget_locked(AccSim *s) {
    const std::string tty = usb_gadget_tty(s->gadget);
    std::string error = open_gadget_tty_locked(s);
    if (error.empty() && !usb_gadget_bind(s->gadget, &error)) error = "bind: " + error;
    if (!error.empty()) {
        note(s, AccLink::Usb, "!!", "plug failed: " + error);
        close_port_locked(s);
        return -1;
    }
    note(s, AccLink::Usb, "!!", "plugged: gadget bound to " + s->gadget.udc + ", accessory side " + tty);
    wake_thread(s);
    return 0;
}

int plug_locked(AccSim *s, int n) {
    if (s->master >= 0) return 0;
    if (!s->gadget.dir.empty()) return plug_gadget_locked(s);
    const std::string name = "ttyACM" + std::to_string(n);
    const std::string dir = rooted("/sys/class/tty/" + name + "/device");
    const std::string link = rooted(s->node_path.empty() ? "/dev/" + name : s->node_path);
    char slave_name[128];
    if (dir.empty() || link.empty() || !make_dirs(dir) || !make_dirs(rooted("/dev")) ||
        !write_text_file(dir + "/uevent", kUevent) ||
        openpty(&s->master, &s->slave, slave_name, nullptr, nullptr) != 0) {
        note(s, AccLink::Usb, "!!", "plug " + name + " failed: " + strerror(errno));
        close_port_locked(s);
        return -1;
    }
    fcntl(s->master, F_SETFD, FD_CLOEXEC);
    fcntl(s->slave, F_SETFD, FD_CLOEXEC);
    fcntl(s->master, F_SETFL, fcntl(s->master, F_GETFL) | O_NONBLOCK);
    unlink(link.c_str());
    if (symlink(slave_name, link.c_str()) != 0) {
        note(s, AccLink::Usb, "!!", "plug " + name + " failed: symlink: " + strerror(errno));
        close_port_locked(s);
        return -1;
    }
    s->acm_number = n;
    note(s, AccLink::Usb, "!!", "plugged " + name + " -> " + slave_name);
    wake_thread(s);
    return 0;
}

void unplug_locked(AccSim *s) {
    if (s->master < 0) return;
    if (!s->gadget.dir.empty()) {
        // Unbinding is the pulled cable: the kernel hangs the phone's terminal up and removes
        // its node, and hangs up this side's terminal too.
        std::string error;
        if (!usb_gadget_unbind(s->gadget, &error)) note(s, AccLink::Usb, "!!", "unbind: " + error);
        close_port_locked(s);
        note(s, AccLink::Usb, "!!", "unplugged: gadget unbound from " + s->gadget.udc);
        wake_thread(s);
        return;
    }
    const std::string name = "ttyACM" + std::to_string(s->acm_number);
    unlink(rooted(s->node_path.empty() ? "/dev/" + name : s->node_path).c_str());
    unlink(rooted("/sys/class/tty/" + name + "/device/uevent").c_str());
    close_port_locked(s);
    note(s, AccLink::Usb, "!!", "unplugged " + name);
    wake_thread(s);
}

void run_event_locked(AccSim *s, const TimedEvent &e) {
    switch (e.kind) {
    case EventKind::Write:
        write_line_locked(s, e.link, e.text);
        break;
    case EventKind::Unplug:
        unplug_locked(s);
        break;
    case EventKind::Plug:
        plug_locked(s, s->acm_number);
        break;
    case EventKind::Report:
        if (s->port_open || s->wifi_out >= 0) {
            const AccLink link = s->port_open ? AccLink::Usb : AccLink::Wifi;
            write_line_locked(s, link, report_line(s, e.text));
        }
        schedule_locked(s, e.interval_ms, EventKind::Report, e.link, e.text, e.interval_ms);
        break;
    }
}

// Runs what is due and returns the poll time-out until the next event (-1: none).
int run_due_locked(AccSim *s) {
    for (;;) {
        const auto now = Clock::now();
        auto next = s->events.end();
        for (auto it = s->events.begin(); it != s->events.end(); ++it) {
            if (next == s->events.end() || it->due < next->due) next = it;
        }
        if (next == s->events.end()) return -1;
        if (next->due > now) {
            return static_cast<int>(
                std::chrono::duration_cast<std::chrono::milliseconds>(next->due - now).count() + 1);
        }
        const TimedEvent e = *next;
        s->events.erase(next);
        run_event_locked(s, e);
    }
}

void read_link_locked(AccSim *s, AccLink link, int fd) {
    char buf[512];
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n > 0) {
        take_bytes_locked(s, link, buf, static_cast<size_t>(n));
    } else if (n < 0 && errno != EAGAIN && errno != EINTR && link == AccLink::Usb) {
        // EIO: no slave is open (the simulator holds one, so this only follows an unplug), or
        // the gadget's terminal was hung up.
        close_port_locked(s);
    }
}

void sim_loop(AccSim *s) {
    prctl(PR_SET_NAME, "acc_sim");
    std::unique_lock<std::mutex> lock(s->mu);
    while (!s->stopping) {
        const int timeout = run_due_locked(s);
        struct pollfd fds[3] = {{s->wake[0], POLLIN, 0},
                                {s->reading ? s->master : -1, POLLIN, 0},
                                {s->wifi_in, POLLIN, 0}};
        lock.unlock();
        const int r = poll(fds, 3, timeout);
        lock.lock();
        if (r <= 0) continue;
        if (fds[0].revents != 0) drain_pipe(s->wake[0]);
        // The descriptors may have changed while unlocked: only read those still in place.
        if (fds[1].revents != 0 && fds[1].fd == s->master && s->master >= 0 && s->reading) {
            read_link_locked(s, AccLink::Usb, s->master);
        }
        if (fds[2].revents != 0 && fds[2].fd == s->wifi_in && s->wifi_in >= 0) read_link_locked(s, AccLink::Wifi, s->wifi_in);
    }
}

}  // namespace

bool acc_identity_set(AccIdentity *id, const std::string &name, const std::string &value) {
    for (const IdentityRow &row : kIdentity) {
        if (name == row.name) {
            id->*row.field = value;
            return true;
        }
    }
    // ver0 .. ver6: the seven version items, each "name:value".
    if (name.size() == 4 && name.compare(0, 3, "ver") == 0 && name[3] >= '0' && name[3] <= '6') {
        id->ver[static_cast<size_t>(name[3] - '0')] = value;
        return true;
    }
    return false;
}

bool acc_keyword_answered(const std::string &keyword) {
    const std::string key = keyword.rfind("+", 0) == 0 ? keyword : "+" + keyword;
    if (key == "+VER") return true;
    for (const IdentityRow &row : kIdentity) {
        if (key == row.keyword) return true;
    }
    return false;
}

std::string acc_identity_names() {
    std::string out;
    for (const IdentityRow &row : kIdentity) {
        if (out.find(row.name) == std::string::npos) out += std::string(row.name) + " ";
    }
    return out + "ver0..ver6";
}

AccSim *acc_sim_create(const AccIdentity &identity, AccObserver observer, void *ctx) {
    auto *s = new AccSim;
    s->identity = identity;
    s->observer = observer;
    s->ctx = ctx;
    if (pipe2(s->wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        delete s;
        return nullptr;
    }
    s->thread = std::thread(sim_loop, s);
    return s;
}

void acc_sim_destroy(AccSim *s) {
    if (s == nullptr) return;
    {
        std::lock_guard<std::mutex> lock(s->mu);
        unplug_locked(s);
        s->stopping = true;
        wake_thread(s);
    }
    s->thread.join();
    usb_gadget_remove(&s->gadget);
    close_fd(&s->wake[0]);
    close_fd(&s->wake[1]);
    delete s;
}

int acc_sim_plug(AccSim *s, int acm_number) {
    std::lock_guard<std::mutex> lock(s->mu);
    if (s->master < 0) s->node_path.clear();
    return plug_locked(s, acm_number);
}

int acc_sim_plug_behind(AccSim *s, int acm_number, const std::string &node_path) {
    std::lock_guard<std::mutex> lock(s->mu);
    if (s->master >= 0) return 0;
    s->node_path = node_path;
    return plug_locked(s, acm_number);
}

void acc_sim_unplug(AccSim *s) {
    std::lock_guard<std::mutex> lock(s->mu);
    unplug_locked(s);
}

bool acc_sim_use_gadget(AccSim *s, const std::string &udc, uint16_t vendor, uint16_t product,
                        uint16_t release, std::string *error) {
    std::lock_guard<std::mutex> lock(s->mu);
    if (s->master >= 0 || !s->gadget.dir.empty()) {
        *error = "unplug first, and one gadget per simulator";
        return false;
    }
    const std::string why = usb_gadget_unavailable();
    if (!why.empty()) {
        *error = why;
        return false;
    }
    // One gadget per UDC, named after it, so that a gadget a killed simulator left behind is
    // taken over rather than doubled.
    std::string name = "atcmd_" + udc;
    std::replace(name.begin(), name.end(), '.', '_');
    UsbGadget g;
    g.dir = "/sys/kernel/config/usb_gadget/" + name;
    usb_gadget_remove(&g);
    if (!usb_gadget_make(name, vendor, product, release, udc, &s->gadget, error)) return false;
    note(s, AccLink::Usb, "!!", "gadget " + name + " on " + udc + ", accessory side " + usb_gadget_tty(s->gadget));
    return true;
}

bool acc_sim_set_carrier(AccSim *s, bool on) {
    std::lock_guard<std::mutex> lock(s->mu);
    if (s->gadget.dir.empty() || !usb_gadget_bound(s->gadget) || (s->master >= 0) == on) return false;
    if (!on) {
        close_port_locked(s);
        note(s, AccLink::Usb, "!!", "carrier dropped: the accessory closed its side of the port");
        wake_thread(s);
        return true;
    }
    const std::string error = open_gadget_tty_locked(s);
    note(s, AccLink::Usb, "!!", error.empty() ? "carrier raised: the accessory opened its side again" : "carrier: " + error);
    if (!error.empty()) close_port_locked(s);
    wake_thread(s);
    return error.empty();
}

std::string acc_sim_gadget_tty(AccSim *s) {
    std::lock_guard<std::mutex> lock(s->mu);
    return s->gadget.dir.empty() ? "" : usb_gadget_tty(s->gadget);
}

bool acc_sim_plugged(AccSim *s) {
    std::lock_guard<std::mutex> lock(s->mu);
    return s->master >= 0;
}

bool acc_sim_port_open(AccSim *s) {
    std::lock_guard<std::mutex> lock(s->mu);
    return s->port_open;
}

void acc_sim_attach_wifi(AccSim *s, int from_phone, int to_phone) {
    std::lock_guard<std::mutex> lock(s->mu);
    s->wifi_in = from_phone;
    s->wifi_out = to_phone;
    s->held[1].clear();
    note(s, AccLink::Wifi, "!!", "Wi-Fi link attached");
    wake_thread(s);
}

void acc_sim_detach_wifi(AccSim *s) {
    std::lock_guard<std::mutex> lock(s->mu);
    if (s->wifi_in < 0 && s->wifi_out < 0) return;
    s->wifi_in = -1;
    s->wifi_out = -1;
    note(s, AccLink::Wifi, "!!", "Wi-Fi link detached");
    wake_thread(s);
}

bool acc_sim_send_on(AccSim *s, AccLink link, const std::string &text) {
    std::lock_guard<std::mutex> lock(s->mu);
    return write_line_locked(s, link, with_line_end(text));
}

bool acc_sim_send(AccSim *s, const std::string &text) {
    std::lock_guard<std::mutex> lock(s->mu);
    return write_line_locked(s, s->port_open ? AccLink::Usb : AccLink::Wifi, with_line_end(text));
}

bool acc_sim_send_part(AccSim *s, const std::string &text) {
    std::lock_guard<std::mutex> lock(s->mu);
    return write_line_locked(s, AccLink::Usb, text);
}

bool acc_sim_ask(AccSim *s, const std::string &what) {
    for (const Question &q : kQuestions) {
        if (what == q.name) return acc_sim_send(s, q.line);
    }
    return false;
}

bool acc_sim_report_on(AccSim *s, AccLink link, const std::string &what) {
    std::lock_guard<std::mutex> lock(s->mu);
    // Numbered only when the report can leave, so that the numbers have no gaps.
    if (link == AccLink::Usb ? !s->port_open : s->wifi_out < 0) return false;
    const std::string line = report_line(s, what);
    return !line.empty() && write_line_locked(s, link, line);
}

bool acc_sim_report(AccSim *s, const std::string &what) {
    return acc_sim_report_on(s, acc_sim_port_open(s) ? AccLink::Usb : AccLink::Wifi, what);
}

void acc_sim_report_every(AccSim *s, const std::string &what, int interval_ms) {
    std::lock_guard<std::mutex> lock(s->mu);
    for (auto it = s->events.begin(); it != s->events.end();) {
        it = it->kind == EventKind::Report && it->text == what ? s->events.erase(it) : it + 1;
    }
    if (interval_ms > 0) schedule_locked(s, interval_ms, EventKind::Report, AccLink::Usb, what, interval_ms);
}

void acc_sim_set_delay(AccSim *s, int answer_delay_ms) {
    std::lock_guard<std::mutex> lock(s->mu);
    s->delay_ms = answer_delay_ms;
}

void acc_sim_drop_next(AccSim *s, int answers) {
    std::lock_guard<std::mutex> lock(s->mu);
    s->drop_next = answers;
}

void acc_sim_set_silent(AccSim *s, const std::string &keyword, bool silent) {
    std::lock_guard<std::mutex> lock(s->mu);
    const std::string key = keyword.rfind("+", 0) == 0 ? keyword : "+" + keyword;
    if (silent) {
        s->silent.insert(key);
    } else {
        s->silent.erase(key);
    }
}

void acc_sim_set_split(AccSim *s, bool split) {
    std::lock_guard<std::mutex> lock(s->mu);
    s->split = split;
}

void acc_sim_send_garbage(AccSim *s, int bytes) {
    std::string junk;
    for (int i = 0; i < bytes; ++i) {
        const char c = static_cast<char>((i * 73 + 11) & 0xff);  // a fixed, binary-rich pattern
        junk += c == '\r' || c == '\n' ? '\x7f' : c;
    }
    std::lock_guard<std::mutex> lock(s->mu);
    note(s, AccLink::Usb, "!!", "garbage: " + std::to_string(bytes) + " binary bytes");
    write_line_locked(s, s->port_open ? AccLink::Usb : AccLink::Wifi, junk + "\r\n");
}

void acc_sim_send_overlong(AccSim *s, int bytes) {
    std::lock_guard<std::mutex> lock(s->mu);
    note(s, AccLink::Usb, "!!", "over-long line: " + std::to_string(bytes) + " characters");
    write_line_locked(s, s->port_open ? AccLink::Usb : AccLink::Wifi,
                      "+DTR=" + std::string(static_cast<size_t>(bytes), 'X') + "\r\n");
}

void acc_sim_set_reading(AccSim *s, bool reading) {
    std::lock_guard<std::mutex> lock(s->mu);
    if (reading != s->reading) note(s, AccLink::Usb, "!!", reading ? "reading the port again" : "not reading the port");
    s->reading = reading;
    wake_thread(s);
}

int acc_sim_flood(AccSim *s, const std::string &what, int count) {
    std::lock_guard<std::mutex> lock(s->mu);
    if (!s->port_open || s->master < 0) return 0;
    note(s, AccLink::Usb, "!!", "flood: " + std::to_string(count) + " " + what + " reports");
    // Lines are gathered into large writes, so that they cross the port packed together and
    // cut anywhere, as a fast peer sends them. A flood goes at the reader's pace, however slow:
    // each write waits for room up to kFloodStallMs (write_all gives up far sooner).
    constexpr size_t kChunk = 4096;
    constexpr int kFloodStallMs = 30000;
    std::string pending;
    int written = 0, queued = 0;
    for (int i = 0; i < count; ++i) {
        const std::string line = report_line(s, what);
        if (line.empty()) break;
        pending += line;
        ++queued;
        if (pending.size() < kChunk && i + 1 < count) continue;
        size_t at = 0;
        while (at < pending.size()) {
            const ssize_t w = write(s->master, pending.data() + at, pending.size() - at);
            if (w > 0) {
                at += static_cast<size_t>(w);
                continue;
            }
            struct pollfd room = {s->master, POLLOUT, 0};
            if (w < 0 && errno != EAGAIN && errno != EINTR) break;
            if (w < 0 && errno == EAGAIN && poll(&room, 1, kFloodStallMs) <= 0) break;
        }
        if (at < pending.size()) {
            note(s, AccLink::Usb, "!!", std::string("flood write failed: ") + strerror(errno));
            break;
        }
        pending.clear();
        written = queued;
    }
    s->counters.lines_to_phone += written;
    return written;
}

void acc_sim_schedule_unplug(AccSim *s, int unplug_ms, int replug_ms) {
    std::lock_guard<std::mutex> lock(s->mu);
    schedule_locked(s, unplug_ms, EventKind::Unplug, AccLink::Usb, "");
    if (replug_ms >= 0) schedule_locked(s, unplug_ms + replug_ms, EventKind::Plug, AccLink::Usb, "");
}

AccCounters acc_sim_counters(AccSim *s) {
    std::lock_guard<std::mutex> lock(s->mu);
    return s->counters;
}

std::vector<std::string> acc_sim_received(AccSim *s) {
    std::lock_guard<std::mutex> lock(s->mu);
    return s->received;
}

bool acc_sim_wait_received(AccSim *s, const std::string &text, int timeout_ms, size_t skip) {
    std::unique_lock<std::mutex> lock(s->mu);
    return s->changed.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
        for (size_t i = skip; i < s->received.size(); ++i) {
            if (s->received[i].find(text) != std::string::npos) return true;
        }
        return false;
    });
}

}  // namespace atcmd_tools
