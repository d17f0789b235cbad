/*
 * Standalone Wi-Fi daemon simulator: watches "vendor.hid_cmd" in the sandbox's property store,
 * makes the FIFOs, prints its status reports for a person to relay to the module, and carries
 * the Wi-Fi lines to a built-in accessory simulator. Commands on standard input.
 */
#include <getopt.h>
#include <stdio.h>

#include "sim/accessory_sim.h"
#include "sim/daemon_sim.h"
#include "sim/sim_cli.h"
#include "sim/sim_commands.h"

using namespace atcmd_tools;

namespace {

void usage(FILE *out) {
    fprintf(out,
            "usage: ATCMD_ROOT=DIR atcmd_daemon_sim [--set NAME=VALUE]... [--help]\n"
            "Plays the Wi-Fi daemon: on vendor.hid_cmd=start_server|start_client it makes\n"
            "DIR/dev/fifo_tx, fifo_rx and fifo_cmd and prints \"status: running\", then\n"
            "\"status: heartbeat:<n>\" each second; relay those to the module (console command\n"
            "\"daemon <status>\"). \"exit\" on fifo_cmd stops it and sets vendor.hid_sts=exit.\n"
            "Wi-Fi lines are answered by a built-in accessory (identity names: %s).\n\n"
            "commands:\n%s"
            "  acc COMMAND         a command of atcmd_accessory_sim, on the Wi-Fi link\n"
            "  quit\n",
            acc_identity_names().c_str(), daemon_command_help().c_str());
}

void print_status(void *, const std::string &status) { cli_print("status: " + status); }

}  // namespace

int main(int argc, char **argv) {
    static const struct option kOptions[] = {
        {"set", required_argument, nullptr, 's'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    AccIdentity identity;
    for (int c; (c = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1;) {
        switch (c) {
        case 's': if (!cli_set_identity(&identity, optarg)) return 2; break;
        case 'h': usage(stdout); return 0;
        default: usage(stderr); return 2;
        }
    }
    if (!cli_require_sandbox("atcmd_daemon_sim")) return 2;
    AccSim *acc = acc_sim_create(identity, cli_acc_event, nullptr);
    DaemonSim *daemon = acc != nullptr ? daemon_sim_create(acc, print_status, cli_daemon_event, nullptr) : nullptr;
    if (daemon == nullptr) return 1;
    cli_print("daemon: waiting for vendor.hid_cmd");
    const int status = cli_serve([acc, daemon](const std::vector<std::string> &w) {
        if (w[0] != "acc") return daemon_command(daemon, w);
        return acc_command(acc, std::vector<std::string>(w.begin() + 1, w.end()));
    });
    daemon_sim_destroy(daemon);
    acc_sim_destroy(acc);
    return status;
}
