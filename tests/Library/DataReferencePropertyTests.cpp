// Random edit scripts against a byte-array model, undo and redo over long
// scripts, and write-outs that fail part-way.
#include "DataReferenceTestSupport.h"

#include "Internal/QXDataReferenceIO.h"

#include <gtest/gtest.h>

#include <csignal>

#include <sys/mount.h>
#include <sys/resource.h>

using namespace qxtest;

namespace {

// Each edit written out and the file reopened, so every edit meets one file chunk.
void editWriteAndCompare(const std::string& path, bool fork, Bytes model, unsigned seed, int edits) {
    std::mt19937_64 random(seed);
    for (int i = 0; i < edits; ++i) {
        auto reference = openReference(path, fork);
        ASSERT_EQ(reference->size(), model.size());
        const Edit edit = randomEdit(random, model.size());
        SCOPED_TRACE("edit " + std::to_string(i) + " at " + std::to_string(edit.location) + ", removing " +
                     std::to_string(edit.length) + ", inserting " + std::to_string(edit.bytes.size()));
        edit.applyTo(*reference);
        edit.applyTo(model);
        ASSERT_TRUE(listInvariantsHold(*reference));
        qx::Ref<qx::Error> error;
        ASSERT_TRUE(reference->writeToFileAndReturnError(&error)) << qx::describe(error.get());
        ASSERT_EQ(fork ? forkOf(path) : readBytes(path), model);
    }
}

TEST(DataReferencePropertyTest, WrittenOutEditsMatchTheModel) {
    TempDir dir;
    const std::size_t sizes[] = {0, 1, 4096, 700000, 3 * 1024 * 1024};
    unsigned seed = 1;
    for (const std::size_t size : sizes) {
        SCOPED_TRACE("size " + std::to_string(size));
        const Bytes original = randomBytes(size, seed);
        editWriteAndCompare(dir.file("data" + std::to_string(size), original), false, original, seed++, size > 1000000 ? 6 : 25);
    }
}

TEST(DataReferencePropertyTest, WrittenOutForkEditsMatchTheModel) {
    TempDir dir;
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{1500}}) {
        SCOPED_TRACE("size " + std::to_string(size));
        const std::string path = dir.file("forked" + std::to_string(size), makePayload(64));
        const Bytes original = randomBytes(size, 11);
        if (!setFork(path, original)) GTEST_SKIP() << "no user extended attributes here";
        // Kept small enough for any file system's attribute size limit.
        std::mt19937_64 random(size);
        Bytes model = original;
        for (int i = 0; i < 15; ++i) {
            auto reference = openReference(path, true);
            Edit edit = randomEdit(random, model.size());
            edit.bytes.resize(std::min<std::size_t>(edit.bytes.size(), 200));
            edit.applyTo(*reference);
            edit.applyTo(model);
            qx::Ref<qx::Error> error;
            ASSERT_TRUE(reference->writeToFileAndReturnError(&error)) << qx::describe(error.get());
            ASSERT_EQ(forkOf(path), model);
            ASSERT_EQ(readBytes(path), makePayload(64));
        }
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
        const int edits = 40;
        for (int i = 0; i < edits; ++i) {
            undo->beginUndoGrouping();
            randomEdit(random, reference->size()).applyTo(*reference);
            undo->endUndoGrouping();
            ASSERT_TRUE(listInvariantsHold(*reference)) << "after edit " << i;
        }
        const Bytes edited = contentsOf(*reference);
        // An edit that changes nothing (an empty deletion) leaves no group.
        for (int i = 0; undo->canUndo(); ++i) {
            ASSERT_TRUE(undo->undo());
            ASSERT_TRUE(listInvariantsHold(*reference)) << "after undo " << i;
        }
        EXPECT_EQ(contentsOf(*reference), original);
        for (int i = 0; undo->canRedo(); ++i) {
            ASSERT_TRUE(undo->redo());
            ASSERT_TRUE(listInvariantsHold(*reference)) << "after redo " << i;
        }
        EXPECT_EQ(contentsOf(*reference), edited);
    }
}

// ---- Write-outs that fail ----

// A file edited so that its write-out goes through the in-place and the staged pass.
struct EditedFile {
    std::string path;
    Bytes original, edited;
    QXDataReference::Ref reference;
};

