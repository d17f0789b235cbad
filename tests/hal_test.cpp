// The module entry: open's defaults and failures, the engine's threads, the upper layer's
// command hand-over, and close ending the hosting process.
#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "accessory/accessory.h"
#include "hal/hal.h"
#include "hotplug/hotplug.h"
#include "log/atcmd_log.h"
#include "serial/serial.h"
#include "supervision/supervision.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

std::multiset<std::string> thread_names() {
    std::multiset<std::string> names;
    DIR *dir = opendir("/proc/self/task");
    if (dir == nullptr) return names;
    while (struct dirent *e = readdir(dir)) {
        if (e->d_name[0] == '.') continue;
        std::string comm = read_file(std::string("/proc/self/task/") + e->d_name + "/comm");
        if (!comm.empty() && comm.back() == '\n') comm.pop_back();
        names.insert(comm);
    }
    closedir(dir);
    return names;
}

size_t thread_count() { return thread_names().size(); }

}  // namespace

TEST(HalOpenTest, DeviceStartsWithItsDefaults) {
    Sandbox sb;
    atcmdprocess_device_t *dev = open_module();
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(g_patcmd_dev, dev);
    EXPECT_EQ(dev->common.tag, static_cast<uint32_t>(HARDWARE_DEVICE_TAG));
    EXPECT_EQ(dev->common.version, static_cast<uint32_t>(HARDWARE_DEVICE_API_VERSION(1, 0)));
    EXPECT_EQ(dev->common.module, &HMI);
    EXPECT_EQ(dev->common.close, atcmdprocess_close);
    EXPECT_EQ(dev->system_status.platform, PLATFORM_VUART);
    EXPECT_EQ(dev->system_status.mode, AT_MODE_NONE);
    EXPECT_EQ(dev->system_status.wifi_status, -1);
    EXPECT_EQ(dev->system_status.phone_state, 1);
    EXPECT_STREQ(dev->server_ip, "");
    EXPECT_EQ(dev->usb_status, -1);
    EXPECT_EQ(dev->usb_connected, -1);
    EXPECT_EQ(dev->notify_callback, &Recorder::callback);
    EXPECT_EQ(dev->atcmdprocess_cmd_from_hidl, atcmdprocess_cmd_from_hidl);
    EXPECT_EQ(dev->atcmdprocess_amlogic_shake_hands, atcmdprocess_amlogic_shake_hands);
    for (int32_t word : dev->reserved) EXPECT_EQ(word, 0);
    EXPECT_EQ(g_timeout, ATCMD_TIMEOUT_DEFAULT);
    EXPECT_EQ(g_corvel_devInfo.model, 0);
    EXPECT_TRUE(sb.wait_log("g_patcmd_dev->system_status.platform is 1"));
}

TEST(HalOpenTest, ModuleRecordNamesTheModule) {
    EXPECT_EQ(HMI.tag, static_cast<uint32_t>(HARDWARE_MODULE_TAG));
    EXPECT_EQ(HMI.module_api_version, HARDWARE_MODULE_API_VERSION(1, 0));
    EXPECT_EQ(HMI.hal_api_version, HARDWARE_HAL_API_VERSION);
    EXPECT_STREQ(HMI.id, "atcmdprocess");
    EXPECT_STREQ(HMI.name, "At cmd process HAL");
    EXPECT_EQ(HMI.methods->open, atcmdprocess_open);
    EXPECT_EQ(HMI.dso, nullptr);
}

TEST(HalOpenTest, NullOutPointerFailsAndStartsNothing) {
    Sandbox sb;
    const size_t before = thread_count();
    EXPECT_EQ(atcmdprocess_open(&HMI, "atcmdprocess", nullptr), -22);
    EXPECT_EQ(g_patcmd_dev, nullptr);
    EXPECT_EQ(thread_count(), before);
    EXPECT_NE(sb.log_text().find("NO device on open"), std::string::npos);
}

TEST(HalOpenTest, StartsTheEngineThreadsByName) {
    Sandbox sb;
    ASSERT_NE(open_module(), nullptr);
    // Thread names are cut to 15 characters by the kernel.
    const std::multiset<std::string> expected = {"sigProcess_thre", "Tx_thread", "dispatch_thread",
                                                 "Timeout_thread", "devEpoll_proces"};
    EXPECT_TRUE(wait_until([&] {
        std::multiset<std::string> names = thread_names();
        return std::includes(names.begin(), names.end(), expected.begin(), expected.end());
    }));
    EXPECT_EQ(thread_names().count("uartRx_thread"), 0u);  // platform 1 has no UART receiver
    EXPECT_NE(g_Sigprocess_thread, 0u);
    EXPECT_EQ(g_uartRx_thread, 0u);
}

