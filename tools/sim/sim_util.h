/*
 * Small descriptor and file helpers shared by the simulators and the console: whole writes
 * with EINTR retried, closing a descriptor once, directories and small files in the sandbox,
 * and the claim a simulator holds on its sandbox. Stateless; any thread.
 */
#ifndef ATCMD_TOOLS_SIM_SIM_UTIL_H
#define ATCMD_TOOLS_SIM_SIM_UTIL_H

#include <stddef.h>

#include <string>

namespace atcmd_tools {

// Writes all `n` bytes (retrying EINTR and, briefly, EAGAIN); false on any other failure.
bool write_all(int fd, const char *bytes, size_t n);
// Closes *fd when it is open and sets it to -1.
void close_fd(int *fd);
// `line` without its trailing CR and LF.
std::string trim_line_end(const std::string &line);
// mkdir -p.
bool make_dirs(const std::string &path);
// Replaces the file's content with `text`.
bool write_text_file(const std::string &path, const std::string &text);
// A wake-up pipe: one byte in, everything out (both ends non-blocking).
void poke_pipe(int write_end);
void drain_pipe(int read_end);
// A whole decimal number from `min` to `max` and nothing else; false otherwise (the tools refuse
// such an argument rather than take it as something else).
bool parse_number(const std::string &text, long min, long max, long *out);
// The path as written, under the sandbox root; "" when it does not fit.
std::string rooted(const std::string &as_written);

// The roles a process can claim in a sandbox: one console (the module's host), one accessory and
// one daemon per sandbox (a second of any would take over the first one's port, split its FIFO
// lines or race it for the port).
constexpr const char kConsoleRole[] = "console";
constexpr const char kAccessoryRole[] = "accessory";
constexpr const char kDaemonRole[] = "daemon";

// Claims `role` in the sandbox named by ATCMD_ROOT for this process: an exclusive flock on
// DIR/sim/<role>.lock, which holds the owner's pid. Returns the lock's descriptor (held open,
// the claim lasts until it is closed or the process ends, however it ends), or -1 with the
// reason in *error: the owner's pid when another process holds the role, else why the lock
// file cannot be made (no sandbox, a read-only one).
int sandbox_claim(const char *role, std::string *error);

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_SIM_SIM_UTIL_H
