/*
 * The loop-back load generator for the wired link: one test line every 100 ms, without end.
 * Nothing in the module starts it; a developer build or a test harness creates
 * atcmder_TestTx_thread into g_TestTx_thread after open. Runs on "Test_thread"; writes only
 * the transmit queue (through send_ptest_data).
 */
#define LOG_TAG "ATCMD_MANAGE"

#include <sys/prctl.h>
#include <unistd.h>

#include "accessory/accessory.h"
#include "log/atcmd_log.h"
#include "supervision/supervision.h"

pthread_t g_TestTx_thread = 0;
pthread_t g_VuartTxTst_thread = 0;  // exported for harnesses; nothing starts it

namespace {

constexpr useconds_t kTestLinePeriodUs = 100000;
constexpr uint32_t kIndexMask = 0xffff;  // the line's index is the low 16 bits of the count

}  // namespace

void *atcmder_TestTx_thread(void * /*arg*/) {
    prctl(PR_SET_NAME, "Test_thread");
    ATCMD_LOG(ATCMD_LEVEL_STATE, "atcmder_TestTx_thread is running!");
    uint32_t sent = 0;
    int32_t round = 0;
    for (;;) {
        send_ptest_data(sent & kIndexMask);
        ++sent;
        if ((sent & kIndexMask) == 0) {
            // The round is counted inside the log call, once per sink written: the console,
            // logcat and the file each show their own number, as they always have.
            ATCMD_LOG(ATCMD_LEVEL_STATE, "atcmder_TestTx_thread index clear to 0, round is %d!",
                      ++round);
        }
        usleep(kTestLinePeriodUs);
    }
    return nullptr;
}
