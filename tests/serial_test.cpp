// The wired channels on real pseudo-terminals: line settings, opening, timed receive and send.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <string.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <chrono>

#include "serial/serial.h"
#include "support/test_support.h"

using namespace atcmd_test;

static termios attrs(int fd) { termios t = termios(); tcgetattr(fd, &t); return t; }
static int open_slave(const Pty &p) { return open(p.slave_path().c_str(), O_RDWR | O_NOCTTY); }

class Serial : public ::testing::Test {
protected:
    bool logged(const std::string &text) const { return sb.log_text().find(text) != text.npos; }
    Sandbox sb{kWithLog};
};
using SerialDeathTest = Serial;

TEST_F(Serial, SetOptRefusesBadValuesUntouchedAndFallsBackTo9600) {
    Pty pty;
    const int fd = open_slave(pty);
    const termios before = attrs(fd);
    const std::tuple<int32_t, char, int32_t, const char *> bad[] = {
        {8, 'x', 1, "serial Unsupported parity\n"}, {6, 'n', 1, "Unsupported data size\n"},
        {8, 'n', 3, "serial Unsupported stop bits\n"}};
    for (const auto &[bits, parity, stop, message] : bad)
        EXPECT_TRUE(VUART_setOpt(fd, 460800, bits, parity, stop) == -1 && logged(message))
            << message;
    const termios after = attrs(fd);
    EXPECT_EQ(memcmp(&after, &before, sizeof after), 0);  // attrs() zeroes the padding too
    EXPECT_FALSE(logged("Serial set done!"));

    const std::pair<int32_t, speed_t> speeds[] = {{2400, B2400}, {9600, B9600}, {921600, B9600}};
    for (const auto &[bps, code] : speeds) {
        ASSERT_EQ(UART_setOpt(fd, bps, 8, 'n', 1), 0);
        const termios tio = attrs(fd);
        EXPECT_TRUE(cfgetispeed(&tio) == code && cfgetospeed(&tio) == code) << bps;
        EXPECT_EQ(logged("serial Sorry, Unsupported baud rate, set default 9600!"), bps == 921600);
    }
    for (char parity : {'N', 'n', 'E', 'e', 'O', 'o'}) {  // a pty refuses a repeated parity change
        Pty fresh;
        const int pfd = open_slave(fresh);
        ASSERT_EQ(UART_setOpt(pfd, 115200, 7, parity, 2), 0) << parity;
        EXPECT_EQ(attrs(pfd).c_iflag, toupper(parity) == 'N' ? 0u : INPCK | ISTRIP) << parity;
    }
}

// Each port: nothing at the path, then a regular file (closed, while the caller keeps the stale
// number), then a pty set raw 8N1 at 460800 and blocking; on the VUART, receive and send; no
// place for the descriptor is refused.
TEST_F(Serial, InitOpensOnlyTerminalsThatThenReceiveAndSend) {
    const auto init = [](int i, int32_t *fd) { return i == 0 ? UART_init(fd) : VUART_init(fd, 3); };
    const char *const paths[] = {ATCMD_UART_PATH, "/dev/ttyACM3"};
    Pty ptys[2];
    int32_t fd = 42;
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(init(i, &fd) == -1 && fd == -1);
        write_text_file(sb.path(paths[i]), "plain");
        EXPECT_TRUE(init(i, &fd) == -1 && fd >= 0 && fcntl(fd, F_GETFD) == -1);
        ptys[i].link_as(sb, paths[i]);
        ASSERT_EQ(init(i, &fd), 0);
        const termios t = attrs(fd);
        EXPECT_EQ(t.c_cflag & ~CBAUD, tcflag_t(CLOCAL | CREAD | CS8));
        EXPECT_TRUE(!(t.c_iflag | t.c_oflag | t.c_lflag) && t.c_cc[VMIN] == 1 && t.c_cc[VTIME] == 1);
        EXPECT_TRUE(cfgetospeed(&t) == B460800 && (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0);
    }
    char buf[64] = {};
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(UART_Recv(fd, buf, sizeof buf, 500), -1);  // silent line: 450 to 1450 ms
    EXPECT_NEAR((std::chrono::steady_clock::now() - t0) / std::chrono::milliseconds(1), 950, 500);
    EXPECT_EQ(VUART_Send(fd, "AT+VER?#1&1\r\n", 13), 13);
    EXPECT_EQ(ptys[1].read_until([](const auto &s) { return s.size() >= 13; }), "AT+VER?#1&1\r\n");
    ptys[1].write("+VER=1\r\n");  // with a wait of -1 select fails at once and the read takes it
    ASSERT_TRUE(wait_until([&] { int n = 0; return ioctl(fd, FIONREAD, &n) == 0 && n >= 8; }));
    EXPECT_EQ(VUART_Recv(fd, buf, sizeof buf, -1), 8);
    EXPECT_STREQ(buf, "+VER=1\r\n");
    EXPECT_EQ(UART_Send(open("/dev/null", O_RDONLY), "+OK\r\n", 5), -1);
    EXPECT_TRUE(UART_init(nullptr) == -1 && VUART_init(nullptr, 3) == -1);
    const std::string texts[] = {
        "open AMLOGIC UART fails", "serial fcntl=0",
        "open serial /dev/ttyACM3 fails, error num is -1, error num is No such file",
        "serial standard input is not a terminal device\n", "serial write device error\n",
        "serial standard input is not a terminal device!",
        "serial open successfully, vuart fd is " + std::to_string(fd) + "!",
        "Init Vuart /dev/ttyACM3 successfully, Vuart fd is " + std::to_string(fd)};
    for (const std::string &text : texts) EXPECT_TRUE(logged(text)) << text;
}

TEST_F(SerialDeathTest, AcmNumberThatDoesNotFitEndsTheProcess) {
    EXPECT_DEATH({ int32_t fd; VUART_init(&fd, 10000); }, "ACM port number 10000 does not fit");
}
