// Accessory queries and the start-up interrogation: the lines and records they queue.
#include <gtest/gtest.h>

#include "accessory/accessory.h"
#include "hal/hal.h"
#include "log/atcmd_log.h"
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
