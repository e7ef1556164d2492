// FileHandleTests.cpp - file handles over real files and pipes.
#include "TestSupport.h"

#include <qx/FileHandle.h>

#include <chrono>
#include <condition_variable>
#include <thread>

using namespace qx;
using namespace std::chrono_literals;
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

TEST(FileHandle, OpeningFailuresExplainThemselves) {
    TempDir dir;
    const auto missing = URL::fileURLWithPath(dir / "missing");
    Ref<Error> error;
    EXPECT_FALSE(FileHandle::fileHandleForReadingFromURL(missing, &error));
    EXPECT_QX_ERROR(error, NSCocoaErrorDomain, 260);
    EXPECT_QX_ERROR(error->underlyingError(), NSPOSIXErrorDomain, ENOENT);
    EXPECT_FALSE(FileHandle::fileHandleForWritingToURL(missing, &error));
    EXPECT_QX_ERROR(error, NSCocoaErrorDomain, 4);
    EXPECT_FALSE(FileHandle::fileHandleForReadingAtPath(missing->path()));
}

TEST(FileHandle, DescriptorsAreClosedWithTheHandleOnlyWhenAsked) {
    for (bool closeOnDealloc : {false, true}) {
        const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        FileHandle::initWithFileDescriptor(fd, closeOnDealloc).reset();
        EXPECT_EQ(::fcntl(fd, F_GETFD) < 0, closeOnDealloc);
        if (!closeOnDealloc) ::close(fd);
    }
}

TEST(FileHandle, PipeReadsWaitForTheWholeLengthOrTheEnd) {
    Pipe pipe;
    auto h = FileHandle::initWithFileDescriptor(pipe.reader(), false);
    std::thread writer([&] {
        pipe.write("abc");
        pipe.write("defgh");
        pipe.closeWriter();
    });
    EXPECT_EQ(text(h->readDataOfLength(6)), "abcdef");  // spans both writes
    EXPECT_EQ(text(h->readDataOfLength(100)), "gh");    // cut short by the end
    EXPECT_EQ(text(h->availableData()), "");
    writer.join();
}

TEST(FileHandle, ReadabilityHandlerSeesEveryByteOffItsOwnThreadAndMayClearItself) {
    Pipe pipe;
    auto h = FileHandle::initWithFileDescriptor(pipe.reader(), false);
    std::mutex mutex;
    std::condition_variable ended;
    std::string received;
    bool atEnd = false;
    std::thread::id handlerThread;
    h->setReadabilityHandler([&](FileHandle& handle) {
        auto data = handle.availableData();
        std::lock_guard<std::mutex> lock(mutex);
        handlerThread = std::this_thread::get_id();
        atEnd = data->length() == 0;
        if (atEnd) handle.setReadabilityHandler(nullptr);
        received += text(data);
        ended.notify_all();
    });
    std::string expected;
    for (int i = 0; i < 200; ++i) {
        pipe.write(std::to_string(i) + ",");
        expected += std::to_string(i) + ",";
    }
    pipe.closeWriter();
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(ended.wait_for(lock, 30s, [&] { return atEnd; }));
    EXPECT_EQ(received, expected);
    EXPECT_NE(handlerThread, std::this_thread::get_id());
    EXPECT_FALSE(h->readabilityHandler());
}

TEST(FileHandle, AHandlerThatLeavesTheDataIsCalledAgainAfterAReadOrNewData) {
    Pipe pipe;
    auto h = FileHandle::initWithFileDescriptor(pipe.reader(), false);
    std::mutex mutex;
    std::condition_variable called;
    int calls = 0;
    h->setReadabilityHandler([&](FileHandle&) {
        std::lock_guard<std::mutex> lock(mutex);
        ++calls;
        called.notify_all();
    });
    auto waitFor = [&](int n) {
        std::unique_lock<std::mutex> lock(mutex);
        return called.wait_for(lock, 30s, [&] { return calls >= n; });
    };
    pipe.write("xy");
    ASSERT_TRUE(waitFor(1));
    EXPECT_EQ(text(h->readDataOfLength(1)), "x");  // a read re-arms; "y" is still there
    ASSERT_TRUE(waitFor(2));
    EXPECT_EQ(text(h->readDataOfLength(1)), "y");
    pipe.write("z");  // new data wakes it even without a read
    ASSERT_TRUE(waitFor(3));
    h->setReadabilityHandler(nullptr);  // stops and waits for the watcher
}
