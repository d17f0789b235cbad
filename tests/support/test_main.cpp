// The tests' main. A test binary run whole runs each of its cases in a process of its own, as
// CTest does: the module's threads, once a case opens it, live until their process ends and
// keep its globals, so no case may inherit another's. Each case's process writes everything
// (the module's log prints, GoogleTest's own lines) into a file of its own, shown only when the
// case fails; a case that passes prints one line. ATCMD_TEST_OUTPUT=all shows every case's
// output. A run of one case (CTest's, which keeps each case's output and shows it on failure,
// or a filter that selects one) runs in this process, printing as it goes.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

// This binary's own arguments, less any filter: each case's run gets its own.
std::vector<std::string> g_args;

// Runs one case in a child whose standard output and error go to `output`; its wait status.
int run_one_case(const std::string &name, const std::string &output) {
    std::vector<std::string> args = g_args;
    args.push_back("--gtest_filter=" + name);
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    fflush(stdout);
    fflush(stderr);
    const pid_t child = fork();
    if (child < 0) return -1;
    if (child == 0) {
        const int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd >= 0) {
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
        }
        execv("/proc/self/exe", argv.data());
        fprintf(stderr, "cannot run %s for %s: %s\n", argv[0], name.c_str(), strerror(errno));
        _exit(127);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return status;
}

// Copies a case's output file to standard output.
void show(const std::string &path) {
    FILE *f = fopen(path.c_str(), "re");
    if (f == nullptr) return;
    char buf[8192];
    for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) fwrite(buf, 1, n, stdout);
    fclose(f);
}

std::string describe(int status) {
    if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return std::string("killed by signal ") + strsignal(WTERMSIG(status));
    return "status " + std::to_string(status);
}

class CasePerProcess : public testing::EmptyTestEventListener {
    // The filter is applied by now: the cases selected are the ones to run.
    void OnTestIterationStart(const testing::UnitTest &unit, int) override {
        if (unit.test_to_run_count() <= 1) return;
        char dir[] = "/tmp/atcmd-test-output-XXXXXX";
        if (mkdtemp(dir) == nullptr) {
            perror("test output directory");
            _exit(1);
        }
        const char *mode = getenv("ATCMD_TEST_OUTPUT");
        const bool show_all = mode != nullptr && strcmp(mode, "all") == 0;
        std::vector<std::string> failed;
        int n = 0;
        for (int s = 0; s < unit.total_test_suite_count(); ++s) {
            const testing::TestSuite *suite = unit.GetTestSuite(s);
            for (int t = 0; t < suite->total_test_count(); ++t) {
                const testing::TestInfo *info = suite->GetTestInfo(t);
                if (!info->should_run()) continue;
                const std::string name = std::string(suite->name()) + "." + info->name();
                const std::string output = std::string(dir) + "/case-" + std::to_string(++n) + ".out";
                const auto start = std::chrono::steady_clock::now();
                const int status = run_one_case(name, output);
                const long long ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                                         std::chrono::steady_clock::now() - start).count();
                const bool ok = status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
                if (!ok || show_all) {
                    printf("----- output of %s -----\n", name.c_str());
                    fflush(stdout);
                    show(output);
                    printf("----- end of %s -----\n", name.c_str());
                }
                if (ok) {
                    printf("[       OK ] %s (%lld ms)\n", name.c_str(), ms);
                } else {
                    printf("[  FAILED  ] %s (%lld ms, %s)\n", name.c_str(), ms, describe(status).c_str());
                    failed.push_back(name);
                }
                fflush(stdout);
                unlink(output.c_str());
            }
        }
        rmdir(dir);
        printf("\n[==========] %d cases, each in its own process: %zu failed\n", unit.test_to_run_count(), failed.size());
        for (const std::string &name : failed) printf("[  FAILED  ] %s\n", name.c_str());
        fflush(stdout);
        _exit(failed.empty() ? 0 : 1);
    }
};

}  // namespace

int main(int argc, char **argv) {
    for (int i = 0; i < argc; ++i) {
        if (strncmp(argv[i], "--gtest_filter=", 15) != 0) g_args.emplace_back(argv[i]);
    }
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new CasePerProcess);
    return RUN_ALL_TESTS();
}
