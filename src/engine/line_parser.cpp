/*
 * The line parser (to be filled).
 */
#define LOG_TAG "ATCMD_PARSE"

#include "engine/engine.h"
#include "log/atcmd_log.h"

void cmd_Parse_from_buffer(AtCmder_t * /*cmd*/, const char * /*text*/) {}
