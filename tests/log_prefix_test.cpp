// Log vocabulary: each message is found under the name of the function it belongs to, also when
// a shared helper writes it, and on both platforms.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <functional>
#include <regex>

#include "accessory/accessory.h"
#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "serial/serial.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

std::string escaped(const std::string &text) {
    return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

void run_parser(uint32_t (*parser)(AtCmder_t *), const char *text, uint16_t seq = 0) {
    char line[AT_LINE_BUF_SIZE];
    snprintf(line, sizeof line, "%s", text);
    AtCmder_t cmd = {AT_TYPE_RESPONSE, 0, AT_NODE_ACCESSORY, 1, 0, 0, seq, 0, 0, line};
    parser(&cmd);
}

void transmit(int32_t platform, int32_t mode) {
    bare_device(platform)->system_status.mode = mode;
    char line[] = "AT+VER?#1&1\r\n";
    AtCmder_t cmd = {AT_TYPE_QUERY, 0, AT_NODE_ACCESSORY, 1, 0, AT_MSG_VER, 1, 0, 0, line};
    atcmder_Tx_process(&cmd);
}

}  // namespace

TEST(LogPrefixTest, EveryMessageCarriesTheNameOfItsFunction) {
    Sandbox sb(kWithLog);
    Pty acm;
    acm.link_as(sb, "/dev/ttyACM3");
    Pty uart;
    uart.link_as(sb, "/dev/ttyS4");
    int32_t values[6];
    usbdev_sts_t sts;
    int32_t fd = -1;

    struct Row {
        std::function<void()> trigger;  // null: the row before it wrote this line too
        const char *function;
        std::string text;
    };
    const Row rows[] = {
        {[] { parse_line("+NOPE=1\r\n"); }, "cmd_Parse_from_buffer", "Cmd  +NOPE is not supported!"},
        {[] { parse_line("junk\n"); }, "cmd_Parse_from_buffer", "Cmd is not supported!"},
        {[] { parse_line("+VER=1\r\n"); }, "cmd_Parse_from_buffer", "Get one line cmd: idx is 11"},
        {[&] { getBatinfo_fromCmdString("+BAT", values); }, "getBatinfo_fromCmdString", "Batinfo para error, raw data is +BAT! "},
        {[&] { getTmpinfo_fromCmdString("+HRM", values); }, "getTmpinfo_fromCmdString", "Tmpinfo para error, raw data is +HRM! "},
        {[&] { getUsbDevinfo_fromCmdString("+USBSTATE", &sts); }, "getUsbDevinfo_fromCmdString", "usbstate para error, raw data is +USBSTATE! "},
        {[&] { getHALLinfo_fromCmdString("+HALL", values); }, "getHALLinfo_fromCmdString", "get Hall info error, raw data is +HALL! "},
        {[&] { getACCinfo_fromCmdString("+ACC", values); }, "getACCinfo_fromCmdString", "get Acc sensor info error, raw data is +ACC! "},
        {[] { run_parser(TYPE_parser, "+TYPE=unknown\r\n"); }, "TYPE_parser", "TYPE_parser g_corvel_devInfo.model is -1"},
        {[] { run_parser(PTEST_parser, "+PTEST=wrong#1&2\r\n", 1); }, "PTEST_parser", "PTEST_parser error happens, result is wrong"},
        {[&] { UART_init(&fd); }, "UART_init", "serial open success!"},
        {nullptr, "UART_setOpt", "Serial set done!"},
        {nullptr, "UART_init", "Init uart /dev/ttyS4 successfully"},
        {[&] { UART_Send(fd, "AT\r\n", 4); }, "UART_Send", "serial send data is AT"},
        {[&] { close(fd), VUART_init(&fd, 3); }, "VUART_init", "serial open successfully, vuart"},
        {nullptr, "VUART_setOpt", "Serial set done!"},
        {nullptr, "VUART_init", "Init Vuart /dev/ttyACM3 successfully"},
        {[&] { VUART_Send(fd, "AT\r\n", 4); }, "VUART_Send", "serial send data is AT"},
        {[] { transmit(PLATFORM_UART, AT_MODE_USB); }, "atcmder_Tx_process", "uart is not open"},
        {[] { transmit(PLATFORM_VUART, AT_MODE_USB); }, "atcmder_Tx_process", "Vuart is not open"},
        {[] { transmit(PLATFORM_VUART, AT_MODE_WIFI); }, "atcmder_Tx_process", "wifi fifo is not opened!"},
        {[&] { g_vuart_fd = fd, transmit(PLATFORM_VUART, AT_MODE_USB); }, "atcmder_Tx_process", "Vuart successfully send cmd len is 13"},
    };
    for (const Row &row : rows) {
        if (row.trigger) row.trigger();
        const std::regex prefixed(R"(\[\d+\.\d+\]\[tid:\d+\])" + std::string(row.function) +
                                  R"(:\d+: )" + escaped(row.text));
        EXPECT_TRUE(wait_until([&] { return std::regex_search(sb.log_text(), prefixed); }))
            << row.function << ": " << row.text;
    }
}
