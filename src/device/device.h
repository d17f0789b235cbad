/*
 * The device object that every subsystem reads (g_patcmd_dev, made by open) and the one way up
 * to the upper layer: its notify callback. The bottom of the tree: it includes no subsystem.
 */
#ifndef ATCMD_DEVICE_DEVICE_H
#define ATCMD_DEVICE_DEVICE_H

#include <atcmdprocess/atcmdprocess.h>

#include "device/c_exports.h"

ATCMD_EXPORTS_BEGIN

extern struct atcmdprocess_device *g_patcmd_dev;

int set_notify_callback(struct atcmdprocess_device *dev, atcmdprocess_notify_cb cb);

ATCMD_EXPORTS_END

/* Hands `msg` to the upper layer's callback when one is installed. */
void atcmd_notify(const AT_CMD_CbMsg_t *msg);

#endif /* ATCMD_DEVICE_DEVICE_H */
