// RefTests.cpp - QXRef: which URLs name the same file, and alias data.
#include "TestSupport.h"

#include <QXFoundation/QXError.h>
#include <QXFoundation/QXRef.h>

namespace {
qx::Ref<qx::URL> at(const std::string& path) { return qx::URL::fileURLWithPath(path); }
} // namespace

TEST(QXRef, SameFileWhateverThePath) {
    qxtest::TempDir dir;
    const std::string file = dir.file("a b.dmg", "a"), other = dir.file("b.dmg", "b");
    ASSERT_EQ(::link(file.c_str(), (dir / "hard").c_str()) | ::symlink(file.c_str(), (dir / "soft").c_str()), 0);
    auto ref = QXRef::refWithURL(at(file));
    const std::pair<std::string, bool> cases[] = {{dir / "hard", true}, {dir / "soft", true},
                                                  {dir / "./a b.dmg", true}, {other, false}, {dir / "gone", false}};
    for (const auto& [path, same] : cases) EXPECT_EQ(ref->isSameFileAsURL(at(path)), same) << path;
    EXPECT_TRUE(ref->isEqual(*QXRef::refWithURL(at(dir / "hard"))));
    EXPECT_EQ(ref->hash(), QXRef::refWithURL(at(dir / "hard"))->hash());

    auto resolved = QXRef::refWithAliasData(ref->aliasData());
    EXPECT_TRUE(resolved && resolved->isSameFileAsURL(at(file)) && resolved->url()->path() == file);
    std::filesystem::rename(other, file);  // another file in its place
    EXPECT_FALSE(ref->isSameFileAsURL(at(file)));
    std::filesystem::remove(file);
    qx::Ref<qx::Error> error;
    EXPECT_FALSE(QXRef::refWithAliasData(ref->aliasData(), &error));
    EXPECT_QX_ERROR(error, qx::NSCocoaErrorDomain, 260);
    EXPECT_FALSE(QXRef::refWithAliasData(qxtest::toData("not an alias"), &error));
    EXPECT_QX_ERROR(error, qx::NSCocoaErrorDomain, 259);
}

TEST(QXRef, RemoteAndUnreachableFiles) {
    auto remote = QXRef::refWithURL(qx::URL::URLWithString("https://example.com/a.dmg"));
    ASSERT_TRUE(remote && !remote->hasFileIdentity());
    EXPECT_TRUE(remote->isSameFileAsURL(qx::URL::URLWithString("https://example.com/a.dmg")));
    EXPECT_FALSE(remote->isSameFileAsURL(qx::URL::URLWithString("http://example.com/a.dmg")));
    qx::Ref<qx::Error> error;
    EXPECT_FALSE(QXRef::refWithURL(qx::URL::URLWithString("ftp://example.com/a.dmg"), &error));
    EXPECT_QX_ERROR(error, qx::NSCocoaErrorDomain, 262);
    // Without identity a local reference names no file, yet equals itself.
    auto lost = QXRef::refWithUnreachableURL(at("/nonexistent/a.dmg"));
    ASSERT_TRUE(lost && !lost->hasFileIdentity());
    EXPECT_FALSE(lost->isSameFileAs(*lost));
    EXPECT_TRUE(lost->isEqual(*QXRef::refWithUnreachableURL(at("/nonexistent/a.dmg"))));
}
