/*
 * The step after parsing and the dispatch thread (to be filled).
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <sys/prctl.h>
#include <unistd.h>

#include "engine/engine.h"
#include "log/atcmd_log.h"

pthread_t g_dispatch_thread = 0;

int atcmder_post_parse_process(AtCmder_t * /*cmd*/) { return 0; }

void *atcmder_dispatch_thread(void * /*arg*/) {
    prctl(PR_SET_NAME, "dispatch_thread");
    ATCMD_LOG(3, "atcmder_dispatch_thread thread is running");
    for (;;) pause();
    return nullptr;
}

uint32_t atcmder_dispatch(AtCmder_t * /*cmd*/) { return 0; }
