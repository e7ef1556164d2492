// FileHandleStreamTests.cpp - input and output streams over files and pipes.

#include "TestSupport.h"
#include "StreamTestSupport.h"

#include <QXFoundation/QXFileHandleInputStream.h>
#include <QXFoundation/QXFileHandleOutputStream.h>

#include <qx/Log.h>

using streamtest::drain;
using streamtest::EventRecorder;
using streamtest::kMode;
using streamtest::readInto;
using streamtest::runUntil;
using qxtest::Pipe;
using qxtest::TempDir;
using qx::Ref;

namespace {

struct Opened {
    Ref<QXFileHandleInputStream> stream;
    std::shared_ptr<EventRecorder> recorder = std::make_shared<EventRecorder>();
    explicit Opened(const Ref<qx::FileHandle>& handle, bool closeWhenDone = false, bool withDelegate = true) {
        stream = QXFileHandleInputStream::initWithFileHandle(handle, closeWhenDone);
        if (withDelegate) stream->setDelegate(recorder);
        stream->scheduleInRunLoop(qx::RunLoop::current(), kMode);
        stream->open();
    }
    ~Opened() { stream->removeFromRunLoop(qx::RunLoop::current(), kMode); }
};

} // namespace

TEST(FileHandleInputStream, ReadAheadFindsTheEndWithTheLastBytes) {
    TempDir dir;
    Opened s(qx::FileHandle::fileHandleForReadingAtPath(dir.file("ten", "0123456789")));
    ASSERT_TRUE(runUntil([&] { return s.recorder->all() & qx::StreamEventOpenCompleted; }));
    std::string got;
    EXPECT_EQ(readInto(*s.stream, got, 4), 4);
    EXPECT_EQ(s.stream->streamStatus(), qx::StreamStatus::Open);  // the other 6 wait in the read-ahead
    EXPECT_EQ(s.stream->propertyForKey(qx::Stream::FileCurrentOffsetKey)->description(), "10");
    EXPECT_EQ(readInto(*s.stream, got, 100), 6);
    EXPECT_EQ(got, "0123456789");
    EXPECT_EQ(s.stream->streamStatus(), qx::StreamStatus::AtEnd);  // found by that same read
    EXPECT_FALSE(s.stream->hasBytesAvailable());
    EXPECT_EQ(readInto(*s.stream, got, 100), -1);
    ASSERT_TRUE(runUntil([&] { return s.recorder->all() & qx::StreamEventEndEncountered; }));
    drain();
    EXPECT_EQ(s.recorder->count(qx::StreamEventEndEncountered), 1);
    // Delivered after the end, readability is left out of every mask.
    EXPECT_FALSE(s.recorder->snapshot().back() & qx::StreamEventHasBytesAvailable);

    // A read that fills exactly finds the end too; so does one of nothing.
    Opened five(qx::FileHandle::fileHandleForReadingAtPath(dir.file("five", "abcde")));
    EXPECT_EQ(readInto(*five.stream, got, 5), 5);
    EXPECT_EQ(five.stream->streamStatus(), qx::StreamStatus::AtEnd);
    Opened empty(qx::FileHandle::fileHandleForReadingAtPath(dir.file("empty", "")));
    EXPECT_EQ(readInto(*empty.stream, got, 0), 0);
    EXPECT_EQ(empty.stream->streamStatus(), qx::StreamStatus::AtEnd);
}

TEST(FileHandleInputStream, PipeDataIsAnnouncedAndDrainingTheBufferAsksForMore) {
    Pipe pipe;
    Opened s(qx::FileHandle::initWithFileDescriptor(pipe.reader()));
    pipe.write("hello, pipe");
    ASSERT_TRUE(runUntil([&] { return s.recorder->all() & qx::StreamEventHasBytesAvailable; }));
    // Reads block until they are satisfied or the pipe ends, the read-ahead
    // too; with the writer gone, it takes what else there is.
    pipe.closeWriter();
    std::string got;
    EXPECT_EQ(readInto(*s.stream, got, 3), 3);
    EXPECT_EQ(s.stream->streamStatus(), qx::StreamStatus::Open);
    const auto before = s.recorder->count(qx::StreamEventHasBytesAvailable);
    EXPECT_EQ(readInto(*s.stream, got, 2), 2);  // from the read-ahead only: asks to be called again
    ASSERT_TRUE(runUntil([&] { return s.recorder->count(qx::StreamEventHasBytesAvailable) > before; }));
    EXPECT_EQ(readInto(*s.stream, got, 100), 6);
    EXPECT_EQ(got, "hello, pipe");
    EXPECT_EQ(s.stream->streamStatus(), qx::StreamStatus::AtEnd);
}

