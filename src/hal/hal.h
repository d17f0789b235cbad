/*
 * The module's door, the top of the tree: the module record HMI, open and close, the upper
 * layer's command hand-over, and the start and stop of every subsystem's threads.
 */
#ifndef ATCMD_HAL_HAL_H
#define ATCMD_HAL_HAL_H

#include <atcmdprocess/atcmdprocess.h>

#include "device/device.h"

ATCMD_EXPORTS_BEGIN

extern struct hw_module_t HMI;

int atcmdprocess_open(const struct hw_module_t *module, const char *id,
                      struct hw_device_t **device);
int atcmdprocess_close(struct hw_device_t *device);
int atcmdprocess_cmd_from_hidl(const AtCmder_t *cmd);
int atcmder_hal_open(void);
int atcmder_hal_close(void);

ATCMD_EXPORTS_END

/* The log directory and file name, as written. */
#define ATCMD_LOG_DIR "/sdcard/quorvanta/.log"
#define ATCMD_LOG_FILE "atcmdprocess"

#endif /* ATCMD_HAL_HAL_H */
