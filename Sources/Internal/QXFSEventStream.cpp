// QXFSEventStream.cpp - a live stream of file-system events over folder trees.
#include "Internal/QXFSEventStream.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cerrno>
#include <deque>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

// Shared with the run-loop source, which may outlive the stream for the
// length of a perform already under way.
struct QXFSEventStream::Delivery {
    std::mutex mutex;
    std::deque<std::vector<QXFSEventRecord>> ready;  // guarded by mutex
    bool cancelled = false;                          // guarded by mutex
    Callback callback;

    void perform() {
        for (;;) {
            std::vector<QXFSEventRecord> batch;
            {
                std::lock_guard<std::mutex> lock(mutex);
                if (cancelled || ready.empty()) return;
                batch = std::move(ready.front());
                ready.pop_front();
            }
            // The callback may stop and release the stream; cancelled is
            // looked at again before the next batch.
            callback(batch);
        }
    }
};

std::unique_ptr<QXFSEventStream> QXFSEventStream::create(std::vector<std::string> paths, double latency, Callback callback) {
    if (paths.empty()) return nullptr;
    return std::unique_ptr<QXFSEventStream>(new QXFSEventStream(std::move(paths), latency, std::move(callback)));
}

QXFSEventStream::QXFSEventStream(std::vector<std::string> paths, double latency, Callback callback)
    : paths_(std::move(paths)), latency_(std::isfinite(latency) && latency > 0 ? latency : 0.0),
      delivery_(std::make_shared<Delivery>()) {
    delivery_->callback = std::move(callback);
    std::weak_ptr<Delivery> delivery = delivery_;
    source_ = qx::RunLoopSource::create([delivery] {
        if (auto strong = delivery.lock()) strong->perform();
    });
}

QXFSEventStream::~QXFSEventStream() {
    stop();
    invalidate();
}

void QXFSEventStream::scheduleWithRunLoop(const qx::Ref<qx::RunLoop>& loop, const std::string& mode) {
    loop->addSource(source_, mode);
}

void QXFSEventStream::unscheduleFromRunLoop(const qx::Ref<qx::RunLoop>& loop, const std::string& mode) {
    loop->removeSource(source_, mode);
}

bool QXFSEventStream::start() {
    if (started_) return false;
    inotify_.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    wake_.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!inotify_ || !wake_) return false;
    tree_ = std::make_unique<QXInotifyTree>(inotify_.get());
    translator_ = std::make_unique<QXInotifyTranslator>(*tree_, paths_);
    std::vector<std::string> refused;
    for (const auto& path : paths_) tree_->watchTree(path, refused);
    std::vector<QXFSEventRecord> records;
    translator_->reportRefused(refused, records);
    append(records);
    try {
        reader_ = std::thread([this] { read(); });
    } catch (const std::system_error&) {
        return false;
    }
    started_ = true;
    return true;
}

void QXFSEventStream::stop() {
    if (!reader_.joinable()) return;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(wake_.get(), &one, sizeof one);
    reader_.join();
}

void QXFSEventStream::invalidate() {
    {
        std::lock_guard<std::mutex> lock(delivery_->mutex);
        delivery_->cancelled = true;
        delivery_->ready.clear();
    }
    source_->invalidate();
}

void QXFSEventStream::append(std::vector<QXFSEventRecord>& records) {
    for (auto& record : records) {
        if (!batch_.empty() && batch_.back().path == record.path) {
            batch_.back().flags |= record.flags;
            batch_.back().identifier = record.identifier;  // identifiers rise, so this is the larger
        } else {
            batch_.push_back(std::move(record));
        }
    }
}

void QXFSEventStream::read() {
    using Clock = std::chrono::steady_clock;
    std::vector<char> buffer(256 * 1024);  // operator new's alignment suits inotify_event
    std::vector<QXFSEventRecord> records;
    Clock::time_point deadline{};
    for (;;) {
        int timeout = -1;
        if (!batch_.empty()) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            timeout = left > 0 ? static_cast<int>(left) + 1 : 0;
        }
        pollfd fds[2] = {{inotify_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
        if (::poll(fds, 2, timeout) < 0 && errno != EINTR) return;
        if (fds[1].revents) return;
        if (fds[0].revents & POLLIN) {
            const ssize_t length = ::read(inotify_.get(), buffer.data(), buffer.size());
            if (length > 0) {
                const bool opening = batch_.empty();
                records.clear();
                translator_->translate(buffer.data(), static_cast<std::size_t>(length), records);
                append(records);
                if (opening && !batch_.empty())
                    deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(latency_));
            }
        }
        if (!batch_.empty() && Clock::now() < deadline) {
            // A batch is open and not due: let changes gather in the kernel's
            // queue for a moment rather than waking for each one. A few
            // milliseconds are far too short to fill the queue, and a stop
            // still ends the pause at once.
            const auto pause = std::min<Clock::duration>(deadline - Clock::now(), std::chrono::milliseconds(5));
            pollfd wake{wake_.get(), POLLIN, 0};
            if (::poll(&wake, 1, static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(pause).count())) > 0) return;
        }
        if (!batch_.empty() && Clock::now() >= deadline) {
            {
                std::lock_guard<std::mutex> lock(delivery_->mutex);
                delivery_->ready.push_back(std::move(batch_));
            }
            batch_.clear();
            source_->signal();
        }
    }
}
