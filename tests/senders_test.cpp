// Senders of this phone's own lines: the text and record header of every line they queue.
#include <gtest/gtest.h>

#include <thread>

#include "accessory/accessory.h"
#include "support/test_support.h"

using namespace atcmd_test;

static std::string sent() {  // the queued lines, each as "type/dest/flag/cmd_id/seq_num/text"
    std::string s;
    for (const QueuedLine &q : drain_tx_queue()) {
        const AtCmder_t &c = q.cmd;
        for (int v : {+c.type, +c.dest, +c.flag, +c.cmd_id, +c.seq_num}) s += std::to_string(v) + '/';
        s += q.text;
    }
    return s;
}

TEST(SenderTest, StateWordsPtestPatternMacLineAndVersionCacheByPlatform) {
    Sandbox sb;
    atcmdprocess_device_t *dev = bare_device(PLATFORM_UART);
    std::string want;  // every state number, then the phone's states 1 to 3 towards the accessory
    const char *words[] = {"", "", "IDLE", "ACTIVE", "READY", "PWROFF", "UPDATE", "NOACK", ""};
    for (const char *w : words) want += std::string("4/1/0/10/0/+STATE=") + w + "\r\n";
    for (int32_t s = -1; s <= 7; ++s) send_stateToMPHONE(s);
    for (int32_t s : {1, 2, 3}) dev->system_status.phone_state = s, send_stateToMCU();
    for (uint32_t n : {3u, 65534u}) send_ptest_data(n);
    std::thread late([&] {  // set well inside the two-second wait, so a re-read must find it
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        sb.set_property("net.bluetooth.macaddr", "11:22:33:44:55:66");
    });
    send_bt_mac();
    late.join();
    for (size_t len : {64, 63, 2}) {  // too long for slot 3, cached there, so the cache is sent
        sb.set_property("ro.quorvanta.version", std::string(len, 'v'));
        send_amlogic_ver();
    }
    bare_device(PLATFORM_VUART);  // "+BTMAC" here, and no pattern or version
    send_bt_mac();
    send_ptest_data(3);
    send_amlogic_ver();
    const std::string ver = "4/3/0/11/0/+VER=WIFI:", v63 = ver + std::string(63, 'v') + "\r\n";
    EXPECT_EQ(sent(), want + "4/3/0/10/0/+STATE=IDLE\r\n4/3/0/10/0/+STATE=ACTIVE\r\n4/3/0/10/0/" +
                          "+STATE=\r\n0/3/0/0/0/AT+PTEST=987654321#3&2\r\n0/3/0/0/0/AT+PTEST=" +
                          "123456789#65534&2\r\n4/3/2/7/7/AT+BLEMAC=11:22:33:44:55:66#8&2\r\n" +
                          ver + std::string(64, 'v') + "\r\n" + v63 + v63 +
                          "4/3/1/7/7/AT+BTMAC=11:22:33:44:55:66#7&1\r\n");
}
