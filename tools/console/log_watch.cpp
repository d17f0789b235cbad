/*
 * Follows the module's log file for the phrases of a small table and says each as a console
 * warning; after a daemon restart it waits for the Wi-Fi link to come up and says so when it
 * does not. The main thread reads what the module logs as it opens; then the follower thread,
 * for the whole process; the callback thread touches only the atomic restart deadline.
 */
#include "console/log_watch.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "console/console.h"
#include "hal/hal.h"
#include "sim/sim_util.h"

namespace atcmd_tools {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPollMs = 100;
constexpr int kRestartUpMs = 10000;  // a restarted daemon that reports running takes about 1 s

struct LogPhrase {
    const char *phrase;  // as the module writes it
    const char *kind;
    const char *text;
    bool restart;  // the daemon is being restarted: the link is expected up again
};

constexpr LogPhrase kPhrases[] = {
    {"no watch on", "no-dev-watch",
     "the module has no watch on /dev (is dev/ missing from the sandbox?): a plug will not be seen", false},
    {"Can not get Corvel BTMAC", "bt-mac-unset",
     "the Bluetooth MAC property (net.bluetooth.macaddr) is not set: the start-up interrogation stalled about 2 s "
     "without it",
     false},
    {"lost heart beat", "heartbeat-lost", "the Wi-Fi daemon's heartbeat was lost: the module restarts the daemon", true},
    {"hiddemon exit fails", "daemon-killed", "the Wi-Fi daemon did not exit when asked: the module stops it by force",
     false},
};

// When the restarted daemon must have brought the link up, in steady-clock ticks; 0: none due.
std::atomic<long long> g_restart_due{0};

long long ticks_from_now(int ms) {
    return (Clock::now() + std::chrono::milliseconds(ms)).time_since_epoch().count();
}

// Says each phrase found in `held`; keeps only a tail that may hold the beginning of one (the
// module's lines reach the file in pieces).
void scan(std::string *held) {
    size_t longest = 0;
    for (const LogPhrase &p : kPhrases) {
        longest = std::max(longest, strlen(p.phrase));
        for (size_t at = held->find(p.phrase); at != std::string::npos; at = held->find(p.phrase, at + 1)) {
            console_warn(p.kind, p.text);
            if (p.restart) g_restart_due = ticks_from_now(kRestartUpMs);
        }
    }
    if (held->size() >= longest) held->erase(0, held->size() - (longest - 1));
}

void check_restart() {
    const long long due = g_restart_due;
    if (due == 0 || Clock::now().time_since_epoch().count() < due) return;
    long long expected = due;
    if (!g_restart_due.compare_exchange_strong(expected, 0)) return;
    console_warn("restart-failed",
                 "the restarted Wi-Fi daemon has not brought the link up in " + std::to_string(kRestartUpMs / 1000) +
                     " s: is it running, and are its reports relayed?");
}

struct Follower {
    std::string path;
    off_t offset = 0;  // how far the log was read
    std::string held;  // read and not yet matched
};

Follower g_log;  // the main thread until log_watch_opened starts the follower, then only it

// Reads what the module added to its log since the last look and says what it finds.
void look(Follower *f) {
    const int fd = open(f->path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    if (lseek(fd, 0, SEEK_END) < f->offset) f->offset = 0;  // the log was started again
    char buf[4096];
    for (ssize_t n; (n = pread(fd, buf, sizeof buf, f->offset)) > 0; f->offset += n) {
        f->held.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    scan(&f->held);
}

void follow() {
    for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(kPollMs));
        check_restart();
        look(&g_log);
    }
}

}  // namespace

void log_watch_start() {
    g_log.path = rooted(ATCMD_LOG_DIR "/" ATCMD_LOG_FILE);
    const int fd = open(g_log.path.c_str(), O_RDONLY | O_CLOEXEC);
    g_log.offset = fd >= 0 ? lseek(fd, 0, SEEK_END) : 0;
    if (fd >= 0) close(fd);
}

// The module made its log directory and opened the file as it opened; the console only looks.
void log_watch_opened() {
    if (access(g_log.path.c_str(), W_OK) != 0) {
        console_warn("log-unwritable", "the module's log " + g_log.path + " is missing or cannot be written (" +
                                           strerror(errno) + "): what the module logs is lost, and so are its "
                                           "warnings here");
    }
    look(&g_log);  // what the module said as it opened comes before the first command
    std::thread(follow).detach();
}

void log_watch_message(const DecodedMessage &m) {
    if (m.msg_id == AT_MSG_WIFICON && !m.ints.empty() && m.ints[0] == 1) g_restart_due = 0;
}

}  // namespace atcmd_tools
