/*
 * The module's door: the module record HMI, the device object g_patcmd_dev and its operations,
 * and the start and stop of the engine.
 */
#ifndef ATCMD_HAL_HAL_H
#define ATCMD_HAL_HAL_H

#include <atcmdprocess/atcmdprocess.h>

#include "hal/c_exports.h"

ATCMD_EXPORTS_BEGIN

extern struct hw_module_t HMI;
extern struct atcmdprocess_device *g_patcmd_dev;

int atcmdprocess_open(const struct hw_module_t *module, const char *id,
                      struct hw_device_t **device);
int atcmdprocess_close(struct hw_device_t *device);
int set_notify_callback(struct atcmdprocess_device *dev, atcmdprocess_notify_cb cb);
int atcmdprocess_cmd_from_hidl(const AtCmder_t *cmd);
int atcmder_hal_open(void);
int atcmder_hal_close(void);

ATCMD_EXPORTS_END

/* The log directory and file name, as written. */
#define ATCMD_LOG_DIR "/sdcard/quorvanta/.log"
#define ATCMD_LOG_FILE "atcmdprocess"

/* Hands `msg` to the upper layer's callback when one is installed. */
void atcmd_notify(const AT_CMD_CbMsg_t *msg);

#endif /* ATCMD_HAL_HAL_H */
