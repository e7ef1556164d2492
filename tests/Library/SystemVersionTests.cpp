// SystemVersionTests.cpp - the system version from the version file and from the running kernel.

#include "TestSupport.h"

#include <QXFoundation/QXSystemVersion.h>

#include "Internal/QXSystemVersionPrivate.h"

#include <qx/ProcessInfo.h>

#include <sys/utsname.h>

using qx::ProcessInfo;

namespace {

std::string fixture(const char* name) { return std::string(QX_TESTDATA_DIR) + "/" + name; }

using Version = std::vector<std::int64_t>;  // major, minor, patch
Version systemVersion() {
    Version v{-1, -1, -1};
    QXGetSystemVersion(&v[0], &v[1], &v[2]);
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

TEST_F(SystemVersionFile, TwoAndThreePartVersions) {
    struct Case { const char *file, *text; std::int64_t major, minor, patch; };
    for (const Case& c : {Case{"good-SystemVersion-10.9.plist", "10.9", 10, 9, 0},
                          Case{"good-SystemVersion-10.8.5.plist", "10.8.5", 10, 8, 5}}) {
        SCOPED_TRACE(c.file);
        use(c.file);
        std::int64_t patch = -1;
        QXGetSystemVersion(nullptr, nullptr, &patch);  // each output may be left out
        EXPECT_EQ(systemVersion(), (Version{c.major, c.minor, c.patch}));
        EXPECT_EQ(patch, c.patch);
        EXPECT_EQ(QXGetSystemVersionString()->utf8(), c.text);
        // Each part decides only when the ones before it are equal.
        EXPECT_TRUE(QXSystemVersionIsAtLeast(c.major, c.minor, c.patch) && QXSystemVersionIsAtLeast(c.major, c.minor - 1, 99) &&
                    QXSystemVersionIsAtLeast(c.major - 1, 99, 99));
        EXPECT_FALSE(QXSystemVersionIsAtLeast(c.major, c.minor, c.patch + 1) || QXSystemVersionIsAtLeast(c.major, c.minor + 1, 0) ||
                     QXSystemVersionIsAtLeast(c.major + 1, 0, 0));
    }
}

TEST_F(SystemVersionFile, ReadOnceUntilReset) {
    use("good-SystemVersion-10.9.plist");
    EXPECT_EQ(systemVersion()[1], 9);
    // Another file is not read while the first answer stands.
    QXSystemVersionSetLegacyPlistPath(fixture("good-SystemVersion-10.8.5.plist"));
    EXPECT_EQ(QXGetSystemVersionString()->utf8(), "10.9");
    QXSystemVersionResetLegacyState();
    EXPECT_EQ(systemVersion()[2], 5);
}

TEST_F(SystemVersionFileDeathTest, FewerThanTwoPartsOrAnUnreadableFileStopsTheProcess) {
    use("bad-SystemVersion-one-part.plist");
    EXPECT_DEATH(systemVersion(), "Sources/QXSystemVersion:21(.|\n)*versions.count >= 2");
    use("no-such-file.plist");
    EXPECT_DEATH(QXGetSystemVersionString(), "versions.count >= 2");
}

TEST(SystemVersionKernel, AnswersFromTheRunningSystem) {
    struct utsname u;
    ASSERT_EQ(::uname(&u), 0);
    const auto expected = ProcessInfo::versionFromReleaseString(u.release);
    const auto v = systemVersion();
    EXPECT_EQ(v, (Version{expected.majorVersion, expected.minorVersion, expected.patchVersion}));
    EXPECT_EQ(QXGetSystemVersionString()->utf8(), std::string(u.sysname) + " " + u.release);
    EXPECT_TRUE(QXSystemVersionIsAtLeast(v[0], v[1], v[2]) && !QXSystemVersionIsAtLeast(v[0], v[1], v[2] + 1));
}

TEST(SystemVersionKernel, ReleaseStringsParse) {
    auto parse = [](const char* s) {
        const auto v = ProcessInfo::versionFromReleaseString(s);
        return std::to_string(v.majorVersion) + "." + std::to_string(v.minorVersion) + "." +
               std::to_string(v.patchVersion);
    };
    for (const auto& [release, expected] : std::vector<std::pair<const char*, const char*>>{
             {"6.1.0-18-amd64", "6.1.0"}, {"6.8", "6.8.0"}, {"3.10rc1.5", "3.10.0"}, {"rolling", "0.0.0"},
             {"99999999999999999999999.1", "9223372036854775807.1.0"}})
        EXPECT_EQ(parse(release), expected) << release;
}
