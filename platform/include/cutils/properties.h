/*
 * Host stand-in for the platform's property interface: a directory of files, one per key,
 * under $ATCMD_ROOT/property/ (or /tmp/atcmdprocess/property/ without a root). Other
 * processes read and write the same files.
 */
#ifndef ATCMD_HOST_CUTILS_PROPERTIES_H
#define ATCMD_HOST_CUTILS_PROPERTIES_H

#include <sys/system_properties.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

/* Copies the value (at most PROPERTY_VALUE_MAX - 1 bytes and a terminator), or the default when
 * the property is unset or empty; returns the length copied. */
__attribute__((visibility("default"))) int property_get(const char *key, char *value,
                                                        const char *default_value);

/* Stores the value atomically (temporary file renamed over the key); 0 on success, -1 on error. */
__attribute__((visibility("default"))) int property_set(const char *key, const char *value);

#ifdef __cplusplus
}
#endif

#endif /* ATCMD_HOST_CUTILS_PROPERTIES_H */
