// The accessory layer end to end: the module open, a pseudo-terminal playing the accessory on
// the serial line, answers and questions going through the receive thread, the parser, the
// dispatcher and the row parsers, and the module's own lines coming back on the wire.
#include <gtest/gtest.h>

#include "accessory/accessory.h"
#include "serial/serial.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

Notice last_notice(uint16_t msg_id) {
    Notice found{};
    for (const Notice &n : Recorder::instance().notices()) {
        if (n.msg_id == msg_id) found = n;
    }
    return found;
}

}  // namespace

TEST(AccessoryLiveTest, AnswersAndQuestionsTravelTheWholePath) {
    Sandbox sb;
    Pty &line = kept_pty();  // the receive thread outlives the test
    atcmdprocess_device_t *dev = open_module();
    ASSERT_NE(dev, nullptr);
    dev->system_status.platform = PLATFORM_UART;
    line.link_as(sb, "/dev/ttyS4");
    ASSERT_EQ(UART_init(&g_uart_fd), 0);
    ASSERT_EQ(pthread_create(&g_uartRx_thread, nullptr, atcmder_uartRx_thread, nullptr), 0);
    auto wire = [&](const std::string &expected) {
        return line.read_until([&](const std::string &got) { return got.size() >= expected.size(); });
    };

    // A query of the module, answered by the accessory: stored, notified, no resend.
    get_corvel_sn();
    EXPECT_EQ(wire("AT+SN?#13&2\r\n"), "AT+SN?#13&2\r\n");
    line.write("+SN=QV123456#13&2\r\n");
    ASSERT_TRUE(Recorder::instance().wait_for(AT_MSG_SN));
    EXPECT_EQ(last_notice(AT_MSG_SN).seq_num, 13);
    EXPECT_EQ(last_notice(AT_MSG_SN).text, "QV123456");
    EXPECT_STREQ(g_corvel_devInfo.sn, "QV123456");

    // Answers split over writes, several in one write.
    line.write("+TYPE=KV44");
    line.write("10C\r\n+BAT=87,1,4120,250,1,0#9&2\r\n+RECOVERY\r\n");
    ASSERT_TRUE(Recorder::instance().wait_for(AT_MSG_RECOVERY));
    EXPECT_EQ(g_corvel_devInfo.model, 1);
    EXPECT_EQ(last_notice(AT_MSG_BAT).values, (std::vector<int32_t>{87, 1, 4120, 250, 1, 0}));
    EXPECT_TRUE(wait_until([&] { return sb.property("vendor.corvel.recovery") == "1"; }));

    // The accessory's own questions are answered on the wire.
    line.write("AT+STATE?\r\n");
    EXPECT_EQ(wire("+STATE=IDLE\r\n"), "+STATE=IDLE\r\n");
    sb.set_property("persist.vendor.corvel.factory.wt", "PASS");
    line.write("+WT\r\n");
    EXPECT_EQ(wire("+WT=PASS\r\n"), "+WT=PASS\r\n");

    EXPECT_FALSE(sb.wait_log("Re-send timeout cmd", 300));  // the SN answer retired the query
    Recorder::instance().clear();
}
