/*
 * The console at a keyboard: a prompt on the terminal (never on standard output, which may be
 * a JSON stream), line editing with Tab completion and a history kept between runs where the
 * host has a line-editing library (plain lines where it has none, as on a phone), lines from
 * the module printed above the line being typed, and Ctrl-C that cancels the running wait.
 * Main thread; the print sink is called from any thread.
 */
#ifndef ATCMD_TOOLS_CONSOLE_INTERACTIVE_H
#define ATCMD_TOOLS_CONSOLE_INTERACTIVE_H

#include <stdio.h>

namespace atcmd_tools {

// Runs commands typed at the terminal until end of input (Ctrl-D) or "quit". `fallback` is
// where the prompt goes when the process has no controlling terminal to write it to.
void run_interactive(FILE *fallback);

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_CONSOLE_INTERACTIVE_H
