/*
 * Accessory information record and queries (to be filled).
 */
#define LOG_TAG "ATCMD_MANAGE"

#include "accessory/accessory.h"

corvel_devInfo_t g_corvel_devInfo;
char type_with_wifi[32] = "KV4410C";
char type_without_wifi[32] = "KV4410A";

void get_corvel_BATINFO(void) {}
void get_remote_bt_mac(void) {}
void get_corvel_state(void) {}
int get_corvel_ver(void) { return 0; }
void get_corvel_sn(void) {}
void get_corvel_sid(void) {}
void get_corvel_type(void) {}
void get_corvel_usbstate(void) {}
void get_corvel_screensts(void) {}
void get_corvel_micmode(void) {}
void get_corvel_castmode(void) {}
int get_corvel_info(void) { return 0; }
