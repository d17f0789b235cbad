/*
 * The accessory simulator: plays the accessory on the master side of a pseudo-terminal that it
 * plugs into the sandbox as dev/ttyACMn, or, on a kernel with USB gadget support, on the
 * gadget side (/dev/ttyGSn) of a configfs gadget that it plugs by binding it to a UDC (and, when
 * a daemon simulator hands it the Wi-Fi FIFOs, on the Wi-Fi link too). It answers the module's queries from a configurable identity, asks the
 * phone its own questions, sends reports and injects faults. One thread of its own runs the
 * links and the timed events; every function here may be called from any other thread.
 */
#ifndef ATCMD_TOOLS_SIM_ACCESSORY_SIM_H
#define ATCMD_TOOLS_SIM_ACCESSORY_SIM_H

#include <stdint.h>

#include <array>
#include <string>
#include <vector>

namespace atcmd_tools {

// What the accessory answers; every value is the payload after "=".
struct AccIdentity {
    std::string type = "KV4410C";
    std::string sn = "SN20260001";
    std::string sid = "SID7A1D5101";
    std::array<std::string, 7> ver = {"MCU:1.2.0", "BOOT:0.9", "HW:B2", "WIFI:3.1.7",
                                      "DSP:2.0",   "CFG:17",   "UI:5.4"};
    std::string bat = "87,1,4120,250,1,0";  // the six battery numbers
    std::string state = "ACTIVE";
    std::string usbstate;                   // connected, status; empty: "1,0" while plugged, else "0,0"
    std::string screen = "1";
    std::string micmode = "0";
    std::string mac = "a4:c1:38:5e:02:9b";  // answered to BLEMAC and BTMAC queries
    std::string castmode = "0";
};

// Sets one identity field by name ("type", "sn", "ver3", "bat", ...); false for an unknown name.
bool acc_identity_set(AccIdentity *id, const std::string &name, const std::string &value);
std::string acc_identity_names();

// Whether the accessory answers queries of `keyword` ("+SN", "SN"): the keywords a "silent"
// fault can name.
bool acc_keyword_answered(const std::string &keyword);

// Which link a line travels on.
enum class AccLink { Usb, Wifi };

// Something the simulator saw or did, for a transcript: `dir` is "<-" for a line from the
// phone, "->" for a line to the phone, "!!" for a fault or an event.
using AccObserver = void (*)(void *ctx, AccLink link, const char *dir, const std::string &text);

struct AccSim;

AccSim *acc_sim_create(const AccIdentity &identity, AccObserver observer, void *ctx);
// Unplugs, stops the thread and frees the simulator.
void acc_sim_destroy(AccSim *sim);

// Plug: makes sys/class/tty/ttyACMn/device/uevent, then the link dev/ttyACMn to a fresh
// pseudo-terminal. Returns 0, or -1 (logged through the observer) when it cannot.
int acc_sim_plug(AccSim *sim, int acm_number);
// Plug behind an entry already there: the sysfs uevent as above, and the link `node_path` (as
// written, e.g. "/nodes/acm3"), which an entry dev/ttyACMn made by someone else may lead to: a
// node that appears behind an existing entry, with no entry made. Re-plugs (a scheduled bounce)
// use the same place until the next acc_sim_plug.
int acc_sim_plug_behind(AccSim *sim, int acm_number, const std::string &node_path);
// Unplug: removes the link and closes the pseudo-terminal, so the module's read fails.
void acc_sim_unplug(AccSim *sim);
// Moves the USB link onto a real port: a gadget with the given ids on `udc` (a UDC's name in
// /sys/class/udc), unplugged. From then on plug binds the gadget (the host side's cdc-acm makes
// the phone's ttyACMn, numbered by the kernel, with the kernel's uevent) and opens /dev/ttyGSn
// raw; unplug closes it and unbinds (the phone's terminal is hung up, its node removed). Other
// ids than the accessory's make a foreign device. False with the reason in *error.
bool acc_sim_use_gadget(AccSim *sim, const std::string &udc, uint16_t vendor, uint16_t product,
                        uint16_t release, std::string *error);
// A gadget only, cable in: the accessory closes its side of the port (its ACM function drops
// carrier, DCD, which hangs the phone's terminal up where the phone's side honours modem lines),
// or opens it again (carrier back). False when the link is not a bound gadget or already so.
bool acc_sim_set_carrier(AccSim *sim, bool on);
// The gadget-side terminal ("/dev/ttyGSn"), "" while the link is a pseudo-terminal.
std::string acc_sim_gadget_tty(AccSim *sim);
bool acc_sim_plugged(AccSim *sim);
// True once the module has sent its first line over USB (the port is raw from then on).
bool acc_sim_port_open(AccSim *sim);

// The Wi-Fi link: lines from the phone are read from `from_phone`, lines to it written to
// `to_phone`. The descriptors stay the caller's; detach before closing them.
void acc_sim_attach_wifi(AccSim *sim, int from_phone, int to_phone);
void acc_sim_detach_wifi(AccSim *sim);

// Writes `text` (CR LF added when missing) on the USB link, or on Wi-Fi when USB is not up.
// Returns false when no link can carry it yet.
bool acc_sim_send(AccSim *sim, const std::string &text);
bool acc_sim_send_on(AccSim *sim, AccLink link, const std::string &text);
// Writes `text` on the USB link as it stands, with no line end: the start of a line that a
// pulled cable cuts short.
bool acc_sim_send_part(AccSim *sim, const std::string &text);

// Questions to the phone by name: "state", "mac", "ver", "wt". False for another name.
bool acc_sim_ask(AccSim *sim, const std::string &what);
// Reports by name: "bat" (battery change), "hall" (hall change), "temp" (board temperature),
// numbered so that their order can be checked. False when no link can carry them yet.
bool acc_sim_report(AccSim *sim, const std::string &what);
bool acc_sim_report_on(AccSim *sim, AccLink link, const std::string &what);
// Sends the report `what` every `interval_ms` (0 stops it).
void acc_sim_report_every(AccSim *sim, const std::string &what, int interval_ms);

// Faults.
void acc_sim_set_delay(AccSim *sim, int answer_delay_ms);
void acc_sim_drop_next(AccSim *sim, int answers);           // the next n answers are not sent
void acc_sim_set_silent(AccSim *sim, const std::string &keyword, bool silent);  // e.g. "+SN"
void acc_sim_set_split(AccSim *sim, bool split);            // each line in three writes
void acc_sim_send_garbage(AccSim *sim, int bytes);          // binary bytes, then CR LF
void acc_sim_send_overlong(AccSim *sim, int bytes);         // one line of `bytes` characters
// Stops reading the USB port (the phone's writes fill the port and then wait) or reads again.
void acc_sim_set_reading(AccSim *sim, bool reading);
// Writes `count` numbered reports `what` (as acc_sim_report) back to back on USB, as fast as
// the port takes them. Returns how many were written whole.
int acc_sim_flood(AccSim *sim, const std::string &what, int count);
// Unplugs after `unplug_ms` and plugs the same port again `replug_ms` after that (-1: never).
void acc_sim_schedule_unplug(AccSim *sim, int unplug_ms, int replug_ms);

struct AccCounters {
    int lines_from_phone = 0;
    int lines_to_phone = 0;
    int answers = 0;
    int dropped = 0;
};
AccCounters acc_sim_counters(AccSim *sim);
// Lines received from the phone, in order, without CR LF.
std::vector<std::string> acc_sim_received(AccSim *sim);
// Waits until a received line contains `text`; counts only lines after the first `skip`.
bool acc_sim_wait_received(AccSim *sim, const std::string &text, int timeout_ms, size_t skip = 0);

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_SIM_ACCESSORY_SIM_H
