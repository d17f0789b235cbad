/*
 * The trace file: a JSON Trace Event Format object ({"traceEvents":[...]}) that trace viewers
 * open, written one event at a time as the console runs and whole after every event (a run
 * killed by SIGKILL leaves a trace that opens); what is still open is written on exit, on
 * "close" and on a terminating signal. Any thread may write events.
 */
#ifndef ATCMD_TOOLS_CONSOLE_TRACE_H
#define ATCMD_TOOLS_CONSOLE_TRACE_H

#include <stdint.h>

#include <chrono>
#include <string>

namespace atcmd_tools {

// The one process every track of the trace belongs to.
constexpr int kTracePid = 1;

// Creates (or empties) `path` and writes an empty trace; times are counted from `origin`.
// False with the reason in *error.
bool trace_open(const std::string &path, std::chrono::steady_clock::time_point origin, std::string *error);
bool trace_is_open();
// Microseconds from the origin to now.
int64_t trace_now_us();
// Writes one event object given its fields without the braces, e.g. "\"ph\":\"i\",...".
// Dropped once the trace is finished.
void trace_write(const std::string &fields);
// Runs `fn` once as the trace is finished, before its end is written: it writes what is still
// open (through trace_write, so it must not be called with the writer's lock held).
void trace_set_finisher(void (*fn)());
// Writes what is still open and closes the file; later events are dropped. Idempotent.
void trace_finish();

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_CONSOLE_TRACE_H
