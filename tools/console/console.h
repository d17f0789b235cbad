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
#include <vector>

#include "sim/sim_commands.h"

namespace atcmd_tools {

// The console's exit statuses; a run ends with the status of its first failure.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;      // a command failed (a plug, a send, a refused property, ...)
constexpr int kExitUsage = 2;       // a bad option, script, command or argument
constexpr int kExitTimedOut = 3;    // a wait ran out of time
constexpr int kExitNoModule = 4;    // the module could not be found, loaded or opened

struct ConsoleOptions {
    std::string module;      // explicit module file; empty: the search path
    bool json = false;       // JSON lines instead of text
    bool simulators = false; // run the accessory and daemon simulators in this process
    bool echo_commands = false;
    int log_level = -1;      // set in the module before it opens (-1: leave the module's default)
    int wait_scale = 1;      // multiplies every wait's deadline (slow runs, e.g. under valgrind)
    std::string trace;       // a trace file to write (JSON Trace Event Format); empty: none
    FILE *out = stdout;      // where the console writes (the module's own prints may go elsewhere)
    FILE *err = stderr;      // where text-mode errors and warnings go
};

// Loads and opens the module, installs the callback and starts the simulators when asked;
// kExitOk, or kExitNoModule / kExitFailed with the reason in *error. Only one console exists per
// process (the callback has no context of its own).
int console_start(const ConsoleOptions &options, std::string *error);

// Runs one command line and prints its result; the command's exit status (kExitOk when it
// succeeded). "quit" and "close" do not return.
int console_run(const std::string &line);

// Runs `fn` once as the console ends (quit, close, end of input, a terminating signal).
void console_at_exit(void (*fn)());
// Runs what console_at_exit registered; safe to call more than once and from any thread.
void console_cleanup();

// Ends the process: cleans up, flushes the output and leaves without closing the device
// (closing it ends the process by signal), with the status of the first failed command.
[[noreturn]] void console_quit();

// Prints a line of the console's own (text mode) or an event object (JSON mode).
void console_say(const std::string &text);
// A condition a person must know of (no watch on dev/, a log that cannot be written, ...):
// text mode prints "warning: TEXT" on the error stream; JSON a "warning" event with `kind`.
void console_warn(const char *kind, const std::string &text);

// Interrupts the running wait or sleep: it fails as cancelled (Ctrl-C at the keyboard).
// Main thread only: a waiting command checks for it between slices of its deadline.
void console_set_cancel_check(bool (*cancelled)());

// Everything the console prints passes through `sink` once set (the line editor keeps the
// line being typed intact); null: straight to the output stream.
void console_set_print_sink(void (*sink)(FILE *stream, const std::string &lines));

// Every command with its usage ("help" alone), or one command's ("help wait").
std::string console_help(const std::string &command = "");
// Words that Tab completes: command names for the first word, else what that command takes.
std::vector<std::string> console_completions(const std::vector<std::string> &words_before);

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_CONSOLE_CONSOLE_H
