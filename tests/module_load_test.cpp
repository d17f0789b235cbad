// The module as the platform sees it: loaded with dlopen through its HMI record in another
// process, and exporting exactly the system's own names.
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <regex>
#include <set>
#include <string>

#include "support/test_support.h"

using namespace atcmd_test;

namespace {

std::string run(const std::string &command, int *status) {
    std::string out;
    FILE *p = popen(command.c_str(), "r");
    if (p == nullptr) return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    *status = pclose(p);
    return out;
}


// Every name the module exports: the system's own and the host's property stand-ins.
const std::set<std::string> kExportedNames = {
    "property_get", "property_set", "__system_property_get", "ACC_parser", "AT_CMDS",
    "BATCG_parser", "BAT_parser", "BKL_parser", "BLEMAC_parser", "BTMAC_parser", "BT_parser",
    "DTR_parser", "ERROR_parser", "HALLCG_parser", "HALL_parser", "HMI", "HRM_TEMP_parser",
    "INFO_parser", "Init_TimeoutPara", "LIGHT_parser", "MICMODE_parser", "MMI1_parser",
    "MODE_parser", "OK_parser", "POWEROFF_parser", "PTEST_parser", "PT_parser", "REBOOT_parser",
    "RECOVERY_parser", "RESET_parser", "Rx_head", "SCREEN_parser", "SENSOR_parser",
    "SHUTDOWN_parser", "SID_parser", "SLEEP_parser", "SN_parser", "STATE_parser", "TEST_parser",
    "TIME_parser", "TYPE_parser", "Timeout_head", "Tx_head", "UART_Recv", "UART_Send", "UART_init",
    "UART_setOpt", "UPGRADE_parser", "USBSTATE_parser", "VER_parser", "VUART_Recv", "VUART_Send",
    "VUART_init", "VUART_setOpt", "WIFI_parser", "WT_parser", "atcmder_Timeout_thread",
    "atcmder_Tx_process", "atcmder_Tx_thread", "atcmder_dequeue", "atcmder_dispatch",
    "atcmder_dispatch_thread", "atcmder_empty_queue", "atcmder_enqueue", "atcmder_hal_close",
    "atcmder_hal_open", "atcmder_post_parse_process", "atcmder_queue_exit", "atcmder_queue_init",
    "atcmder_sigProcess_thread", "atcmder_uartRx_thread", "atcmdprocess_amlogic_shake_hands",
    "atcmdprocess_close", "atcmdprocess_cmd_from_hidl", "atcmdprocess_hiddemon_stchange",
    "atcmdprocess_open", "atcmdprocess_wifi_init", "atcmdprocess_wifi_stchange", "bt_mac_prop",
    "buf_timestamp", "cmd_Parse_from_buffer", "dev_hotplug_init", "dump_atcmd_data", "epfd_socket",
    "fd_logfile", "findAtCmdIdx", "findResCmdIdx", "g_Sigprocess_thread", "g_TestTx_thread",
    "g_Tx_thread", "g_VuartRx_thread", "g_VuartTxTst_thread", "g_corvel_devInfo", "g_dev_ACM",
    "g_dispatch_thread", "g_fifo_rx_fd", "g_fifo_tx_fd", "g_find_acmdev_thread", "g_patcmd_dev",
    "g_rxqueue_mutex", "g_timeout", "g_timeout_thread", "g_timeoutqueue_mutex", "g_txqueue_mutex",
    "g_uartRx_thread", "g_uart_fd", "g_vuart_fd", "g_wifiHBeat_num", "g_wifiHBeat_thread",
    "g_wifiRx_thread", "getACCinfo_fromCmdString", "getBatinfo_fromCmdString",
    "getHALLinfo_fromCmdString", "getTmpinfo_fromCmdString", "getUsbDevinfo_fromCmdString",
    "getVerInfo_fromCmdString", "get_corvel_BATINFO", "get_corvel_castmode", "get_corvel_info",
    "get_corvel_micmode", "get_corvel_screensts", "get_corvel_sid", "get_corvel_sn",
    "get_corvel_state", "get_corvel_type", "get_corvel_usbstate", "get_corvel_ver",
    "get_remote_bt_mac", "get_timestamp", "getstate_fromCmdString", "getstr_fromCmdString",
    "getvalue_fromCmdString", "log_file_init", "log_level", "notifyUartNotWork", "notify_usbevent",
    "notifytimeout", "rmTimeoutItem", "rxbuffer_Mutex", "rxbuffer_notempty", "send_amlogic_ver",
    "send_bt_mac", "send_ptest_data", "send_stateToMCU", "send_stateToMPHONE",
    "set_notify_callback", "thread_exit_handler", "timeoutbuffer_Mutex", "timeoutbuffer_notempty",
    "ts_base_sec", "txbuffer_Mutex", "txbuffer_notempty", "type_with_wifi", "type_without_wifi",
};

}  // namespace

TEST(ModuleLoadTest, LoadsThroughHmiOpensAndLogsIntoTheSandbox) {
    Sandbox sb;
    // The tool is a process of its own: hand it the same race suppressions as the tests.
    setenv("TSAN_OPTIONS", "suppressions=" ATCMD_TSAN_SUPPRESSIONS, 1);
    int status = -1;
    const std::string out = run(std::string("'") + std::string(ATCMD_BIN_DIR) + "/atcmd_open_demo' '" +
                                    std::string(ATCMD_MODULE_PATH) + "' 2>&1",
                                &status);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << out;
    EXPECT_NE(out.find("module \"atcmdprocess\" (At cmd process HAL)"), std::string::npos) << out;
    const std::string log = sb.log_text();
    EXPECT_TRUE(std::regex_search(
        log, std::regex(R"(\[\d+\.\d+\]\[tid:\d+\]atcmder_hal_open:\d+: func is atcmder_hal_open\.)")))
        << log;
    EXPECT_NE(log.find("set_notify_callback"), std::string::npos) << log;
}

TEST(ModuleLoadTest, ExportsExactlyTheSystemNames) {
    int status = -1;
    const std::string out =
        run(std::string("nm -D --defined-only '") + std::string(ATCMD_MODULE_PATH) + "'", &status);
    ASSERT_EQ(status, 0) << out;
    std::set<std::string> exported;
    std::regex row(R"(^[0-9a-fA-F]+ \w (\S+)$)");
    size_t start = 0;
    while (start < out.size()) {
        size_t end = out.find('\n', start);
        if (end == std::string::npos) end = out.size();
        std::smatch m;
        const std::string line = out.substr(start, end - start);
        // Sanitizer builds add their own instrumentation symbols; they start with "__".
        if (std::regex_match(line, m, row) &&
            (m[1].str().rfind("__", 0) != 0 || m[1] == "__system_property_get")) {
            exported.insert(m[1]);
        }
        start = end + 1;
    }
    std::vector<std::string> extra, missing;
    std::set_difference(exported.begin(), exported.end(), kExportedNames.begin(),
                        kExportedNames.end(), std::back_inserter(extra));
    std::set_difference(kExportedNames.begin(), kExportedNames.end(), exported.begin(),
                        exported.end(), std::back_inserter(missing));
    EXPECT_TRUE(extra.empty()) << "unexpected export: " << (extra.empty() ? "" : extra[0]);
    EXPECT_TRUE(missing.empty()) << "missing export: " << (missing.empty() ? "" : missing[0]);
}
