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

// Notes where the module's log ends now: call before the module opens, so that what it logs as
// it opens is seen.
void log_watch_start();
// Once the module opened: says when its log is missing or cannot be written, says what it
// logged as it opened, and starts following the log. Main thread.
void log_watch_opened();

// A notify message: Wi-Fi up ends the wait for a restarted daemon. Any thread.
void log_watch_message(const DecodedMessage &m);

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_CONSOLE_LOG_WATCH_H
