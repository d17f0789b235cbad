/*
 * Setting system properties for every thread of the module, with a log line when the property
 * service refuses. Holds no state.
 */
#define LOG_TAG "AtCmdProcessHal"

#include "device/properties.h"

#include <cutils/properties.h>

#include "log/atcmd_log.h"

int atcmd_property_set(const char *func, const char *key, const char *value) {
    const int status = property_set(key, value);
    if (status != 0) {
        ATCMD_LOG_AS(func, LOG_TAG, ATCMD_LEVEL_ERROR,
                     "property_set %s=%s failed (%d): the property keeps its old value\n", key,
                     value, status);
    }
    return status;
}
