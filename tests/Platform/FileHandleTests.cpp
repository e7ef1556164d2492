// FileHandleTests.cpp - file handles over real files and pipes: positioning and failures.
#include "TestSupport.h"

#include <qx/FileHandle.h>

using namespace qx;
using qxtest::Pipe;
using qxtest::TempDir;

namespace {

std::string text(const Ref<Data>& d) { return std::string(d->view()); }

} // namespace

TEST(FileHandle, ReadsWritesAndPositionsAFile) {
    TempDir dir;
    auto h = FileHandle::fileHandleForUpdatingAtPath(dir.file("a", "0123456789"));
    ASSERT_TRUE(h);
    EXPECT_EQ(text(h->readDataOfLength(4)), "0123");
    EXPECT_EQ(h->offsetInFile(), 4u);
    EXPECT_EQ(text(h->availableData()), "456789");  // the rest of a regular file
    EXPECT_EQ(text(h->readDataOfLength(5)), "");    // at the end
    h->seekToFileOffset(8);
    h->writeData(*Data::withString("ABCD"));
    EXPECT_EQ(h->seekToEndOfFile(), 12u);
    h->truncateFileAtOffset(3);
    EXPECT_EQ(h->offsetInFile(), 3u);
    h->synchronizeFile();
    h->seekToFileOffset(0);
    EXPECT_EQ(text(h->readDataToEndOfFile()), "012");
    h->closeFile();
    EXPECT_EQ(h->fileDescriptor(), -1);
    h->closeFile();  // twice is harmless
}

TEST(FileHandle, FailuresThrowTheNamedExceptionWithTheSystemText) {
    TempDir dir;
    const auto path = dir.file("ro", "data");
    Pipe pipe, readerGone;
    readerGone.closeReader();  // writing must throw, not end the process
    const std::vector<std::pair<std::function<void()>, const char*>> cases = {
        {[&] { auto h = FileHandle::fileHandleForReadingAtPath(path); h->closeFile(); h->readDataOfLength(1); }, "readDataOfLength:]: Bad file descriptor"},
        {[&] { FileHandle::fileHandleForReadingAtPath(path)->writeData(*Data::withString("x")); }, "writeData:]: Bad file descriptor"},
        {[&] { FileHandle::initWithFileDescriptor(1 << 20)->availableData(); }, "availableData]: Bad file descriptor"},
        {[&] { FileHandle::initWithFileDescriptor(pipe.reader(), false)->offsetInFile(); }, "offsetInFile]: Illegal seek"},
        {[&] { FileHandle::initWithFileDescriptor(pipe.writer(), false)->truncateFileAtOffset(0); }, "truncateFileAtOffset:]: Invalid argument"},
        {[&] { FileHandle::initWithFileDescriptor(readerGone.writer(), false)->writeData(*Data::withString("lost")); }, "writeData:]: Broken pipe"},
    };
    for (const auto& [run, reason] : cases) {
        SCOPED_TRACE(reason);
        try {
            run();
            ADD_FAILURE() << "no exception";
        } catch (const Exception& e) {
            EXPECT_EQ(e.name(), Exception::FileHandleOperationException);
            EXPECT_NE(e.description().find(reason), std::string::npos) << e.description();
        }
    }
}