TEST(HalCommandTest, CommandFromUpperLayerLandsOnTxQueueByteForByte) {
    Sandbox sb;
    bare_device();
    char line[] = "AT+VER?#11&1\r\n";
    AtCmder_t cmd = {AT_TYPE_QUERY, 0, AT_NODE_ACCESSORY, 1, 0, AT_MSG_VER, 11, 0, 0, line};
    EXPECT_EQ(atcmdprocess_cmd_from_hidl(&cmd), 0);
    const auto queued = drain_tx_queue();
    ASSERT_EQ(queued.size(), 1u);
    EXPECT_EQ(queued[0].text, "AT+VER?#11&1\r\n");
    EXPECT_EQ(queued[0].cmd.type, AT_TYPE_QUERY);
    EXPECT_EQ(queued[0].cmd.dest, AT_NODE_ACCESSORY);
    EXPECT_EQ(queued[0].cmd.flag, 1);
    EXPECT_EQ(queued[0].cmd.cmd_id, AT_MSG_VER);
    EXPECT_EQ(queued[0].cmd.seq_num, 11);
}

TEST(HalCommandTest, BadRecordsFromUpperLayerAreDropped) {
    Sandbox sb;
    log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE);
    bare_device();
    EXPECT_EQ(atcmdprocess_cmd_from_hidl(nullptr), -22);
    AtCmder_t no_text = {};
    EXPECT_EQ(atcmdprocess_cmd_from_hidl(&no_text), 0);
    std::string too_long(AT_LINE_BUF_SIZE + 40, 'A');
    AtCmder_t over = {};
    over.data = too_long.data();
    EXPECT_EQ(atcmdprocess_cmd_from_hidl(&over), 0);
    char empty[] = "";
    AtCmder_t blank = {};
    blank.data = empty;
    EXPECT_EQ(atcmdprocess_cmd_from_hidl(&blank), 0);
    EXPECT_TRUE(drain_tx_queue().empty());  // would block for ever had the empty line got in
    const std::string log = sb.log_text();
    EXPECT_NE(log.find("Input atcmder data is NULL!"), std::string::npos);
    EXPECT_NE(log.find("refuses a line of 160 bytes or more"), std::string::npos);
}

TEST(HalCallbackTest, SetNotifyCallbackStoresIt) {
    atcmdprocess_device_t *dev = bare_device();
    auto other = [](const AT_CMD_CbMsg_t *) {};
    EXPECT_EQ(set_notify_callback(dev, other), 0);
    EXPECT_EQ(dev->notify_callback, static_cast<atcmdprocess_notify_cb>(other));
    EXPECT_EQ(set_notify_callback(nullptr, other), -22);
}

TEST(HalCallbackTest, MessagesWithoutCallbackAreDroppedNotCalled) {
    Sandbox sb;
    log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE);
    atcmdprocess_device_t *dev = bare_device();
    dev->notify_callback = nullptr;
    notify_usbevent();  // must not jump through a null callback
    EXPECT_NE(sb.log_text().find("no notify callback installed, message 16 dropped"),
              std::string::npos);
}

TEST(HalCloseTest, CloseEndsTheHostingProcessWithSigkill) {
    Sandbox sb;
    struct Case {
        bool null_device;
    } cases[] = {{false}, {true}};
    for (const Case &c : cases) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            atcmdprocess_device_t *dev = open_module();
            if (dev == nullptr) _exit(2);
            atcmdprocess_close(c.null_device ? nullptr : &dev->common);
            _exit(3);  // not reached: close ends the process
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
            << "null device " << c.null_device << " status " << status;
    }
}

TEST(HalCloseTest, CloseWithoutThreadsClosesChannelsAndEmptiesQueues) {
    Sandbox sb;
    bare_device();
    g_uart_fd = dup(STDERR_FILENO);
    char line[] = "AT+SN?#13&1\r\n";
    AtCmder_t cmd = {};
    cmd.data = line;
    atcmder_send_to_tx(&cmd);
    EXPECT_EQ(atcmder_hal_close(), 0);  // no handle was started, so nothing is signalled
    EXPECT_EQ(g_uart_fd, -1);
    EXPECT_EQ(g_vuart_fd, -1);
    EXPECT_EQ(atcmder_empty_queue(&Tx_head, &g_txqueue_mutex), 1u);
}
