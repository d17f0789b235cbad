/*
 * The module's benchmark: parse and hand-over, the same lines end to end to the notify callback,
 * request-to-callback round trips through the USB port with the accessory simulator answering,
 * and the CPU, memory and wake-ups of an opened idle module in each link state (nothing plugged,
 * accessory plugged, Wi-Fi up, both), thread by thread. Prints one table.
 * Usage: atcmd_bench [--quick] [--parse-only | --e2e-only | --idle-only] (shorter runs; one
 * row, to profile; the idle rows alone).
 * The bench thread plays a receive thread, then the upper layer; the simulator runs its own
 * thread; a child process is the idle module.
 */
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <dirent.h>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <atcmdprocess/atcmdprocess.h>

#include "engine/engine.h"
#include "hal/hal.h"
#include "log/atcmd_log.h"
#include "sim/accessory_sim.h"
#include "sim/daemon_sim.h"
#include "wifi/wifi.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kChunkMax = 512;          // receive chunks of whole lines, as a link delivers
constexpr double kWireAnswerLines = 2000;  // 460800 bit/s carries about 2,000 answer lines/s
constexpr int kIdleSeconds = 60;  // in each link state
constexpr int kAcmNumber = 3;       // the simulated accessory plugs in as dev/ttyACM3
constexpr int kPlugWaitMs = 10000;  // plug, discovery and the start-up interrogation

// Answer lines as an accessory sends them, about 22 bytes each.
const char *const kMix[] = {
    "+BAT=80,1,4000,25,0,1#12&1\r\n", "+HALL=1,0,1#13&1\r\n",  "+BATCG=81,0,1,2,3,4#0&1\r\n",
    "+ACC=1,2,3#5&1\r\n",             "+HALLCG=1,1,0#6&1\r\n", "+HRM=36,5#7&1\r\n",
    "+DTR=abcdef#3&1\r\n",            "+OK#8&1\r\n",           "+MMI1=ok#4&1\r\n",
    "+PT=pass#9&1\r\n",
};

struct Row {
    std::string what;
    std::string figure;
    std::string target;
    std::string wire;
};
std::vector<Row> g_rows;

__attribute__((format(printf, 1, 2))) std::string fmt(const char *format, ...) {
    char text[128];
    va_list ap;
    va_start(ap, format);
    vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    return text;
}

