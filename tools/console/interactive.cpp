/*
 * The interactive loop: polls the terminal and the Ctrl-C descriptor, hands keys to the line
 * editor (libedit's callback interface, when built with ATCMD_HAVE_LIBEDIT) or reads plain
 * lines, and runs each command through the console. The history lives in memory and in
 * $HOME/.atcmd_console_history. Main thread, except print_above (any thread).
 */
#include "console/interactive.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#ifdef ATCMD_HAVE_LIBEDIT
#include <editline/readline.h>
#endif

#include "console/console.h"
#include "console/signals.h"
#include "sim/sim_util.h"

namespace atcmd_tools {

namespace {

constexpr const char kPrompt[] = "atcmd> ";
constexpr const char kHistoryFile[] = "/.atcmd_console_history";
constexpr size_t kHistoryMax = 1000;

struct Terminal {
    FILE *out = nullptr;      // where the prompt and the editing go
    struct termios saved {};  // the terminal as it was, put back at exit
    bool saved_ok = false;
    // Guards at_prompt and the line editor's state; taken after the console's output lock.
    std::mutex mu;
    bool at_prompt = false;
    std::string line;  // a line the editor finished
    bool line_ready = false;
    bool ended = false;  // end of input
    std::vector<std::string> history;
};

Terminal t;

std::string history_path() {
    const char *home = getenv("HOME");
    return home != nullptr && home[0] != '\0' ? std::string(home) + kHistoryFile : "";
}

void load_history() {
    const std::string path = history_path();
    FILE *f = path.empty() ? nullptr : fopen(path.c_str(), "re");
    if (f == nullptr) return;
    char buf[512];
    while (fgets(buf, sizeof buf, f) != nullptr) {
        std::string line = trim_line_end(buf);
        if (!line.empty()) t.history.push_back(line);
    }
    fclose(f);
    if (t.history.size() > kHistoryMax) t.history.erase(t.history.begin(), t.history.end() - kHistoryMax);
    std::string kept;
    for (const std::string &line : t.history) kept += line + "\n";
    write_text_file(path, kept);  // the file stays as short as the history
}

void remember(const std::string &line) {
    t.history.push_back(line);
#ifdef ATCMD_HAVE_LIBEDIT
    add_history(line.c_str());
#endif
    const std::string path = history_path();
    const int fd = path.empty() ? -1 : open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return;
    const std::string entry = line + "\n";
    write_all(fd, entry.data(), entry.size());
    close(fd);
}

void restore_terminal() {
    if (t.saved_ok) tcsetattr(STDIN_FILENO, TCSANOW, &t.saved);
}

// Lines printed while the prompt is up go above it; the line being typed is drawn again.
void print_above(FILE *stream, const std::string &lines) {
    std::lock_guard<std::mutex> lock(t.mu);
    if (t.at_prompt) {
        fputs("\r\033[K", t.out);
        fflush(t.out);
    }
    fputs(lines.c_str(), stream);
    fflush(stream);
    if (!t.at_prompt) return;
#ifdef ATCMD_HAVE_LIBEDIT
    rl_forced_update_display();
#else
    fputs(kPrompt, t.out);  // what was typed so far stays in the terminal's own line buffer
#endif
    fflush(t.out);
}

// "history" and "!N"; false when the line is not for the console at all.
bool expand_history(std::string *line) {
    if (*line == "history") {
        std::string out;
        for (size_t i = 0; i < t.history.size(); ++i) {
            char number[32];
            snprintf(number, sizeof number, "%4zu  ", i + 1);
            out += number + t.history[i] + "\n";
        }
        print_above(t.out, out);
        return false;
    }
    if (line->size() > 1 && (*line)[0] == '!') {
        long n = 0;
        if (!parse_number(line->substr(1), 1, static_cast<long>(t.history.size()), &n)) {
            print_above(t.out, "no command " + line->substr(1) + " in the history\n");
            return false;
        }
        *line = t.history[static_cast<size_t>(n - 1)];
        print_above(t.out, *line + "\n");
    }
    return true;
}

#ifdef ATCMD_HAVE_LIBEDIT

void on_line(char *line) {
    if (line == nullptr) {
        t.ended = true;
    } else {
        t.line = line;
        free(line);
    }
    t.line_ready = true;
}

std::vector<std::string> g_choices;  // what Tab may complete to now; main thread

char *next_choice(const char *text, int state) {
    static size_t at;
    if (state == 0) at = 0;
    const std::string prefix = text;
    while (at < g_choices.size()) {
        const std::string &c = g_choices[at++];
        if (c.compare(0, prefix.size(), prefix) == 0) return strdup(c.c_str());
    }
    return nullptr;
}

// Command names for the first word, then what that command takes (message names, ...).
char **complete(const char *text, int start, int) {
    std::vector<std::string> before = split_words(std::string(rl_line_buffer, static_cast<size_t>(start)));
    g_choices = console_completions(before);
    rl_attempted_completion_over = 1;  // never file names
    return rl_completion_matches(text, next_choice);
}

void prompt_up() {
    std::lock_guard<std::mutex> lock(t.mu);
    t.line_ready = false;
    rl_callback_handler_install(kPrompt, on_line);
    t.at_prompt = true;
}

void prompt_down() {
    std::lock_guard<std::mutex> lock(t.mu);
    rl_callback_handler_remove();
    t.at_prompt = false;
}

void read_keys() {
    std::lock_guard<std::mutex> lock(t.mu);
    rl_callback_read_char();
}

// Ctrl-C at the prompt drops what was typed and offers a fresh prompt.
void drop_typed_line() {
    std::lock_guard<std::mutex> lock(t.mu);
    rl_delete_text(0, rl_end);
    rl_point = rl_end = 0;
    fputs("^C\n", t.out);
    rl_forced_update_display();
    fflush(t.out);
}

void editor_start() {
    rl_instream = stdin;
    rl_outstream = t.out;
    rl_catch_signals = 0;  // Ctrl-C reaches the console through its descriptor
    rl_attempted_completion_function = complete;
    using_history();
    for (const std::string &line : t.history) add_history(line.c_str());
}

#else  // plain lines

std::string g_pending;  // bytes read past the last full line

// Takes the first whole line of what was read, if there is one.
void take_line() {
    const size_t nl = g_pending.find('\n');
    if (nl == std::string::npos) return;
    t.line = g_pending.substr(0, nl);
    g_pending.erase(0, nl + 1);
    t.line_ready = true;
}

void prompt_up() {
    std::lock_guard<std::mutex> lock(t.mu);
    t.line_ready = false;
    fputs(kPrompt, t.out);
    fflush(t.out);
    t.at_prompt = true;
    take_line();  // lines pasted together arrive in one read
}

void prompt_down() {
    std::lock_guard<std::mutex> lock(t.mu);
    t.at_prompt = false;
}

void read_keys() {
    char buf[512];
    const ssize_t n = read(STDIN_FILENO, buf, sizeof buf);
    if (n < 0 && errno == EINTR) return;
    if (n <= 0) {  // end of input: a last line without its line end still runs
        if (g_pending.empty()) {
            t.ended = t.line_ready = true;
            return;
        }
        g_pending += '\n';
    } else {
        g_pending.append(buf, static_cast<size_t>(n));
    }
    take_line();
}

void drop_typed_line() {
    std::lock_guard<std::mutex> lock(t.mu);
    g_pending.clear();
    fputs("^C\n", t.out);
    fputs(kPrompt, t.out);
    fflush(t.out);
}

void editor_start() {}

#endif

// Waits for keys or Ctrl-C; false at end of input.
bool next_line(std::string *line) {
    prompt_up();
    while (!t.line_ready) {
        struct pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {interrupt_fd(), POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR) break;
        if (interrupt_taken()) drop_typed_line();
        if (fds[0].revents != 0) read_keys();
    }
    prompt_down();
    if (!t.line_ready || t.ended) {
        print_above(t.out, "\n");
        return false;
    }
    *line = t.line;
    return true;
}

}  // namespace

void run_interactive(FILE *fallback) {
    const int tty = open("/dev/tty", O_WRONLY | O_CLOEXEC | O_NOCTTY);
    t.out = tty >= 0 ? fdopen(tty, "w") : nullptr;
    if (t.out == nullptr) t.out = fallback;
    t.saved_ok = tcgetattr(STDIN_FILENO, &t.saved) == 0;
    console_at_exit(restore_terminal);
    load_history();
    editor_start();
    console_set_print_sink(print_above);
    console_set_cancel_check(interrupt_taken);
    for (std::string line; next_line(&line);) {
        if (line.find_first_not_of(" \t") == std::string::npos || !expand_history(&line)) continue;
        remember(line);
        console_run(line);
        interrupt_taken();  // a Ctrl-C pressed as the command ended cancels nothing further
    }
}

}  // namespace atcmd_tools
