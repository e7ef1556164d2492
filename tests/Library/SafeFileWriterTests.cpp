// SafeFileWriterTests.cpp - replacing files through a temporary: modes, owners,
// failures that leave nothing behind, and symbolic links.
#include "Internal/QXSafeFileWriter.h"

#include "TestSupport.h"

using qxtest::fileMode;
using qxtest::readFile;
using qxtest::TempDir;
using Names = std::vector<std::string>;

namespace {

// Sets the process's file-creation mask for one scope.
struct ScopedUmask {
    explicit ScopedUmask(mode_t mask) : saved(::umask(mask)) {}
    ~ScopedUmask() { ::umask(saved); }
    const mode_t saved;
};

int writeAndCommit(QXSafeFileWriter& writer, const std::string& text) {
    if (const int failure = writer.writeAll(text.data(), text.size()); failure != 0) return failure;
    return writer.commit();
}

} // namespace

TEST(SafeFileWriter, ReplacementKeepsModeAndOwnerAndNewFilesFollowTheMask) {
    TempDir dir;
    const std::string target = dir.file("keep", "old");
    ::chmod(target.c_str(), 0600);
    const bool root = ::geteuid() == 0;
    if (root) { ASSERT_EQ(::chown(target.c_str(), 1234, 5678), 0); }  // only root can give a file away

    QXSafeFileWriter writer;
    ASSERT_EQ(writer.open(target), 0);
    ASSERT_EQ(writer.writeAll("new", 3), 0);
    // Until commit the target is untouched and the temporary is private.
    EXPECT_EQ(readFile(target), "old");
    const Names whileWriting = dir.names();
    ASSERT_EQ(whileWriting.size(), 2u);
    EXPECT_EQ(fileMode(dir / whileWriting[0]), 0600u) << whileWriting[0];
    ASSERT_EQ(writer.commit(), 0);
    EXPECT_EQ(readFile(target), "new");
    EXPECT_EQ(fileMode(target), 0600u);
    struct stat st {};
    ASSERT_EQ(::stat(target.c_str(), &st), 0);
    if (root) { EXPECT_EQ(std::pair(st.st_uid, st.st_gid), std::pair(uid_t{1234}, gid_t{5678})); }

    const ScopedUmask mask(027);
    ASSERT_EQ(writer.open(dir / "fresh"), 0);  // the same writer again, after a commit
    ASSERT_EQ(writeAndCommit(writer, "fresh"), 0);
    EXPECT_EQ(fileMode(dir / "fresh"), 0640u);
    EXPECT_EQ(dir.names(), (Names{"fresh", "keep"}));
}

TEST(SafeFileWriter, FailuresLeaveTheTargetAsItWasAndNoTemporary) {
    TempDir dir;
    const std::string target = dir.file("target", "old");
    {
        QXSafeFileWriter discarded;
        ASSERT_EQ(discarded.open(target), 0);
        ASSERT_EQ(discarded.writeAll("new", 3), 0);
        discarded.discard();
        EXPECT_EQ(discarded.commit(), EBADF);

        QXSafeFileWriter abandoned;
        ASSERT_EQ(abandoned.open(target), 0);
        ASSERT_EQ(abandoned.writeAll("new", 3), 0);
    }
    EXPECT_EQ(readFile(target), "old");
    EXPECT_EQ(dir.names(), Names{"target"});

    // A folder put in the target's place while writing makes the rename fail.
    QXSafeFileWriter writer;
    ASSERT_EQ(writer.open(target), 0);
    std::filesystem::remove(target);
    std::filesystem::create_directory(target);
    dir.file("target/inside", "kept");
    EXPECT_NE(writeAndCommit(writer, "new"), 0);
    EXPECT_EQ(dir.names(), Names{"target"});
    EXPECT_EQ(readFile(dir / "target/inside"), "kept");

    EXPECT_EQ(writer.open(dir / "missing/file"), ENOENT);
    EXPECT_EQ(writer.openAt(AT_FDCWD, "a/b"), EINVAL);
    EXPECT_EQ(writer.openAt(AT_FDCWD, ".."), EINVAL);
    EXPECT_EQ(writer.writeAll("x", 1), EBADF);
}

