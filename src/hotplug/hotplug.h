/*
 * USB accessory hotplug: discovery of the accessory's ACM port, USB events to the upper layer,
 * the port's receive thread and the handshake with the accessory's SoC.
 */
#ifndef ATCMD_HOTPLUG_HOTPLUG_H
#define ATCMD_HOTPLUG_HOTPLUG_H

#include <pthread.h>

#include "hal/c_exports.h"

ATCMD_EXPORTS_BEGIN

extern pthread_t g_find_acmdev_thread;
extern pthread_t g_VuartRx_thread;

int dev_hotplug_init(void);
void notify_usbevent(void);
int atcmdprocess_amlogic_shake_hands(void);

ATCMD_EXPORTS_END

#endif /* ATCMD_HOTPLUG_HOTPLUG_H */
