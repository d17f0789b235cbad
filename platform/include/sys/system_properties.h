/*
 * Host stand-in for the platform's low-level property read. Backed by the same file store as
 * cutils/properties.h.
 */
#ifndef ATCMD_HOST_SYS_SYSTEM_PROPERTIES_H
#define ATCMD_HOST_SYS_SYSTEM_PROPERTIES_H

#ifdef __cplusplus
extern "C" {
#endif

#define PROP_VALUE_MAX 92

/* Copies the value (at most PROP_VALUE_MAX - 1 bytes and a terminator) into `value`, which must
 * hold PROP_VALUE_MAX bytes; returns its length, 0 when unset. */
__attribute__((visibility("default"))) int __system_property_get(const char *name, char *value);

#ifdef __cplusplus
}
#endif

#endif /* ATCMD_HOST_SYS_SYSTEM_PROPERTIES_H */
