// The wired channels on real pseudo-terminals: the line setting applied or refused, the open
// paths under the sandbox root, timed receive, and a send/receive round trip.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <string.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "serial/serial.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

termios attrs(int fd) {
    termios tio;
    memset(&tio, 0, sizeof tio);  // padding too, so that whole records compare
    EXPECT_EQ(tcgetattr(fd, &tio), 0);
    return tio;
}

bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

class Serial : public ::testing::Test {
protected:
    void SetUp() override { log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE); }
    bool logged(const std::string &text) const {
        return sb.log_text().find(text) != std::string::npos;
    }
    // A pty slave opened by the test itself.
    int open_slave(const Pty &pty) {
        slave = open(pty.slave_path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        return slave;
    }
    void TearDown() override {
        if (slave >= 0) close(slave);
    }
    Sandbox sb;
    int slave = -1;
};

}  // namespace

TEST_F(Serial, SetOptAppliesRaw8N1At460800ForBothTags) {
    Pty pty;
    const int fd = open_slave(pty);
    for (auto set_opt : {UART_setOpt, VUART_setOpt}) {
        ASSERT_EQ(set_opt(fd, 460800, 8, 'n', 1), 0);
        const termios tio = attrs(fd);
        EXPECT_EQ(tio.c_cflag & ~CBAUD, static_cast<tcflag_t>(CLOCAL | CREAD | CS8));
        EXPECT_EQ(tio.c_iflag | tio.c_oflag | tio.c_lflag, 0u);
        EXPECT_EQ(cfgetispeed(&tio), static_cast<speed_t>(B460800));
        EXPECT_EQ(cfgetospeed(&tio), static_cast<speed_t>(B460800));
        EXPECT_EQ(tio.c_cc[VMIN], 1);
        EXPECT_EQ(tio.c_cc[VTIME], 1);
    }
    EXPECT_TRUE(logged("Serial set done!"));
}

TEST_F(Serial, RefusedSettingLeavesPortUntouched) {
    Pty pty;
    const int fd = open_slave(pty);
    termios before = attrs(fd);
    cfmakeraw(&before);
    cfsetspeed(&before, B38400);
    ASSERT_EQ(tcsetattr(fd, TCSANOW, &before), 0);
    before = attrs(fd);
    const struct {
        int32_t bits;
        char parity;
        int32_t stop;
        const char *message;
    } bad[] = {{8, 'x', 1, "serial Unsupported parity\n"},
               {6, 'n', 1, "Unsupported data size\n"},
               {8, 'n', 3, "serial Unsupported stop bits\n"}};
    for (const auto &b : bad) {
        EXPECT_EQ(VUART_setOpt(fd, 460800, b.bits, b.parity, b.stop), -1) << b.message;
        const termios after = attrs(fd);
        EXPECT_EQ(memcmp(&after, &before, sizeof after), 0) << b.message;
        EXPECT_TRUE(logged(b.message));
    }
    EXPECT_FALSE(logged("Serial set done!"));
}

