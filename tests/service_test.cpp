// The service's logic against the real module (built/hw/atcmdprocess.default.so, loaded as the
// console loads it) and the simulators, through the functions the binder glue calls: a call
// reaching the device, every message reaching the registered client copied, a client's death
// and the next client, the daemon's words relayed, the Bluetooth address handed over, and close
// ending the process.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "console/loader.h"
#include "service/service_core.h"
#include "sim/accessory_sim.h"
#include "sim/daemon_sim.h"
#include "sim/messages.h"
#include "support/test_support.h"

namespace {

using atcmd_service::Client;
using atcmd_service::CommandIn;
using atcmd_service::CopiedMessage;
using atcmd_service::RegisterResult;
using atcmd_test::pattern_replace;
using atcmd_test::Sandbox;
using atcmd_test::wait_until;
using namespace atcmd_tools;

// What one client received, and whether the core let it go.
struct ClientLog {
    std::mutex mutex;  // guards everything below
    std::vector<DecodedMessage> messages;
    int releases = 0;

    // Decodes a copy as the console on the phone does: from the copied bytes alone.
    static void deliver(void *ctx, const CopiedMessage &m) {
        std::vector<uint8_t> bytes(m.data);
        bytes.resize(CORVEL_VER_BLOCK_SIZE + 1, 0);  // room for the widest value, NUL-ended
        const AT_CMD_CbMsg_t msg = {m.msg_id, m.seq_num, m.has_data ? bytes.data() : nullptr};
        auto *log = static_cast<ClientLog *>(ctx);
        std::lock_guard<std::mutex> lock(log->mutex);
        log->messages.push_back(decode_message(&msg));
    }
    static void release(void *ctx) {
        auto *log = static_cast<ClientLog *>(ctx);
        std::lock_guard<std::mutex> lock(log->mutex);
        ++log->releases;
    }
    Client client(uintptr_t id) { return Client{id, deliver, release, this}; }

    // The last message named `name` ("VER"), waited for; its name is empty when none came.
    DecodedMessage wait_for(const std::string &name, int timeout_ms = 5000) {
        DecodedMessage found;
        wait_until([&] {
            std::lock_guard<std::mutex> lock(mutex);
            for (const DecodedMessage &m : messages) {
                if (m.name == name) found = m;
            }
            return !found.name.empty();
        }, timeout_ms);
        return found;
    }
    DecodedMessage last(const std::string &name) {
        std::lock_guard<std::mutex> lock(mutex);
        DecodedMessage found;
        for (const DecodedMessage &m : messages) {
            if (m.name == name) found = m;
        }
        return found;
    }
    size_t count() {
        std::lock_guard<std::mutex> lock(mutex);
        return messages.size();
    }
};

// The lines the accessory received from the phone.
struct AccessoryLines {
    std::mutex mutex;  // guards lines
    std::vector<std::string> lines;

    static void observe(void *ctx, AccLink, const char *dir, const std::string &text) {
        if (std::string(dir) != "<-") return;
        auto *self = static_cast<AccessoryLines *>(ctx);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->lines.push_back(text);
    }
    bool wait_for(const std::string &prefix, int timeout_ms = 5000) {
        return wait_until([&] {
            std::lock_guard<std::mutex> lock(mutex);
            for (const std::string &l : lines) {
                if (l.rfind(prefix, 0) == 0) return true;
            }
            return false;
        }, timeout_ms);
    }
};

// A sandbox with the module loaded and served, an accessory simulator and one client.
class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(load_module(ATCMD_MODULE_PATH, -1, &module_, &error)) << error;
        ASSERT_TRUE(atcmd_service::core_start(module_.dev, module_.handle));
        acc_ = acc_sim_create(AccIdentity{}, AccessoryLines::observe, &acc_lines_);
        ASSERT_EQ(atcmd_service::core_register(first_.client(1)), RegisterResult::kRegistered);
    }
    // No client may outlive its log: the module's threads go on until the process ends.
    void TearDown() override {
        atcmd_service::core_unregister(1);
        atcmd_service::core_unregister(2);
        acc_sim_destroy(acc_);
    }

    Sandbox sb_;
    LoadedModule module_;
    AccessoryLines acc_lines_;
    AccSim *acc_ = nullptr;
    ClientLog first_;
    ClientLog second_;
};

