// The service's names, version and instance agree everywhere they are written: the code, the
// .aidl package, the frozen API dump and its hash, the build file, the VINTF fragment, the
// compatibility matrix, the init file, the service contexts and the compile check's stand-in
// header; and the XML files are well formed (xmllint).
#include <stdio.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "service/service_names.h"
#include "support/test_support.h"

namespace {

using atcmd_test::pattern_all;
using atcmd_test::pattern_quote;
using atcmd_test::pattern_search;
using atcmd_test::read_file;

const std::string kRoot = ATCMD_TEST_DIR "/..";
const std::string kAidl = kRoot + "/interfaces/atcmd/aidl";
const std::string kApi = kAidl + "/aidl_api/" + atcmd_service::kPackage;
const std::string kPackageDir = "/vendor/quorvanta/atcmd/";
const char *const kAidlFiles[] = {"IAtCmd.aidl", "IAtCmdCallback.aidl", "AtCmdMessage.aidl",
                                  "AtCmdRecord.aidl", "AtCmdStatus.aidl"};

// Standard output of a shell command, with its exit status.
std::string run(const std::string &command, int *status) {
    std::string out;
    FILE *p = popen(command.c_str(), "r");
    if (p == nullptr) return out;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    *status = pclose(p);
    return out;
}

bool has(const std::string &text, const std::string &pattern) {
    return pattern_search(text, pattern);
}

TEST(ServiceNamesTest, InstanceIsPackageDotInterfaceSlashDefault) {
    EXPECT_EQ(std::string(atcmd_service::kInstance),
              std::string(atcmd_service::kPackage) + "." + atcmd_service::kInterface + "/default");
}

TEST(ServiceNamesTest, EveryAidlFileIsInThePackageAndVintfStable) {
    for (const char *f : kAidlFiles) {
        const std::string text = read_file(kAidl + kPackageDir + f);
        SCOPED_TRACE(f);
        EXPECT_TRUE(has(text, std::string("\\npackage ") + atcmd_service::kPackage + ";"));
        EXPECT_TRUE(has(text, "\\n@VintfStability\\n"));
    }
    EXPECT_TRUE(has(read_file(kAidl + kPackageDir + "IAtCmd.aidl"),
                    std::string("\\ninterface ") + atcmd_service::kInterface + " \\{"));
    EXPECT_TRUE(has(read_file(kAidl + kPackageDir + "IAtCmdCallback.aidl"),
                    "\\noneway interface IAtCmdCallback \\{"));
}

// The frozen version is intact (its hash is what the platform's freeze computes) and `current`
// has not moved from it, so version 1 is what the sources say.
TEST(ServiceNamesTest, FrozenVersionMatchesItsHashAndCurrent) {
    const std::string version_dir = kApi + "/" + std::to_string(atcmd_service::kVersion);
    int status = -1;
    const std::string hash = run("cd '" + version_dir + "' && { find ./ -name '*.aidl' -print0 | "
                                 "LC_ALL=C sort -z | xargs -0 sha1sum && echo latest-version; } | "
                                 "sha1sum | cut -d ' ' -f 1", &status);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(hash, read_file(version_dir + "/.hash"));
    for (const char *f : kAidlFiles) {
        EXPECT_EQ(read_file(version_dir + kPackageDir + f), read_file(kApi + "/current" + kPackageDir + f)) << f;
    }
    // The compile check's stand-in mirrors this version and hash.
    const std::string standin = read_file(kRoot + "/scripts/aidl-ndk-standin/aidl" + kPackageDir + "IAtCmd.h");
    EXPECT_NE(standin.find("version = " + std::to_string(atcmd_service::kVersion) + ";"), std::string::npos);
    EXPECT_NE(standin.find("hash = \"" + hash.substr(0, hash.size() - 1) + "\""), std::string::npos);
    // Every method of the frozen interface is one of the stand-in's transactions.
    const std::string dump = read_file(version_dir + kPackageDir + "IAtCmd.aidl");
    const std::vector<std::string> methods = pattern_all(dump, "\\n  [A-Za-z.<>\\[\\]]+ ([a-zA-Z]+)\\(");
    for (const std::string &method : methods) {
        EXPECT_NE(standin.find("TRANSACTION_" + method + " "), std::string::npos) << method;
    }
    EXPECT_EQ(methods.size(), 10u);
}

TEST(ServiceNamesTest, BuildFilesNameTheInterfaceVersionAndTheServiceFiles) {
    const std::string aidl_bp = read_file(kAidl + "/Android.bp");
    EXPECT_TRUE(has(aidl_bp, std::string("name: \"") + atcmd_service::kPackage + "\""));
    EXPECT_TRUE(has(aidl_bp, "stability: \"vintf\""));
    EXPECT_TRUE(has(aidl_bp, "version: \"" + std::to_string(atcmd_service::kVersion) + "\""));
    EXPECT_TRUE(has(aidl_bp, "frozen: true"));
    const std::string bp = read_file(kRoot + "/Android.bp");
    const std::string ndk = std::string(atcmd_service::kPackage) + "-V" + std::to_string(atcmd_service::kVersion) + "-ndk";
    EXPECT_TRUE(has(bp, "name: \"vendor.atcmd-service\""));
    EXPECT_TRUE(has(bp, "\"" + ndk + "\""));
    EXPECT_TRUE(has(bp, "init_rc: \\[\"service/vendor.atcmd-service.rc\"\\]"));
    EXPECT_TRUE(has(bp, "vintf_fragments: \\[\"service/vendor.atcmd-service.xml\"\\]"));
}

TEST(ServiceNamesTest, VintfFragmentAndCompatibilityMatrixAgreeAndAreWellFormed) {
    const std::string name = std::string("<name>") + atcmd_service::kPackage + "</name>";
    const std::string version = "<version>" + std::to_string(atcmd_service::kVersion) + "</version>";
    const std::string manifest = read_file(kRoot + "/service/vendor.atcmd-service.xml");
    EXPECT_TRUE(has(manifest, "<manifest version=\"1.0\" type=\"device\">"));
    EXPECT_TRUE(has(manifest, "<hal format=\"aidl\">"));
    EXPECT_NE(manifest.find(name), std::string::npos);
    EXPECT_NE(manifest.find(version), std::string::npos);
    EXPECT_NE(manifest.find(std::string("<fqname>") + atcmd_service::kInterface + "/default</fqname>"),
              std::string::npos);
    const std::string matrix = read_file(kRoot + "/service/compatibility_matrix.atcmd.xml");
    EXPECT_TRUE(has(matrix, "<compatibility-matrix version=\"1.0\" type=\"framework\">"));
    EXPECT_NE(matrix.find(name), std::string::npos);
    EXPECT_NE(matrix.find(version), std::string::npos);
    EXPECT_TRUE(has(matrix, std::string("<interface>\\s*<name>") + atcmd_service::kInterface +
                                "</name>\\s*<instance>default</instance>\\s*</interface>"));
    int status = -1;
    run("xmllint --noout '" + kRoot + "/service/vendor.atcmd-service.xml' '" + kRoot +
            "/service/compatibility_matrix.atcmd.xml' 2>&1", &status);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "xmllint status " << status;
}

// A file xmllint must reject, so that the check above is known to look.
TEST(ServiceNamesTest, XmllintRejectsABrokenFragment) {
    atcmd_test::Sandbox sb;
    atcmd_test::write_text_file(sb.path("/broken.xml"), "<manifest><hal></manifest>\n");
    int status = -1;
    run("xmllint --noout '" + sb.path("/broken.xml") + "' 2>/dev/null", &status);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) != 0);
}

TEST(ServiceNamesTest, InitFileStartsTheBinaryInstalledUnderHwAsARestartedHal) {
    const std::string rc = read_file(kRoot + "/service/vendor.atcmd-service.rc");
    EXPECT_TRUE(has(rc, "\\nservice vendor\\.atcmd /vendor/bin/hw/vendor\\.atcmd-service\\n"));
    EXPECT_TRUE(has(rc, "\\n    class hal\\n"));
    EXPECT_TRUE(has(rc, "\\n    user system\\n"));
    EXPECT_TRUE(has(rc, "\\n    group system\\n"));
    // Closing ends the process: init must restart it, and never reboot the phone over it.
    EXPECT_FALSE(has(rc, "\\n    (oneshot|critical)"));
}

TEST(ServiceNamesTest, ServiceContextsLabelTheInstance) {
    const std::string contexts = read_file(kRoot + "/sepolicy/vendor/service_contexts");
    EXPECT_TRUE(has(contexts, std::string("(^|\\n)") + pattern_quote(atcmd_service::kInstance) +
                                  "\\s+u:object_r:hal_atcmd_service:s0\\n"));
}

}  // namespace
