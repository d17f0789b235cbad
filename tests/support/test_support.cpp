#include "support/test_support.h"

#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <pty.h>
#include <stdlib.h>
#include <string.h>
#include <errno.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include <cutils/properties.h>

#include "engine/engine.h"
#include "hal/hal.h"
#include "hotplug/hotplug.h"
#include "log/atcmd_log.h"
#include "sim/messages.h"

// Sanitizer settings for every test process.
// report_signal_unsafe=0: the Wi-Fi threads are ended by SIGALRM, whose handler logs and leaves
// with pthread_exit (which loads the unwinder on first use); the module does that on purpose,
// and the threads let SIGALRM in only while they wait, holding no lock.
extern "C" const char *__tsan_default_options() {
    return "halt_on_error=1 second_deadlock_stack=1 report_signal_unsafe=0 suppressions="
        ATCMD_TSAN_SUPPRESSIONS;
}
extern "C" const char *__asan_default_options() { return "abort_on_error=1"; }
extern "C" const char *__ubsan_default_options() { return "print_stacktrace=1:halt_on_error=1"; }

namespace atcmd_test {

namespace {

using Clock = std::chrono::steady_clock;

int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
    remove(path);
    return 0;
}

// A test whose set-up fails cannot go on; the case ends here, in its own process, with the cause.
// (The platform compiles tests without exceptions, so there is nothing to throw.)
[[noreturn]] void support_failed(const std::string &what) {
    fprintf(stderr, "test set-up failed: %s: %s\n", what.c_str(), strerror(errno));
    abort();
}

}  // namespace

bool wait_until(const std::function<bool()> &pred, int timeout_ms) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        if (pred()) return true;
        if (Clock::now() >= deadline) return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string Pty::read_until(const std::function<bool(const std::string &)> &done,
                            int timeout_ms) const {
    std::string got;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!done(got)) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - Clock::now()).count();
        if (left <= 0) break;
        struct pollfd pfd = {master_, POLLIN, 0};
        int r = poll(&pfd, 1, static_cast<int>(left));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) break;
        char buf[1024];
        ssize_t n = ::read(master_, buf, sizeof buf);
        if (n <= 0) break;
        got.append(buf, static_cast<size_t>(n));
    }
    return got;
}

bool queues_idle() {
    return atcmder_empty_queue(&Tx_head, &g_txqueue_mutex) == 1 &&
           atcmder_empty_queue(&Timeout_head, &g_timeoutqueue_mutex) == 1;
}

Sandbox::Sandbox() {
    const char *tmp = getenv("TMPDIR");
    std::string tmpl = std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") +
                       "/atcmd-test-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) support_failed("mkdtemp " + tmpl);
    root_ = buf.data();
    mkdir((root_ + "/dev").c_str(), 0755);
    setenv("ATCMD_ROOT", root_.c_str(), 1);
}

Sandbox::Sandbox(WithLog) : Sandbox() { log_file_init(ATCMD_LOG_DIR, ATCMD_LOG_FILE); }

