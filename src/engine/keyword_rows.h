/*
 * The keyword rows, written once, in message-id order. A row names its keyword N (the text "+N",
 * the upper layer's message id AT_MSG_N) and its answer parser, or says that the keyword has
 * none and is only recognised. The keyword table AT_CMDS, the parsers' declarations and the
 * tests' list of exported names are all made from these rows; keyword_table.cpp checks them
 * against the message ids as it builds.
 *
 * Adding a keyword: its message id in atcmdprocess.h, its row here, its parser in
 * response_parsers.cpp, its row in the tools' message table (tools/sim/messages.cpp).
 */
#ifndef ATCMD_ENGINE_KEYWORD_ROWS_H
#define ATCMD_ENGINE_KEYWORD_ROWS_H

/* ROW(name, parser) for a row with a parser, NO_PARSER(name) for one without. */
#define ATCMD_KEYWORD_ROWS(ROW, NO_PARSER) \
    ROW(REBOOT, REBOOT_parser)             \
    ROW(UPGRADE, UPGRADE_parser)           \
    ROW(RECOVERY, RECOVERY_parser)         \
    ROW(SHUTDOWN, SHUTDOWN_parser)         \
    ROW(POWEROFF, POWEROFF_parser)         \
    ROW(RESET, RESET_parser)               \
    NO_PARSER(STARTUP)                     \
    ROW(BTMAC, BTMAC_parser)               \
    ROW(BLEMAC, BLEMAC_parser)             \
    ROW(BAT, BAT_parser)                   \
    ROW(STATE, STATE_parser)               \
    ROW(VER, VER_parser)                   \
    ROW(HALL, HALL_parser)                 \
    ROW(SN, SN_parser)                     \
    ROW(SID, SID_parser)                   \
    ROW(TYPE, TYPE_parser)                 \
    ROW(USBSTATE, USBSTATE_parser)         \
    ROW(SCREEN, SCREEN_parser)             \
    NO_PARSER(WIFICON)                     \
    ROW(MICMODE, MICMODE_parser)           \
    ROW(WIFI, WIFI_parser)                 \
    ROW(BT, BT_parser)                     \
    ROW(TIME, TIME_parser)                 \
    ROW(OK, OK_parser)                     \
    ROW(ERROR, ERROR_parser)               \
    ROW(SLEEP, SLEEP_parser)               \
    ROW(BATCG, BATCG_parser)               \
    ROW(BKL, BKL_parser)                   \
    ROW(MODE, MODE_parser)                 \
    ROW(ACC, ACC_parser)                   \
    ROW(LIGHT, LIGHT_parser)               \
    ROW(HALLCG, HALLCG_parser)             \
    ROW(TEST, TEST_parser)                 \
    ROW(HRM, HRM_TEMP_parser)              \
    ROW(DTR, DTR_parser)                   \
    ROW(PTEST, PTEST_parser)               \
    ROW(MMI1, MMI1_parser)                 \
    ROW(PT, PT_parser)                     \
    ROW(WT, WT_parser)

#endif /* ATCMD_ENGINE_KEYWORD_ROWS_H */
