/*
 * The console's timeline: what it sees (its commands, the notify callbacks, the lines on each
 * simulated link, the simulators' events, the module's log) turned into trace events on named
 * tracks, with one span per watched request. Called from the main thread, the module's threads
 * and the simulators' threads; a thread of its own follows the module's log.
 */
#ifndef ATCMD_TOOLS_CONSOLE_TIMELINE_H
#define ATCMD_TOOLS_CONSOLE_TIMELINE_H

#include <stdint.h>

#include <string>

#include "sim/accessory_sim.h"
#include "sim/messages.h"

namespace atcmd_tools {

// Names the tracks and starts following the module's log file; `platform` is the device's
// (a request is watched only when its flag names it); `links_seen`: a simulator reports the
// lines on the links. The trace must be open.
void timeline_start(int32_t platform, bool links_seen);

// A console command runs from begin to end (main thread).
void timeline_command_begin(const std::string &line);
void timeline_command_end(bool ok);

// A notify message; it ends the span of the request it answers.
void timeline_callback(const DecodedMessage &m);
// A line the accessory simulator saw on a link ("<-" from the phone, "->" to it) or one of its
// events ("!!").
void timeline_link_line(AccLink link, const char *dir, const std::string &text);
// A request handed to the module. When no simulator sees the links its span starts here, on
// the link that `mode` (the device's cast mode) makes the module use; else when it is seen sent.
void timeline_request_handed(const std::string &line, int32_t mode);
// An event of the daemon simulator, and a daemon status handed to the module.
void timeline_daemon_event(const std::string &event);
void timeline_daemon_status(const std::string &status);

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_CONSOLE_TIMELINE_H
