/*
 * The console's watch on the module's log: what only the log tells and a person must know (no
 * watch on /dev, the Bluetooth MAC property missing, the Wi-Fi daemon's heartbeat lost, its
 * restart and a restart that never came up) becomes a console line of its own. A thread of its
 * own reads the log; the module's callback reports the Wi-Fi link coming up.
 */
#ifndef ATCMD_TOOLS_CONSOLE_LOG_WATCH_H
#define ATCMD_TOOLS_CONSOLE_LOG_WATCH_H

#include "sim/messages.h"

namespace atcmd_tools {

// Starts following the module's log from its present end: call before the module opens, so
// that what it logs as it opens is seen.
void log_watch_start();
// Says when the module's log file is missing or cannot be written: call after it opened.
void log_watch_check_log();

// A notify message: Wi-Fi up ends the wait for a restarted daemon. Any thread.
void log_watch_message(const DecodedMessage &m);

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_CONSOLE_LOG_WATCH_H
