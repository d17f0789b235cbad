// The module as the platform sees it: loaded with dlopen through its HMI record in another
// process, and exporting exactly the system's own names.
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "support/test_support.h"

using namespace atcmd_test;

namespace {

std::string run(const std::string &command, int *status) {
    std::string out;
    FILE *p = popen(command.c_str(), "r");
    if (p == nullptr) return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    *status = pclose(p);
    return out;
}


// The names the module must export, one per line (# starts a comment).
std::set<std::string> expected_names() {
    std::set<std::string> names;
    std::istringstream in(read_file(ATCMD_TEST_DIR "/exported_names.txt"));
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line[0] != '#') names.insert(line);
    }
    return names;
}

}  // namespace

// The console loads the module as the platform's loader does (dlopen, HMI, tag and id, open) in
// a process of its own; one request that nothing answers comes back as a time-out.
TEST(ModuleLoadTest, LoadsThroughHmiOpensAndLogsIntoTheSandbox) {
    Sandbox sb;
    // The console is a process of its own: hand it the same race suppressions as the tests.
    setenv("TSAN_OPTIONS", "suppressions=" ATCMD_TSAN_SUPPRESSIONS, 1);
    int status = -1;
    const std::string out = run(std::string(ATCMD_TOOL_RUNNER "'") + ATCMD_BIN_DIR + "/atcmd_console' --json --module '" +
                                    ATCMD_MODULE_PATH + "' -c 'send AT+VER?#11&1; wait ERROR 10000' 2>&1",
                                &status);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << out;
    EXPECT_NE(out.find("module \\\"atcmdprocess\\\" (At cmd process HAL)"), std::string::npos) << out;
    const std::string log = sb.log_text();
    EXPECT_TRUE(std::regex_search(
        log, std::regex(R"(\[\d+\.\d+\]\[tid:\d+\]atcmder_hal_open:\d+: func is atcmder_hal_open\.)")))
        << log;
    EXPECT_NE(log.find("set_notify_callback"), std::string::npos) << log;
    // No accessory is attached: the request is resent twice, then reported as timed out.
    EXPECT_TRUE(std::regex_search(
        out, std::regex(R"(\{"event":"message","msg_id":24,"name":"ERROR","seq_num":11,"value":\[-110\]\})")))
        << out;
}

TEST(ModuleLoadTest, ExportsExactlyTheSystemNames) {
    int status = -1;
    const std::string out =
        run(std::string("nm -D --defined-only '") + std::string(ATCMD_MODULE_PATH) + "'", &status);
    ASSERT_EQ(status, 0) << out;
    // Sanitizer builds add instrumentation symbols of their own; they start with "__".
    std::set<std::string> exported;
    std::istringstream lines(out);
    std::smatch m;
    for (std::string line; std::getline(lines, line);) {
        if (std::regex_match(line, m, std::regex(R"(^[0-9a-fA-F]+ \w (\S+)$)")) &&
            (m[1].str().rfind("__", 0) != 0 || m[1] == "__system_property_get")) {
            exported.insert(m[1]);
        }
    }
    const std::set<std::string> expected = expected_names();
    ASSERT_FALSE(expected.empty());
    std::vector<std::string> extra, missing;
    std::set_difference(exported.begin(), exported.end(), expected.begin(), expected.end(),
                        std::back_inserter(extra));
    std::set_difference(expected.begin(), expected.end(), exported.begin(), exported.end(),
                        std::back_inserter(missing));
    EXPECT_TRUE(extra.empty()) << "unexpected export: " << (extra.empty() ? "" : extra[0]);
    EXPECT_TRUE(missing.empty()) << "missing export: " << (missing.empty() ? "" : missing[0]);
}
