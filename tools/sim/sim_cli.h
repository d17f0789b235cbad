/*
 * What the two standalone simulators share: the transcript printer (text or JSON lines), the
 * options every simulator takes, the sandbox claim, and the loop that reads one command per
 * line from standard input until end of input, "quit", SIGINT, SIGTERM or SIGHUP. Runs on the
 * tool's main thread; the printers on any thread.
 */
#ifndef ATCMD_TOOLS_SIM_SIM_CLI_H
#define ATCMD_TOOLS_SIM_SIM_CLI_H

#include <functional>
#include <string>
#include <vector>

#include "sim/accessory_sim.h"
#include "sim/sim_commands.h"

namespace atcmd_tools {

// Blocks the stop signals (taken by cli_serve) and ignores SIGPIPE (a FIFO reader that goes
// away is an error return, not the end of the simulator). Call first, before any thread starts.
void cli_prepare_signals();

// Lines on standard output, one per event, safe from any thread: text for people, or with
// cli_set_json, one JSON object a line ("event": "accessory", "daemon", "status", "info",
// "result"). Errors go to standard error as text in both modes.
void cli_set_json(bool json);
void cli_acc_event(void *ctx, AccLink link, const char *dir, const std::string &text);
void cli_daemon_event(void *ctx, const std::string &event);
void cli_status(const std::string &status);
void cli_info(const std::string &text);
void cli_error(const std::string &text);

// "TOOL VERSION" on standard output.
void cli_print_version(const char *tool);

// Claims `role` (kAccessoryRole, kDaemonRole) in the sandbox named by ATCMD_ROOT; false with
// the reason on standard error when there is none or another process holds the role. The
// claim lasts as long as the process.
bool cli_claim_sandbox(const char *tool, const char *role);

// Applies "name=value" to the identity; false with a message for a bad one.
bool cli_set_identity(AccIdentity *id, const std::string &assignment);

// Runs each line of standard input through `run` and prints its result. Ends with status 0 on
// "quit", on a stop signal, and at end of input when standard input is a terminal (Ctrl-D);
// at the end of a script or /dev/null it says so and keeps the simulator running until a stop
// signal, which is how a simulator runs in the background.
int cli_serve(const std::function<CommandResult(const std::vector<std::string> &)> &run);

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_SIM_SIM_CLI_H
