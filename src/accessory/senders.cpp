/*
 * Outbound state and identity lines (to be filled).
 */
#define LOG_TAG "ATCMD_MANAGE"

#include "accessory/accessory.h"

char bt_mac_prop[64] = "net.bluetooth.macaddr";

void send_stateToMCU(void) {}
void send_stateToMPHONE(int32_t) {}
void send_bt_mac(void) {}
void send_amlogic_ver(void) {}
void send_ptest_data(uint32_t) {}
