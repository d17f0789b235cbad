/*
 * Standalone accessory simulator: plugs a simulated accessory into the sandbox named by
 * ATCMD_ROOT and plays it until interrupted, taking commands on standard input.
 */
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>

#include "sim/accessory_sim.h"
#include "sim/sim_cli.h"
#include "sim/sim_commands.h"

using namespace atcmd_tools;

namespace {

void usage(FILE *out) {
    fprintf(out,
            "usage: ATCMD_ROOT=DIR atcmd_accessory_sim [options]\n"
            "Plays the accessory on a pseudo-terminal linked as DIR/dev/ttyACMn, answers the\n"
            "module's queries, and reads commands from standard input (one per line).\n\n"
            "options:\n"
            "  --acm N             port number (default 3)\n"
            "  --no-plug           start unplugged (use the \"plug\" command)\n"
            "  --set NAME=VALUE    identity: %s\n"
            "  --every WHAT:MS     send report WHAT (bat, hall, temp) every MS\n"
            "  --delay MS          answer MS late\n"
            "  --silent +KEY       never answer +KEY queries\n"
            "  --split             write each line in three pieces\n"
            "  --help              this text\n\n"
            "commands:\n%s"
            "  quit\n\n"
            "example:\n"
            "  ATCMD_ROOT=/tmp/sb atcmd_accessory_sim --set type=KV4410A --every bat:1000\n",
            acc_identity_names().c_str(), acc_command_help().c_str());
}

}  // namespace

int main(int argc, char **argv) {
    static const struct option kOptions[] = {
        {"acm", required_argument, nullptr, 'a'},   {"no-plug", no_argument, nullptr, 'n'},
        {"set", required_argument, nullptr, 's'},   {"every", required_argument, nullptr, 'e'},
        {"delay", required_argument, nullptr, 'd'}, {"silent", required_argument, nullptr, 'q'},
        {"split", no_argument, nullptr, 'p'},       {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    AccIdentity identity;
    std::vector<std::vector<std::string>> setup;
    int acm = 3;
    bool plug = true;
    for (int c; (c = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1;) {
        const std::string arg = optarg != nullptr ? optarg : "";
        switch (c) {
        case 'a': acm = atoi(optarg); break;
        case 'n': plug = false; break;
        case 's': if (!cli_set_identity(&identity, arg)) return 2; break;
        case 'e': setup.push_back({"every", arg.substr(0, arg.find(':')), arg.substr(arg.find(':') + 1)}); break;
        case 'd': setup.push_back({"delay", arg}); break;
        case 'q': setup.push_back({"silent", arg}); break;
        case 'p': setup.push_back({"split"}); break;
        case 'h': usage(stdout); return 0;
        default: usage(stderr); return 2;
        }
    }
    if (!cli_require_sandbox("atcmd_accessory_sim")) return 2;
    AccSim *sim = acc_sim_create(identity, cli_acc_event, nullptr);
    if (sim == nullptr) return 1;
    for (const auto &words : setup) {
        const CommandResult r = acc_command(sim, words);
        if (!r.ok) cli_print("error: " + r.text);
    }
    if (plug && acc_sim_plug(sim, acm) != 0) return 1;
    const int status = cli_serve([sim](const std::vector<std::string> &w) { return acc_command(sim, w); });
    acc_sim_destroy(sim);
    return status;
}
