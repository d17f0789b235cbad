// The phone's own lines: accessory queries, the start-up interrogation and the senders, each
// with the text and record header of every line it queues.
#include <gtest/gtest.h>

#include <thread>

#include "accessory/accessory.h"
#include "hal/hal.h"
#include "support/test_support.h"

using namespace atcmd_test;

TEST(QueryTest, EachQueryQueuesItsLineAndRecordAndInfoAsksInOrder) {
    Sandbox sb(kWithLog);
    const struct { void (*fn)(); int row; std::string keyword; } queries[] = {
        {get_corvel_BATINFO, 9, "BAT"}, {get_remote_bt_mac, 8, "BLEMAC"}, {get_corvel_sn, 13, "SN"},
        {get_corvel_state, 10, "STATE"}, {[] { get_corvel_ver(); }, 11, "VER"},
        {get_corvel_sid, 14, "SID"}, {get_corvel_type, 15, "TYPE"}, {get_corvel_castmode, 28, "MODE"},
        {get_corvel_usbstate, 16, "USBSTATE"}, {get_corvel_screensts, 17, "SCREEN"},
        {get_corvel_micmode, 19, "MICMODE"}};  // +MODE is one fixed line on both platforms
    // Each line alone, then get_corvel_info's order; the MAC waits its full two seconds when unset.
    for (const auto &[p, mac, order] : std::vector<std::tuple<int32_t, const char *, const char *>>{
             {1, "1:2", "TYPE? BAT? BTMAC=1:2 SN? SID? SCREEN? STATE? USBSTATE? BLEMAC? MICMODE? VER? "},
             {2, "", "TYPE? BAT? SN? SID? SCREEN? MICMODE? VER? "}}) {
        sb.set_property("net.bluetooth.macaddr", mac);
        bare_device(p);
        for (const auto &[query, row, keyword] : queries) {
            query();
            const auto [c, text] = drain_tx_queue().at(0);
            const std::string at = std::to_string(row) + "&" + std::to_string(p);
            EXPECT_EQ(text, "AT+" + keyword + "?#" + (row == 28 ? "0&2" : at) + "\r\n");
            EXPECT_EQ(std::vector<int>({c.type, c.source, c.dest, c.flag, c.cmd_id, c.seq_num}),
                      std::vector<int>({AT_TYPE_QUERY, AT_NODE_NONE, AT_NODE_ACCESSORY, p, row, row}));
        }
        EXPECT_EQ(get_corvel_info(), 0);
        std::string seen;
        for (const auto &l : drain_tx_queue()) seen += l.text.substr(3, l.text.find('#') - 3) + ' ';
        EXPECT_EQ(seen, order);
    }
    EXPECT_TRUE(sb.wait_log("Can not get Corvel BTMAC net.bluetooth.macaddr."));
    g_patcmd_dev = nullptr;  // no device: nothing queued
    get_corvel_sn();
    EXPECT_TRUE(drain_tx_queue().empty());
}

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
