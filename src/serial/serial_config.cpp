/*
 * Terminal line settings of the wired links: UART_setOpt and VUART_setOpt build a fresh raw
 * setting and apply it. Run by whichever thread opens a port (the open path, the UART receive
 * loop, the supervisor). Writes no globals; the two entry points differ only in their log tag.
 */
#define LOG_TAG ATCMD_UART_TAG

#include <stdio.h>
#include <string.h>
#include <termios.h>

#include <array>

#include "log/atcmd_log.h"
#include "serial/serial.h"

namespace {

struct SpeedCode {
    int32_t bps;
    speed_t code;
};

// Stops at 460800 on purpose: faster rates fall back to the default like any unknown one.
constexpr std::array<SpeedCode, 9> kSpeeds = {{
    {2400, B2400},
    {4800, B4800},
    {9600, B9600},
    {19200, B19200},
    {38400, B38400},
    {57600, B57600},
    {115200, B115200},
    {230400, B230400},
    {460800, B460800},
}};
constexpr speed_t kDefaultSpeed = B9600;

struct DataBits {
    int32_t bits;
    tcflag_t cflag;
};
constexpr std::array<DataBits, 2> kDataBits = {{{7, CS7}, {8, CS8}}};

struct Parity {
    char upper;
    tcflag_t iflag;
    tcflag_t cflag;
};
// Looked up by the upper-case letter; 'n', 'e' and 'o' mean the same.
constexpr std::array<Parity, 3> kParities = {{
    {'N', 0, 0},
    {'E', INPCK | ISTRIP, PARENB},
    {'O', INPCK | ISTRIP, PARENB | PARODD},
}};

struct StopBits {
    int32_t bits;
    tcflag_t cflag;
};
constexpr std::array<StopBits, 2> kStopBits = {{{1, 0}, {2, CSTOPB}}};

template <typename Table, typename Pred>
const typename Table::value_type *find_row(const Table &table, Pred pred) {
    for (const auto &row : table) {
        if (pred(row)) return &row;
    }
    return nullptr;
}

char upper_parity(char parity) {
    return (parity >= 'a' && parity <= 'z') ? static_cast<char>(parity - 'a' + 'A') : parity;
}

// Every check runs before anything is applied, so a refused setting leaves the port as it was.
// `func` and `tag` are the entry point's name and its channel's tag, which every line carries.
int32_t set_line(const char *func, const char *tag, int32_t fd, int32_t speed, int32_t data_bits,
                 char parity, int32_t stop_bits) {
    struct termios current;
    if (tcgetattr(fd, &current) != 0) {
        ATCMD_LOG_AS(func, tag, ATCMD_LEVEL_ERROR, "serial SetupSerial 1");
        return -1;
    }

    // A new setting from nothing: no input, output or local processing, hence raw.
    struct termios tio;
    memset(&tio, 0, sizeof tio);
    tio.c_cflag = CLOCAL | CREAD;

    const DataBits *size = find_row(kDataBits, [&](const DataBits &r) { return r.bits == data_bits; });
    if (size == nullptr) {
        ATCMD_LOG_AS(func, tag, ATCMD_LEVEL_DETAIL, "Unsupported data size\n");
        return -1;
    }
    tio.c_cflag |= size->cflag;

    const Parity *par =
        find_row(kParities, [&](const Parity &r) { return r.upper == upper_parity(parity); });
    if (par == nullptr) {
        ATCMD_LOG_AS(func, tag, ATCMD_LEVEL_DETAIL, "serial Unsupported parity\n");
        return -1;
    }
    tio.c_iflag = par->iflag;
    tio.c_cflag |= par->cflag;

    const StopBits *stop = find_row(kStopBits, [&](const StopBits &r) { return r.bits == stop_bits; });
    if (stop == nullptr) {
        ATCMD_LOG_AS(func, tag, ATCMD_LEVEL_DETAIL, "serial Unsupported stop bits\n");
        return -1;
    }
    tio.c_cflag |= stop->cflag;

    const SpeedCode *rate = find_row(kSpeeds, [&](const SpeedCode &r) { return r.bps == speed; });
    if (rate == nullptr) {
        ATCMD_LOG_AS(func, tag, ATCMD_LEVEL_DETAIL,
                     "serial Sorry, Unsupported baud rate, set default 9600!");
    }
    const speed_t code = rate != nullptr ? rate->code : kDefaultSpeed;
    cfsetispeed(&tio, code);
    cfsetospeed(&tio, code);

    // A read returns once one byte is there; the 0.1 s timer runs only between bytes.
    tio.c_cc[VTIME] = 1;
    tio.c_cc[VMIN] = 1;

    tcflush(fd, TCIFLUSH);
    if (tcsetattr(fd, TCSANOW, &tio) != 0) {
        perror("SetupSerial 3");
        return -1;
    }
    ATCMD_LOG_AS(func, tag, ATCMD_LEVEL_DETAIL, "Serial set done!");
    return 0;
}

}  // namespace

int32_t UART_setOpt(int32_t fd, int32_t speed, int32_t data_bits, char parity, int32_t stop_bits) {
    return set_line(__func__, LOG_TAG, fd, speed, data_bits, parity, stop_bits);
}

int32_t VUART_setOpt(int32_t fd, int32_t speed, int32_t data_bits, char parity,
                     int32_t stop_bits) {
    return set_line(__func__, ATCMD_VUART_TAG, fd, speed, data_bits, parity, stop_bits);
}
