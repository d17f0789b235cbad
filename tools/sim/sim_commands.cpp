/*
 * Command words of the accessory and daemon simulators, as tables of name, usage and action.
 * Used by the standalone simulators and the console; runs on the caller's thread.
 */
#include "sim/sim_commands.h"
#include "sim/sim_util.h"
#include "sim/usb_gadget.h"

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>

#include <initializer_list>
#include <sstream>

namespace atcmd_tools {

namespace {

// Port numbers a plug may use: the module builds "/dev/ttyACM" + n in a 16-byte buffer.
constexpr int kMaxAcm = 9999;
constexpr int kDefaultAcm = 3;
constexpr int kMaxMs = 1000000;     // any wait or period: up to about a quarter of an hour
constexpr int kMaxCount = 1000;     // reports in one go, answers to drop
constexpr int kMaxJunk = 65536;     // bytes of garbage or of one over-long line
constexpr int kMaxFlood = 1000000;  // reports in one flood

// The arguments of one command, checked as they are read: a bad one clears `ok`, and the
// command then fails with its usage line instead of acting.
struct Args {
    const std::vector<std::string> &w;
    bool ok = true;

    // A whole number in [lo, hi] at position i, or `fallback` when absent.
    int number(size_t i, int fallback, int lo, int hi) {
        if (i >= w.size()) return fallback;
        long v = 0;
        if (!parse_number(w[i], lo, hi, &v)) {
            ok = false;
            return fallback;
        }
        return static_cast<int>(v);
    }
    // One of `choices` at position i, or `fallback` when absent.
    std::string choice(size_t i, std::initializer_list<const char *> choices, const char *fallback) {
        if (i >= w.size()) return fallback;
        for (const char *c : choices) {
            if (w[i] == c) return w[i];
        }
        ok = false;
        return fallback;
    }
    // "on" unless the word at i says "off".
    bool on(size_t i) { return choice(i, {"on", "off"}, "on") == "on"; }
    std::string rest(size_t i) const {
        std::string out;
        for (; i < w.size(); ++i) out += (out.empty() ? "" : " ") + w[i];
        return out;
    }
};

CommandResult done(bool ok, const std::string &what) { return {ok, ok ? what : "failed: " + what}; }

// A row: the command's word, its usage line, how many words may follow it, and the action,
// which runs only while the arguments it reads are good.
struct AccCommand {
    const char *name;
    const char *usage;
    size_t min_args;
    size_t max_args;
    CommandResult (*run)(AccSim *, Args &);
};

constexpr AccCommand kAccCommands[] = {
    {"plug", "plug [N]            make dev/ttyACMN and its uevent (ttyACM0 .. ttyACM9999, default 3)", 0, 1,
     [](AccSim *s, Args &a) {
         const int n = a.number(1, kDefaultAcm, 0, kMaxAcm);
         if (!a.ok) return CommandResult{};
         if (acc_sim_plugged(s)) return done(false, "plug: already plugged (unplug first)");
         return done(acc_sim_plug(s, n) == 0, "plug ttyACM" + std::to_string(n));
     }},
    {"unplug", "unplug              remove the port; the module's read fails", 0, 0,
     [](AccSim *s, Args &) {
         if (!acc_sim_plugged(s)) return done(false, "unplug: not plugged");
         acc_sim_unplug(s);
         return done(true, "unplug");
     }},
    {"unplug-at", "unplug-at MS [REPLUG_MS]  unplug after MS, plug again REPLUG_MS later", 1, 2,
     [](AccSim *s, Args &a) {
         const int at = a.number(1, 0, 0, kMaxMs), again = a.number(2, -1, 0, kMaxMs);
         if (a.ok) acc_sim_schedule_unplug(s, at, again);
         return done(a.ok, "unplug scheduled");
     }},
    {"send", "send LINE           write LINE (CR LF added) to the phone", 1, SIZE_MAX,
     [](AccSim *s, Args &a) { return done(acc_sim_send(s, a.rest(1)), "send (needs an open link)"); }},
    {"ask", "ask state|mac|ver|wt  ask the phone a question", 1, 1,
     [](AccSim *s, Args &a) {
         const std::string what = a.choice(1, {"state", "mac", "ver", "wt"}, "");
         return a.ok ? done(acc_sim_ask(s, what), "ask " + what + " (needs an open link)") : CommandResult{};
     }},
    {"report", "report bat|hall|temp [N] [usb|wifi]  send N reports (default 1, at most 1000)", 1, 3,
     [](AccSim *s, Args &a) {
         const std::string what = a.choice(1, {"bat", "hall", "temp"}, "");
         const int n = a.number(2, 1, 1, kMaxCount);
         const std::string link = a.choice(3, {"usb", "wifi"}, "");
         bool sent = a.ok;
         for (int i = 0; sent && i < n; ++i) {
             sent = link.empty() ? acc_sim_report(s, what)
                                 : acc_sim_report_on(s, link == "wifi" ? AccLink::Wifi : AccLink::Usb, what);
         }
         return a.ok ? done(sent, "report " + a.rest(1) + " (needs an open link)") : CommandResult{};
     }},
    {"every", "every bat|hall|temp MS  send the report every MS (0 stops)", 2, 2,
     [](AccSim *s, Args &a) {
         const std::string what = a.choice(1, {"bat", "hall", "temp"}, "");
         const int ms = a.number(2, 0, 0, kMaxMs);
         if (a.ok) acc_sim_report_every(s, what, ms);
         return done(a.ok, "every " + a.rest(1));
     }},
    {"delay", "delay MS            answer every query MS late (0: at once)", 1, 1,
     [](AccSim *s, Args &a) {
         const int ms = a.number(1, 0, 0, kMaxMs);
         if (a.ok) acc_sim_set_delay(s, ms);
         return done(a.ok, "delay " + a.rest(1));
     }},
    {"drop", "drop [N]            leave the next N queries unanswered (default 1)", 0, 1,
     [](AccSim *s, Args &a) {
         const int n = a.number(1, 1, 0, kMaxCount);
         if (a.ok) acc_sim_drop_next(s, n);
         return done(a.ok, "drop " + std::to_string(n));
     }},
    {"silent", "silent +KEY [on|off]  never answer queries of +KEY (+TYPE, +SN, +VER, ...)", 1, 2,
     [](AccSim *s, Args &a) {
         const bool on = a.on(2);
         if (!acc_keyword_answered(a.w[1])) a.ok = false;
         if (a.ok) acc_sim_set_silent(s, a.w[1], on);
         return done(a.ok, "silent " + a.rest(1));
     }},
    {"split", "split [on|off]      write each line in three pieces", 0, 1,
     [](AccSim *s, Args &a) {
         const bool on = a.on(1);
         if (a.ok) acc_sim_set_split(s, on);
         return done(a.ok, std::string("split ") + (on ? "on" : "off"));
     }},
    {"garbage", "garbage [N]         send N binary bytes and CR LF (default 16)", 0, 1,
     [](AccSim *s, Args &a) {
         const int n = a.number(1, 16, 1, kMaxJunk);
         if (a.ok) acc_sim_send_garbage(s, n);
         return done(a.ok, "garbage");
     }},
    {"overlong", "overlong [N]        send one line of N characters (default 600)", 0, 1,
     [](AccSim *s, Args &a) {
         const int n = a.number(1, 600, 1, kMaxJunk);
         if (a.ok) acc_sim_send_overlong(s, n);
         return done(a.ok, "overlong");
     }},
    {"gadget", "gadget UDC [accessory|foreign]  play the accessory (or a foreign device) as a USB gadget on UDC", 1, 2,
     [](AccSim *s, Args &a) {
         const bool foreign = a.choice(2, {"accessory", "foreign"}, "accessory") == "foreign";
         if (!a.ok) return CommandResult{};
         std::string error;
         // A foreign device: another product of the same maker, which the phone must ignore.
         const bool ok = acc_sim_use_gadget(s, a.w[1], kAccessoryVendor,
                                            foreign ? kAccessoryProduct + 1 : kAccessoryProduct,
                                            kAccessoryRelease, &error);
         return done(ok, "gadget on " + a.w[1] + (ok ? ", accessory side " + acc_sim_gadget_tty(s) : ": " + error));
     }},
    {"carrier", "carrier on|off      a plugged gadget closes (off: drops DCD) or reopens its side of the port", 1, 1,
     [](AccSim *s, Args &a) {
         const bool on = a.choice(1, {"on", "off"}, "on") == "on";
         return a.ok ? done(acc_sim_set_carrier(s, on), std::string("carrier ") + (on ? "on" : "off") +
                                                           " (needs a plugged gadget, carrier not already so)")
                     : CommandResult{};
     }},
    {"reading", "reading [on|off]    read the port, or stop reading it (the phone's writes back up)", 0, 1,
     [](AccSim *s, Args &a) {
         const bool on = a.on(1);
         if (a.ok) acc_sim_set_reading(s, on);
         return done(a.ok, on ? "reading" : "not reading");
     }},
    {"flood", "flood bat|hall|temp N  send N reports back to back, as fast as the port takes them", 2, 2,
     [](AccSim *s, Args &a) {
         const std::string what = a.choice(1, {"bat", "hall", "temp"}, "");
         const int n = a.number(2, 0, 1, kMaxFlood);
         if (!a.ok) return CommandResult{};
         const int sent = acc_sim_flood(s, what, n);
         return done(sent == n, "flood: " + std::to_string(sent) + " of " + std::to_string(n) + " sent (needs an open link)");
     }},
    {"counters", "counters            lines each way, answers, dropped answers", 0, 0,
     [](AccSim *s, Args &) {
         const AccCounters c = acc_sim_counters(s);
         return done(true, "from phone " + std::to_string(c.lines_from_phone) + ", to phone " +
                               std::to_string(c.lines_to_phone) + ", answers " +
                               std::to_string(c.answers) + ", dropped " + std::to_string(c.dropped));
     }},
};

struct DaemonCommand {
    const char *name;
    const char *usage;
    CommandResult (*run)(DaemonSim *);
};

// The daemon's commands take no arguments.
constexpr DaemonCommand kDaemonCommands[] = {
    {"silent", "silent              stop the heartbeat until the next start",
     [](DaemonSim *d) {
         daemon_sim_set_silent(d, true);
         return done(true, "heartbeat silenced");
     }},
    {"resume", "resume              send heartbeats again",
     [](DaemonSim *d) {
         daemon_sim_set_silent(d, false);
         return done(true, "heartbeat resumed");
     }},
    {"error", "error               report \"error\"",
     [](DaemonSim *d) {
         daemon_sim_report_error(d);
         return done(true, "error reported");
     }},
    {"status", "status              running or not, starts, exits, heartbeats",
     [](DaemonSim *d) {
         const DaemonCounters c = daemon_sim_counters(d);
         return done(true, std::string(daemon_sim_running(d) ? "running" : "stopped") +
                               ", starts " + std::to_string(c.starts) + ", exits " +
                               std::to_string(c.exits) + ", heartbeats " + std::to_string(c.heartbeats));
     }},
};

CommandResult usage_of(const char *usage) { return {false, std::string("usage: ") + usage}; }

template <typename Row>
std::string help_of(const Row &rows) {
    std::string out;
    for (const auto &c : rows) out += std::string("  ") + c.usage + "\n";
    return out;
}

}  // namespace

std::vector<std::string> split_words(const std::string &line) {
    std::vector<std::string> words;
    std::istringstream in(line);
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

CommandResult acc_command(AccSim *sim, const std::vector<std::string> &words) {
    if (words.empty()) return {false, "accessory command missing"};
    if (words[0] == "help") return {true, "accessory commands:\n" + acc_command_help()};
    for (const AccCommand &c : kAccCommands) {
        if (words[0] != c.name) continue;
        const size_t args = words.size() - 1;
        if (args < c.min_args || args > c.max_args) return usage_of(c.usage);
        Args a{words};
        const CommandResult r = c.run(sim, a);
        return a.ok ? r : usage_of(c.usage);
    }
    return {false, "unknown accessory command \"" + words[0] + "\" (help lists them)"};
}

CommandResult daemon_command(DaemonSim *sim, const std::vector<std::string> &words) {
    if (words.empty()) return {false, "daemon command missing"};
    if (words[0] == "help") return {true, "daemon commands:\n" + daemon_command_help()};
    for (const DaemonCommand &c : kDaemonCommands) {
        if (words[0] != c.name) continue;
        return words.size() == 1 ? c.run(sim) : usage_of(c.usage);
    }
    return {false, "unknown daemon command \"" + words[0] + "\" (help lists them)"};
}

bool parse_acm_number(const std::string &text, int *n) {
    const std::vector<std::string> w = {"plug", text};
    Args a{w};
    *n = a.number(1, kDefaultAcm, 0, kMaxAcm);
    return a.ok;
}

std::string acc_command_help() { return help_of(kAccCommands); }

std::string daemon_command_help() { return help_of(kDaemonCommands); }

}  // namespace atcmd_tools
