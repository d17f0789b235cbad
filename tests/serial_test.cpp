// The wired channels on real pseudo-terminals: the line setting that is applied or refused, the
// open paths under the sandbox root, timed receive, and a send/receive round trip.
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

struct SetOptEntry {
    const char *name;
    int32_t (*set_opt)(int32_t, int32_t, int32_t, char, int32_t);
};
void PrintTo(const SetOptEntry &e, std::ostream *os) { *os << e.name; }

// The test's own descriptor on a pty slave, closed at the end.
struct SlaveFd {
    explicit SlaveFd(const Pty &pty)
        : fd(open(pty.slave_path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC)) {}
    ~SlaveFd() {
        if (fd >= 0) close(fd);
    }
    termios get() const {
        termios tio = {};
        EXPECT_EQ(tcgetattr(fd, &tio), 0);
        return tio;
    }
    int fd;
};

bool same_termios(const termios &a, const termios &b) {
    return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag &&
           a.c_lflag == b.c_lflag && memcmp(a.c_cc, b.c_cc, sizeof a.c_cc) == 0 &&
           cfgetispeed(&a) == cfgetispeed(&b) && cfgetospeed(&a) == cfgetospeed(&b);
}

bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

class SerialTest : public ::testing::Test {
protected:
    void SetUp() override { log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE); }
    bool log_has(const std::string &text) const {
        return sb.log_text().find(text) != std::string::npos;
    }
    Sandbox sb;
};

class SerialSetOpt : public SerialTest, public ::testing::WithParamInterface<SetOptEntry> {
protected:
    int32_t set_opt(int32_t fd, int32_t speed, int32_t bits, char parity, int32_t stop) const {
        return GetParam().set_opt(fd, speed, bits, parity, stop);
    }
};

}  // namespace

TEST_P(SerialSetOpt, SystemCallGivesRaw8N1At460800) {
    Pty pty;
    SlaveFd port(pty);
    ASSERT_EQ(set_opt(port.fd, 460800, 8, 'n', 1), 0);
    const termios tio = port.get();
    EXPECT_EQ(tio.c_cflag & ~static_cast<tcflag_t>(CBAUD),
              static_cast<tcflag_t>(CLOCAL | CREAD | CS8));
    EXPECT_EQ(tio.c_iflag, 0u);
    EXPECT_EQ(tio.c_oflag, 0u);
    EXPECT_EQ(tio.c_lflag, 0u);
    EXPECT_EQ(cfgetispeed(&tio), static_cast<speed_t>(B460800));
    EXPECT_EQ(cfgetospeed(&tio), static_cast<speed_t>(B460800));
    EXPECT_EQ(tio.c_cc[VMIN], 1);
    EXPECT_EQ(tio.c_cc[VTIME], 1);
    EXPECT_TRUE(log_has("Serial set done!"));
}

TEST_P(SerialSetOpt, RefusedSettingLeavesPortUntouched) {
    Pty pty;
    SlaveFd port(pty);
    termios before = port.get();
    cfmakeraw(&before);
    cfsetspeed(&before, B38400);
    ASSERT_EQ(tcsetattr(port.fd, TCSANOW, &before), 0);
    before = port.get();

    struct Bad {
        int32_t data_bits;
        char parity;
        int32_t stop_bits;
        const char *message;
    };
    const Bad bad[] = {
        {8, 'x', 1, "serial Unsupported parity\n"},
        {6, 'n', 1, "Unsupported data size\n"},
        {8, 'n', 3, "serial Unsupported stop bits\n"},
    };
    for (const Bad &b : bad) {
        SCOPED_TRACE(b.message);
        EXPECT_EQ(set_opt(port.fd, 460800, b.data_bits, b.parity, b.stop_bits), -1);
        EXPECT_TRUE(same_termios(port.get(), before));
        EXPECT_TRUE(log_has(b.message));
    }
    EXPECT_FALSE(log_has("Serial set done!"));
}

