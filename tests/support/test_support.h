// Shared test fixtures: a sandbox root per test, pseudo-terminals that play the accessory,
// waits with deadlines, the module's log file, and a recorder for notify callbacks.
#pragma once

#include <stdint.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <atcmdprocess/atcmdprocess.h>

#include "engine/engine.h"
#include "sim/sim_util.h"

namespace atcmd_test {

// Polls `pred` every millisecond until it holds or `timeout_ms` passed; returns its last value.
bool wait_until(const std::function<bool()> &pred, int timeout_ms = 3000);

std::string read_file(const std::string &path);
using atcmd_tools::write_text_file;  // files are written the one way the tools write them

// Regular expressions (ECMAScript syntax), all compiled in test_support.cpp: <regex> costs each
// file that includes it seconds of compile time in every build.
// The first match of `pattern` in `text`; its groups go to `groups` ([0] the whole match).
bool pattern_search(const std::string &text, const std::string &pattern,
                    std::vector<std::string> *groups = nullptr);
// `pattern` matches the whole of `text`.
bool pattern_match(const std::string &text, const std::string &pattern,
                   std::vector<std::string> *groups = nullptr);
// The first group of every match, in order.
std::vector<std::string> pattern_all(const std::string &text, const std::string &pattern);
std::string pattern_replace(const std::string &text, const std::string &pattern, const std::string &with);
// `literal` with every character a pattern gives a meaning escaped.
std::string pattern_quote(const std::string &literal);

// True when nothing waits on the transmit queue or for an answer.
bool queues_idle();

// Asks a Sandbox to open the module's log file inside it as well.
enum WithLog { kWithLog };

// A fresh directory set as ATCMD_ROOT, with dev/ made; removed at destruction.
class Sandbox {
public:
    Sandbox();
    explicit Sandbox(WithLog);
    ~Sandbox();
    Sandbox(const Sandbox &) = delete;
    Sandbox &operator=(const Sandbox &) = delete;

    const std::string &root() const { return root_; }
    std::string path(const std::string &as_written) const { return root_ + as_written; }
    std::string log_path() const;
    // The log file from byte `from` on: a long run's log is read only past what was seen.
    std::string log_text(size_t from = 0) const;
    size_t log_size() const;
    // Waits until the log file holds `text` past byte `from`.
    bool wait_log(const std::string &text, int timeout_ms = 3000, size_t from = 0) const;
    std::string property(const std::string &key) const;  // "" when unset
    void set_property(const std::string &key, const std::string &value) const;

private:
    std::string root_;
};

// A pseudo-terminal; the test holds the master side and plays the accessory.
class Pty {
public:
    Pty();
    ~Pty();
    Pty(const Pty &) = delete;
    Pty &operator=(const Pty &) = delete;

    int master() const { return master_; }
    const std::string &slave_path() const { return slave_path_; }
    // Symlinks `sandbox_path` (as written, e.g. "/dev/ttyACM3") to the slave.
    void link_as(const Sandbox &sb, const std::string &as_written) const;
    void write(const std::string &bytes) const;
    // Closes the master: the device is gone, and reads on every open slave end.
    void close_master();
    // Reads from the master until `done(all_read)` holds, the deadline passes or the line dies.
    std::string read_until(const std::function<bool(const std::string &)> &done,
                           int timeout_ms = 3000) const;

private:
    int master_ = -1;
    int slave_ = -1;  // kept open so the slave never reports hang-up before the module opens it
    std::string slave_path_;
};

// A peer that never pauses: a thread that writes `bytes` into the FIFO at `path` (a sandbox path)
// over and over, as fast as the FIFO takes them, until destroyed, so that a reader of the FIFO
// never finds it empty. Opened read-write, so that the FIFO has a reader even while the module
// has it closed; a full FIFO is waited on (not slept on) for room. Waits for the FIFO to exist.
// The default bytes are NULs, which the module's framing drops with one short log line per read:
// the reader stays as busy as a real flood makes it, without a flood of parsed lines and logs.
// With `max_ms` of 0 or more the flood ends by itself after that long, so that a reader held by
// it shows as a slow step rather than a hung test.
class FifoStreamer {
public:
    explicit FifoStreamer(std::string path, int max_ms = -1,
                          std::string bytes = std::string(512, '\0'));
    ~FifoStreamer();
    FifoStreamer(const FifoStreamer &) = delete;
    FifoStreamer &operator=(const FifoStreamer &) = delete;

    // Bytes written so far; more than the FIFO holds means the module reads them.
    size_t written() const { return written_.load(); }
    static constexpr size_t kFifoCapacity = 65536;

private:
    void run(const std::string &path, int max_ms, const std::string &bytes);

    std::atomic<bool> stop_{false};
    std::atomic<size_t> written_{0};
    std::thread thread_;
};

// A new pseudo-terminal that is never destroyed (yet reachable, so no leak): for a receive
// thread that outlives the test and must not see its line die at exit.
Pty &kept_pty();

// One notify callback seen by the recorder; `values` holds what `data` pointed to, decoded by
// the message id (integers) and `text` the text messages.
struct Notice {
    uint16_t msg_id;
    uint16_t seq_num;
    bool has_data;
    std::vector<int32_t> values;
    std::string text;
};

// Collects notify callbacks from any thread.
class Recorder {
public:
    static Recorder &instance();
    static void callback(const AT_CMD_CbMsg_t *msg);

    std::vector<Notice> notices();
    // The last notice with `msg_id`; one with no values and msg_id 0 when there is none.
    Notice last(uint16_t msg_id);
    // Waits until at least `count` notices with `msg_id` arrived.
    bool wait_for(uint16_t msg_id, size_t count = 1, int timeout_ms = 3000);
    void clear();

private:
    std::mutex mutex_;  // guards notices_
    std::vector<Notice> notices_;
};

// Asks the supervisor to look again (a handshake signal, which it takes after every signal sent
// before it) and waits until the log shows it was taken.
bool supervisor_caught_up(const Sandbox &sb, int timeout_ms = 15000);

// Opens the module through HMI's open method and installs the recorder's callback.
atcmdprocess_device_t *open_module();

// A device object as open leaves it (platform 1, mode -1, ...), with the recorder's callback,
// installed as g_patcmd_dev but with no engine thread started: for tests that drive one function
// at a time and read the queues themselves.
atcmdprocess_device_t *bare_device(int32_t platform = PLATFORM_VUART);

struct QueuedLine {
    AtCmder_t cmd;  // cmd.data is not valid; the text is in `text`
    std::string text;
};

// Hands the module a query of the upper layer's (platform 1) with `line` as its text, as
// atcmdprocess_cmd_from_hidl takes it; returns what that returned.
int send_query(atcmdprocess_device_t *dev, const std::string &line, uint8_t cmd_id, uint16_t seq);

// Writes into the terminal at `port_path` (a slave, or a link to one) until it takes no more, as
// the module's lines pile up towards an accessory that stopped reading; returns the bytes taken.
size_t fill_towards_peer(const std::string &port_path);

// Bytes written by the accessory into the terminal at `port_path` that the module has not yet
// read; -1 when the terminal cannot be opened.
int unread_by_module(const std::string &port_path);

// Takes every record off a queue (Tx_head by default), in order.
std::vector<QueuedLine> drain_queue(struct atcmder_queue_head *head, pthread_mutex_t *mutex);
std::vector<QueuedLine> drain_tx_queue();

}  // namespace atcmd_test
