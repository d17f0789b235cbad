/*
 * atcmd_replay: a log written by the module read back into its messages and runs, the world's
 * side of one run rebuilt from it (the inputs, with what the module did in answer), played
 * against the module in a sandbox and compared, or drawn as a trace. Plain structures shared by
 * the reader, the world rebuild, the player, the comparer and the report; main thread unless said.
 */
#ifndef ATCMD_TOOLS_REPLAY_REPLAY_H
#define ATCMD_TOOLS_REPLAY_REPLAY_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace atcmd_tools {

// One message of the log: the fields of its prefix "[sec.usec][tid:N]function:line: " and its
// text up to the next prefix (the module adds no line end of its own).
struct LogEntry {
    size_t line = 0;       // the file's line (from 1) where the prefix starts
    int64_t time_us = 0;   // the phone's clock; a jump is flattened (see LogNote)
    int tid = 0;
    std::string func;
    std::string text;
    bool at_file_end = false;  // the file's last message: it may have been cut off mid-text
};

// Something wrong with the file that the reader reported and stepped over.
struct LogNote {
    size_t line = 0;
    std::string text;
};

// One start of the module: the file is appended to across restarts.
struct LogRun {
    size_t first = 0;  // index of its first entry
    size_t end = 0;    // one past its last entry
};

struct ParsedLog {
    std::vector<LogEntry> entries;
    std::vector<LogRun> runs;
    std::vector<LogNote> notes;
};

// Cuts `bytes` (the file from line `first_line` on) into entries; the last one is taken only
// when `at_end` (else it may still be growing). Returns the bytes consumed.
size_t split_log(const std::string &bytes, size_t first_line, bool at_end, ParsedLog *out);
// Reads a whole file: entries, notes and runs. False (with the reason) when it cannot be read.
bool read_log(const std::string &path, ParsedLog *out, std::string *error);

// What the world did to the module, as the log tells it.
enum class InputKind { Plug, Unplug, UsbBytes, WifiBytes, WifiInit, WifiDown, DaemonStatus, Request, Handshake };

struct Input {
    InputKind kind = InputKind::Plug;
    size_t line = 0;
    int64_t time_us = 0;
    std::string text;   // bytes, address, status or line
    int number = 0;     // the port's number (plugs)
    uint8_t type = 0, dest = 0, flag = 0, cmd_id = 0;  // a request's record
    uint16_t seq = 0;
    int anchor = -1;    // the last expected output before it in the log, or -1
};

// What the module did, in the terms both logs are compared in.
enum class OutputKind { Sent, Resent, TimedOut, Link, Parsed };

struct Output {
    OutputKind kind = OutputKind::Sent;
    size_t line = 0;
    int64_t time_us = 0;
    std::string key;  // compared whole: "sent (mode 0): AT+TYPE?#15&1", "TYPE_parser: ..."
    bool port_gone = false;  // the log shows no accessory port then: a line sent reached no one
    bool at_file_end = false;  // the file's last message: a desk output it begins matches it
    std::string unexplained;   // why the log's own inputs cannot have caused it (lines missing)
};

// An input the log does not hold, and how the replay fills it in.
struct Gap {
    std::string what;
    std::string how;
};

struct World {
    std::vector<Input> inputs;
    std::vector<Output> expected;
    std::vector<Gap> gaps;
    std::vector<LogNote> notes;
    // Per life of the daemon (each start, in order): the last heartbeat count the module saw
    // before it declared the daemon lost, or -1 when it never did.
    std::vector<long> heartbeat_caps;
    std::string bt_mac;     // the phone's Bluetooth address, from the lines the module sent
    bool plugged_at_open = false;
    int plugged_number = 0;
    int level_seen = -1;    // the highest threshold of a message found in the run
    int64_t origin_us = 0;  // the time of the run's first message
    size_t end_line = 0;    // the run's last message: where the comparison ends
    int64_t end_us = 0;
};

// The log level at which every input the replay needs is written.
constexpr int kReplayLevel = 4;

// The module's output that an entry records, if any (used on both logs).
bool output_of(const LogEntry &e, Output *out);
World rebuild_world(const ParsedLog &log, const LogRun &run);

// How the run went on the desk: the module's own log there, read the same way.
struct DeskRun {
    std::vector<Output> outputs;
    std::vector<int> matched_by;   // per expected output: the desk output that matched, or -1
    std::vector<std::string> notes;  // what the player could not do
    bool started = false;
};

struct PlayOptions {
    double speed = 1.0;
    std::string module;  // explicit module file; empty: the loader's search path
    std::string trace;   // a trace of the replay; empty: none
    int patience_ms = 15000;  // how long an input waits for the output it follows
};

// Plays the world against the module in the sandbox ATCMD_ROOT names; fills *desk.
void play_world(const World &world, const PlayOptions &options, DeskRun *desk);

// The comparison: streams the desk's outputs against the expected ones.
struct Matcher;
Matcher *matcher_create(const std::vector<Output> &expected);
void matcher_destroy(Matcher *m);
// Adds a desk output; returns the expected index it matched, or -1. It matches only expected
// outputs up to `limit`: those the log shows before the next input not yet played, so that a
// value that differs is not matched with the same value of a later exchange.
int matcher_add(Matcher *m, const Output &desk, int limit);
bool matcher_done(const Matcher *m, int expected_index);
bool matcher_all_done(const Matcher *m);

// What a difference between the two sides is, when it is not the module's.
enum class Damage { None, LinesMissing, LogNote };

struct Divergence {
    bool found = false;
    size_t log_line = 0;
    std::string log_side;
    std::string desk_side;
    std::string explained;  // an input the log does not hold that may account for it
    Damage damage = Damage::None;  // the log is damaged here: no verdict on the module
    std::string damage_text;
    size_t went_on = 0;     // desk outputs after the log's end, not compared
    std::vector<std::string> cut;  // the file's last message, cut off, matched as far as it goes
};
Divergence first_divergence(const World &world, const DeskRun &desk);

// The report: the runs of a file, the gaps, the result.
std::string describe_runs(const ParsedLog &log);
std::string describe_world(const ParsedLog &log, size_t run_index, const World &world);
std::string describe_result(const World &world, const DeskRun &desk, const Divergence &d);
// What --speed shortens, the timers of the module that keep their own time, and about how long
// the replay will take.
std::string describe_pace(const World &world, double speed);
// The replay's length at `speed`, in microseconds: the gaps the log shows between inputs are
// scaled, the module's own reactions (the outputs an input waits for) are not.
int64_t estimated_play_us(const World &world, double speed);

// A trace of one run with the phone's own times, without replaying it.
bool log_to_trace(const ParsedLog &log, const LogRun &run, const std::string &path, std::string *error);

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_REPLAY_REPLAY_H
