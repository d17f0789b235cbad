/*
 * The console: plays the module's upper layer. It holds the loaded module and, on request, an
 * accessory and a daemon simulator in the same sandbox; it runs one command at a time (from a
 * person, a script or the command line) and prints every notify message decoded, as text or
 * JSON lines. Commands run on the caller's thread; messages arrive on the module's threads.
 */
#ifndef ATCMD_TOOLS_CONSOLE_CONSOLE_H
#define ATCMD_TOOLS_CONSOLE_CONSOLE_H

#include <stdio.h>

#include <string>

#include "sim/sim_commands.h"

namespace atcmd_tools {

struct ConsoleOptions {
    std::string module;      // explicit module file; empty: the search path
    bool json = false;       // JSON lines instead of text
    bool simulators = false; // run the accessory and daemon simulators in this process
    bool echo_commands = false;
    int log_level = -1;      // set in the module before it opens (-1: leave the module's default)
    int wait_scale = 1;      // multiplies every wait's deadline (slow runs, e.g. under valgrind)
    std::string trace;       // a trace file to write (JSON Trace Event Format); empty: none
    FILE *out = stdout;      // where the console writes (the module's own prints may go elsewhere)
};

// Loads and opens the module and installs the callback; false with the reason in *error.
// Only one console exists per process (the callback has no context of its own).
bool console_start(const ConsoleOptions &options, std::string *error);

// Runs one command line; prints its result. "quit" and "close" do not return.
CommandResult console_run(const std::string &line);

// Ends the process: flushes the output and leaves without closing the device (closing it
// ends the process by signal); exit status 1 when any command failed.
[[noreturn]] void console_quit();

// Prints a line of the console's own (text mode) or an event object (JSON mode).
void console_say(const std::string &text);

std::string console_help();

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_CONSOLE_CONSOLE_H
