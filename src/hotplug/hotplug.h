/*
 * USB accessory hotplug: discovery of the accessory's ACM port, USB events to the upper layer,
 * the port's receive thread and the handshake with the accessory's SoC.
 */
#ifndef ATCMD_HOTPLUG_HOTPLUG_H
#define ATCMD_HOTPLUG_HOTPLUG_H

#include <pthread.h>
#include <stdint.h>

#include "device/c_exports.h"

ATCMD_EXPORTS_BEGIN

/* ACM discovery (hotplug thread, scan at start and from the VUART receive thread). */
extern char g_dev_ACM_name[64];  /* last "/dev" entry name holding "ttyACM", at most 63 chars */
extern int fd_inotify_input;     /* inotify instance watching "/dev" */
extern int epfd_hid_devs;        /* epoll instance the hotplug thread waits on */
extern pthread_t g_find_acmdev_thread;

int dev_hotplug_init(void);
int scan_acm_devices(void);
int32_t parse_dev_name(const char *name);
int inotify_input_event(void);
int dev_event_process(void);
void *handler_acm_devs_epoll(void *arg);
int corvel_plugged(void);
void notify_usbevent(void);

/* The accessory's port once open: its receive thread and the handshake operation. */
extern pthread_t g_VuartRx_thread;
void *atcmder_VuartRx_thread(void *arg);
int atcmdprocess_amlogic_shake_hands(void);

ATCMD_EXPORTS_END

/* ---- The accessory's port as it is under "/dev" (module-internal) ---------------------------- */

/* acm_port_number's answers for a name that is no port. */
constexpr int32_t kNoAcmPort = -1;
constexpr int32_t kAcmPortOutOfRange = -2;

/* The number n of a "/dev" entry name holding "ttyACM" + n, without logging or recording it;
 * kNoAcmPort or kAcmPortOutOfRange when the name names no port. */
int32_t acm_port_number(const char *name);

/* 1 when the uevent file of the tty `name` carries the accessory's product (logged as the plug
 * check); corvel_plugged asks it for the last name seen. */
int corvel_port_matches(const char *name);

/* True while `fd`, opened on "/dev/ttyACM" + `number`, is still that port: not hung up, and the
 * entry still leads to the same node. A port that went away and came back is another port. */
bool acm_port_alive(int32_t number, int fd);

/* True when port `number` is present and its uevent names the accessory. An entry once found
 * foreign or unopenable is not looked at again until an entry is made under its name (whatever
 * inode it gets) or a few seconds have passed. Supervisor thread only. */
bool acm_is_accessory_port(int32_t number);

/* The accessory's port present now, or -1: `preferred` (the last one announced) when it is there
 * and is the accessory's, else the first other entry that is. */
int32_t acm_find_accessory_port(int32_t preferred);

/* Remembers that the entry of port `number`, as acm_is_accessory_port last found it, could not
 * be opened. */
void acm_port_unusable(int32_t number);

/* Milliseconds until the first pending refusal of an unopenable entry ends, -1 when none is
 * pending (a refusal that has ended no longer counts). The supervisor waits no longer than this
 * for a signal, then looks again. Supervisor thread only. */
int acm_refusal_ends_in_ms(void);

/* An entry was made under the name of port `number`: what was refused under that name no longer
 * holds. Called by the hotplug thread for every entry it sees created. */
void acm_entry_made(int32_t number);

/* ---- The USB link words (module-internal) ----------------------------------------------------- */

/* Held for its scope by whoever stores usb_connected and usb_status and tells the upper layer:
 * the supervisor's plug, switch and unplug, and the answers that report the USB state. A state
 * read from a port is therefore told either wholly before the unplug of that port or not at all.
 * Before the queue locks and the port lock in the lock order; the Wi-Fi link lock is never taken
 * inside it. The notify callback runs under it. */
struct UsbStateLock {
    UsbStateLock();
    ~UsbStateLock();
    UsbStateLock(const UsbStateLock &) = delete;
    UsbStateLock &operator=(const UsbStateLock &) = delete;
};

/* Under UsbStateLock: true when a line of `origin` (atcmder_taken_origin) may set the USB words:
 * it was not read from the accessory's USB port (0), or it was read from the port held now. */
bool usb_state_from_held_port(uint32_t origin);

#endif /* ATCMD_HOTPLUG_HOTPLUG_H */