TEST_P(SerialSetOpt, UnsupportedSpeedFallsBackTo9600) {
    Pty pty;
    SlaveFd port(pty);
    const int32_t speeds[] = {921600, 12345};
    for (int32_t speed : speeds) {
        ASSERT_EQ(set_opt(port.fd, speed, 8, 'n', 1), 0) << speed;
        const termios tio = port.get();
        EXPECT_EQ(cfgetospeed(&tio), static_cast<speed_t>(B9600)) << speed;
        EXPECT_EQ(cfgetispeed(&tio), static_cast<speed_t>(B9600)) << speed;
    }
    EXPECT_TRUE(log_has("serial Sorry, Unsupported baud rate, set default 9600!"));

    // 9600 asked for is no fallback, and 2400 is honoured.
    const size_t before = sb.log_text().size();
    ASSERT_EQ(set_opt(port.fd, 9600, 8, 'n', 1), 0);
    ASSERT_EQ(set_opt(port.fd, 2400, 8, 'n', 1), 0);
    const termios tio = port.get();
    EXPECT_EQ(cfgetospeed(&tio), static_cast<speed_t>(B2400));
    EXPECT_EQ(sb.log_text().find("Sorry", before), std::string::npos);
}

// A pseudo-terminal forces 8 data bits without parity whatever is asked (and refuses a repeated
// parity request), so each row gets a fresh pty and the input flags show which parity was set.
TEST_P(SerialSetOpt, ParityLetterInEitherCase) {
    struct Row {
        char parity;
        tcflag_t iflag;
    };
    const Row rows[] = {
        {'N', 0}, {'n', 0}, {'e', INPCK | ISTRIP}, {'E', INPCK | ISTRIP},
        {'o', INPCK | ISTRIP}, {'O', INPCK | ISTRIP},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.parity);
        Pty pty;
        SlaveFd port(pty);
        ASSERT_EQ(set_opt(port.fd, 115200, 7, r.parity, 2), 0);
        const termios tio = port.get();
        EXPECT_EQ(tio.c_iflag, r.iflag);
        EXPECT_EQ(cfgetospeed(&tio), static_cast<speed_t>(B115200));
    }
}

TEST_P(SerialSetOpt, RegularFileIsNotATerminal) {
    const std::string path = sb.path("/plain");
    write_file(path, "x");
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(set_opt(fd, 460800, 8, 'n', 1), -1);
    EXPECT_TRUE(is_open(fd));  // the caller closes it
    close(fd);
    EXPECT_TRUE(log_has("serial SetupSerial 1"));
}

INSTANTIATE_TEST_SUITE_P(SerialEntryPoints, SerialSetOpt,
                         ::testing::Values(SetOptEntry{"Uart", UART_setOpt},
                                           SetOptEntry{"Vuart", VUART_setOpt}),
                         [](const ::testing::TestParamInfo<SetOptEntry> &info) {
                             return std::string(info.param.name);
                         });

TEST_F(SerialTest, UartInitOpensTtyS4InTheSandbox) {
    Pty pty;
    pty.link_as(sb, ATCMD_UART_PATH);
    int32_t fd = -1;
    ASSERT_EQ(UART_init(&fd), 0);
    ASSERT_GE(fd, 0);
    termios tio = {};
    ASSERT_EQ(tcgetattr(fd, &tio), 0);
    EXPECT_EQ(cfgetospeed(&tio), static_cast<speed_t>(B460800));
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);  // back to blocking
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_TRUE(log_has("serial fcntl=0"));
    EXPECT_TRUE(log_has("serial open success!"));
    EXPECT_TRUE(
        log_has("Init uart /dev/ttyS4 successfully, uart fd is " + std::to_string(fd) + " "));
    close(fd);
}

