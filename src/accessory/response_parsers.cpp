/*
 * Response parsers (to be filled).
 */
#define LOG_TAG "ATCMD_PARSE"

#include "accessory/accessory.h"

uint32_t REBOOT_parser(AtCmder_t *) { return 0; }
uint32_t UPGRADE_parser(AtCmder_t *) { return 0; }
uint32_t RECOVERY_parser(AtCmder_t *) { return 0; }
uint32_t SHUTDOWN_parser(AtCmder_t *) { return 0; }
uint32_t POWEROFF_parser(AtCmder_t *) { return 0; }
uint32_t RESET_parser(AtCmder_t *) { return 0; }
uint32_t BTMAC_parser(AtCmder_t *) { return 0; }
uint32_t BLEMAC_parser(AtCmder_t *) { return 0; }
uint32_t BAT_parser(AtCmder_t *) { return 0; }
uint32_t STATE_parser(AtCmder_t *) { return 0; }
uint32_t VER_parser(AtCmder_t *) { return 0; }
uint32_t HALL_parser(AtCmder_t *) { return 0; }
uint32_t SN_parser(AtCmder_t *) { return 0; }
uint32_t SID_parser(AtCmder_t *) { return 0; }
uint32_t TYPE_parser(AtCmder_t *) { return 0; }
uint32_t USBSTATE_parser(AtCmder_t *) { return 0; }
uint32_t SCREEN_parser(AtCmder_t *) { return 0; }
uint32_t MICMODE_parser(AtCmder_t *) { return 0; }
uint32_t WIFI_parser(AtCmder_t *) { return 0; }
uint32_t BT_parser(AtCmder_t *) { return 0; }
uint32_t TIME_parser(AtCmder_t *) { return 0; }
uint32_t OK_parser(AtCmder_t *) { return 0; }
uint32_t ERROR_parser(AtCmder_t *) { return 0; }
uint32_t SLEEP_parser(AtCmder_t *) { return 0; }
uint32_t BATCG_parser(AtCmder_t *) { return 0; }
uint32_t BKL_parser(AtCmder_t *) { return 0; }
uint32_t MODE_parser(AtCmder_t *) { return 0; }
uint32_t ACC_parser(AtCmder_t *) { return 0; }
uint32_t LIGHT_parser(AtCmder_t *) { return 0; }
uint32_t HALLCG_parser(AtCmder_t *) { return 0; }
uint32_t TEST_parser(AtCmder_t *) { return 0; }
uint32_t HRM_TEMP_parser(AtCmder_t *) { return 0; }
uint32_t DTR_parser(AtCmder_t *) { return 0; }
uint32_t PTEST_parser(AtCmder_t *) { return 0; }
uint32_t MMI1_parser(AtCmder_t *) { return 0; }
uint32_t PT_parser(AtCmder_t *) { return 0; }
uint32_t WT_parser(AtCmder_t *) { return 0; }
uint32_t INFO_parser(AtCmder_t *) { return 0; }
uint32_t SENSOR_parser(AtCmder_t *) { return 0; }
