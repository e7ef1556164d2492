// Random edit scripts against a byte-array model, undo and redo over long
// scripts, and write-outs that fail part-way.
#include "DataReferenceTestSupport.h"

#include "Internal/QXDataReferenceIO.h"

#include <gtest/gtest.h>

#include <csignal>

#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace qxtest;

namespace {

// Each edit written out and the file reopened, so every edit meets one file
// chunk. The file is rewritten, not replaced; a fork's edits leave the data fork alone.
void editWriteAndCompare(bool fork, Bytes model, unsigned seed, int edits, std::uint64_t maxInsert) {
    TempDir dir;
    const Bytes dataFork = fork ? makePayload(64) : model;
    const std::string path = dir.file("file", dataFork);
    if (fork && !setFork(path, model)) GTEST_SKIP() << "no user extended attributes here";
    struct stat before {}, after {};
    ::stat(path.c_str(), &before);
    std::mt19937_64 random(seed);
    for (int i = 0; i < edits; ++i) {
        auto reference = openReference(path, fork);
        ASSERT_EQ(reference->size(), model.size());
        const Edit edit = randomEdit(random, model.size(), maxInsert);
        SCOPED_TRACE(::testing::Message() << "edit " << i << " at " << edit.location << ", removing " << edit.length << ", inserting " << edit.bytes.size());
        applyAll({edit}, *reference, model);
        ASSERT_TRUE(listInvariantsHold(*reference));
        qx::Ref<qx::Error> error;
        ASSERT_TRUE(reference->writeToFileAndReturnError(&error)) << qx::describe(error.get());
        ASSERT_EQ(fork ? forkOf(path) : readBytes(path), model);
        ASSERT_EQ(readBytes(path), fork ? dataFork : model);
        ASSERT_EQ(contentsOf(*reference), readBytes(path)) << "reopened on the data fork after the write-out";
        ::stat(path.c_str(), &after);
        ASSERT_EQ(after.st_ino, before.st_ino) << "rewritten, not replaced";
        ASSERT_EQ(dir.names(), std::vector<std::string>{"file"}) << "no temporary left behind";
    }
}

TEST(DataReferencePropertyTest, WrittenOutEditsMatchTheModel) {
    unsigned seed = 1;
    for (const std::size_t size : {0, 1, 4096, 700000, 3 * 1024 * 1024}) {
        SCOPED_TRACE("size " + std::to_string(size));
        editWriteAndCompare(false, randomBytes(size, seed), seed, size > 1000000 ? 6 : 25, 3000);
        ++seed;
    }
}

TEST(DataReferencePropertyTest, WrittenOutForkEditsMatchTheModel) {
    for (const std::size_t size : {0, 1, 1500}) {
        SCOPED_TRACE("size " + std::to_string(size));
        // Insertions kept small enough for any file system's attribute size limit.
        editWriteAndCompare(true, randomBytes(size, 11), static_cast<unsigned>(size), 15, 200);
    }
}

TEST(DataReferencePropertyTest, UndoingEverythingGivesBackTheOriginalAndRedoingTheEditedBytes) {
    TempDir dir;
    for (unsigned seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937_64 random(seed);
        const Bytes original = randomBytes(seed % 3 == 0 ? 0 : 20000 + random() % 200000, seed);
        auto reference = openReference(dir.file("file" + std::to_string(seed), original));
        auto undo = qx::UndoManager::create();
        reference->setUndoManager(undo);
        for (int i = 0; i < 40; ++i) {
            undo->beginUndoGrouping();
            randomEdit(random, reference->size()).applyTo(*reference);
            undo->endUndoGrouping();
            ASSERT_TRUE(listInvariantsHold(*reference)) << "after edit " << i;
        }
        const Bytes edited = contentsOf(*reference);
        // An edit that changes nothing (an empty deletion) leaves no group.
        for (const bool undoing : {true, false}) {
            for (int i = 0; undoing ? undo->canUndo() : undo->canRedo(); ++i) {
                ASSERT_TRUE(undoing ? undo->undo() : undo->redo());
                ASSERT_TRUE(listInvariantsHold(*reference)) << (undoing ? "after undo " : "after redo ") << i;
            }
            EXPECT_EQ(contentsOf(*reference), undoing ? original : edited);
        }
    }
}

// A file edited so that its write-out goes through the in-place and the staged pass.
struct EditedFile {
    std::string path;
    Bytes original, edited;
    QXDataReference::Ref reference;