Sandbox::~Sandbox() {
    if (getenv("ATCMD_KEEP_SANDBOX") == nullptr) {
        nftw(root_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    }
}

std::string Sandbox::log_path() const {
    return root_ + std::string(ATCMD_LOG_DIR) + "/" + ATCMD_LOG_FILE;
}

size_t Sandbox::log_size() const {
    const std::streamoff end = std::ifstream(log_path(), std::ios::binary | std::ios::ate).tellg();
    return end < 0 ? 0 : static_cast<size_t>(end);
}

std::string Sandbox::log_text(size_t from) const {
    std::ifstream in(log_path(), std::ios::binary);
    in.seekg(static_cast<std::streamoff>(from));
    return std::string(std::istreambuf_iterator<char>(in), {});
}

bool Sandbox::wait_log(const std::string &text, int timeout_ms, size_t from) const {
    return wait_until([&] { return log_text(from).find(text) != std::string::npos; }, timeout_ms);
}

std::string Sandbox::property(const std::string &key) const {
    char value[PROPERTY_VALUE_MAX];
    property_get(key.c_str(), value, "");
    return value;
}

void Sandbox::set_property(const std::string &key, const std::string &value) const {
    property_set(key.c_str(), value.c_str());
}

Pty::Pty() {
    char name[256];
    if (openpty(&master_, &slave_, name, nullptr, nullptr) != 0) {
        support_failed("openpty");
    }
    fcntl(master_, F_SETFD, FD_CLOEXEC);
    fcntl(slave_, F_SETFD, FD_CLOEXEC);
    slave_path_ = name;
}

Pty::~Pty() {
    if (slave_ >= 0) close(slave_);
    if (master_ >= 0) close(master_);
}

void Pty::link_as(const Sandbox &sb, const std::string &as_written) const {
    const std::string link = sb.path(as_written);
    unlink(link.c_str());
    if (symlink(slave_path_.c_str(), link.c_str()) != 0) {
        support_failed("symlink " + link);
    }
}

void Pty::write(const std::string &bytes) const {
    if (!atcmd_tools::write_all(master_, bytes.data(), bytes.size())) support_failed("pty write");
}

void Pty::close_master() {
    if (master_ >= 0) close(master_);
    master_ = -1;
}

FifoStreamer::FifoStreamer(std::string path, int max_ms, std::string bytes)
    : thread_([this, path, max_ms, bytes] { run(path, max_ms, bytes); }) {}

FifoStreamer::~FifoStreamer() {
    stop_ = true;
    thread_.join();
}

void FifoStreamer::run(const std::string &path, int max_ms, const std::string &bytes) {
    const auto end = Clock::now() + std::chrono::milliseconds(max_ms);
    auto over = [&] { return stop_.load() || (max_ms >= 0 && Clock::now() >= end); };
    int fd = -1;
    while (!over() && fd < 0) {  // the daemon makes the FIFO when it starts
        fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) wait_until([&] { return over() || access(path.c_str(), F_OK) == 0; }, 100);
    }
    // Whole copies per write, below PIPE_BUF so that a write is never split or interleaved.
    std::string block;
    while (block.size() + bytes.size() <= 2048) block += bytes;
    while (!over()) {
        if (write(fd, block.data(), block.size()) == static_cast<ssize_t>(block.size())) {
            written_ += block.size();
            continue;
        }
        struct pollfd pfd = {fd, POLLOUT, 0};  // full: wait for the reader to make room
        poll(&pfd, 1, 10);
    }
    if (fd >= 0) close(fd);
}

Pty &kept_pty() {
    static std::vector<Pty *> *const kept = new std::vector<Pty *>;
    kept->push_back(new Pty);
    return *kept->back();
}

Recorder &Recorder::instance() {
    // Never destroyed: module threads (hotplug, supervisor) may still call back while the
    // process exits.
    static Recorder *const recorder = new Recorder;
    return *recorder;
}

// Values are decoded by the tools' message table, the one the console prints with.
void Recorder::callback(const AT_CMD_CbMsg_t *msg) {
    const atcmd_tools::DecodedMessage m = atcmd_tools::decode_message(msg);
    Notice n{msg->msg_id, msg->seq_num, msg->data != nullptr, m.ints, {}};
    for (size_t i = 0; i < m.texts.size(); ++i) n.text += (i ? "|" : "") + m.texts[i];
    Recorder &r = instance();
    std::lock_guard<std::mutex> lock(r.mutex_);
    r.notices_.push_back(std::move(n));
}

std::vector<Notice> Recorder::notices() {
    std::lock_guard<std::mutex> lock(mutex_);
    return notices_;
}

Notice Recorder::last(uint16_t msg_id) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto n = notices_.rbegin(); n != notices_.rend(); ++n) {
        if (n->msg_id == msg_id) return *n;
    }
    return Notice{};
}

bool Recorder::wait_for(uint16_t msg_id, size_t count, int timeout_ms) {
    return wait_until([&] {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::count_if(notices_.begin(), notices_.end(),
                             [&](const Notice &n) { return n.msg_id == msg_id; }) >= static_cast<long>(count);
    }, timeout_ms);
}

void Recorder::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    notices_.clear();
}

bool supervisor_caught_up(const Sandbox &sb, int timeout_ms) {
    const size_t from = sb.log_size();
    atcmdprocess_amlogic_shake_hands();
    return sb.wait_log("handling thread got signal 26", timeout_ms, from);
}

