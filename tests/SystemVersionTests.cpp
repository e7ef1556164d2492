// SystemVersionTests.cpp - the system version from the version file and from the running kernel.
#include <gtest/gtest.h>

#include <QXFoundation/QXSystemVersion.h>

#include "QXSystemVersionPrivate.h"

#include <qx/ProcessInfo.h>

#include <sys/utsname.h>

using qx::OperatingSystemVersion;
using qx::ProcessInfo;

namespace {

std::string fixture(const char* name) { return std::string(QX_TESTDATA_DIR) + "/" + name; }

struct Version {
    std::int64_t major = -1, minor = -1, patch = -1;
};

Version systemVersion() {
    Version v;
    QXGetSystemVersion(&v.major, &v.minor, &v.patch);
    return v;
}

// Takes the version-file path for one test, reading the given file.
class SystemVersionFile : public ::testing::Test {
protected:
    void use(const char* name) {
        QXSystemVersionSetLegacyPlistPath(fixture(name));
        QXSystemVersionResetLegacyState();
    }
    void SetUp() override { QXSystemVersionForceLegacyPath(true); }
    void TearDown() override {
        QXSystemVersionForceLegacyPath(false);
        QXSystemVersionSetLegacyPlistPath("/System/Library/CoreServices/SystemVersion.plist");
        QXSystemVersionResetLegacyState();
    }
};

using SystemVersionFileDeathTest = SystemVersionFile;

} // namespace

TEST_F(SystemVersionFile, TwoPartVersion) {
    use("good-SystemVersion-10.9.plist");
    const auto v = systemVersion();
    EXPECT_EQ(v.major, 10);
    EXPECT_EQ(v.minor, 9);
    EXPECT_EQ(v.patch, 0);
    EXPECT_EQ(QXGetSystemVersionString()->utf8(), "10.9");

    EXPECT_TRUE(QXSystemVersionIsAtLeast(10, 9, 0));
    EXPECT_TRUE(QXSystemVersionIsAtLeast(10, 8, 99));
    EXPECT_TRUE(QXSystemVersionIsAtLeast(9, 99, 99));
    EXPECT_FALSE(QXSystemVersionIsAtLeast(10, 9, 1));
    EXPECT_FALSE(QXSystemVersionIsAtLeast(10, 10, 0));
    EXPECT_FALSE(QXSystemVersionIsAtLeast(11, 0, 0));
}

TEST_F(SystemVersionFile, ThreePartVersionAndPartialOutputs) {
    use("good-SystemVersion-10.8.5.plist");
    std::int64_t minor = -1;
    QXGetSystemVersion(nullptr, &minor, nullptr);
    EXPECT_EQ(minor, 8);
    std::int64_t patch = -1;
    QXGetSystemVersion(nullptr, nullptr, &patch);
    EXPECT_EQ(patch, 5);
    QXGetSystemVersion(nullptr, nullptr, nullptr);
    EXPECT_EQ(QXGetSystemVersionString()->utf8(), "10.8.5");
    EXPECT_TRUE(QXSystemVersionIsAtLeast(10, 8, 5));
    EXPECT_TRUE(QXSystemVersionIsAtLeast(10, 8, 4));
    EXPECT_FALSE(QXSystemVersionIsAtLeast(10, 8, 6));
}

TEST_F(SystemVersionFile, ReadOnceUntilReset) {
    use("good-SystemVersion-10.9.plist");
    EXPECT_EQ(systemVersion().minor, 9);
    // Another file is not read while the first answer stands...
    QXSystemVersionSetLegacyPlistPath(fixture("good-SystemVersion-10.8.5.plist"));
    EXPECT_EQ(systemVersion().minor, 9);
    EXPECT_EQ(QXGetSystemVersionString()->utf8(), "10.9");
    // ...nor is a missing one.
    QXSystemVersionSetLegacyPlistPath(fixture("no-such-file.plist"));
    EXPECT_EQ(systemVersion().major, 10);
    QXSystemVersionSetLegacyPlistPath(fixture("good-SystemVersion-10.8.5.plist"));
    QXSystemVersionResetLegacyState();
    EXPECT_EQ(systemVersion().patch, 5);
}

TEST_F(SystemVersionFileDeathTest, FewerThanTwoPartsStopsTheProcess) {
    use("bad-SystemVersion-one-part.plist");
    EXPECT_DEATH(systemVersion(), "Sources/QXSystemVersion:21(.|\n)*versions.count >= 2");
}

TEST_F(SystemVersionFileDeathTest, MissingOrUnreadableFileStopsTheProcess) {
    use("no-such-file.plist");
    EXPECT_DEATH(QXGetSystemVersionString(), "versions.count >= 2");
    // Not a property list at all (a strings file).
    QXSystemVersionSetLegacyPlistPath(std::string(QX_SOURCE_DIR) + "/Resources/en.lproj/Localizable.strings");
    EXPECT_DEATH(QXSystemVersionIsAtLeast(1, 0, 0), "versions.count >= 2");
}

TEST(SystemVersionKernel, AnswersFromTheRunningSystem) {
    struct utsname u;
    ASSERT_EQ(::uname(&u), 0);
    const auto expected = ProcessInfo::versionFromReleaseString(u.release);
    const auto v = systemVersion();
    EXPECT_EQ(v.major, expected.majorVersion);
    EXPECT_EQ(v.minor, expected.minorVersion);
    EXPECT_EQ(v.patch, expected.patchVersion);
    EXPECT_GT(v.major, 0);
    EXPECT_EQ(QXGetSystemVersionString()->utf8(), std::string(u.sysname) + " " + u.release);

    EXPECT_TRUE(QXSystemVersionIsAtLeast(v.major, v.minor, v.patch));
    EXPECT_TRUE(QXSystemVersionIsAtLeast(v.major - 1, v.minor + 100, 0));
    EXPECT_FALSE(QXSystemVersionIsAtLeast(v.major, v.minor, v.patch + 1));
    EXPECT_FALSE(QXSystemVersionIsAtLeast(v.major, v.minor + 1, 0));
    EXPECT_FALSE(QXSystemVersionIsAtLeast(v.major + 1, 0, 0));
}

TEST(SystemVersionKernel, ReleaseStringsParse) {
    auto parse = [](const char* s) {
        const auto v = ProcessInfo::versionFromReleaseString(s);
        return std::to_string(v.majorVersion) + "." + std::to_string(v.minorVersion) + "." +
               std::to_string(v.patchVersion);
    };
    EXPECT_EQ(parse("6.1.0-18-amd64"), "6.1.0");
    EXPECT_EQ(parse("6.8"), "6.8.0");
    EXPECT_EQ(parse("3.10rc1.5"), "3.10.0");
    EXPECT_EQ(parse("rolling"), "0.0.0");
    EXPECT_EQ(parse("99999999999999999999999.1"), "9223372036854775807.1.0");
}
