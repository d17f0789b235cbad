/*
 * vendor.atcmd-service: loads the "atcmdprocess" module as the platform's loader does, opens it,
 * relays its messages to the registered client and serves IAtCmd until a client closes the
 * device, which ends this process (init starts it again). Main thread, then binder threads.
 */
#include <stdlib.h>

#include <android/binder_process.h>
#include <android/log.h>
#include <hardware/hardware.h>

#include <atcmdprocess/atcmdprocess.h>

#include "service/atcmd_binder.h"
#include "service/service_core.h"
#include "service/service_names.h"

#define SERVICE_LOG(prio, ...) __android_log_print(prio, atcmd_service::kLogTag, __VA_ARGS__)

namespace {

// Binder threads beside the main one: an operation may block for seconds (stopping the Wi-Fi
// daemon waits a second, then more), and other clients' calls, registration among them, must
// still be served. The module's messages leave on its own threads, one-way, so they never wait.
constexpr uint32_t kBinderThreads = 4;

}  // namespace

int main() {
    // The module first: a process whose module would not load registers nothing, and init's
    // restart retries. Its open blocks signals in this thread, so the binder threads started
    // after it inherit the same mask, as the module's own threads do.
    const hw_module_t *module = nullptr;
    if (hw_get_module(ATCMDPROCESS_HARDWARE_MODULE_ID, &module) != 0 || module == nullptr) {
        SERVICE_LOG(ANDROID_LOG_ERROR, "module %s not found", ATCMDPROCESS_HARDWARE_MODULE_ID);
        return EXIT_FAILURE;
    }
    hw_device_t *common = nullptr;
    if (module->methods == nullptr || module->methods->open == nullptr ||
        module->methods->open(module, ATCMDPROCESS_HARDWARE_MODULE_ID, &common) != 0 || common == nullptr) {
        SERVICE_LOG(ANDROID_LOG_ERROR, "module %s would not open", ATCMDPROCESS_HARDWARE_MODULE_ID);
        return EXIT_FAILURE;
    }
    if (!atcmd_service::core_start(reinterpret_cast<atcmdprocess_device_t *>(common), module->dso)) {
        return EXIT_FAILURE;
    }
    ABinderProcess_setThreadPoolMaxThreadCount(kBinderThreads);
    ABinderProcess_startThreadPool();
    if (!atcmd_service::binder_register_service()) return EXIT_FAILURE;
    ABinderProcess_joinThreadPool();
    return EXIT_FAILURE;  // joinThreadPool returns only when binder fails
}