TEST_F(ServiceTest, CommandReachesTheAccessoryAndItsAnswerEveryPlugMessageReachesTheClient) {
    ASSERT_EQ(acc_sim_plug(acc_, 3), 0);
    // The start-up interrogation's answers, each copied whole: integers, texts, the version block.
    const AccIdentity id;
    EXPECT_EQ(first_.wait_for("USBSTATE").ints, (std::vector<int32_t>{1, 0}));
    EXPECT_EQ(first_.wait_for("TYPE").texts, std::vector<std::string>{id.type});
    EXPECT_EQ(first_.wait_for("SN").texts, std::vector<std::string>{id.sn});
    EXPECT_EQ(first_.wait_for("SID").texts, std::vector<std::string>{id.sid});
    const DecodedMessage ver = first_.wait_for("VER");
    ASSERT_EQ(ver.texts.size(), 7u);
    EXPECT_EQ(ver.texts[3], id.ver[3].substr(id.ver[3].find(':') + 1));
    EXPECT_EQ(first_.wait_for("BAT").ints, (std::vector<int32_t>{87, 1, 4120, 250, 1, 0}));

    const CommandIn query = {AT_TYPE_QUERY, AT_NODE_NONE, AT_NODE_ACCESSORY, PLATFORM_VUART, 0,
                             AT_MSG_SN, 4321, "AT+SN?#4321&1\r\n"};
    const atcmd_service::Outcome sent = atcmd_service::core_send_command(query);
    EXPECT_TRUE(sent.accepted);
    EXPECT_EQ(sent.result, 0);
    EXPECT_TRUE(acc_lines_.wait_for("AT+SN?#4321&1"));
    EXPECT_TRUE(wait_until([&] {
        std::lock_guard<std::mutex> lock(first_.mutex);
        for (const DecodedMessage &m : first_.messages) {
            if (m.name == "SN" && m.seq_num == 4321) return true;
        }
        return false;
    }, 5000));
}

TEST_F(ServiceTest, RecordsThatDoNotFitTheModuleAreRefusedBeforeReachingIt) {
    const std::string ok = "AT+SN?#7&1\r\n";
    const CommandIn bad[] = {
        {256, 0, 3, 1, 0, AT_MSG_SN, 7, ok},   {3, -1, 3, 1, 0, AT_MSG_SN, 7, ok},
        {3, 0, 3, 1, 0, 300, 7, ok},           {3, 0, 3, 1, 0, AT_MSG_SN, 65536, ok},
        {3, 0, 3, 1, 0, AT_MSG_SN, -7, ok},    {3, 0, 3, 1, 0, AT_MSG_SN, 7, std::string(160, 'A')},
        {3, 0, 3, 1, 0, AT_MSG_SN, 7, std::string("AT+SN?\0#7&1\r\n", 14)},
    };
    ASSERT_EQ(acc_sim_plug(acc_, 3), 0);
    ASSERT_FALSE(first_.wait_for("VER").name.empty());
    for (const CommandIn &c : bad) {
        const atcmd_service::Outcome o = atcmd_service::core_send_command(c);
        EXPECT_FALSE(o.accepted) << c.line;
        EXPECT_EQ(o.result, -EINVAL);
    }
    const CommandIn longest = {3, 0, 3, 1, 0, AT_MSG_SN, 8, "AT+SN?#8&1" + std::string(147, ' ') + "\r\n"};
    EXPECT_TRUE(atcmd_service::core_send_command(longest).accepted);  // 159 bytes fit
    EXPECT_TRUE(acc_lines_.wait_for("AT+SN?#8&1"));
    std::lock_guard<std::mutex> lock(acc_lines_.mutex);
    for (const std::string &l : acc_lines_.lines) EXPECT_EQ(l.find("#7&1"), std::string::npos) << l;
}

