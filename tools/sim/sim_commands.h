/*
 * The simulators' command words, shared by the standalone tools (one command per input line)
 * and the console (after "acc" and "dsim"): plug, unplug, ask, report, the faults, the daemon's
 * silence and error. Runs on the caller's thread.
 */
#ifndef ATCMD_TOOLS_SIM_SIM_COMMANDS_H
#define ATCMD_TOOLS_SIM_SIM_COMMANDS_H

#include <string>
#include <vector>

#include "sim/accessory_sim.h"
#include "sim/daemon_sim.h"

namespace atcmd_tools {

struct CommandResult {
    bool ok;
    std::string text;
};

// Splits a command line into words at blanks.
std::vector<std::string> split_words(const std::string &line);

// Runs an accessory command (words[0] is the command, e.g. "plug", "ask", "drop").
CommandResult acc_command(AccSim *sim, const std::vector<std::string> &words);
// Runs a daemon command ("silent", "resume", "error", "status").
CommandResult daemon_command(DaemonSim *sim, const std::vector<std::string> &words);
// A port number as "plug" takes it (0 .. 9999); false for anything else.
bool parse_acm_number(const std::string &text, int *n);
// One line per command, for --help and the console's help.
std::string acc_command_help();
std::string daemon_command_help();

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_SIM_SIM_COMMANDS_H
