/*
 * The service's logic, everything but binder: the module it hosts, the one registered client,
 * and a copy of every notify message for that client. Binder threads call the operations; the
 * module's threads call the relay. The binder glue (atcmd_binder.cpp) and the host tests sit on
 * the same functions, so the tests reach what a binder call reaches.
 */
#ifndef ATCMD_SERVICE_SERVICE_CORE_H
#define ATCMD_SERVICE_SERVICE_CORE_H

#include <stdint.h>

#include <string>
#include <vector>

#include <atcmdprocess/atcmdprocess.h>

namespace atcmd_service {

// A notify message with what its data pointed to copied (the module's lives only in the call).
struct CopiedMessage {
    uint16_t msg_id = 0;
    uint16_t seq_num = 0;
    bool has_data = false;
    std::vector<uint8_t> data;
};

// A client as the core sees it: its identity (the glue uses the callback's binder), where its
// messages go, and how the glue's state for it is let go. `deliver` runs on the module's
// threads, possibly several at once, and must not block; `release` runs once, after the last
// delivery, on the thread that dropped the client.
struct Client {
    uintptr_t id = 0;
    void (*deliver)(void *ctx, const CopiedMessage &m) = nullptr;
    void (*release)(void *ctx) = nullptr;
    void *ctx = nullptr;
};

enum class RegisterResult { kRegistered, kAlreadyRegistered, kBusy };

// An AT line from a client, as the interface carries it (wider numbers than the record's).
struct CommandIn {
    int32_t type, source, dest, flag, resend_times, cmd_id, seq_num;
    std::string line;
};

// What an operation did: refused (bad input, nothing reached the module) or the module's result.
struct Outcome {
    bool accepted;
    int result;
};

// The device object's link state.
struct Status {
    int32_t platform, mode, wifi_status, phone_state, usb_status, usb_connected;
};

// Takes the opened device and the module's library handle, finds the Bluetooth address
// hand-over and installs the relay as the device's notify callback. False (logged) when the
// device is null.
bool core_start(atcmdprocess_device_t *dev, void *dso);

// `c` becomes the client; kBusy (and `c` is released) while another client is registered;
// the same id again replaces its own entry.
RegisterResult core_register(const Client &c);
// Drops the client with this id, if it is the registered one (it died, or asked to go).
void core_unregister(uintptr_t id);
// Whether a client is registered now.
bool core_has_client();

Outcome core_send_command(const CommandIn &cmd);
Outcome core_wifi_init(const std::string &ip);
Outcome core_wifi_state_change(int32_t state);
Outcome core_daemon_status(const std::string &status);
Outcome core_shake_hands();
Outcome core_set_bt_address(const std::string &mac);
Status core_status();
// Closes the device: the module ends the whole process. Returns only if there is no device.
void core_close();

}  // namespace atcmd_service

#endif  // ATCMD_SERVICE_SERVICE_CORE_H
