/*
 * Field extractors (to be filled).
 */
#define LOG_TAG "ATCMD_PARSE"

#include "accessory/accessory.h"

uint32_t getvalue_fromCmdString(const char *, int32_t *) { return 0; }
uint32_t getstr_fromCmdString(const char *, char *) { return 0; }
uint32_t getstate_fromCmdString(const char *, int32_t *) { return 0; }
uint32_t getBatinfo_fromCmdString(const char *, int32_t *) { return 0; }
uint32_t getTmpinfo_fromCmdString(const char *, int32_t *) { return 0; }
uint32_t getUsbDevinfo_fromCmdString(const char *, usbdev_sts_t *) { return 0; }
uint32_t getHALLinfo_fromCmdString(const char *, int32_t *) { return 0; }
uint32_t getACCinfo_fromCmdString(const char *, int32_t *) { return 0; }
uint32_t getVerInfo_fromCmdString(const char *, uintptr_t) { return 0; }
uint32_t atcmd_getstr_bounded(const char *, char *, size_t) { return 4; }
