/*
 * Standalone accessory simulator: claims the accessory role of the sandbox named by ATCMD_ROOT,
 * plugs a simulated accessory into it and plays it, taking commands on standard input, until
 * "quit", Ctrl-D at a terminal, or SIGINT, SIGTERM or SIGHUP; it unplugs on the way out.
 */
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>

#include "sim/accessory_sim.h"
#include "sim/sim_cli.h"
#include "sim/sim_commands.h"
#include "sim/sim_util.h"

using namespace atcmd_tools;

namespace {

constexpr const char kTool[] = "atcmd_accessory_sim";

void usage(FILE *out) {
    fprintf(out,
            "usage: ATCMD_ROOT=DIR atcmd_accessory_sim [options]\n"
            "Plays the accessory on a pseudo-terminal linked as DIR/dev/ttyACMn, answers the\n"
            "module's queries, and reads commands from standard input (one per line) until\n"
            "\"quit\" or Ctrl-D; from a script or /dev/null it runs on after the last command until\n"
            "SIGINT, SIGTERM or SIGHUP. One accessory simulator per sandbox: a second is refused\n"
            "with the first one's pid. Errors go to standard error.\n\n"
            "options:\n"
            "  --acm N             port number, 0 to 9999 (default 3)\n"
            "  --no-plug           start unplugged (use the \"plug\" command)\n"
            "  --set NAME=VALUE    identity: %s\n"
            "  --every WHAT:MS     send report WHAT (bat, hall, temp) every MS\n"
            "  --delay MS          answer MS late\n"
            "  --silent +KEY       never answer +KEY queries\n"
            "  --split             write each line in three pieces\n"
            "  --json              one JSON object a line on standard output\n"
            "  --version           the version\n"
            "  --help              this text\n\n"
            "commands:\n%s"
            "  quit\n\n"
            "example:\n"
            "  ATCMD_ROOT=/tmp/sb atcmd_accessory_sim --set type=KV4410A --every bat:1000\n",
            acc_identity_names().c_str(), acc_command_help().c_str());
}

// "WHAT:MS" as the words of an "every" command.
std::vector<std::string> every_words(const std::string &arg) {
    const size_t colon = arg.find(':');
    if (colon == std::string::npos) return {"every", arg};  // refused by the command's check
    return {"every", arg.substr(0, colon), arg.substr(colon + 1)};
}

}  // namespace

int main(int argc, char **argv) {
    cli_prepare_signals();
    static const struct option kOptions[] = {
        {"acm", required_argument, nullptr, 'a'},   {"no-plug", no_argument, nullptr, 'n'},
        {"set", required_argument, nullptr, 's'},   {"every", required_argument, nullptr, 'e'},
        {"delay", required_argument, nullptr, 'd'}, {"silent", required_argument, nullptr, 'q'},
        {"split", no_argument, nullptr, 'p'},       {"json", no_argument, nullptr, 'j'},
        {"version", no_argument, nullptr, 'v'},     {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    AccIdentity identity;
    std::vector<std::vector<std::string>> setup;
    int acm = 3;
    bool plug = true;
    for (int c; (c = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1;) {
        const std::string arg = optarg != nullptr ? optarg : "";
        switch (c) {
        case 'a':
            if (!parse_acm_number(arg, &acm)) {
                cli_error(std::string(kTool) + ": bad --acm \"" + arg + "\": ports are ttyACM0 to ttyACM9999");
                return 2;
            }
            break;
        case 'n': plug = false; break;
        case 's': if (!cli_set_identity(&identity, arg)) return 2; break;
        case 'e': setup.push_back(every_words(arg)); break;
        case 'd': setup.push_back({"delay", arg}); break;
        case 'q': setup.push_back({"silent", arg}); break;
        case 'p': setup.push_back({"split"}); break;
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
    if (!cli_claim_sandbox(kTool, kAccessoryRole)) return 2;
    AccSim *sim = acc_sim_create(identity, cli_acc_event, nullptr);
    if (sim == nullptr) return 1;
    for (const auto &words : setup) {
        const CommandResult r = acc_command(sim, words);
        if (!r.ok) {
            cli_error(std::string(kTool) + ": bad --" + words[0] + ": " + r.text);
            acc_sim_destroy(sim);
            return 2;
        }
    }
    if (plug && acc_sim_plug(sim, acm) != 0) {
        acc_sim_destroy(sim);
        return 1;
    }
    const int status = cli_serve([sim](const std::vector<std::string> &w) { return acc_command(sim, w); });
    acc_sim_destroy(sim);
    return status;
}