    EditedFile(const std::string& where, std::size_t size, const std::vector<Edit>& edits)
        : path(where), original(randomBytes(size, 21)), edited(original) {
        writeFile(path, original);
        reference = openReference(path);
        applyAll(edits, *reference, edited);
    }
    EditedFile(const TempDir& dir, std::size_t size)
        : EditedFile(dir / "file", size, {{size / 8, 1000, {}}, {size / 2, 0, Bytes(3000, 7)}, {size - 5000, 10, Bytes(20, 8)}}) {}

    // A failed write-out reports code; the reference then either still shows
    // the edited contents, untouched file and all, or says that the file no
    // longer matches.
    void expectHonestFailure(bool succeeded, const qx::Ref<qx::Error>& error, int code) {
        EXPECT_FALSE(succeeded) << "a failed write must fail the write-out";
        EXPECT_QX_ERROR(error, "NSPOSIXErrorDomain", code);
        if (!reference->fileMatchesContents()) return;
        EXPECT_EQ(contentsOf(*reference), edited);
        EXPECT_EQ(readBytes(path), original);
    }
};

TEST(DataReferenceFaultTest, AWriteFailingAtAnyCallFailsTheWriteOut) {
    TempDir dir;
    struct Unhook { ~Unhook() { qxdataref::setFaultHook(nullptr); } } unhook;
    int calls = 0, failAt = 0;
    qxdataref::setFaultHook([&calls, &failAt]() { return ++calls == failAt ? EIO : 0; });
    // The first write-out that makes fewer calls than failAt is the last.
    for (failAt = 1; calls >= failAt - 1; ++failAt) {
        ASSERT_LT(failAt, 1000) << "the write-out never ran out of calls";
        SCOPED_TRACE("failing call " + std::to_string(failAt));
        EditedFile file(dir, 2 * 1024 * 1024 + 333);
        calls = 0;
        qx::Ref<qx::Error> error;
        const bool succeeded = file.reference->writeToFileAndReturnError(&error);
        if (calls >= failAt) {
            file.expectHonestFailure(succeeded, error, EIO);
        } else {
            ASSERT_TRUE(succeeded) << qx::describe(error.get());
            EXPECT_EQ(readBytes(file.path), file.edited);
        }
    }
}

TEST(DataReferenceFaultTest, AFileSizeLimitFailsTheWriteOut) {
    TempDir dir;
    EditedFile file(dir, 1024 * 1024);
    rlimit saved{};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{file.original.size(), saved.rlim_max};  // room for what is there, none for growth
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    qx::Ref<qx::Error> error;
    const bool succeeded = file.reference->writeToFileAndReturnError(&error);
    ::setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, previous);
    file.expectHonestFailure(succeeded, error, EFBIG);
}

TEST(DataReferenceFaultTest, AFullFileSystemFailsTheWriteOut) {
    TempDir dir;
    const std::string mountPoint = dir / "small";
    std::filesystem::create_directory(mountPoint);
    if (::mount("qx-test", mountPoint.c_str(), "tmpfs", 0, "size=1200k") != 0)
        GTEST_SKIP() << "cannot mount a small file system here: " << std::strerror(errno);
    struct Unmount { std::string path; ~Unmount() { ::umount2(path.c_str(), MNT_DETACH); } } unmount{mountPoint};
    // Grows the file past what the file system holds, through the staged pass.
    EditedFile file(mountPoint + "/file", 1024 * 1024, {{1000, 0, Bytes(300000, 3)}});
    qx::Ref<qx::Error> error;
    file.expectHonestFailure(file.reference->writeToFileAndReturnError(&error), error, ENOSPC);
}

} // namespace