EditedFile makeEditedFile(const TempDir& dir, const std::string& name, std::size_t size) {
    EditedFile file;
    file.original = randomBytes(size, 21);
    file.path = dir.file(name, file.original);
    file.reference = openReference(file.path);
    file.edited = file.original;
    for (const Edit& edit : {Edit{size / 8, 1000, {}}, Edit{size / 2, 0, Bytes(3000, 7)}, Edit{size - 5000, 10, Bytes(20, 8)}}) {
        edit.applyTo(*file.reference);
        edit.applyTo(file.edited);
    }
    return file;
}

// After a failed write-out the reference either still shows the edited
// contents, untouched file and all, or says that the file no longer matches.
void expectHonestFailure(EditedFile& file) {
    if (file.reference->fileMatchesContents()) {
        EXPECT_EQ(contentsOf(*file.reference), file.edited);
        EXPECT_EQ(readBytes(file.path), file.original);
    }
}

class FaultHookGuard {
public:
    explicit FaultHookGuard(qxdataref::FaultHook hook) { qxdataref::setFaultHook(std::move(hook)); }
    ~FaultHookGuard() { qxdataref::setFaultHook(nullptr); }
};

TEST(DataReferenceFaultTest, AWriteFailingAtAnyCallFailsTheWriteOut) {
    TempDir dir;
    bool succeeded = false;
    for (int failAt = 1; !succeeded; ++failAt) {
        ASSERT_LT(failAt, 1000) << "the write-out never ran out of calls";
        EditedFile file = makeEditedFile(dir, "file", 2 * 1024 * 1024 + 333);
        int calls = 0;
        bool injected = false;
        FaultHookGuard guard([&]() {
            if (++calls != failAt) return 0;
            injected = true;
            return EIO;
        });
        qx::Ref<qx::Error> error;
        succeeded = file.reference->writeToFileAndReturnError(&error);
        SCOPED_TRACE("failing call " + std::to_string(failAt));
        if (injected) {
            EXPECT_FALSE(succeeded) << "a failed write must fail the write-out";
            EXPECT_QX_ERROR(error, "NSPOSIXErrorDomain", EIO);
            expectHonestFailure(file);
            succeeded = false;
        } else {
            ASSERT_TRUE(succeeded) << qx::describe(error.get());
            EXPECT_EQ(readBytes(file.path), file.edited);
        }
    }
}

TEST(DataReferenceFaultTest, AFileSizeLimitFailsTheWriteOut) {
    TempDir dir;
    EditedFile file = makeEditedFile(dir, "file", 1024 * 1024);
    ASSERT_GT(file.edited.size(), file.original.size());
    rlimit saved{};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit = saved;
    limit.rlim_cur = file.original.size();  // room for what is there, none for growth
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    qx::Ref<qx::Error> error;
    const bool succeeded = file.reference->writeToFileAndReturnError(&error);
    ::setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, previous);
    EXPECT_FALSE(succeeded);
    EXPECT_QX_ERROR(error, "NSPOSIXErrorDomain", EFBIG);
    expectHonestFailure(file);
}

TEST(DataReferenceFaultTest, AFullFileSystemFailsTheWriteOut) {
    TempDir dir;
    const std::string mountPoint = dir / "small";
    std::filesystem::create_directory(mountPoint);
    if (::mount("qx-test", mountPoint.c_str(), "tmpfs", 0, "size=1200k") != 0)
        GTEST_SKIP() << "cannot mount a small file system here: " << std::strerror(errno);
    struct Unmount {
        std::string path;
        ~Unmount() { ::umount2(path.c_str(), MNT_DETACH); }
    } unmount{mountPoint};
    EditedFile file;
    file.original = randomBytes(1024 * 1024, 22);
    file.path = mountPoint + "/file";
    writeFile(file.path, file.original);
    file.reference = openReference(file.path);
    file.edited = file.original;
    // Grows the file past what the file system holds, through the staged pass.
    const Edit edit{1000, 0, Bytes(300000, 3)};
    edit.applyTo(*file.reference);
    edit.applyTo(file.edited);
    qx::Ref<qx::Error> error;
    EXPECT_FALSE(file.reference->writeToFileAndReturnError(&error));
    EXPECT_QX_ERROR(error, "NSPOSIXErrorDomain", ENOSPC);
    expectHonestFailure(file);
}

} // namespace
