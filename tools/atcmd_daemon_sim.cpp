/*
 * Standalone Wi-Fi daemon simulator: claims the daemon role of the sandbox named by ATCMD_ROOT,
 * watches "vendor.hid_cmd" in its property store, makes the FIFOs, and relays its status
 * reports to a console in another process (through the sandbox's status FIFO) as well as
 * printing them; the Wi-Fi lines go to a built-in accessory simulator. Commands on standard
 * input until "quit", Ctrl-D at a terminal, or SIGINT, SIGTERM or SIGHUP.
 */
#include <getopt.h>
#include <stdio.h>

#include "sim/accessory_sim.h"
#include "sim/daemon_sim.h"
#include "sim/sim_cli.h"
#include "sim/sim_commands.h"
#include "sim/sim_util.h"
#include "sim/status_relay.h"

using namespace atcmd_tools;

namespace {

constexpr const char kTool[] = "atcmd_daemon_sim";

void usage(FILE *out) {
    fprintf(out,
            "usage: ATCMD_ROOT=DIR atcmd_daemon_sim [--set NAME=VALUE]... [--json] [--version] [--help]\n"
            "Plays the Wi-Fi daemon: on vendor.hid_cmd=start_server|start_client it makes\n"
            "DIR/dev/fifo_tx, fifo_rx and fifo_cmd and reports \"running\", then \"heartbeat:<n>\"\n"
            "each second. Each report is printed (\"status: ...\") and written to DIR%s, where\n"
            "a console on the same sandbox (started without --sim) reads it and hands it to the\n"
            "module, as the upper layer does. \"exit\" on fifo_cmd stops it and sets\n"
            "vendor.hid_sts=exit. Wi-Fi lines are answered by a built-in accessory (identity\n"
            "names: %s). One daemon simulator per sandbox: a second is refused with the first\n"
            "one's pid. Commands on standard input until \"quit\" or Ctrl-D; from a script or\n"
            "/dev/null it runs on until SIGINT, SIGTERM or SIGHUP. Errors go to standard error.\n\n"
            "commands:\n%s"
            "  acc COMMAND         a command of atcmd_accessory_sim, on the Wi-Fi link\n"
            "  quit\n",
            kStatusFifo, acc_identity_names().c_str(), daemon_command_help().c_str());
}

// Whether the last report reached a console; the reporter thread only.
struct Relay {
    RelayResult last = RelayResult::Relayed;
    bool told = false;
};

// Prints the report and relays it; a change of whether a console takes the reports is said once.
void report(void *ctx, const std::string &status) {
    auto *relay = static_cast<Relay *>(ctx);
    cli_status(status);
    const RelayResult r = status_relay_send(status);
    if (relay->told && r == relay->last) return;
    relay->told = true;
    relay->last = r;
    const std::string fifo = rooted(kStatusFifo);
    switch (r) {
    case RelayResult::Relayed: cli_info("relay: reports go to the console reading " + fifo); break;
    case RelayResult::NoReader:
        cli_info("relay: no console reads " + fifo + "; reports are only printed (relay them by hand: console \"daemon STATUS\")");
        break;
    case RelayResult::Failed: cli_error("relay: report \"" + status + "\" lost: " + fifo + " is full or broken"); break;
    }
}

}  // namespace

int main(int argc, char **argv) {
    cli_prepare_signals();
    static const struct option kOptions[] = {
        {"set", required_argument, nullptr, 's'}, {"json", no_argument, nullptr, 'j'},
        {"version", no_argument, nullptr, 'v'},   {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    AccIdentity identity;
    for (int c; (c = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1;) {
        switch (c) {
        case 's': if (!cli_set_identity(&identity, optarg)) return 2; break;
        case 'j': cli_set_json(true); break;
        case 'v': cli_print_version(kTool); return 0;
        case 'h': usage(stdout); return 0;
        default: usage(stderr); return 2;
        }
    }
    if (optind < argc) {
        cli_error(std::string(kTool) + ": unexpected argument \"" + argv[optind] + "\" (commands go on standard input)");
        return 2;
    }
    if (!cli_claim_sandbox(kTool, kDaemonRole)) return 2;
    static Relay relay;  // outlives the reporter thread, which daemon_sim_destroy joins
    AccSim *acc = acc_sim_create(identity, cli_acc_event, nullptr);
    DaemonSim *daemon = acc != nullptr ? daemon_sim_create(acc, report, cli_daemon_event, &relay) : nullptr;
    if (daemon == nullptr) {
        cli_error(std::string(kTool) + ": the simulator could not start");
        acc_sim_destroy(acc);
        return 1;
    }
    cli_info("daemon: waiting for vendor.hid_cmd");
    const int status = cli_serve([acc, daemon](const std::vector<std::string> &w) {
        if (w[0] != "acc") return daemon_command(daemon, w);
        return acc_command(acc, std::vector<std::string>(w.begin() + 1, w.end()));
    });
    daemon_sim_destroy(daemon);
    acc_sim_destroy(acc);
    return status;
}
