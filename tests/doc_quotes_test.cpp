// The platform page quotes the project's own files: each block after a "<!-- file: PATH -->" line
// must be PATH's content or a run of its consecutive lines, so that what a platform engineer
// copies is what the policy check compiled. Every policy file is quoted somewhere on the page.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_support.h"

using namespace atcmd_test;

namespace {

const std::string kProject = ATCMD_TEST_DIR "/..";
const std::string kPage = "docs/android.md";
constexpr char kMarker[] = "<!-- file: ";

// What a block says while the file it stands for is not in the tree yet.
std::string placeholder_for(const std::string &path) {
    return "(" + path + " goes here once it is in the tree)";
}

struct Quote {
    std::string path;
    int line = 0;  // of the marker, 1-based
    std::vector<std::string> block;
};

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

bool exists(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// Every marker of the page with the fenced block right below it; a marker without one is a fault.
std::vector<Quote> quotes_of(const std::vector<std::string> &page) {
    std::vector<Quote> quotes;
    for (size_t i = 0; i < page.size(); ++i) {
        if (page[i].rfind(kMarker, 0) != 0) continue;
        Quote q;
        q.line = (int)i + 1;
        const size_t end = page[i].find(" -->");
        q.path = page[i].substr(sizeof kMarker - 1, end - (sizeof kMarker - 1));
        EXPECT_NE(end, std::string::npos) << kPage << ":" << q.line << ": marker not closed";
        EXPECT_TRUE(i + 1 < page.size() && page[i + 1].rfind("```", 0) == 0)
            << kPage << ":" << q.line << ": no fenced block right after the marker";
        size_t j = i + 2;
        for (; j < page.size() && page[j].rfind("```", 0) != 0; ++j) q.block.push_back(page[j]);
        EXPECT_LT(j, page.size()) << kPage << ":" << q.line << ": block not closed";
        quotes.push_back(q);
        i = j;
    }
    return quotes;
}

// True when `block` is `file` whole or a run of its consecutive lines.
bool is_run_of(const std::vector<std::string> &block, const std::vector<std::string> &file) {
    if (block.empty() || block.size() > file.size()) return false;
    for (size_t start = 0; start + block.size() <= file.size(); ++start) {
        if (std::equal(block.begin(), block.end(), file.begin() + (long)start)) return true;
    }
    return false;
}

void collect_files(const std::string &dir, const std::string &relative,
                   std::set<std::string> *out) {
    DIR *d = opendir((dir + "/" + relative).c_str());
    ASSERT_NE(d, nullptr) << relative;
    while (const dirent *entry = readdir(d)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        const std::string path = relative + "/" + name;
        struct stat st;
        if (stat((dir + "/" + path).c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            collect_files(dir, path, out);
        } else {
            out->insert(path);
        }
    }
    closedir(d);
}

}  // namespace

TEST(DocQuotesTest, EveryQuotedBlockIsTheFilesContent) {
    const std::vector<Quote> quotes = quotes_of(lines_of(read_file(kProject + "/" + kPage)));
    ASSERT_FALSE(quotes.empty());
    for (const Quote &q : quotes) {
        SCOPED_TRACE(kPage + ":" + std::to_string(q.line) + ": " + q.path);
        const std::string path = kProject + "/" + q.path;
        if (!exists(path)) {
            // Only the placeholder may stand for a file that is not there yet.
            EXPECT_EQ(q.block, std::vector<std::string>{placeholder_for(q.path)})
                << "the page quotes a file the project does not have";
            continue;
        }
        EXPECT_TRUE(is_run_of(q.block, lines_of(read_file(path))))
            << "the block is not the file's content (or a run of its lines)";
    }
}

TEST(DocQuotesTest, EveryPolicyFileIsQuoted) {
    std::set<std::string> quoted;
    for (const Quote &q : quotes_of(lines_of(read_file(kProject + "/" + kPage)))) {
        quoted.insert(q.path);
    }
    std::set<std::string> policy;
    collect_files(kProject, "sepolicy", &policy);
    ASSERT_FALSE(policy.empty());
    for (const std::string &path : policy) {
        EXPECT_EQ(quoted.count(path), 1u) << path << " is not quoted on " << kPage;
    }
}

// The comparison itself: a changed, reordered or foreign line is caught.
TEST(DocQuotesTest, ARunMustMatchLineForLine) {
    const std::vector<std::string> file = {"a", "b", "c", "d"};
    const struct {
        std::vector<std::string> block;
        bool matches;
    } cases[] = {
        {{"a", "b", "c", "d"}, true}, {{"b", "c"}, true},       {{"d"}, true},
        {{"b", "d"}, false},          {{"c", "b"}, false},      {{"b", "c "}, false},
        {{}, false},                  {{"a", "b", "c", "d", "e"}, false},
    };
    for (const auto &c : cases) EXPECT_EQ(is_run_of(c.block, file), c.matches);
}
