/*
 * Opens the module the way the platform does (dlopen of <id>.default.so, the "HMI" record, its
 * open method), installs a callback, hands it one request (which, with no accessory attached,
 * is resent and then reported as timed out) and prints the module's log file.
 * Usage: atcmd_open_demo [module.so]. Uses $ATCMD_ROOT as the sandbox, or makes one in /tmp.
 */
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include <atcmdprocess/atcmdprocess.h>

namespace {

constexpr const char kDefaultModule[] = "hw/atcmdprocess.default.so";
constexpr const char kLogPath[] = "/sdcard/quorvanta/.log/atcmdprocess";

void on_notify(const AT_CMD_CbMsg_t *msg) {
    if (msg->msg_id == AT_MSG_ERROR && msg->data != nullptr) {
        printf("callback: msg_id %u seq_num %u error %d\n", msg->msg_id, msg->seq_num,
               *static_cast<const int32_t *>(msg->data));
    } else {
        printf("callback: msg_id %u seq_num %u\n", msg->msg_id, msg->seq_num);
    }
}

std::string sandbox_root() {
    const char *root = getenv("ATCMD_ROOT");
    if (root != nullptr && root[0] != '\0') return root;
    char tmpl[] = "/tmp/atcmd-demo-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        perror("mkdtemp");
        exit(1);
    }
    setenv("ATCMD_ROOT", tmpl, 1);
    return tmpl;
}

std::string read_text(const std::string &path) {
    std::string content;
    FILE *f = fopen(path.c_str(), "re");
    if (f == nullptr) return content;
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) content.append(chunk, n);
    fclose(f);
    return content;
}

bool wait_for_text(const std::string &path, const char *text, int timeout_ms) {
    for (int waited = 0; waited <= timeout_ms; waited += 10) {
        if (read_text(path).find(text) != std::string::npos) return true;
        struct timespec ts = {0, 10 * 1000 * 1000};
        nanosleep(&ts, nullptr);
    }
    return false;
}

}  // namespace

int main(int argc, char **argv) {
    const char *module_path = argc > 1 ? argv[1] : kDefaultModule;
    const std::string root = sandbox_root();
    printf("sandbox root: %s\n", root.c_str());

    void *handle = dlopen(module_path, RTLD_NOW);
    if (handle == nullptr) {
        fprintf(stderr, "dlopen %s: %s\n", module_path, dlerror());
        return 1;
    }
    auto *hmi = static_cast<hw_module_t *>(dlsym(handle, HAL_MODULE_INFO_SYM_AS_STR));
    if (hmi == nullptr) {
        fprintf(stderr, "no HMI in %s\n", module_path);
        return 1;
    }
    printf("module \"%s\" (%s) by %s\n", hmi->id, hmi->name, hmi->author);

    hw_device_t *common = nullptr;
    if (hmi->methods->open(hmi, ATCMDPROCESS_HARDWARE_MODULE_ID, &common) != 0) {
        fprintf(stderr, "open failed\n");
        return 1;
    }
    auto *dev = reinterpret_cast<atcmdprocess_device_t *>(common);
    dev->set_notify_callback(dev, on_notify);

    char line[] = "AT+VER?#11&1\r\n";
    AtCmder_t cmd = {};
    cmd.type = AT_TYPE_QUERY;
    cmd.dest = AT_NODE_ACCESSORY;
    cmd.flag = 1;
    cmd.cmd_id = AT_MSG_VER;
    cmd.seq_num = 11;
    cmd.data = line;
    dev->atcmdprocess_cmd_from_hidl(&cmd);

    const std::string log_path = root + kLogPath;
    // No accessory is attached: the request is resent twice and then reported as timed out.
    wait_for_text(log_path, "has been removed since timeout", 3000);
    fflush(stdout);
    // The module adds no newline of its own; show one message per line.
    std::string log = read_text(log_path);
    for (size_t at = log.find("][tid:"); at != std::string::npos; at = log.find("][tid:", at + 2)) {
        const size_t start = log.rfind('[', at);
        if (start != 0 && start != std::string::npos && log[start - 1] != '\n') {
            log.insert(start, "\n");
            at += 1;
        }
    }
    printf("\n---- %s ----\n%s\n", log_path.c_str(), log.c_str());
    return log.empty() ? 1 : 0;
}