TEST_F(ServiceTest, OneClientAtATimeItsDeathIsSurvivedAndTheNextClientRegisters) {
    ClientLog &second = second_;
    EXPECT_EQ(atcmd_service::core_register(second.client(2)), RegisterResult::kBusy);
    EXPECT_EQ(second.releases, 1);  // refused, so let go at once
    EXPECT_EQ(atcmd_service::core_register(first_.client(1)), RegisterResult::kAlreadyRegistered);
    EXPECT_EQ(first_.releases, 1);  // its earlier entry was replaced

    atcmd_service::core_unregister(2);  // not the registered one: nothing happens
    EXPECT_TRUE(atcmd_service::core_has_client());
    atcmd_service::core_unregister(1);  // what the death recipient does when the client dies
    EXPECT_FALSE(atcmd_service::core_has_client());
    EXPECT_EQ(first_.releases, 2);

    ASSERT_EQ(acc_sim_plug(acc_, 3), 0);  // messages with no client are dropped, the module goes on
    EXPECT_TRUE(acc_lines_.wait_for("AT+VER?"));
    EXPECT_EQ(atcmd_service::core_register(second.client(2)), RegisterResult::kRegistered);
    const CommandIn query = {AT_TYPE_QUERY, 0, AT_NODE_ACCESSORY, PLATFORM_VUART, 0, AT_MSG_SID, 55,
                             "AT+SID?#55&1\r\n"};
    EXPECT_TRUE(atcmd_service::core_send_command(query).accepted);
    EXPECT_EQ(second.wait_for("SID").seq_num, 55);
    EXPECT_EQ(first_.count(), 0u);
}

TEST_F(ServiceTest, DaemonWordsRelayedThroughTheServiceBringTheWifiLinkUpAndDown) {
    // The daemon simulator's reports reach the module the way the upper layer relays them.
    auto report = [](void *, const std::string &status) { atcmd_service::core_daemon_status(status); };
    DaemonSim *daemon = daemon_sim_create(acc_, report, nullptr, nullptr);
    EXPECT_TRUE(atcmd_service::core_wifi_init("192.168.49.1").accepted);
    EXPECT_EQ(first_.wait_for("WIFICON", 10000).ints, std::vector<int32_t>{1});
    EXPECT_TRUE(wait_until([] { return atcmd_service::core_status().mode == AT_MODE_WIFI; }, 5000));
    EXPECT_EQ(atcmd_service::core_status().wifi_status, 1);
    EXPECT_TRUE(acc_lines_.wait_for("AT+TYPE?", 10000));  // the interrogation over Wi-Fi

    EXPECT_TRUE(atcmd_service::core_wifi_state_change(0).accepted);
    EXPECT_EQ(first_.wait_for("WIFICON").ints, std::vector<int32_t>{0});
    EXPECT_EQ(atcmd_service::core_status().wifi_status, 0);
    EXPECT_EQ(atcmd_service::core_status().mode, AT_MODE_NONE);
    daemon_sim_destroy(daemon);
}

// Where the MAC property cannot be read (unset here, as on a Treble phone where policy hides it),
// the address the upper layer handed over goes out at plug; the property, when readable, wins.
TEST_F(ServiceTest, HandedBluetoothAddressIsSentAtPlugWhenThePropertyIsEmpty) {
    struct Case {
        const char *property;  // nullptr: unset
        const char *sent;
    };
    const Case cases[] = {{nullptr, "AT+BTMAC=A4:C1:38:00:11:22#7&1"},
                          {"11:22:33:44:55:66", "AT+BTMAC=11:22:33:44:55:66#7&1"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.sent);
        if (c.property != nullptr) sb_.set_property("net.bluetooth.macaddr", c.property);
        EXPECT_TRUE(atcmd_service::core_set_bt_address("A4:C1:38:00:11:22").accepted);
        const size_t log_from = sb_.log_size();
        ASSERT_EQ(acc_sim_plug(acc_, 3), 0);
        EXPECT_TRUE(acc_lines_.wait_for(c.sent, 1500));  // well inside the property's two-second wait
        EXPECT_TRUE(acc_lines_.wait_for("AT+SN?"));  // the interrogation goes on past it
        EXPECT_EQ(sb_.log_text(log_from).find("Can not get Corvel BTMAC"), std::string::npos);
        acc_sim_unplug(acc_);
        ASSERT_TRUE(wait_until([] { return atcmd_service::core_status().usb_connected == 0; }, 5000));
        std::lock_guard<std::mutex> lock(acc_lines_.mutex);
        acc_lines_.lines.clear();
    }
}

