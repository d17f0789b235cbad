/*
 * Accessory responses and device information: the field extractors, the accessory information
 * record and the queries that fill it, the senders of this phone's own lines, and the parser of
 * every answer keyword.
 */
#ifndef ATCMD_ACCESSORY_ACCESSORY_H
#define ATCMD_ACCESSORY_ACCESSORY_H

#include <stddef.h>
#include <stdint.h>

#include <atcmdprocess/atcmdprocess.h>

#include "device/c_exports.h"
#include "engine/keyword_rows.h"

/* Status codes of the extractors. */
enum atcmd_extract_status : uint32_t {
    ATCMD_EXTRACT_OK = 0,
    ATCMD_EXTRACT_NO_VALUE = 3,     /* a number is missing */
    ATCMD_EXTRACT_NO_DELIMITER = 4, /* a delimiter is missing */
};

ATCMD_EXPORTS_BEGIN

/* ---- Field extractors --------------------------------------------------------------------- */

uint32_t getvalue_fromCmdString(const char *line, int32_t *value);
/* Writes at most AT_LINE_BUF_SIZE bytes (the largest caller buffer) into `out`. */
uint32_t getstr_fromCmdString(const char *line, char *out);
uint32_t getstate_fromCmdString(const char *line, int32_t *state);
uint32_t getBatinfo_fromCmdString(const char *line, int32_t *values /* [6] */);
uint32_t getTmpinfo_fromCmdString(const char *line, int32_t *values /* [2] */);
uint32_t getUsbDevinfo_fromCmdString(const char *line, usbdev_sts_t *sts);
uint32_t getHALLinfo_fromCmdString(const char *line, int32_t *values /* [3] */);
uint32_t getACCinfo_fromCmdString(const char *line, int32_t *values /* [3] */);
/* `block_addr` is the address of a CORVEL_VER_BLOCK_SIZE-byte version block. */
uint32_t getVerInfo_fromCmdString(const char *line, uintptr_t block_addr);

/* ---- Accessory information record and queries -------------------------------------------- */

extern corvel_devInfo_t g_corvel_devInfo;
extern char type_with_wifi[32];    /* "KV4410C" */
extern char type_without_wifi[32]; /* "KV4410A" */

void get_corvel_BATINFO(void);
void get_remote_bt_mac(void);
void get_corvel_state(void);
int get_corvel_ver(void);
void get_corvel_sn(void);
void get_corvel_sid(void);
void get_corvel_type(void);
void get_corvel_usbstate(void);
void get_corvel_screensts(void);
void get_corvel_micmode(void);
void get_corvel_castmode(void);
int get_corvel_info(void);

/* ---- Outbound state and identity lines --------------------------------------------------- */

extern char bt_mac_prop[64]; /* name of the Bluetooth MAC property, "net.bluetooth.macaddr" */

void send_stateToMCU(void);
void send_stateToMPHONE(int32_t state);
void send_bt_mac(void);
/* Declared in atcmdprocess.h for the host process; exported here. The one name the module
 * exports beyond the system's own: the hand-over of the Bluetooth address needs a door that the
 * device object, whose layout is fixed, does not have. */
int atcmdprocess_set_bt_macaddr(const char *mac);
void send_amlogic_ver(void);
void send_ptest_data(uint32_t n);

/* ---- Response parsers -------------------------------------------------------------------- */

/* One for every keyword row that has a parser, with the rows' names. */
#define ATCMD_DECLARE_PARSER(name, parser) uint32_t parser(AtCmder_t *cmd);
#define ATCMD_DECLARE_NO_PARSER(name)
ATCMD_KEYWORD_ROWS(ATCMD_DECLARE_PARSER, ATCMD_DECLARE_NO_PARSER)
#undef ATCMD_DECLARE_PARSER
#undef ATCMD_DECLARE_NO_PARSER
/* Of the same form, in no row. */
uint32_t INFO_parser(AtCmder_t *cmd);
uint32_t SENSOR_parser(AtCmder_t *cmd);

ATCMD_EXPORTS_END

/* Bounded form of getstr_fromCmdString for destinations smaller than a line buffer. */
uint32_t atcmd_getstr_bounded(const char *line, char *out, size_t out_size);

/* The production loop-back pattern that goes with sequence number `n` (odd "987654321", even
 * "123456789"): send_ptest_data sends it and PTEST_parser expects it back. */
inline const char *atcmd_ptest_pattern(uint32_t n) {
    return (n & 1u) != 0 ? "987654321" : "123456789";
}

#endif /* ATCMD_ACCESSORY_ACCESSORY_H */
