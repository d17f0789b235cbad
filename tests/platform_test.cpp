// Host stand-ins: the file-backed property store and the sandbox root prefix.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cutils/properties.h>
#include <sys/system_properties.h>

#include "platform/root_path.h"
#include "support/test_support.h"

using namespace atcmd_test;

// Values or the default with their length, written without a newline, bounded when another
// process wrote a long one; bad keys and over-long values refused.
TEST(PropertiesTest, StoreReadsWritesAndRefuses) {
    Sandbox sb;
    char value[PROPERTY_VALUE_MAX + 8];
    EXPECT_EQ(property_get("vendor.hid_sts", value, "dflt"), 4);
    EXPECT_STREQ(value, "dflt");
    EXPECT_EQ(property_get("vendor.hid_sts", value, nullptr), 0);
    EXPECT_STREQ(value, "");
    ASSERT_EQ(property_set("vendor.hid_sts", "running"), 0);
    EXPECT_EQ(read_file(sb.path("/property/vendor.hid_sts")), "running");
    EXPECT_EQ(property_get("vendor.hid_sts", value, "dflt"), 7);
    EXPECT_STREQ(value, "running");
    EXPECT_EQ(__system_property_get("vendor.hid_sts", value), 7);
    ASSERT_EQ(property_set("vendor.hid_sts", ""), 0);  // empty counts as unset
    EXPECT_EQ(property_get("vendor.hid_sts", value, "dflt"), 4);

    write_text_file(sb.path("/property/net.bluetooth.macaddr"), std::string(200, 'm'));
    memset(value, 'Z', sizeof value);
    EXPECT_EQ(property_get("net.bluetooth.macaddr", value, ""), PROPERTY_VALUE_MAX - 1);
    EXPECT_EQ(strlen(value), static_cast<size_t>(PROPERTY_VALUE_MAX - 1));
    EXPECT_EQ(value[PROPERTY_VALUE_MAX], 'Z');

    EXPECT_EQ(property_set("../escape", "x"), -1);
    EXPECT_EQ(property_set("", "x"), -1);
    EXPECT_EQ(property_set("k", std::string(PROPERTY_VALUE_MAX, 'v').c_str()), -1);
    EXPECT_EQ(property_set("k", std::string(PROPERTY_VALUE_MAX - 1, 'v').c_str()), 0);
    EXPECT_EQ(access(sb.path("/escape").c_str(), F_OK), -1);
}

TEST(RootPathTest, PrefixesOnlyWhenSet) {
    char out[64];
    setenv("ATCMD_ROOT", "/tmp/sb", 1);
    ASSERT_EQ(atcmd_root_path("/dev/ttyS4", out, sizeof out), 0);
    EXPECT_STREQ(out, "/tmp/sb/dev/ttyS4");
    setenv("ATCMD_ROOT", "", 1);
    ASSERT_EQ(atcmd_root_path("/dev/ttyS4", out, sizeof out), 0);
    EXPECT_STREQ(out, "/dev/ttyS4");
    unsetenv("ATCMD_ROOT");
    ASSERT_EQ(atcmd_root_path("/dev/ttyS4", out, sizeof out), 0);
    EXPECT_STREQ(out, "/dev/ttyS4");
    setenv("ATCMD_ROOT", std::string(80, 'r').c_str(), 1);
    EXPECT_EQ(atcmd_root_path("/dev/ttyS4", out, sizeof out), -1);
}
