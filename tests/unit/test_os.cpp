#include <gtest/gtest.h>

#include "host/tarn_os.h"

namespace {

os_release of_os_release(std::string_view text) {
    os_release release;
    os_parse_os_release(text, release);
    return release;
}

}  // namespace

TEST(Os, OsReleaseIsReadUpToAnUnknownId) {
    struct {
        std::string_view text;
        os_family family;
        const char *name, *version;
    } const rows[] = {
        {"ID=ubuntu\nNAME=\"Ubuntu\"\nVERSION_ID=\"14.04\"\n", os_family::debian, "Ubuntu", "14.04"},
        {"PRETTY_NAME=\"x\"\nNAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\nID=debian", os_family::debian,
         "Debian GNU/Linux", "12"},
        {"ID=\"amzn\"\nVERSION_ID=2018.03\n", os_family::redhat, "unknown", "2018.03"},
        {"ID=arch\nNAME=\"Arch Linux\"\n", os_family::unknown, "unknown", "unknown"},
        {"NAME=\"Arch Linux\"\nID=arch\nVERSION_ID=1\n", os_family::unknown, "Arch Linux", "unknown"},
        {"ID_LIKE=debian\nXNAME=a\n", os_family::unknown, "unknown", "unknown"},
        {"", os_family::unknown, "unknown", "unknown"},
    };
    for (const auto& row : rows) {
        const os_release release = of_os_release(row.text);
        EXPECT_EQ(release.family, row.family) << row.text;
        EXPECT_STREQ(release.name, row.name) << row.text;
        EXPECT_STREQ(release.version, row.version) << row.text;
    }
}

TEST(Os, ReleaseLinesNameAKnownDistributionFirst) {
    struct {
        std::string_view text;
        bool debian_too;
        os_family family;
        const char *name, *version;
    } const rows[] = {
        {"CentOS release 6.7 (Final)\nDebian 1\n", false, os_family::redhat, "CentOS", "6.7"},
        {"Red Hat Enterprise Linux 7.9 x 8.1\n", false, os_family::redhat, "Red", "8.1"},
        {"Debian GNU/Linux 12 \\n \\l\n", true, os_family::debian, "Debian", "12"},
        {"Debian GNU/Linux 12\n", false, os_family::unknown, "unknown", "unknown"},
        {"Fedora\n", true, os_family::redhat, "Fedora", "unknown"},
        {"Gentoo 2\n", true, os_family::unknown, "unknown", "unknown"},
        {"\n", true, os_family::unknown, "unknown", "unknown"},
    };
    for (const auto& row : rows) {
        os_release release;
        os_parse_release_line(row.text, row.debian_too, release);
        EXPECT_EQ(release.family, row.family) << row.text;
        EXPECT_STREQ(release.name, row.name) << row.text;
        EXPECT_STREQ(release.version, row.version) << row.text;
    }
    EXPECT_TRUE(isVer("") && isVer("6.7") && isVer("."));
    EXPECT_FALSE(isVer("6.7a") || isVer("v1"));
}

TEST(Os, SomeNamesAreReportedShorter) {
    EXPECT_EQ(os_report_name("Debian GNU/Linux"), "Debian");
    EXPECT_EQ(os_report_name("CentOS Linux"), "CentOS");
    EXPECT_EQ(os_report_name("Amazon Linux AMI"), "AmazonLinux");
    EXPECT_EQ(os_report_name("Amazon"), "AmazonLinux");
    EXPECT_EQ(os_report_name("Red"), "RHEL");
    EXPECT_EQ(os_report_name("Ubuntu"), "Ubuntu");
}
