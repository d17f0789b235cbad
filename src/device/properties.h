/*
 * The one way the module sets a system property. On a phone a set can be refused (a key with no
 * SELinux label the hosting process may set, a full property area), and nothing else in the
 * module would notice, so every refusal is logged with the key and the value.
 */
#ifndef ATCMD_DEVICE_PROPERTIES_H
#define ATCMD_DEVICE_PROPERTIES_H

/* property_set(key, value); on failure an error line under `func` (the caller's named function)
 * with the key, the value and what property_set returned. Returns what property_set returned. */
int atcmd_property_set(const char *func, const char *key, const char *value);

#endif /* ATCMD_DEVICE_PROPERTIES_H */