TEST(FileHandleInputStream, HandleFaultsBecomeStreamErrors) {
    TempDir dir;
    Opened s(qx::FileHandle::fileHandleForWritingAtPath(dir.file("w", "data")));  // reading it fails
    std::string got;
    EXPECT_EQ(readInto(*s.stream, got, 4), -1);
    EXPECT_EQ(s.stream->streamStatus(), qx::StreamStatus::Error);
    auto error = s.stream->streamError();
    EXPECT_QX_ERROR(error, qx::NSCocoaErrorDomain, 256);
    EXPECT_NE(error->localizedDescription().find("Bad file descriptor"), std::string::npos) << error->localizedDescription();
    ASSERT_TRUE(runUntil([&] { return s.recorder->all() & qx::StreamEventErrorOccurred; }));
    EXPECT_EQ(readInto(*s.stream, got, 4), -1);
}

TEST(FileHandleInputStream, ClosingClosesTheHandleOnlyWhenAsked) {
    Pipe a, b;
    auto keep = qx::FileHandle::initWithFileDescriptor(::dup(a.reader()), true);
    auto drop = qx::FileHandle::initWithFileDescriptor(::dup(b.reader()), true);
    {
        Opened kept(keep, false), dropped(drop, true);
        kept.stream->close();
        dropped.stream->close();
        dropped.stream->close();  // twice is harmless
        EXPECT_EQ(kept.stream->streamStatus(), qx::StreamStatus::Closed);
        EXPECT_FALSE(dropped.stream->qxFileHandleStreamFileIsOpen());
        std::string got;
        EXPECT_EQ(readInto(*kept.stream, got, 1), -1);
    }
    EXPECT_GE(keep->fileDescriptor(), 0);
    EXPECT_EQ(drop->fileDescriptor(), -1);
}

TEST(FileHandleOutputStream, WritesOnlyWhileOpenAndReportsFaultsToTheDelegate) {
    Pipe pipe;
    auto handle = qx::FileHandle::initWithFileDescriptor(::dup(pipe.writer()), true);
    auto out = QXFileHandleOutputStream::initWithFileHandle(handle, true);
    auto recorder = std::make_shared<EventRecorder>();
    out->setDelegate(recorder);
    const std::uint8_t text[] = {'a', 'b', 'c'};
    EXPECT_EQ(out->write(text, 3), -1);  // never opened: nothing written
    EXPECT_FALSE(out->hasSpaceAvailable());
    out->open();
    EXPECT_TRUE(out->hasSpaceAvailable());
    EXPECT_EQ(out->write(text, 3), 3);
    char got[4] = {};
    EXPECT_EQ(::read(pipe.reader(), got, sizeof got), 3);
    EXPECT_STREQ(got, "abc");
    EXPECT_TRUE(recorder->snapshot().empty());  // no events for successful writes

    // A reader that is gone makes the write fault: told at once, on this thread.
    pipe.closeReader();
    EXPECT_EQ(out->write(text, 3), -1);
    ASSERT_EQ(recorder->snapshot(), std::vector<qx::StreamEventMask>{qx::StreamEventErrorOccurred});
    EXPECT_EQ(recorder->threads[0], std::this_thread::get_id());
    EXPECT_EQ(out->streamStatus(), qx::StreamStatus::Open);
    EXPECT_FALSE(out->streamError());
    EXPECT_FALSE(out->setProperty(nullptr, qx::Stream::FileCurrentOffsetKey));

    qx::ScopedLogCapture log;
    const std::string line = out->description() + " dealloc";
    out.reset();
    EXPECT_TRUE(log.contains(line));
    EXPECT_EQ(handle->fileDescriptor(), -1);  // closed with the stream
}