atcmdprocess_device_t *open_module() {
    hw_device_t *common = nullptr;
    if (HMI.methods->open(&HMI, ATCMDPROCESS_HARDWARE_MODULE_ID, &common) != 0) return nullptr;
    auto *dev = reinterpret_cast<atcmdprocess_device_t *>(common);
    dev->set_notify_callback(dev, Recorder::callback);
    return dev;
}

atcmdprocess_device_t *bare_device(int32_t platform) {
    static atcmdprocess_device_t dev;
    dev = atcmdprocess_device_t{};
    dev.system_status.platform = platform;
    dev.system_status.mode = AT_MODE_NONE;
    dev.system_status.wifi_status = -1;
    dev.system_status.phone_state = 1;
    dev.usb_status = -1;
    dev.usb_connected = -1;
    dev.notify_callback = Recorder::callback;
    g_patcmd_dev = &dev;
    return &dev;
}

std::vector<QueuedLine> drain_queue(struct atcmder_queue_head *head, pthread_mutex_t *mutex) {
    std::vector<QueuedLine> lines;
    char buf[AT_LINE_BUF_SIZE];
    AtCmder_t cmd = {};
    cmd.data = buf;
    while (atcmder_dequeue(head, mutex, &cmd) == ATCMDER_QUEUE_OK) {
        QueuedLine line{cmd, buf};
        line.cmd.data = nullptr;
        lines.push_back(line);
    }
    return lines;
}

std::vector<QueuedLine> drain_tx_queue() { return drain_queue(&Tx_head, &g_txqueue_mutex); }

int send_query(atcmdprocess_device_t *dev, const std::string &line, uint8_t cmd_id, uint16_t seq) {
    char text[AT_LINE_BUF_SIZE];
    snprintf(text, sizeof text, "%s", line.c_str());
    AtCmder_t cmd = {};
    cmd.type = AT_TYPE_QUERY;
    cmd.flag = PLATFORM_VUART;
    cmd.cmd_id = cmd_id;
    cmd.seq_num = seq;
    cmd.data = text;
    return dev->atcmdprocess_cmd_from_hidl(&cmd);
}

int unread_by_module(const std::string &port_path) {
    const int fd = open(port_path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    int unread = -1;
    if (fd >= 0 && ioctl(fd, FIONREAD, &unread) != 0) unread = -1;
    if (fd >= 0) close(fd);
    return unread;
}

size_t fill_towards_peer(const std::string &port_path) {
    const int fd = open(port_path.c_str(), O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return 0;
    const std::string block(512, 'f');
    size_t written = 0;
    for (ssize_t n; (n = write(fd, block.data(), block.size())) > 0;) {
        written += static_cast<size_t>(n);
    }
    close(fd);
    return written;
}

namespace {

bool pattern_find(const std::string &text, const std::string &pattern, std::vector<std::string> *groups,
                  bool whole) {
    std::smatch m;
    const std::regex re(pattern);
    const bool found = whole ? std::regex_match(text, m, re) : std::regex_search(text, m, re);
    if (found && groups != nullptr) {
        groups->clear();
        for (const auto &g : m) groups->push_back(g.str());
    }
    return found;
}

}  // namespace

bool pattern_search(const std::string &text, const std::string &pattern, std::vector<std::string> *groups) {
    return pattern_find(text, pattern, groups, false);
}

bool pattern_match(const std::string &text, const std::string &pattern, std::vector<std::string> *groups) {
    return pattern_find(text, pattern, groups, true);
}

std::vector<std::string> pattern_all(const std::string &text, const std::string &pattern) {
    std::vector<std::string> out;
    const std::regex re(pattern);
    for (std::sregex_iterator it(text.begin(), text.end(), re), end; it != end; ++it) {
        out.push_back((*it)[1].str());
    }
    return out;
}

std::string pattern_replace(const std::string &text, const std::string &pattern, const std::string &with) {
    return std::regex_replace(text, std::regex(pattern), with);
}

std::string pattern_quote(const std::string &literal) {
    std::string out;
    for (char c : literal) {
        if (c != '\0' && strchr("\\^$.|?*+()[]{}", c) != nullptr) out += '\\';
        out += c;
    }
    return out;
}

}  // namespace atcmd_test
