/*
 * How the console meets signals. SIGTERM and SIGHUP (and SIGINT, except at an interactive
 * prompt) end the run cleanly: a thread of its own takes them, runs the console's clean-up
 * (the trace finished, a --sim sandbox removed) and ends the process by the signal. At an
 * interactive prompt SIGINT (Ctrl-C) is only noted: the main thread reads it from a descriptor.
 */
#ifndef ATCMD_TOOLS_CONSOLE_SIGNALS_H
#define ATCMD_TOOLS_CONSOLE_SIGNALS_H

namespace atcmd_tools {

// Blocks the signals in the calling thread, so in every thread it starts later: call before
// any other thread starts. `interactive`: SIGINT is kept for interrupt_fd().
void signals_start(bool interactive);

// Readable when Ctrl-C was pressed and not yet taken; -1 when not interactive.
int interrupt_fd();
// Takes a pending Ctrl-C; true when there was one. Main thread.
bool interrupt_taken();

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_CONSOLE_SIGNALS_H
