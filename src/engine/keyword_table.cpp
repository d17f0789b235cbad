/*
 * The keyword table AT_CMDS and its two lookups. A row's index is the record's cmd_id and the
 * msg_id of every notification about that keyword, so the order is part of the protocol.
 * Constant; read by the receive threads and the dispatcher without a lock.
 */
#define LOG_TAG "ATCMD_PARSE"

#include <string.h>

#include "accessory/accessory.h"
#include "engine/engine.h"
#include "log/atcmd_log.h"

const AT_CMD_Table_t AT_CMDS[AT_MSG_COUNT] = {
    {"+REBOOT", REBOOT_parser},     {"+UPGRADE", UPGRADE_parser},
    {"+RECOVERY", RECOVERY_parser}, {"+SHUTDOWN", SHUTDOWN_parser},
    {"+POWEROFF", POWEROFF_parser}, {"+RESET", RESET_parser},
    {"+STARTUP", nullptr},          {"+BTMAC", BTMAC_parser},
    {"+BLEMAC", BLEMAC_parser},     {"+BAT", BAT_parser},
    {"+STATE", STATE_parser},       {"+VER", VER_parser},
    {"+HALL", HALL_parser},         {"+SN", SN_parser},
    {"+SID", SID_parser},           {"+TYPE", TYPE_parser},
    {"+USBSTATE", USBSTATE_parser}, {"+SCREEN", SCREEN_parser},
    {"+WIFICON", nullptr},          {"+MICMODE", MICMODE_parser},
    {"+WIFI", WIFI_parser},         {"+BT", BT_parser},
    {"+TIME", TIME_parser},         {"+OK", OK_parser},
    {"+ERROR", ERROR_parser},       {"+SLEEP", SLEEP_parser},
    {"+BATCG", BATCG_parser},       {"+BKL", BKL_parser},
    {"+MODE", MODE_parser},         {"+ACC", ACC_parser},
    {"+LIGHT", LIGHT_parser},       {"+HALLCG", HALLCG_parser},
    {"+TEST", TEST_parser},         {"+HRM", HRM_TEMP_parser},
    {"+DTR", DTR_parser},           {"+PTEST", PTEST_parser},
    {"+MMI1", MMI1_parser},         {"+PT", PT_parser},
    {"+WT", WT_parser},
};

namespace {
constexpr size_t kAtCommandMinLen = 4;  // "AT" and at least "+" and one letter
}

int findAtCmdIdx(const char *line, uint8_t *idx) {
    if (line == nullptr || strlen(line) < kAtCommandMinLen || line[0] != 'A' || line[1] != 'T') {
        ATCMD_LOG(0, "Invalidate AT command!");
        return 0;
    }
    for (uint8_t row = 0; row < AT_MSG_COUNT; ++row) {
        if (strcmp(line + 2, AT_CMDS[row].keyword) == 0) {
            *idx = row;
            return 1;
        }
    }
    return 0;
}

int findResCmdIdx(const char *line, uint8_t *idx) {
    if (line == nullptr) return 0;
    const size_t len = strlen(line);
    // Prefix rule: the first keyword that begins with the line wins ("+BT" finds "+BTMAC").
    for (uint8_t row = 0; row < AT_MSG_COUNT; ++row) {
        if (strncmp(line, AT_CMDS[row].keyword, len) == 0) {
            *idx = row;
            return 1;
        }
    }
    return 0;
}
