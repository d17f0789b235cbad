// The module entry: open's defaults and failures, the engine's threads, the upper layer's
// command hand-over, and close ending the hosting process.
#include <gtest/gtest.h>

#include <dirent.h>
#include <string.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <vector>

#include "hal/hal.h"
#include "hotplug/hotplug.h"
#include "serial/serial.h"
#include "supervision/supervision.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

std::multiset<std::string> thread_names() {
    std::multiset<std::string> names;
    DIR *dir = opendir("/proc/self/task");
    while (struct dirent *e = dir != nullptr ? readdir(dir) : nullptr) {
        if (e->d_name[0] == '.') continue;
        std::string comm = read_file(std::string("/proc/self/task/") + e->d_name + "/comm");
        names.insert(comm.substr(0, comm.find('\n')));
    }
    if (dir != nullptr) closedir(dir);
    return names;
}

}  // namespace

TEST(HalOpenTest, DeviceStartsWithItsDefaultsAndTheEngineThreadsByName) {
    Sandbox sb;
    atcmdprocess_device_t *dev = open_module();
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(g_patcmd_dev, dev);
    EXPECT_TRUE(dev->common.tag == HARDWARE_DEVICE_TAG && dev->common.module == &HMI &&
                dev->common.close == atcmdprocess_close &&
                dev->atcmdprocess_amlogic_shake_hands == atcmdprocess_amlogic_shake_hands);
    const auto &s = dev->system_status;
    EXPECT_EQ((std::vector<int32_t>{s.platform, s.mode, s.wifi_status, s.phone_state,
                                    dev->usb_status, dev->usb_connected}),
              (std::vector<int32_t>{PLATFORM_VUART, AT_MODE_NONE, -1, 1, -1, -1}));
    EXPECT_EQ(g_timeout, ATCMD_TIMEOUT_DEFAULT);
    EXPECT_STREQ(HMI.id, "atcmdprocess");
    EXPECT_TRUE(sb.wait_log("g_patcmd_dev->system_status.platform is 1"));

    // Thread names are cut to 15 characters by the kernel; platform 1 has no UART receiver.
    const std::multiset<std::string> expected = {"sigProcess_thre", "Tx_thread", "dispatch_thread",
                                                 "Timeout_thread", "devEpoll_proces"};
    EXPECT_TRUE(wait_until([&] {
        std::multiset<std::string> names = thread_names();
        return std::includes(names.begin(), names.end(), expected.begin(), expected.end());
    }));
    EXPECT_EQ(thread_names().count("uartRx_thread"), 0u);
    EXPECT_EQ(g_uartRx_thread, 0u);
}

TEST(HalOpenTest, NullOutPointerFailsAndStartsNothing) {
    Sandbox sb;
    const size_t before = thread_names().size();
    EXPECT_EQ(atcmdprocess_open(&HMI, "atcmdprocess", nullptr), -22);
    EXPECT_EQ(g_patcmd_dev, nullptr);
    EXPECT_EQ(thread_names().size(), before);
    EXPECT_NE(sb.log_text().find("NO device on open"), std::string::npos);
}

// A whole record is queued byte for byte; a NULL, over-long or empty one is logged and dropped.
// A message with no callback installed is dropped too.
TEST(HalCommandTest, CommandsFromUpperLayerAreQueuedOrDroppedAndSoAreUncalledMessages) {
    Sandbox sb(kWithLog);
    bare_device();
    EXPECT_EQ(atcmdprocess_cmd_from_hidl(nullptr), -22);
    std::string too_long(AT_LINE_BUF_SIZE + 40, 'A'), empty, line = "AT+VER?#11&1\r\n";
    const std::pair<char *, const char *> cases[] = {
        {nullptr, "Input atcmder data is NULL!"},
        {too_long.data(), "refuses a line of 160 bytes or more"},
        {empty.data(), "got an empty line, dropped"},
        {line.data(), "no notice"}};
    for (const auto &[text, message] : cases) {
        AtCmder_t cmd = {AT_TYPE_QUERY, 0, AT_NODE_ACCESSORY, 1, 0, AT_MSG_VER, 11, 0, 0, text};
        EXPECT_EQ(atcmdprocess_cmd_from_hidl(&cmd), 0);
        const auto queued = drain_tx_queue();  // would block for ever had the empty line got in
        EXPECT_EQ(queued.size(), text == line.data() ? 1u : 0u) << message;
        if (queued.empty()) EXPECT_NE(sb.log_text().find(message), std::string::npos) << message;
        else EXPECT_TRUE(queued[0].text == line &&
                         memcmp(&queued[0].cmd, &cmd, offsetof(AtCmder_t, data)) == 0);
    }
    g_patcmd_dev->notify_callback = nullptr;
    notify_usbevent();  // must not jump through a null callback
    EXPECT_TRUE(sb.wait_log("no notify callback installed, message 16 dropped", 0));
}

TEST(HalCloseTest, CloseEndsTheHostingProcessWithSigkill) {
    Sandbox sb;
    for (bool null_device : {false, true}) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            atcmdprocess_device_t *dev = open_module();
            if (dev == nullptr) _exit(2);
            atcmdprocess_close(null_device ? nullptr : &dev->common);
            _exit(3);  // not reached: close ends the process
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
            << "null device " << null_device << " status " << status;
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
    EXPECT_EQ(atcmder_empty_queue(&Tx_head, &g_txqueue_mutex), 1u);
}
