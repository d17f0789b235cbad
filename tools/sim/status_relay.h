/*
 * The daemon's status reports carried between processes: a standalone daemon simulator writes
 * each report as one line into the FIFO DIR/sim/daemon-status, and a console in another
 * process reads them there and hands each to the module as the upper layer does. The writer
 * never blocks; the reader runs a thread of its own.
 */
#ifndef ATCMD_TOOLS_SIM_STATUS_RELAY_H
#define ATCMD_TOOLS_SIM_STATUS_RELAY_H

#include <string>

#include "sim/daemon_sim.h"

namespace atcmd_tools {

// The FIFO, as written under the sandbox root.
constexpr const char kStatusFifo[] = "/sim/daemon-status";
// A status report is a short word ("running", "heartbeat:<n>", "error"); a longer line is no
// report and is dropped by the reader.
constexpr size_t kMaxStatusLine = 91;

enum class RelayResult {
    Relayed,     // a reader took the line
    NoReader,    // no console is listening (no FIFO, or nobody has it open)
    Failed,      // the FIFO is full or broken: this report is lost
};

// Writes `status` and a line end into the FIFO when a reader has it open. Never blocks. The
// caller ignores SIGPIPE (a reader that goes away between the open and the write).
RelayResult status_relay_send(const std::string &status);

struct StatusListener;

// Makes the FIFO in the sandbox (ATCMD_ROOT) and starts a thread that hands each line read
// from it to `report` and tells what it did to `observer` (as the in-process simulator does:
// `report "heartbeat:3"`). Null when there is no sandbox, or when the FIFO cannot be made
// (told to `observer`).
StatusListener *status_relay_listen(DaemonReport report, DaemonObserver observer, void *ctx);
void status_relay_stop(StatusListener *listener);

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_SIM_STATUS_RELAY_H