TEST_F(SerialTest, InitFailuresReportAndCloseAsTheCallerExpects) {
    int32_t fd = 42;
    EXPECT_EQ(UART_init(&fd), -1);
    EXPECT_EQ(fd, -1);
    EXPECT_TRUE(log_has("open AMLOGIC UART fails"));

    fd = 42;
    EXPECT_EQ(VUART_init(&fd, 3), -1);
    EXPECT_EQ(fd, -1);
    EXPECT_TRUE(log_has(
        "open serial /dev/ttyACM3 fails, error num is -1, error num is No such file or directory"));

    // A regular file opens but is no terminal: closed, while the caller keeps its number.
    write_file(sb.path(ATCMD_UART_PATH), "not a tty");
    write_file(sb.path("/dev/ttyACM3"), "not a tty");
    EXPECT_EQ(UART_init(&fd), -1);
    ASSERT_GE(fd, 0);
    EXPECT_FALSE(is_open(fd));
    EXPECT_TRUE(log_has("serial standard input is not a terminal device\n"));
    fd = -1;
    EXPECT_EQ(VUART_init(&fd, 3), -1);
    ASSERT_GE(fd, 0);
    EXPECT_FALSE(is_open(fd));
    EXPECT_TRUE(log_has("serial standard input is not a terminal device!"));

    EXPECT_EQ(UART_init(nullptr), -1);
    EXPECT_EQ(VUART_init(nullptr, 3), -1);
}

TEST_F(SerialTest, VuartInitOpensTheNumberedAcmPort) {
    Pty pty;
    pty.link_as(sb, "/dev/ttyACM3");
    int32_t fd = -1;
    ASSERT_EQ(VUART_init(&fd, 3), 0);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(isatty(fd));
    EXPECT_TRUE(log_has("serial open successfully, vuart fd is " + std::to_string(fd) + "!"));
    EXPECT_TRUE(log_has("Init Vuart /dev/ttyACM3 successfully, Vuart fd is " +
                        std::to_string(fd) + " "));
    close(fd);
}

TEST(SerialDeathTest, AcmNumberThatDoesNotFitEndsTheProcess) {
    Sandbox sb;
    int32_t fd = -1;
    EXPECT_DEATH(VUART_init(&fd, 10000), "ACM port number 10000 does not fit");
}

TEST_F(SerialTest, TimedReceiveOnSilentLineGivesUpAfterTheWait) {
    Pty pty;
    pty.link_as(sb, ATCMD_UART_PATH);
    int32_t fd = -1;
    ASSERT_EQ(UART_init(&fd), 0);
    char buf[16];
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(UART_Recv(fd, buf, sizeof buf, 500), -1);
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(waited, 450);
    EXPECT_LT(waited, 1500);
    close(fd);
}

TEST_F(SerialTest, SendAndReceiveRoundTrip) {
    Pty pty;
    pty.link_as(sb, "/dev/ttyACM0");
    int32_t fd = -1;
    ASSERT_EQ(VUART_init(&fd, 0), 0);

    const std::string request = "AT+VER?#1&1\r\n";
    EXPECT_EQ(VUART_Send(fd, request.c_str(), request.size()), static_cast<int>(request.size()));
    EXPECT_EQ(pty.read_until([&](const std::string &got) { return got.size() >= request.size(); }),
              request);
    EXPECT_TRUE(log_has("serial send data is " + request));

    // With a wait of -1 select refuses at once and the read takes what is there.
    pty.write("+VER=1\r\n");
    char buf[64] = {};
    ASSERT_TRUE(wait_until([&] {
        int ready = 0;
        return ioctl(fd, FIONREAD, &ready) == 0 && ready >= 8;
    }));
    EXPECT_EQ(VUART_Recv(fd, buf, sizeof buf, -1), 8);
    EXPECT_STREQ(buf, "+VER=1\r\n");

    pty.write("+OK\r\n");
    memset(buf, 0, sizeof buf);
    EXPECT_EQ(UART_Recv(fd, buf, sizeof buf, 1000), 5);
    EXPECT_STREQ(buf, "+OK\r\n");
    close(fd);
}

TEST_F(SerialTest, FailedWriteIsReportedAndFlushed) {
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(UART_Send(fd, "+OK\r\n", 5), -1);
    EXPECT_EQ(VUART_Send(fd, "+OK\r\n", 5), -1);
    EXPECT_EQ(UART_Send(fd, nullptr, 5), -1);
    close(fd);
    EXPECT_TRUE(log_has("serial write device error\n"));
    EXPECT_FALSE(log_has("serial send data is"));
}
