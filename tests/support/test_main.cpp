// The tests' main. A test binary run whole runs each of its cases in a process of its own, as
// CTest does: the module's threads, once a case opens it, live until their process ends and
// keep its globals, so no case may inherit another's. A run of one case (CTest's, or a filter
// that selects one) runs in this process.
#include <gtest/gtest.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

// This binary's own arguments, less any filter: each case's run gets its own.
std::vector<std::string> g_args;

int run_one_case(const std::string &name) {
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

class CasePerProcess : public testing::EmptyTestEventListener {
    // The filter is applied by now: the cases selected are the ones to run.
    void OnTestIterationStart(const testing::UnitTest &unit, int) override {
        if (unit.test_to_run_count() <= 1) return;
        std::vector<std::string> failed;
        for (int s = 0; s < unit.total_test_suite_count(); ++s) {
            const testing::TestSuite *suite = unit.GetTestSuite(s);
            for (int t = 0; t < suite->total_test_count(); ++t) {
                const testing::TestInfo *info = suite->GetTestInfo(t);
                if (!info->should_run()) continue;
                const std::string name = std::string(suite->name()) + "." + info->name();
                const int status = run_one_case(name);
                if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
                    failed.push_back(name + " (status " + std::to_string(status) + ")");
                }
            }
        }
        printf("\n[==========] %d cases, each in its own process: %zu failed\n",
               unit.test_to_run_count(), failed.size());
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
