// QXInputStreamTests.cpp - the background-serviced stream: delivery, limits, synchronous reads, creation routes.
#include "HttpTestServer.h"
#include "StreamTestSupport.h"
#include "TestSupport.h"

#include <QXFoundation/QXInputStream.h>

#include <qx/NotificationCenter.h>
#include <qx/Thread.h>

using namespace streamtest;
using qx::Ref;

namespace {

std::string text(const Ref<qx::Data>& d) { return d ? std::string(d->view()) : "(nothing)"; }

std::string digits(std::size_t n) {
    std::string s;
    for (std::size_t i = 0; i < n; ++i) s += static_cast<char>('0' + i % 10);
    return s;
}

// Observes one notification name for one stream, recording the posting threads.
struct NotificationLog {
    std::mutex mutex;
    std::vector<std::thread::id> threads;
    std::vector<std::string> data;
    qx::NotificationCenter::ObserverToken token;
    NotificationLog(const char* name, const Ref<qx::Object>& object) {
        token = qx::NotificationCenter::defaultCenter()->addObserver(name, object, [this](const Ref<qx::Notification>& n) {
            std::lock_guard<std::mutex> lock(mutex);
            threads.push_back(std::this_thread::get_id());
            if (n->userInfo())
                if (auto d = qx::dyn_cast<qx::Data>(n->userInfo()->objectForKey("Data"))) data.emplace_back(d->view());
        });
    }
    ~NotificationLog() { qx::NotificationCenter::defaultCenter()->removeObserver(token); }
    std::size_t count() {
        std::lock_guard<std::mutex> lock(mutex);
        return threads.size();
    }
};

// Raises events by hand, as a subclass passing on its underlying stream's does.
class EventSource : public QXInputStream {
public:
    static Ref<EventSource> over(Ref<qx::InputStream> underlying) {
        auto s = std::make_shared<EventSource>(std::move(underlying), kUnlimitedLength);
        s->adoptUnderlyingStream();
        return s;
    }
    static Ref<EventSource> withFileDescriptor(int fd) {
        return over(underlyingStreamWithFileHandle(qx::FileHandle::initWithFileDescriptor(fd), false));
    }
    EventSource(Ref<qx::InputStream> underlying, std::uint64_t limit) : QXInputStream(std::move(underlying), limit) {}
    using QXInputStream::handleEvent;
};

// A stream over a pipe's reading end that stays open and quiet until written to.
struct QuietStream {
    qxtest::Pipe pipe;
    Ref<EventSource> stream;
    std::vector<qx::StreamEventMask> events;
    QuietStream() {
        stream = EventSource::withFileDescriptor(pipe.reader());
        stream->setEventHandler([this](QXInputStream&, qx::StreamEventMask e) { events.push_back(e); });
        stream->scheduleInRunLoop(qx::RunLoop::current(), kMode);
        stream->open();
        EXPECT_TRUE(runUntil([&] { return !events.empty(); }));
        drain();
        events.clear();
    }
};

// Records where the underlying stream's events arrive.
class WatchedStream : public QXInputStream {
public:
    static Ref<WatchedStream> initWithData(const Ref<qx::Data>& data) {
        auto s = std::make_shared<WatchedStream>(underlyingStreamWithData(data), kUnlimitedLength);
        s->adoptUnderlyingStream();
        return s;
    }
    WatchedStream(Ref<qx::InputStream> underlying, std::uint64_t limit) : QXInputStream(std::move(underlying), limit) {}
    void stream(qx::Stream& s, qx::StreamEventMask event) override {
        // Deliveries to the stream as its own default delegate come here too.
        if (&s == underlyingStream().get()) {
            std::lock_guard<std::mutex> lock(mutex);
            auto thread = qx::Thread::current();
            threadNames.push_back(thread ? thread->name() : "(not a Thread)");
        }
        QXInputStream::stream(s, event);
    }
    std::mutex mutex;
    std::vector<std::string> threadNames;
};

} // namespace