TEST(SafeFileWriter, OpenFollowsALinkAndOpenAtReplacesIt) {
    TempDir dir;
    const std::string real = dir.file("real", "old");
    ::chmod(real.c_str(), 0640);
    std::filesystem::create_symlink("real", dir / "link");
    std::filesystem::create_symlink("nowhere", dir / "dangling");

    QXSafeFileWriter writer;
    ASSERT_EQ(writer.open(dir / "link"), 0);
    EXPECT_EQ(writer.targetPath(), std::filesystem::canonical(real).string());
    ASSERT_EQ(writeAndCommit(writer, "through"), 0);
    EXPECT_TRUE(std::filesystem::is_symlink(dir / "link"));
    EXPECT_EQ(readFile(real), "through");
    EXPECT_EQ(fileMode(real), 0640u);

    // A link that names nothing has no file to write through to.
    ASSERT_EQ(writer.open(dir / "dangling"), 0);
    ASSERT_EQ(writeAndCommit(writer, "plain"), 0);
    EXPECT_FALSE(std::filesystem::is_symlink(dir / "dangling"));

    const qx::UniqueFd folder(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(writer.openAt(folder.get(), "link"), 0);
    ASSERT_EQ(writeAndCommit(writer, "replaced"), 0);
    EXPECT_FALSE(std::filesystem::is_symlink(dir / "link"));
    EXPECT_EQ(readFile(dir / "link"), "replaced");
    EXPECT_EQ(readFile(real), "through");
    EXPECT_EQ(dir.names(), (Names{"dangling", "link", "real"}));
}

TEST(SafeFileWriter, OpenAtGivesTheChosenModeToNewFilesOnlyAndMovesWithItsTemporary) {
    TempDir dir;
    const std::string existing = dir.file("existing", "old");
    ::chmod(existing.c_str(), 0600);
    const qx::UniqueFd folder(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const ScopedUmask mask(077);

    QXSafeFileWriter first;
    ASSERT_EQ(first.openAt(folder.get(), "script", 0755), 0);
    QXSafeFileWriter moved(std::move(first));
    EXPECT_EQ(first.fd(), -1);
    first = QXSafeFileWriter();  // the moved-from writer owns no temporary to remove
    ASSERT_EQ(writeAndCommit(moved, "#!/bin/sh\n"), 0);
    EXPECT_EQ(fileMode(dir / "script"), 0755u);

    ASSERT_EQ(moved.openAt(folder.get(), "existing", 0755), 0);
    ASSERT_EQ(writeAndCommit(moved, "new"), 0);
    EXPECT_EQ(fileMode(existing), 0600u);
    EXPECT_EQ(dir.names(), (Names{"existing", "script"}));
}

TEST(SafeFileWriter, ACallerNamedTemporaryIsUsedAsGivenOrRefused) {
    TempDir dir;
    const std::string target = dir.file("target", "old");
    dir.file("taken", "someone else's");

    QXSafeFileWriter writer;
    ASSERT_EQ(writer.open(target, std::string("chosen")), 0);
    ASSERT_EQ(writer.writeAll("new", 3), 0);
    EXPECT_EQ(fileMode(dir / "chosen"), 0600u);
    EXPECT_EQ(dir.names(), (Names{"chosen", "taken", "target"}));
    ASSERT_EQ(writer.finish(true), 0);
    EXPECT_EQ(readFile(target), "new");

    ASSERT_EQ(writer.open(target, std::string("chosen")), 0);
    ASSERT_EQ(writer.writeAll("dropped", 7), 0);
    ASSERT_EQ(writer.finish(false), 0);
    EXPECT_EQ(readFile(target), "new");
    EXPECT_EQ(dir.names(), (Names{"taken", "target"}));

    // Nothing is overwritten or taken in its place, and nothing is left.
    for (const auto& [name, code] : std::vector<std::pair<std::string, int>>{
             {"taken", EEXIST}, {"target", EEXIST}, {"sub/name", EINVAL}, {"..", EINVAL}, {"", EINVAL}}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(writer.open(target, name), code);
        EXPECT_EQ(writer.fd(), -1);
        EXPECT_EQ(readFile(dir / "taken"), "someone else's");
        EXPECT_EQ(readFile(target), "new");
        EXPECT_EQ(dir.names(), (Names{"taken", "target"}));
    }
}
