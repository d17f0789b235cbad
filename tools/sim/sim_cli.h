/*
 * What the two standalone simulators share: the transcript printer, the --set option, the
 * sandbox check, and the loop that reads one command per line from standard input and then
 * waits for SIGINT or SIGTERM. Runs on the tool's main thread; the printer on any thread.
 */
#ifndef ATCMD_TOOLS_SIM_SIM_CLI_H
#define ATCMD_TOOLS_SIM_SIM_CLI_H

#include <functional>
#include <string>
#include <vector>

#include "sim/accessory_sim.h"
#include "sim/sim_commands.h"

namespace atcmd_tools {

// Transcript lines for people, one per event, safe from any thread.
void cli_acc_event(void *ctx, AccLink link, const char *dir, const std::string &text);
void cli_daemon_event(void *ctx, const std::string &event);
void cli_print(const std::string &line);

// False (with a message on stderr) when ATCMD_ROOT is unset: the simulators only ever make
// their files inside a sandbox, never under the real /dev.
bool cli_require_sandbox(const char *tool);

// Applies "name=value" to the identity; false with a message for a bad one.
bool cli_set_identity(AccIdentity *id, const std::string &assignment);

// Runs each line of standard input through `run` ("quit" ends at once); after end of input,
// keeps the simulator running until SIGINT or SIGTERM. Returns the exit status.
int cli_serve(const std::function<CommandResult(const std::vector<std::string> &)> &run);

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_SIM_SIM_CLI_H