TEST(QXInputStream, UnderlyingEventsArriveOnTheStreamsOwnNamedThread) {
    auto stream = WatchedStream::initWithData(qx::Data::withString("payload"));
    std::vector<qx::StreamEventMask> masks;
    stream->setEventHandler([&](QXInputStream&, qx::StreamEventMask e) { masks.push_back(e); });
    stream->scheduleInRunLoop(qx::RunLoop::current(), kMode);
    stream->open();
    ASSERT_TRUE(runUntil([&] { return !masks.empty(); }));
    char expected[64];
    std::snprintf(expected, sizeof expected, "QXInputStream %p", static_cast<void*>(stream.get()));
    std::lock_guard<std::mutex> lock(stream->mutex);
    ASSERT_FALSE(stream->threadNames.empty());
    for (const auto& name : stream->threadNames) EXPECT_EQ(name, expected);
}

TEST(QXInputStream, LimitEndsTheStreamOnTheReadThatUsesItUp) {
    auto stream = QXInputStream::initWithInputStream(qx::InputStream::inputStreamWithData(qx::Data::withString(digits(100))), 10);
    stream->setSendsReadDataNotifications(true);
    NotificationLog ended(kQXInputStreamReachedEndNotification, stream), read(kQXInputStreamReadDataNotification, stream);
    stream->scheduleInRunLoop(qx::RunLoop::current(), kMode);
    stream->open();

    std::string got;
    std::thread reader([&] {
        EXPECT_EQ(readInto(*stream, got, 4), 4);
        EXPECT_EQ(stream->streamStatus(), qx::StreamStatus::Open);
        EXPECT_EQ(readInto(*stream, got, 100), 6);  // clipped to what the limit leaves
        EXPECT_EQ(stream->streamStatus(), qx::StreamStatus::AtEnd);
        EXPECT_FALSE(stream->hasBytesAvailable());
        EXPECT_EQ(readInto(*stream, got, 100), 0);
    });
    reader.join();
    EXPECT_EQ(got, "0123456789");
    EXPECT_EQ(stream->underlyingStream()->streamStatus(), qx::StreamStatus::Open);
    ASSERT_TRUE(runUntil([&] { return ended.count() > 0; }));
    drain();
    EXPECT_EQ(ended.count(), 1u);
    EXPECT_EQ(ended.threads[0], std::this_thread::get_id());  // posted on the run loop's thread
    EXPECT_EQ(read.data, (std::vector<std::string>{"0123", "456789"}));

    // At the end close() leaves the underlying stream open.
    stream->close();
    EXPECT_EQ(stream->underlyingStream()->streamStatus(), qx::StreamStatus::Open);
}

TEST(QXInputStream, EventsArrivingTogetherAreDeliveredOnceInTheFixedOrder) {
    QuietStream q;
    auto& stream = *q.stream;
    std::vector<std::string> order;
    auto delegate = std::make_shared<EventRecorder>();
    delegate->then = [&](qx::Stream&, qx::StreamEventMask e) { order.push_back("delegate " + std::to_string(e)); };
    stream.setDelegate(delegate);
    stream.setEventHandler([&](QXInputStream&, qx::StreamEventMask e) { order.push_back("event " + std::to_string(e)); });
    stream.setReadabilityHandler([&](QXInputStream&) { order.push_back("readable"); });
    auto endToken = qx::NotificationCenter::defaultCenter()->addObserver(
        kQXInputStreamReachedEndNotification, q.stream, [&](const Ref<qx::Notification>&) { order.push_back("end"); });
    auto errorToken = qx::NotificationCenter::defaultCenter()->addObserver(
        kQXInputStreamErrorOccurredNotification, q.stream, [&](const Ref<qx::Notification>&) { order.push_back("error"); });

    stream.handleEvent(qx::StreamEventHasBytesAvailable);
    stream.handleEvent(qx::StreamEventHasBytesAvailable);
    stream.handleEvent(qx::StreamEventEndEncountered | qx::StreamEventErrorOccurred);
    stream.handleEvent(qx::StreamEventHasBytesAvailable);  // after the end: dropped
    drain();
    qx::NotificationCenter::defaultCenter()->removeObserver(endToken);
    qx::NotificationCenter::defaultCenter()->removeObserver(errorToken);
    EXPECT_EQ(order, (std::vector<std::string>{"delegate 26", "event 26", "readable", "end", "error"}));
    EXPECT_TRUE(q.events.empty());  // the event callback set first was replaced
}