TEST_F(Serial, UnknownSpeedFallsBackTo9600AndParityInEitherCase) {
    Pty pty;
    const int fd = open_slave(pty);
    const struct {
        int32_t speed;
        speed_t code;
        bool sorry;
    } speeds[] = {
        {921600, B9600, true}, {12345, B9600, true}, {9600, B9600, false}, {2400, B2400, false}};
    for (const auto &s : speeds) {
        const size_t log_before = sb.log_text().size();
        ASSERT_EQ(UART_setOpt(fd, s.speed, 8, 'n', 1), 0) << s.speed;
        const termios tio = attrs(fd);
        EXPECT_EQ(cfgetispeed(&tio), s.code) << s.speed;
        EXPECT_EQ(cfgetospeed(&tio), s.code) << s.speed;
        EXPECT_EQ(sb.log_text().find("serial Sorry, Unsupported baud rate, set default 9600!",
                                     log_before) != std::string::npos, s.sorry) << s.speed;
    }
    // A pty forces 8 bits without parity and refuses a repeated parity request, so each letter
    // gets a fresh pty and the input flags show what was set.
    for (char parity : {'N', 'n', 'E', 'e', 'O', 'o'}) {
        Pty fresh;
        const int pfd = open(fresh.slave_path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_EQ(UART_setOpt(pfd, 115200, 7, parity, 2), 0) << parity;
        const tcflag_t want = (parity == 'N' || parity == 'n') ? 0 : INPCK | ISTRIP;
        EXPECT_EQ(attrs(pfd).c_iflag, want) << parity;
        close(pfd);
    }
}

TEST_F(Serial, OpensSandboxedPortsRawAndBlocking) {
    Pty uart, acm;
    uart.link_as(sb, ATCMD_UART_PATH);
    acm.link_as(sb, "/dev/ttyACM3");
    int32_t ufd = -1, vfd = -1;
    ASSERT_EQ(UART_init(&ufd), 0);
    ASSERT_EQ(VUART_init(&vfd, 3), 0);
    for (int fd : {ufd, vfd}) {
        const termios tio = attrs(fd);
        EXPECT_EQ(cfgetospeed(&tio), static_cast<speed_t>(B460800));
        EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    }
    EXPECT_TRUE(logged("serial fcntl=0"));
    EXPECT_TRUE(logged("Init uart /dev/ttyS4 successfully, uart fd is " + std::to_string(ufd)));
    EXPECT_TRUE(logged("serial open successfully, vuart fd is " + std::to_string(vfd) + "!"));
    EXPECT_TRUE(logged("Init Vuart /dev/ttyACM3 successfully, Vuart fd is " + std::to_string(vfd)));
    close(ufd);
    close(vfd);
}

TEST_F(Serial, InitFailuresReportAndClose) {
    int32_t fd = 42;
    EXPECT_EQ(UART_init(&fd), -1);
    EXPECT_EQ(fd, -1);
    EXPECT_TRUE(logged("open AMLOGIC UART fails"));
    fd = 42;
    EXPECT_EQ(VUART_init(&fd, 3), -1);
    EXPECT_EQ(fd, -1);
    EXPECT_TRUE(logged("open serial /dev/ttyACM3 fails, error num is -1, error num is No such file"));

    // A regular file is no terminal: closed, while the caller keeps the stale number.
    write_file(sb.path(ATCMD_UART_PATH), "plain");
    write_file(sb.path("/dev/ttyACM3"), "plain");
    EXPECT_EQ(UART_init(&fd), -1);
    EXPECT_FALSE(fd < 0 || is_open(fd));
    EXPECT_EQ(VUART_init(&fd, 3), -1);
    EXPECT_FALSE(fd < 0 || is_open(fd));
    EXPECT_TRUE(logged("serial standard input is not a terminal device\n"));
    EXPECT_TRUE(logged("serial standard input is not a terminal device!"));
    const int plain = open(sb.path(ATCMD_UART_PATH).c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(UART_setOpt(plain, 460800, 8, 'n', 1), -1);
    EXPECT_TRUE(is_open(plain));  // the caller closes it
    close(plain);
    EXPECT_TRUE(logged("serial SetupSerial 1"));
    EXPECT_EQ(UART_init(nullptr), -1);
}

TEST(SerialDeathTest, AcmNumberThatDoesNotFitEndsTheProcess) {
    Sandbox sb;
    int32_t fd = -1;
    EXPECT_DEATH(VUART_init(&fd, 10000), "ACM port number 10000 does not fit");
}

TEST_F(Serial, ReceiveWaitsSendsAndRoundTrips) {
    Pty pty;
    pty.link_as(sb, "/dev/ttyACM0");
    int32_t fd = -1;
    ASSERT_EQ(VUART_init(&fd, 0), 0);
    char buf[64] = {};
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(UART_Recv(fd, buf, sizeof buf, 500), -1);  // silent line
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(450));
    EXPECT_LT(waited, std::chrono::milliseconds(1500));

    const std::string request = "AT+VER?#1&1\r\n";
    EXPECT_EQ(VUART_Send(fd, request.c_str(), request.size()), static_cast<int>(request.size()));
    EXPECT_EQ(pty.read_until([&](const std::string &got) { return got.size() >= 13; }), request);
    EXPECT_TRUE(logged("serial send data is " + request));

    // With a wait of -1 select refuses at once and the read takes what is there.
    pty.write("+VER=1\r\n");
    ASSERT_TRUE(wait_until([&] {
        int ready = 0;
        return ioctl(fd, FIONREAD, &ready) == 0 && ready >= 8;
    }));
    EXPECT_EQ(VUART_Recv(fd, buf, sizeof buf, -1), 8);
    EXPECT_STREQ(buf, "+VER=1\r\n");
    close(fd);

    const int read_only = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(UART_Send(read_only, "+OK\r\n", 5), -1);
    EXPECT_TRUE(logged("serial write device error\n"));
    close(read_only);
}
