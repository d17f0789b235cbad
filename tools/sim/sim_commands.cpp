/*
 * Command words of the accessory and daemon simulators, as tables of name, usage and action.
 * Used by the standalone simulators and the console; runs on the caller's thread.
 */
#include "sim/sim_commands.h"

#include <stdlib.h>

#include <sstream>

namespace atcmd_tools {

namespace {

// A whole number argument, or `fallback` when absent; false in *ok when it is not a number.
int number_arg(const std::vector<std::string> &w, size_t i, int fallback, bool *ok) {
    if (i >= w.size()) return fallback;
    char *end = nullptr;
    const long v = strtol(w[i].c_str(), &end, 10);
    if (end == w[i].c_str() || *end != '\0' || v < -1 || v > 1000000) *ok = false;
    return static_cast<int>(v);
}

std::string rest_from(const std::vector<std::string> &w, size_t i) {
    std::string out;
    for (; i < w.size(); ++i) out += (out.empty() ? "" : " ") + w[i];
    return out;
}

bool on_off(const std::vector<std::string> &w, size_t i) { return i >= w.size() || w[i] != "off"; }

CommandResult done(bool ok, const std::string &what) { return {ok, ok ? what : "failed: " + what}; }

struct AccCommand {
    const char *name;
    const char *usage;
    CommandResult (*run)(AccSim *, const std::vector<std::string> &, bool *ok);
};

constexpr int kDefaultAcm = 3;

constexpr AccCommand kAccCommands[] = {
    {"plug", "plug [n]            make dev/ttyACMn (default 3) and its uevent",
     [](AccSim *s, const std::vector<std::string> &w, bool *ok) {
         const int n = number_arg(w, 1, kDefaultAcm, ok);
         return done(*ok && acc_sim_plug(s, n) == 0, "plug ttyACM" + std::to_string(n));
     }},
    {"unplug", "unplug              remove the port; the module's read fails",
     [](AccSim *s, const std::vector<std::string> &, bool *) {
         acc_sim_unplug(s);
         return done(true, "unplug");
     }},
    {"unplug-at", "unplug-at MS [REPLUG_MS]  unplug after MS, plug again REPLUG_MS later",
     [](AccSim *s, const std::vector<std::string> &w, bool *ok) {
         const int at = number_arg(w, 1, 0, ok), again = number_arg(w, 2, -1, ok);
         if (*ok) acc_sim_schedule_unplug(s, at, again);
         return done(*ok, "unplug scheduled");
     }},
    {"send", "send LINE           write LINE (CR LF added) to the phone",
     [](AccSim *s, const std::vector<std::string> &w, bool *) {
         return done(acc_sim_send(s, rest_from(w, 1)), "send (needs an open link)");
     }},
    {"ask", "ask state|mac|ver|wt  ask the phone a question",
     [](AccSim *s, const std::vector<std::string> &w, bool *) {
         return done(w.size() > 1 && acc_sim_ask(s, w[1]), "ask " + rest_from(w, 1));
     }},
    {"report", "report bat|hall|temp [N] [usb|wifi]  send N reports (default 1)",
     [](AccSim *s, const std::vector<std::string> &w, bool *ok) {
         const int n = number_arg(w, 2, 1, ok);
         const bool wifi = w.size() > 3 && w[3] == "wifi";
         const bool usb = w.size() > 3 && w[3] == "usb";
         bool sent = *ok && w.size() > 1;
         for (int i = 0; sent && i < n; ++i) {
             sent = wifi || usb ? acc_sim_report_on(s, wifi ? AccLink::Wifi : AccLink::Usb, w[1])
                                : acc_sim_report(s, w[1]);
         }
         return done(sent, "report " + rest_from(w, 1));
     }},
    {"every", "every bat|hall|temp MS  send the report every MS (0 stops)",
     [](AccSim *s, const std::vector<std::string> &w, bool *ok) {
         const int ms = number_arg(w, 2, 0, ok);
         if (*ok && w.size() > 2) acc_sim_report_every(s, w[1], ms);
         return done(*ok && w.size() > 2, "every " + rest_from(w, 1));
     }},
    {"delay", "delay MS            answer every query MS late",
     [](AccSim *s, const std::vector<std::string> &w, bool *ok) {
         acc_sim_set_delay(s, number_arg(w, 1, 0, ok));
         return done(*ok, "delay " + rest_from(w, 1));
     }},
    {"drop", "drop N              leave the next N queries unanswered",
     [](AccSim *s, const std::vector<std::string> &w, bool *ok) {
         acc_sim_drop_next(s, number_arg(w, 1, 1, ok));
         return done(*ok, "drop " + rest_from(w, 1));
     }},
    {"silent", "silent +KEY [off]   never answer queries of +KEY",
     [](AccSim *s, const std::vector<std::string> &w, bool *) {
         if (w.size() > 1) acc_sim_set_silent(s, w[1], on_off(w, 2));
         return done(w.size() > 1, "silent " + rest_from(w, 1));
     }},
    {"split", "split [off]         write each line in three pieces",
     [](AccSim *s, const std::vector<std::string> &w, bool *) {
         acc_sim_set_split(s, on_off(w, 1));
         return done(true, "split " + rest_from(w, 1));
     }},
    {"garbage", "garbage N           send N binary bytes and CR LF",
     [](AccSim *s, const std::vector<std::string> &w, bool *ok) {
         const int n = number_arg(w, 1, 16, ok);
         if (*ok) acc_sim_send_garbage(s, n);
         return done(*ok, "garbage");
     }},
    {"overlong", "overlong N          send one line of N characters",
     [](AccSim *s, const std::vector<std::string> &w, bool *ok) {
         const int n = number_arg(w, 1, 600, ok);
         if (*ok) acc_sim_send_overlong(s, n);
         return done(*ok, "overlong");
     }},
    {"counters", "counters            lines each way, answers, dropped answers",
     [](AccSim *s, const std::vector<std::string> &, bool *) {
         const AccCounters c = acc_sim_counters(s);
         return done(true, "from phone " + std::to_string(c.lines_from_phone) + ", to phone " +
                               std::to_string(c.lines_to_phone) + ", answers " +
                               std::to_string(c.answers) + ", dropped " + std::to_string(c.dropped));
     }},
};

struct DaemonCommand {
    const char *name;
    const char *usage;
    CommandResult (*run)(DaemonSim *, const std::vector<std::string> &);
};

constexpr DaemonCommand kDaemonCommands[] = {
    {"silent", "silent              stop the heartbeat until the next start",
     [](DaemonSim *d, const std::vector<std::string> &) {
         daemon_sim_set_silent(d, true);
         return done(true, "heartbeat silenced");
     }},
    {"resume", "resume              send heartbeats again",
     [](DaemonSim *d, const std::vector<std::string> &) {
         daemon_sim_set_silent(d, false);
         return done(true, "heartbeat resumed");
     }},
    {"error", "error               report \"error\"",
     [](DaemonSim *d, const std::vector<std::string> &) {
         daemon_sim_report_error(d);
         return done(true, "error reported");
     }},
    {"status", "status              running or not, starts, exits, heartbeats",
     [](DaemonSim *d, const std::vector<std::string> &) {
         const DaemonCounters c = daemon_sim_counters(d);
         return done(true, std::string(daemon_sim_running(d) ? "running" : "stopped") +
                               ", starts " + std::to_string(c.starts) + ", exits " +
                               std::to_string(c.exits) + ", heartbeats " + std::to_string(c.heartbeats));
     }},
};

}  // namespace

std::vector<std::string> split_words(const std::string &line) {
    std::vector<std::string> words;
    std::istringstream in(line);
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

CommandResult acc_command(AccSim *sim, const std::vector<std::string> &words) {
    if (words.empty()) return {false, "accessory command missing"};
    for (const AccCommand &c : kAccCommands) {
        if (words[0] != c.name) continue;
        bool ok = true;
        CommandResult r = c.run(sim, words, &ok);
        return ok ? r : CommandResult{false, std::string("usage: ") + c.usage};
    }
    return {false, "unknown accessory command \"" + words[0] + "\""};
}

CommandResult daemon_command(DaemonSim *sim, const std::vector<std::string> &words) {
    if (words.empty()) return {false, "daemon command missing"};
    for (const DaemonCommand &c : kDaemonCommands) {
        if (words[0] == c.name) return c.run(sim, words);
    }
    return {false, "unknown daemon command \"" + words[0] + "\""};
}

std::string acc_command_help() {
    std::string out;
    for (const AccCommand &c : kAccCommands) out += std::string("  ") + c.usage + "\n";
    return out;
}

std::string daemon_command_help() {
    std::string out;
    for (const DaemonCommand &c : kDaemonCommands) out += std::string("  ") + c.usage + "\n";
    return out;
}

}  // namespace atcmd_tools
