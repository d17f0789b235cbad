// Port names seen in "/dev": which ones are ACM ports, the number each carries, and the name
// kept for the uevent lookup.
#include <gtest/gtest.h>

#include <string.h>

#include "hotplug/hotplug.h"
#include "support/test_support.h"

using namespace atcmd_test;

namespace {

struct NameRow {
    std::string name;
    int32_t port;  // -1: not a port, and the kept name stays as it was
};

const NameRow kNames[] = {
    {"ttyACM3", 3},
    {"ttyACM0x", 0},             // the number ends at the first non-digit
    {"ttyACM", 0},               // no digits at all
    {"xx-ttyACM12", 12},         // the key may sit anywhere in the name
    {"ttyUSB0", -1},
    {"ttyacm1", -1},
    {"ttyACM99999999999", -1},   // no port path can carry it
    {"ttyACM5" + std::string(80, 'a'), 5},
};

}  // namespace

TEST(ParseDevNameTest, NumbersOnlyAcmNamesAndKeepsTheirNameCut) {
    Sandbox sb;
    for (const NameRow &row : kNames) {
        SCOPED_TRACE(row.name);
        strcpy(g_dev_ACM_name, "before");
        EXPECT_EQ(parse_dev_name(row.name.c_str()), row.port);
        const std::string kept = row.port == -1 ? "before" : row.name.substr(0, 63);
        EXPECT_EQ(std::string(g_dev_ACM_name), kept);
    }
    EXPECT_EQ(parse_dev_name(nullptr), -1);
}
