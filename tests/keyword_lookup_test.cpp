// The keyword lookups against the plain first-match rules over the table, for every prefix of
// every keyword and a few texts that match nothing.
#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <vector>

#include "engine/engine.h"

namespace {

int reference_res(const std::string &line) {  // first row that begins with the line
    for (int row = 0; row < AT_MSG_COUNT; ++row) {
        if (strncmp(line.c_str(), AT_CMDS[row].keyword, line.size()) == 0) return row;
    }
    return -1;
}

int reference_at(const std::string &line) {  // "AT" and exactly a keyword
    if (line.size() < 4 || line.compare(0, 2, "AT") != 0) return -1;
    for (int row = 0; row < AT_MSG_COUNT; ++row) {
        if (line.substr(2) == AT_CMDS[row].keyword) return row;
    }
    return -1;
}

int found(int (*lookup)(const char *, uint8_t *), const std::string &line) {
    uint8_t idx = 0xEE;
    const int hit = lookup(line.c_str(), &idx);
    EXPECT_TRUE(hit == 1 || idx == 0xEE) << line;  // a miss leaves the row alone
    return hit == 1 ? idx : -1;
}

}  // namespace

TEST(KeywordLookup, EveryPrefixFindsTheFirstMatchingRowInTableOrder) {
    std::vector<std::string> texts = {"", "+", "+X", "+btmac", "+BTMACX", "+WIFICONN", "+P",
                                      "+Z", "+\xff", "AT", "AT+", "ATX", "AT+BT ", "+HALLC"};
    for (const AT_CMD_Table_t &row : AT_CMDS) {
        const std::string kw = row.keyword;
        for (size_t len = 0; len <= kw.size(); ++len) texts.push_back(kw.substr(0, len));
        texts.push_back(kw + "X");
    }
    for (const std::string &t : texts) {
        EXPECT_EQ(found(findResCmdIdx, t), reference_res(t)) << "response text '" << t << "'";
        const std::string at = "AT" + t;
        EXPECT_EQ(found(findAtCmdIdx, at), reference_at(at)) << "command text '" << at << "'";
    }
}