TEST(QXInputStream, ReadabilityIsDroppedFromAMaskDeliveredAfterTheStreamLeftOpen) {
    auto stream = EventSource::over(qx::InputStream::inputStreamWithData(qx::Data::withString("abc")));  // never opened
    std::vector<qx::StreamEventMask> masks;
    bool readable = false;
    stream->setEventHandler([&](QXInputStream&, qx::StreamEventMask e) { masks.push_back(e); });
    stream->setReadabilityHandler([&](QXInputStream&) { readable = true; });
    stream->scheduleInRunLoop(qx::RunLoop::current(), kMode);
    stream->handleEvent(qx::StreamEventHasBytesAvailable);
    stream->handleEvent(qx::StreamEventHasBytesAvailable);
    stream->handleEvent(qx::StreamEventEndEncountered);
    drain();
    EXPECT_EQ(masks, std::vector<qx::StreamEventMask>{qx::StreamEventEndEncountered});
    EXPECT_FALSE(readable);
}

TEST(QXInputStream, StatusShowingTheEndBecomesAnEventOfItsOwn) {
    QuietStream q;
    q.pipe.closeWriter();
    std::string got;
    // The read finds the end of the pipe; the read itself raises EndEncountered.
    EXPECT_EQ(readInto(*q.stream, got, 10), 0);
    EXPECT_EQ(q.stream->streamStatus(), qx::StreamStatus::AtEnd);
    const auto ends = [&] {
        return std::count_if(q.events.begin(), q.events.end(), [](auto e) { return e & qx::StreamEventEndEncountered; });
    };
    ASSERT_TRUE(runUntil([&] { return ends() > 0; }));
    drain();
    EXPECT_EQ(ends(), 1);  // the underlying stream's own end event came after and was dropped
}

TEST(QXInputStream, SynchronousReadsAndTheirFailures) {
    Ref<qx::Error> error;
    auto never = QXInputStream::initWithData(qx::Data::withString("abc"));
    EXPECT_FALSE(never->readDataSynchronouslyOfLength(3, &error));
    EXPECT_QX_ERROR(error, qx::NSPOSIXErrorDomain, EBADF);
    EXPECT_EQ(never->read(nullptr, 0), -1);

    auto data = QXInputStream::initWithData(qx::Data::withString("abcdefgh"));
    data->open();
    EXPECT_EQ(text(data->readDataSynchronouslyOfLength(3)), "abc");
    EXPECT_EQ(text(data->readDataSynchronouslyOfLength(100)), "defgh");
    EXPECT_EQ(text(data->readDataSynchronouslyOfLength(100)), "");  // at the end: empty, no error
    data->close();  // at the end: does nothing

    auto missing = QXInputStream::initWithFileAtPath("/nonexistent/qx-input-stream");
    ASSERT_TRUE(missing);  // the platform stream finds out at the open
    missing->open();
    EXPECT_EQ(missing->streamStatus(), qx::StreamStatus::Error);
    EXPECT_FALSE(missing->readDataSynchronouslyOfLength(1, &error));
    EXPECT_QX_ERROR(error, qx::NSPOSIXErrorDomain, ENOENT);

    qxtest::TempDir dir;
    const auto path = dir.file("w", "data");
    auto failing = QXInputStream::initWithFileHandle(qx::FileHandle::fileHandleForWritingAtPath(path), true);
    failing->open();
    EXPECT_FALSE(failing->readDataSynchronouslyOfLength(4, &error));
    EXPECT_QX_ERROR(error, qx::NSCocoaErrorDomain, 256);
}