TEST_F(ServiceTest, PlaceholderAndMalformedBluetoothAddressesAreRefusedAndNothingIsSent) {
    const char *refused[] = {"02:00:00:00:00:00", "A4:C1:38:00:11", "A4:C1:38:00:11:2G",
                             "A4-C1-38-00-11-22", "A4:C1:38:00:11:22:33", ""};
    for (const char *mac : refused) {
        const atcmd_service::Outcome o = atcmd_service::core_set_bt_address(mac);
        EXPECT_FALSE(o.accepted) << mac;
        EXPECT_EQ(o.result, -EINVAL) << mac;
    }
    EXPECT_TRUE(sb_.wait_log("Bluetooth address 02:00:00:00:00:00 refused: the platform's placeholder"));
    ASSERT_EQ(acc_sim_plug(acc_, 3), 0);
    EXPECT_TRUE(sb_.wait_log("Can not get Corvel BTMAC net.bluetooth.macaddr.", 5000));
    std::lock_guard<std::mutex> lock(acc_lines_.mutex);
    for (const std::string &l : acc_lines_.lines) EXPECT_EQ(l.find("BTMAC"), std::string::npos) << l;
}

// Closing ends the whole process: in a child, which must die by SIGKILL and never return.
TEST(ServiceCloseTest, CloseEndsTheServiceProcess) {
    Sandbox sb;
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        LoadedModule module;
        std::string error;
        if (!load_module(ATCMD_MODULE_PATH, -1, &module, &error) ||
            !atcmd_service::core_start(module.dev, module.handle)) {
            _exit(2);
        }
        atcmd_service::core_close();
        _exit(3);  // reached only if close returned
    }
    int status = 0;
    ASSERT_TRUE(wait_until([&] { return waitpid(child, &status, WNOHANG) == child; }, 10000));
    ASSERT_TRUE(WIFSIGNALED(status)) << "exit status " << WEXITSTATUS(status);
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

}  // namespace

namespace {

// One module per phone: where the device declares the service (here, the sandbox's VINTF
// manifest fragments, read as the service manager reads the device's), the console on the desk
// refuses to open a module of its own; a fragment that does not declare it changes nothing.
TEST(ConsoleServiceTest, ConsoleRefusesASecondModuleWhereTheServiceIsDeclared) {
    const std::string fragment = atcmd_test::read_file(ATCMD_TEST_DIR "/../service/vendor.atcmd-service.xml");
    ASSERT_FALSE(fragment.empty());
    struct Case {
        const char *what;
        std::string manifest;  // "": no fragment at all
        int exit_status;
    };
    const Case cases[] = {
        {"no fragment", "", 0},
        {"the service's fragment", fragment, 4},
        {"the fragment commented out", "<!-- " + fragment.substr(fragment.find("<manifest")) + " -->", 0},
        {"another interface", pattern_replace(fragment, "IAtCmd/default", "IOther/default"), 0},
        {"the instance as <interface>", pattern_replace(fragment, "<fqname>IAtCmd/default</fqname>",
                                                        "<interface>\n <name>IAtCmd</name>\n <instance>default</instance>\n</interface>"), 4},
        {"a HIDL declaration", pattern_replace(fragment, "format=\"aidl\"", "format=\"hidl\""), 0},
    };
    // The console under ThreadSanitizer, as the console's own tests run it.
    setenv("TSAN_OPTIONS", "report_signal_unsafe=0 suppressions=" ATCMD_TSAN_SUPPRESSIONS, 1);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Sandbox sb;
        if (!c.manifest.empty()) {
            ASSERT_TRUE(make_dirs(sb.path("/vendor/etc/vintf/manifest")));
            ASSERT_TRUE(write_text_file(sb.path("/vendor/etc/vintf/manifest/vendor.atcmd-service.xml"), c.manifest));
        }
        const std::string command = std::string(ATCMD_TOOL_RUNNER) + "'" ATCMD_BIN_DIR "/atcmd_console' -c status 2>&1";
        std::string out;
        FILE *p = popen(command.c_str(), "r");
        ASSERT_NE(p, nullptr);
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
        const int status = pclose(p);
        ASSERT_TRUE(WIFEXITED(status)) << out;
        EXPECT_EQ(WEXITSTATUS(status), c.exit_status) << out;
        const bool refused = c.exit_status == 4;
        EXPECT_EQ(out.find("vendor.quorvanta.atcmd.IAtCmd/default is declared") != std::string::npos, refused) << out;
        // A refused console opened no module: the module writes its log file as it opens.
        EXPECT_EQ(access(sb.log_path().c_str(), F_OK) == 0, !refused) << sb.log_path();
    }
}

}  // namespace
