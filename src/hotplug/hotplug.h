/*
 * USB accessory hotplug: discovery of the accessory's ACM port, USB events to the upper layer,
 * the port's receive thread and the handshake with the accessory's SoC.
 */
#ifndef ATCMD_HOTPLUG_HOTPLUG_H
#define ATCMD_HOTPLUG_HOTPLUG_H

#include <pthread.h>
#include <stdint.h>

#include "hal/c_exports.h"

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

#endif /* ATCMD_HOTPLUG_HOTPLUG_H */