TEST(QXInputStream, SynchronousReadGathersShortReadsUntilTheEnd) {
    // A FIFO read through the platform file stream returns what is there,
    // so the synchronous read has to wait for the rest on its run loop.
    qxtest::TempDir dir;
    const auto fifo = dir / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const int writer = ::open(fifo.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(writer, 0);
    auto stream = QXInputStream::initWithFileAtPath(fifo);
    stream->open();
    ASSERT_EQ(::write(writer, "abc", 3), 3);
    std::thread rest([&] {
        EXPECT_EQ(::write(writer, "de", 2), 2);
        ::close(writer);
    });
    Ref<qx::Error> error;
    auto got = stream->readDataSynchronouslyOfLength(8, &error);
    rest.join();
    EXPECT_EQ(text(got), "abcde");  // the end came after 5 of 8
    EXPECT_FALSE(error);
    EXPECT_EQ(stream->streamStatus(), qx::StreamStatus::AtEnd);
}

TEST(QXInputStream, AvailableDataWithMaxLengthReadsAtMostOneHundredMebibytes) {
    qxtest::TempDir dir;
    const auto path = dir.file("sparse", "");
    std::filesystem::resize_file(path, 0x6400000 + 4096);
    auto stream = QXInputStream::initWithFileAtPath(path);
    stream->open();
    auto data = stream->availableDataWithMaxLength(200000000);
    ASSERT_TRUE(data);
    EXPECT_EQ(data->length(), 0x6400000u);
    EXPECT_EQ(stream->availableData()->length(), 4096u);
}

TEST(QXInputStream, CloseWhileOpenStopsAndClosesTheUnderlyingStream) {
    qxtest::Pipe pipe;
    auto handle = qx::FileHandle::initWithFileDescriptor(::dup(pipe.reader()), true);
    auto stream = QXInputStream::initWithFileHandle(handle, true);
    stream->open();
    EXPECT_EQ(stream->streamStatus(), qx::StreamStatus::Open);
    stream->close();
    EXPECT_EQ(stream->streamStatus(), qx::StreamStatus::Closed);
    EXPECT_EQ(handle->fileDescriptor(), -1);
    std::uint8_t byte;
    EXPECT_EQ(stream->read(&byte, 1), -1);
    stream->open();  // no reopening
    EXPECT_EQ(stream->streamStatus(), qx::StreamStatus::Closed);
}

TEST(QXInputStream, URLRoutesSendHeadersAndFollowRedirects) {
    HttpTestServer server(HttpTestServer::patternBytes(300000));
    auto headers = qx::Dictionary::create();
    headers->setObject(qx::String::create("qx-test"), "X-Client");
    auto stream = QXInputStream::initWithURL(qx::URL::URLWithString(server.url(std::string(HttpTestServer::RedirectPath) + "/2")), headers);
    ASSERT_TRUE(stream);
    stream->open();
    Ref<qx::Error> error;
    auto body = stream->readDataSynchronouslyToEndOfStream(&error);
    ASSERT_TRUE(body) << (error ? error->description() : "");
    EXPECT_EQ(body->vector(), server.content());
    ASSERT_FALSE(server.requests().empty());
    for (const auto& request : server.requests()) {
        EXPECT_EQ(request.method, "GET");
        EXPECT_EQ(request.header("X-Client"), "qx-test");
    }

    qxtest::TempDir dir;
    auto file = QXInputStream::initWithURL(qx::URL::fileURLWithPath(dir.file("f", "file body")));
    file->open();
    EXPECT_EQ(text(file->readDataSynchronouslyToEndOfStream()), "file body");
    EXPECT_FALSE(QXInputStream::initWithURL(nullptr));
    EXPECT_FALSE(QXInputStream::initWithData(nullptr));
    EXPECT_FALSE(QXInputStream::initWithFileHandle(nullptr, false));
}

TEST(QXInputStream, LentBuffersCountAgainstTheLimit) {
    auto stream = QXInputStream::initWithInputStream(qx::InputStream::inputStreamWithData(qx::Data::withString("abcdefgh")), 3);
    stream->setSendsReadDataNotifications(true);
    NotificationLog read(kQXInputStreamReadDataNotification, stream);
    stream->open();
    const std::uint8_t* bytes = nullptr;
    std::uint64_t length = 0;
    ASSERT_TRUE(stream->getBuffer(&bytes, &length));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes), length), "abc");  // clipped to the limit
    EXPECT_EQ(stream->streamStatus(), qx::StreamStatus::AtEnd);
    length = 99;
    EXPECT_FALSE(stream->getBuffer(&bytes, &length));
    EXPECT_EQ(length, 99u);  // untouched when declined
    EXPECT_EQ(read.data, std::vector<std::string>{"abc"});
}
