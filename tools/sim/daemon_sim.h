/*
 * The Wi-Fi daemon simulator: watches "vendor.hid_cmd" in the property store; on a start it
 * makes the FIFOs, reports "running" and then "heartbeat:<n>" once a second, and carries the
 * lines of the data FIFOs to and from an accessory simulator; it answers "exit" on
 * "/dev/fifo_cmd" by setting "vendor.hid_sts" to "exit". Its own threads watch and report;
 * every function here may be called from any other thread.
 */
#ifndef ATCMD_TOOLS_SIM_DAEMON_SIM_H
#define ATCMD_TOOLS_SIM_DAEMON_SIM_H

#include <string>

#include "sim/accessory_sim.h"

namespace atcmd_tools {

// A status report for whoever plays the upper layer ("running", "heartbeat:<n>", "error").
// Called on the simulator's reporter thread, which may block in it (the module's daemon
// control waits up to a second for an orderly exit, which this simulator must serve meanwhile).
using DaemonReport = void (*)(void *ctx, const std::string &status);
// Something the simulator did, for a transcript.
using DaemonObserver = void (*)(void *ctx, const std::string &event);

struct DaemonSim;

// `accessory` may be null: then lines written by the phone are read and dropped.
DaemonSim *daemon_sim_create(AccSim *accessory, DaemonReport report, DaemonObserver observer,
                             void *ctx);
void daemon_sim_destroy(DaemonSim *sim);

bool daemon_sim_running(DaemonSim *sim);
// Stops the heartbeat until the next start (a lost heartbeat for the module).
void daemon_sim_set_silent(DaemonSim *sim, bool silent);
// Reports "error" while staying up, so that the module's restart finds it.
void daemon_sim_report_error(DaemonSim *sim);

struct DaemonCounters {
    int starts = 0;
    int exits = 0;       // orderly, through "exit" on the command FIFO
    int heartbeats = 0;
};
DaemonCounters daemon_sim_counters(DaemonSim *sim);

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_SIM_DAEMON_SIM_H