double seconds_since(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

// Chunks of whole lines, each at most kChunkMax bytes; `lines` counts the lines in all chunks.
std::vector<std::string> make_chunks(size_t chunk_count, size_t *lines) {
    std::vector<std::string> chunks(chunk_count);
    size_t next = 0;
    *lines = 0;
    for (std::string &chunk : chunks) {
        for (;;) {
            const char *line = kMix[next % (sizeof kMix / sizeof kMix[0])];
            if (chunk.size() + strlen(line) > kChunkMax) break;
            chunk += line;
            ++next;
            ++*lines;
        }
    }
    return chunks;
}

// ---- Logging set-ups --------------------------------------------------------------------------

// At level 4 every sink writes: standard output and standard error (the Android log on the host)
// go to files in the sandbox for the run, the log file is the module's own.
struct AllSinks {
    explicit AllSinks(const std::string &root) {
        fflush(stdout);
        fflush(stderr);
        saved_out = dup(1);
        saved_err = dup(2);
        const int out = open((root + "/stdout.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        const int err = open((root + "/stderr.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        dup2(out, 1);
        dup2(err, 2);
        close(out);
        close(err);
        log_level = 4;
    }
    ~AllSinks() {
        log_level = -1;
        fflush(stdout);
        fflush(stderr);
        dup2(saved_out, 1);
        dup2(saved_err, 2);
        close(saved_out);
        close(saved_err);
    }
    int saved_out;
    int saved_err;
};

// ---- Parse and hand-over -----------------------------------------------------------------------

// Each chunk is timed alone and its records taken off again untimed, as a dispatcher that keeps
// up would take them. The figure is the best of the rounds.
double parse_ns_per_line(const std::vector<std::string> &chunks, size_t lines, int rounds) {
    char text[AT_LINE_BUF_SIZE];
    char taken[AT_LINE_BUF_SIZE];
    AtCmder_t cmd = {};
    AtCmder_t out = {};
    out.data = taken;
    double best = 1e30;
    for (int r = 0; r < rounds; ++r) {
        double spent = 0;
        for (const std::string &chunk : chunks) {
            cmd = AtCmder_t{};
            cmd.source = AT_NODE_ACCESSORY;
            cmd.data = text;
            const auto t0 = Clock::now();
            cmd_Parse_from_buffer(&cmd, chunk.c_str());
            spent += seconds_since(t0);
            while (atcmder_dequeue(&Rx_head, &g_rxqueue_mutex, &out) == ATCMDER_QUEUE_OK) {
            }
        }
        best = std::min(best, spent);
    }
    return best * 1e9 / static_cast<double>(lines);
}

// ---- The opened module ----------------------------------------------------------------------

std::atomic<uint64_t> g_notices{0};
std::mutex g_answer_mutex;  // guards g_answered
std::condition_variable g_answer_cv;
std::vector<uint8_t> g_answered(65536);  // per sequence number: the answer's callback arrived

void on_notify(const AT_CMD_CbMsg_t *msg) {
    g_notices.fetch_add(1, std::memory_order_relaxed);
    if (msg->msg_id == AT_MSG_BAT && msg->seq_num != 0) {
        std::lock_guard<std::mutex> lock(g_answer_mutex);
        g_answered[msg->seq_num] = 1;
        g_answer_cv.notify_all();
    }
}

bool wait_quiet(int timeout_ms) {  // until the dispatcher has nothing left and no notice comes
    const auto until = Clock::now() + std::chrono::milliseconds(timeout_ms);
    uint64_t last = g_notices;
    while (Clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const uint64_t now = g_notices;
        if (now == last && atcmder_empty_queue(&Rx_head, &g_rxqueue_mutex) == 1) return true;
        last = now;
    }
    return false;
}

// Lines fed as a receive thread feeds them, timed until the last callback has returned.
double end_to_end_ns_per_line(const std::vector<std::string> &chunks, size_t lines,
                              double notices_per_round) {
    char text[AT_LINE_BUF_SIZE];
    AtCmder_t cmd = {};
    const uint64_t start = g_notices;
    const uint64_t expected = start + static_cast<uint64_t>(notices_per_round + 0.5);
    const auto t0 = Clock::now();
    for (const std::string &chunk : chunks) {
        cmd = AtCmder_t{};
        cmd.source = AT_NODE_ACCESSORY;
        cmd.data = text;
        cmd_Parse_from_buffer(&cmd, chunk.c_str());
    }
    while (g_notices < expected && seconds_since(t0) < 60) std::this_thread::yield();
    return seconds_since(t0) * 1e9 / static_cast<double>(lines);
}

double calibrate_notices(const std::vector<std::string> &chunks) {
    wait_quiet(2000);
    const uint64_t before = g_notices;
    char text[AT_LINE_BUF_SIZE];
    AtCmder_t cmd = {};
    for (const std::string &chunk : chunks) {
        cmd = AtCmder_t{};
        cmd.source = AT_NODE_ACCESSORY;
        cmd.data = text;
        cmd_Parse_from_buffer(&cmd, chunk.c_str());
    }
    wait_quiet(10000);
    return static_cast<double>(g_notices - before);
}

// ---- Round trips through a pseudo-terminal --------------------------------------------------

void request(atcmdprocess_device_t *dev, uint16_t seq) {
    char line[AT_LINE_BUF_SIZE];
    snprintf(line, sizeof line, "AT+BAT?#%u&2\r\n", seq);
    AtCmder_t cmd = {AT_TYPE_QUERY, 0, AT_NODE_ACCESSORY, 2, 0, AT_MSG_BAT, seq, 0, 0, line};
    {
        std::lock_guard<std::mutex> lock(g_answer_mutex);
        g_answered[seq] = 0;
    }
    dev->atcmdprocess_cmd_from_hidl(&cmd);
}

bool await_answer(uint16_t seq) {
    std::unique_lock<std::mutex> lock(g_answer_mutex);
    return g_answer_cv.wait_for(lock, std::chrono::seconds(2), [&] { return g_answered[seq] != 0; });
}

uint16_t next_seq(uint16_t seq) { return seq == 65535 ? 1 : static_cast<uint16_t>(seq + 1); }

// Median and 99th percentile of one request at a time, in microseconds.
std::pair<double, double> round_trip_us(atcmdprocess_device_t *dev, int count, uint16_t *seq) {
    std::vector<double> us;
    for (int i = 0; i < count; ++i) {
        *seq = next_seq(*seq);
        const auto t0 = Clock::now();
        request(dev, *seq);
        if (!await_answer(*seq)) {
            fprintf(stderr, "atcmd_bench: no answer to request %u\n", *seq);
            continue;
        }
        us.push_back(seconds_since(t0) * 1e6);
    }
    if (us.empty()) return {0, 0};
    std::sort(us.begin(), us.end());
    return {us[us.size() / 2], us[us.size() * 99 / 100]};
}

// Round trips per second with `window` requests outstanding.
double sustained_per_s(atcmdprocess_device_t *dev, double seconds, size_t window, uint16_t *seq) {
    std::vector<uint16_t> pending;
    uint64_t done = 0;
    const auto t0 = Clock::now();
    while (seconds_since(t0) < seconds) {
        while (pending.size() < window) {
            *seq = next_seq(*seq);
            request(dev, *seq);
            pending.push_back(*seq);
        }
        if (!await_answer(pending.front())) break;
        pending.erase(pending.begin());
        ++done;
    }
    for (uint16_t s : pending) await_answer(s);
    return static_cast<double>(done) / seconds_since(t0);
}

// ---- The idle module, in a child process ------------------------------------------------------

// Context switches and CPU time of one thread of the child.
struct TaskStat {
    std::string name;
    long switches = 0;
    double cpu_s = 0;
};

std::map<std::string, TaskStat> task_stats(pid_t pid) {  // by thread id
    std::map<std::string, TaskStat> stats;
    const std::string dir = "/proc/" + std::to_string(pid) + "/task";
    DIR *tasks = opendir(dir.c_str());
    if (tasks == nullptr) return stats;
    while (const struct dirent *e = readdir(tasks)) {
        if (e->d_name[0] == '.') continue;
        TaskStat &t = stats[e->d_name];
        const std::string task = dir + "/" + e->d_name;
        std::ifstream(task + "/comm") >> t.name;
        double ns = 0;
        std::ifstream(task + "/schedstat") >> ns;
        t.cpu_s = ns / 1e9;
        std::ifstream status(task + "/status");
        std::string line;
        while (std::getline(status, line)) {
            if (line.find("ctxt_switches:") != std::string::npos) {
                t.switches += atol(line.c_str() + line.find(':') + 1);
            }
        }
    }
    closedir(tasks);
    return stats;
}

long rss_kib(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return atol(line.c_str() + 6);
    }
    return 0;
}

atcmdprocess_device_t *open_device() {
    hw_device_t *common = nullptr;
    if (HMI.methods->open(&HMI, ATCMDPROCESS_HARDWARE_MODULE_ID, &common) != 0) return nullptr;
    auto *dev = reinterpret_cast<atcmdprocess_device_t *>(common);
    dev->set_notify_callback(dev, on_notify);
    return dev;
}

// The link states an idle module is measured in, in the order the child walks them.
const char *const kIdleStates[] = {"nothing plugged", "accessory plugged", "Wi-Fi up",
                                   "accessory and Wi-Fi"};
// The threads of the simulators and of the child's own main thread are not the module's.
const char *const kNotModule[] = {"acc_sim", "daemon_sim", "daemon_report", "atcmd_bench"};

bool is_module_thread(const std::string &name) {
    return std::none_of(std::begin(kNotModule), std::end(kNotModule),
                        [&](const char *other) { return name == other; });
}

void relay_report(void *ctx, const std::string &status) {
    auto *dev = static_cast<atcmdprocess_device_t *>(ctx);
    dev->atcmdprocess_hiddemon_stchange(status.c_str());
}

// Nothing waits to be sent or for an answer.
bool queues_idle_now() {
    return atcmder_empty_queue(&Tx_head, &g_txqueue_mutex) == 1 &&
           atcmder_empty_queue(&Timeout_head, &g_timeoutqueue_mutex) == 1;
}

template <typename Pred>
bool wait_for(Pred pred, int timeout_ms) {
    const auto until = Clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!pred()) {
        if (Clock::now() >= until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// The child: opens the module, and for each byte read from `next` brings the next link state
// about with the simulators (in this process, as the upper layer and the peers), then writes a
// byte to `ready`. The module's threads and the simulators' are told apart by name.
[[noreturn]] void idle_child(int next, int ready) {
    const int devnull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(devnull, 1);
    dup2(devnull, 2);
    atcmdprocess_device_t *dev = open_device();
    if (dev == nullptr) _exit(1);
    using namespace atcmd_tools;
    AccSim *acc = acc_sim_create(AccIdentity{}, nullptr, nullptr);
    daemon_sim_create(acc, relay_report, nullptr, dev);  // lives as long as the child
    // Each link that comes up interrogates the accessory; the state holds once that is over.
    auto interrogated = [&](size_t seen) {
        return acc_sim_wait_received(acc, "AT+VER?", kPlugWaitMs, seen) &&
               wait_for([&] { return queues_idle_now(); }, kPlugWaitMs) && wait_quiet(kPlugWaitMs);
    };
    char byte = 0;
    for (size_t state = 0; state < std::size(kIdleStates); ++state) {
        if (read(next, &byte, 1) != 1) _exit(1);
        const size_t seen = acc_sim_received(acc).size();
        bool ok = true;
        if (state == 1 || state == 3) ok = acc_sim_plug(acc, kAcmNumber) == 0 && interrogated(seen);
        if (state == 2) {
            acc_sim_unplug(acc);
            dev->atcmdprocess_wifi_init("10.0.0.1");
            auto running = [] { return __atomic_load_n(&g_wifiHBeat_thread, __ATOMIC_ACQUIRE) != 0; };
            ok = wait_for(running, kPlugWaitMs) && interrogated(seen);
        }
        byte = ok ? 'o' : 'x';
        if (write(ready, &byte, 1) != 1) _exit(1);
    }
    for (;;) pause();
}

// Wakes of the module's threads over `seconds` of idle in each link state, with the CPU time
// and memory of the first state.
void measure_idle(int seconds) {
    int next[2], ready[2];
    if (pipe2(next, O_CLOEXEC) != 0 || pipe2(ready, O_CLOEXEC) != 0) return;
    const pid_t child = fork();
    if (child == 0) {
        close(next[1]);
        close(ready[0]);
        idle_child(next[0], ready[1]);
    }
    close(next[0]);
    close(ready[1]);
    for (size_t state = 0; state < std::size(kIdleStates); ++state) {
        char byte = 'n';
        if (write(next[1], &byte, 1) != 1 || read(ready[0], &byte, 1) != 1) break;
        const std::string what = std::string("idle, ") + kIdleStates[state] + ": wake-ups";
        if (byte != 'o') {
            g_rows.push_back({what, "state not reached", "", ""});
            continue;
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));  // let the threads settle
        const auto before = task_stats(child);
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        const auto after = task_stats(child);
        long wakes = 0;
        double cpu_s = 0;
        std::string by_thread;
        for (const auto &[tid, t] : after) {
            if (!is_module_thread(t.name)) continue;
            const auto was = before.find(tid);
            const long n = t.switches - (was != before.end() ? was->second.switches : 0);
            cpu_s += t.cpu_s - (was != before.end() ? was->second.cpu_s : 0);
            wakes += n;
            if (n > 0) by_thread += fmt(", %s %ld", t.name.c_str(), n);
        }
        g_rows.push_back({what, fmt("%ld in %d s%s", wakes, seconds, by_thread.c_str()),
                          state >= 2 ? "heartbeat look: 5 s" : "none", ""});
        if (state == 0) {
            g_rows.push_back({"idle opened module: CPU",
                              fmt("%.4f %% of a core", cpu_s * 100 / seconds), "< 0.05 %", ""});
            g_rows.push_back({"opened module: resident memory", fmt("%ld KiB", rss_kib(child)),
                              "", ""});
        }
    }
    close(next[1]);
    close(ready[0]);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

void add_rate_row(const std::string &what, double ns, double target_lines_s) {
    const double rate = 1e9 / ns;
    g_rows.push_back({what, fmt("%.2f M lines/s, %.0f ns/line", rate / 1e6, ns),
                      target_lines_s > 0 ? fmt(">= %.2f M lines/s", target_lines_s / 1e6) : "",
                      fmt("%.0fx the wire", rate / kWireAnswerLines)});
}

void print_table() {
    printf("\n%-44s %-34s %-20s %s\n", "measure", "figure", "target", "wire limit");
    printf("%-44s %-34s %-20s %s\n", std::string(44, '-').c_str(), std::string(34, '-').c_str(),
           std::string(20, '-').c_str(), std::string(14, '-').c_str());
    for (const Row &r : g_rows) {
        printf("%-44s %-34s %-20s %s\n", r.what.c_str(), r.figure.c_str(), r.target.c_str(),
               r.wire.c_str());
    }
    printf("(wire: 460800 bit/s, 10 bits a byte, carries about %.0f answer lines/s)\n",
           kWireAnswerLines);
}

std::string make_sandbox() {
    char tmpl[] = "/tmp/atcmd-bench-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        perror("mkdtemp");
        exit(1);
    }
    setenv("ATCMD_ROOT", tmpl, 1);
    mkdir((std::string(tmpl) + "/dev").c_str(), 0755);
    return tmpl;
}

}  // namespace

int main(int argc, char **argv) {
    bool quick = false;
    bool parse_only = false;
    bool e2e_only = false;
    bool idle_only = false;
    for (int i = 1; i < argc; ++i) {
        idle_only = idle_only || strcmp(argv[i], "--idle-only") == 0;
        quick = quick || strcmp(argv[i], "--quick") == 0;
        parse_only = parse_only || strcmp(argv[i], "--parse-only") == 0;
        e2e_only = e2e_only || strcmp(argv[i], "--e2e-only") == 0;
    }
    const std::string root = make_sandbox();
    if (!parse_only && !e2e_only) measure_idle(quick ? 2 : kIdleSeconds);
    if (idle_only) {
        print_table();
        return 0;
    }

    size_t lines = 0;
    const std::vector<std::string> chunks = make_chunks(quick ? 2000 : 20000, &lines);
    log_level = -1;
    add_rate_row("parse + hand-over, log level -1", parse_ns_per_line(chunks, lines, 5), 6.5e6);
    if (parse_only) {
        print_table();
        return 0;
    }
    log_file_init("/sdcard/quorvanta/.log", "bench");
    if (!e2e_only) {
        AllSinks sinks(root);
        add_rate_row("parse + hand-over, log level 4, 3 sinks", parse_ns_per_line(chunks, lines, 2),
                     10 * kWireAnswerLines);
    }

    atcmdprocess_device_t *dev = open_device();
    if (dev == nullptr) {
        fprintf(stderr, "atcmd_bench: open failed\n");
        return 1;
    }
    log_level = -1;
    const double per_round = calibrate_notices(chunks);
    double best = 1e30;
    for (int r = 0; r < 3; ++r) {
        best = std::min(best, end_to_end_ns_per_line(chunks, lines, per_round));
        wait_quiet(2000);
    }
    add_rate_row("end to end to the callback, log level -1", best, 2e6);
    if (e2e_only) {
        print_table();
        fflush(stdout);
        _exit(0);
    }
    {
        AllSinks sinks(root);
        const double ns = end_to_end_ns_per_line(chunks, lines, per_round);
        wait_quiet(10000);
        add_rate_row("end to end to the callback, log level 4", ns, 10 * kWireAnswerLines);
    }

    // Round trips as the module is used: the accessory simulator plugs into the sandbox, the
    // module's hotplug opens the port and interrogates it, and the simulator answers every query
    // at once. Requests start once the interrogation's last answer is in.
    atcmd_tools::AccSim *sim = atcmd_tools::acc_sim_create(atcmd_tools::AccIdentity{}, nullptr, nullptr);
    if (sim == nullptr || atcmd_tools::acc_sim_plug(sim, kAcmNumber) != 0 ||
        !atcmd_tools::acc_sim_wait_received(sim, "AT+VER?", kPlugWaitMs) || !wait_quiet(kPlugWaitMs)) {
        fprintf(stderr, "atcmd_bench: the simulated accessory was not interrogated; no round trips\n");
    } else {
        uint16_t seq = 0;
        round_trip_us(dev, 200, &seq);  // warm-up
        const auto quiet = round_trip_us(dev, quick ? 500 : 3000, &seq);
        g_rows.push_back({"round trip via pty, log level -1 (median, p99)",
                          fmt("%.0f us, %.0f us", quiet.first, quiet.second), "median < 200 us",
                          "wire: ~1 ms for two lines"});
        g_rows.push_back({"sustained round trips, 16 outstanding, level -1",
                          fmt("%.0f /s", sustained_per_s(dev, quick ? 1 : 3, 16, &seq)), "",
                          fmt("wire: ~%.0f /s", kWireAnswerLines / 2)});
        AllSinks sinks(root);
        const auto loud = round_trip_us(dev, quick ? 200 : 1000, &seq);
        g_rows.push_back({"round trip via pty, log level 4 (median, p99)",
                          fmt("%.0f us, %.0f us", loud.first, loud.second), "", ""});
    }
    log_level = -1;
    print_table();
    fflush(stdout);
    // Closing the device ends the hosting process (SIGKILL); leave without it.
    _exit(0);
}
