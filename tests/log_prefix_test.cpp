// Log vocabulary: each message is found under the name of the function it belongs to, also when
// a shared helper writes it, on both platforms and from the engine's threads.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <functional>
#include <regex>

#include "accessory/accessory.h"
#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "serial/serial.h"
#include "supervision/supervision.h"
#include "support/test_support.h"
#include "wifi/wifi.h"

using namespace atcmd_test;

namespace {

std::string escaped(const std::string &text) {
    return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

AtCmder_t record(uint8_t type, uint8_t flag, uint8_t cmd_id, uint16_t seq, char *text) {
    return AtCmder_t{type, 0, AT_NODE_ACCESSORY, flag, 0, cmd_id, seq, 0, 0, text};
}

void run_parser(uint32_t (*parser)(AtCmder_t *), const char *text, uint16_t seq = 0) {
    char line[AT_LINE_BUF_SIZE];
    snprintf(line, sizeof line, "%s", text);
    AtCmder_t cmd = record(AT_TYPE_RESPONSE, 1, 0, seq, line);
    parser(&cmd);
}

void transmit(int32_t platform, int32_t mode) {
    bare_device(platform)->system_status.mode = mode;
    char line[] = "AT+VER?#1&1\r\n";
    AtCmder_t cmd = record(AT_TYPE_QUERY, 1, AT_MSG_VER, 1, line);
    atcmder_Tx_process(&cmd);
}

}  // namespace

TEST(LogPrefixTest, EveryMessageCarriesTheNameOfItsFunction) {
    Sandbox sb(kWithLog);
    Pty acm;
    acm.link_as(sb, "/dev/ttyACM3");
    Pty &uart = kept_pty();  // the UART receive thread outlives the test
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
        {[&] { getBatinfo_fromCmdString("+BAT", values); }, "getBatinfo_fromCmdString",
         "Batinfo para error, raw data is +BAT! "},
        {[&] { getTmpinfo_fromCmdString("+HRM", values); }, "getTmpinfo_fromCmdString",
         "Tmpinfo para error, raw data is +HRM! "},
        {[&] { getUsbDevinfo_fromCmdString("+USBSTATE", &sts); },
         "getUsbDevinfo_fromCmdString", "usbstate para error, raw data is +USBSTATE! "},
        {[&] { getHALLinfo_fromCmdString("+HALL", values); }, "getHALLinfo_fromCmdString",
         "get Hall info error, raw data is +HALL! "},
        {[&] { getACCinfo_fromCmdString("+ACC", values); }, "getACCinfo_fromCmdString",
         "get Acc sensor info error, raw data is +ACC! "},
        {[] { run_parser(TYPE_parser, "+TYPE=unknown\r\n"); }, "TYPE_parser",
         "TYPE_parser g_corvel_devInfo.model is -1"},
        {[] { run_parser(PTEST_parser, "+PTEST=wrong#1&2\r\n", 1); }, "PTEST_parser",
         "PTEST_parser error happens, result is wrong"},
        {[&] { UART_init(&fd); }, "UART_init", "serial open success!"},
        {nullptr, "UART_setOpt", "Serial set done!"},
        {nullptr, "UART_init", "Init uart /dev/ttyS4 successfully"},
        {[&] { UART_Send(fd, "AT\r\n", 4); }, "UART_Send", "serial send data is AT"},
        {[&] {
             close(fd);
             VUART_init(&fd, 3);
         },
         "VUART_init", "serial open successfully, vuart"},
        {nullptr, "VUART_setOpt", "Serial set done!"},
        {nullptr, "VUART_init", "Init Vuart /dev/ttyACM3 successfully"},
        {[&] { VUART_Send(fd, "AT\r\n", 4); }, "VUART_Send", "serial send data is AT"},
        {[] { transmit(PLATFORM_UART, AT_MODE_USB); }, "atcmder_Tx_process", "uart is not open"},
        {[] { transmit(PLATFORM_VUART, AT_MODE_USB); }, "atcmder_Tx_process", "Vuart is not open"},
        {[] { transmit(PLATFORM_VUART, AT_MODE_WIFI); }, "atcmder_Tx_process",
         "wifi fifo is not opened!"},
        {[&] {
             g_vuart_fd = fd;
             transmit(PLATFORM_VUART, AT_MODE_USB);
         },
         "atcmder_Tx_process", "Vuart successfully send cmd len is 13"},
        // The engine's threads: a watched request that is never answered, then the UART line.
        {[] {
             transmit(PLATFORM_VUART, AT_MODE_USB);  // leaves the device in place for the threads
             g_vuart_fd = -1;
             g_timeout = ATCMD_TIMEOUT_DEFAULT;
             pthread_create(&g_timeout_thread, nullptr, atcmder_Timeout_thread, nullptr);
             pthread_create(&g_Tx_thread, nullptr, atcmder_Tx_thread, nullptr);
             char line[] = "AT+VER?#7&1\r\n";
             AtCmder_t cmd = record(AT_TYPE_QUERY, 1, AT_MSG_VER, 7, line);
             atcmder_send_to_tx(&cmd);
         },
         "atcmder_Tx_thread", "Timeout buf enqueued cmd AT+VER?#7&1"},
        {nullptr, "atcmder_Timeout_thread", "Re-send timeout cmd: 7 times: 2 data: AT+VER?#7&1"},
        {nullptr, "atcmder_Timeout_thread", "No. 7 atcmd has been removed since timeout"},
        {[] { pthread_create(&g_uartRx_thread, nullptr, atcmder_uartRx_thread, nullptr); },
         "atcmder_uartRx_thread", "uart cannot receive data, uart will be re-init!"},
        {[&] {  // once the thread's re-open has set the line raw and flushed it
             wait_until([&] {
                 const std::string log = sb.log_text();
                 return log.find("Init uart") != log.rfind("Init uart");
             });
             uart.write("+OK\r\n");
         },
         "atcmder_uartRx_thread",
         "Uart rcv data length is 5, receive data is +OK"},
        {[&] { uart.write(std::string(600, 'x')); }, "atcmder_uartRx_thread",
         "Uart receive data length is too long, skip it"},
    };
    for (const Row &row : rows) {
        if (row.trigger) row.trigger();
        const std::regex prefixed(R"(\[\d+\.\d+\]\[tid:\d+\])" + std::string(row.function) +
                                  R"(:\d+: )" + escaped(row.text));
        EXPECT_TRUE(wait_until([&] { return std::regex_search(sb.log_text(), prefixed); }))
            << row.function << ": " << row.text;
    }
    Recorder::instance().clear();  // orders the time-out report before the recorder's exit
}
