// Stream.cpp - status, error and run-loop delivery of stream events.
#include <qx/Stream.h>

#include <algorithm>

namespace qx {

void Stream::open() {
    StreamStatus expected = StreamStatus::NotOpen;
    if (status_.compare_exchange_strong(expected, StreamStatus::Open)) queueEvent(StreamEventOpenCompleted);
}

void Stream::close() { setStatus(StreamStatus::Closed); }

StreamStatus Stream::streamStatus() const { return status_.load(); }

Ref<Error> Stream::streamError() const {
    std::lock_guard<std::mutex> lock(eventMutex_);
    return error_;
}

Ref<StreamDelegate> Stream::delegate() const {
    std::lock_guard<std::mutex> lock(eventMutex_);
    return delegate_.lock();
}

void Stream::setDelegate(const Ref<StreamDelegate>& delegate) {
    std::lock_guard<std::mutex> lock(eventMutex_);
    delegate_ = delegate;
}

Ref<Object> Stream::propertyForKey(const std::string&) const { return nullptr; }
bool Stream::setProperty(const Ref<Object>&, const std::string&) { return false; }

void Stream::failWithError(const Ref<Error>& error) {
    {
        std::lock_guard<std::mutex> lock(eventMutex_);
        error_ = error;
    }
    setStatus(StreamStatus::Error);
    queueEvent(StreamEventErrorOccurred);
}

std::vector<Stream::Target> Stream::targetsLocked() const {
    std::vector<Target> targets;
    for (const auto& s : scheduled_)
        if (auto loop = s.loop.lock()) targets.emplace_back(std::move(loop), std::vector<std::string>(s.modes.begin(), s.modes.end()));
    return targets;
}

void Stream::post(const std::vector<Target>& targets) {
    // Weak: a queued delivery must not keep a dropped stream alive.
    WeakRef<Object> weak = weak_from_this();
    for (const auto& [loop, modes] : targets) {
        const RunLoop* key = loop.get();
        loop->performBlock(modes, [weak, key] {
            if (auto self = std::static_pointer_cast<Stream>(weak.lock())) self->deliver(key);
        });
    }
}

void Stream::scheduleInRunLoop(const Ref<RunLoop>& runLoop, const std::string& mode) {
    if (!runLoop) return;
    std::vector<Target> targets;
    {
        std::lock_guard<std::mutex> lock(eventMutex_);
        // Loops that have gone away leave their entries behind; drop them here.
        std::erase_if(scheduled_, [](const Scheduled& s) { return s.loop.expired(); });
        auto it = std::find_if(scheduled_.begin(), scheduled_.end(), [&](const Scheduled& s) { return s.key == runLoop.get(); });
        if (it == scheduled_.end()) it = scheduled_.insert(scheduled_.end(), Scheduled{runLoop, runLoop.get(), {}});
        if (!it->modes.insert(mode).second) return;
        if (pending_ == 0) return;
        posted_ = true;
        targets.emplace_back(runLoop, std::vector<std::string>{mode});
    }
    post(targets);
}

void Stream::removeFromRunLoop(const Ref<RunLoop>& runLoop, const std::string& mode) {
    if (!runLoop) return;
    std::lock_guard<std::mutex> lock(eventMutex_);
    auto it = std::find_if(scheduled_.begin(), scheduled_.end(), [&](const Scheduled& s) { return s.key == runLoop.get(); });
    if (it == scheduled_.end()) return;
    it->modes.erase(mode);
    if (it->modes.empty()) scheduled_.erase(it);
}

void Stream::queueEvent(StreamEventMask events) {
    if (events == 0) return;
    std::vector<Target> targets;
    {
        std::lock_guard<std::mutex> lock(eventMutex_);
        pending_ |= events;
        if (posted_) return;
        targets = targetsLocked();
        if (targets.empty()) return;
        posted_ = true;
    }
    post(targets);
}

void Stream::deliver(const RunLoop* loop) {
    StreamEventMask mask = 0;
    Ref<StreamDelegate> receiver;
    {
        std::unique_lock<std::mutex> lock(eventMutex_);
        const bool stillScheduled = std::any_of(scheduled_.begin(), scheduled_.end(), [&](const Scheduled& s) { return s.key == loop; });
        if (!stillScheduled) {
            // Removed from this loop after the delivery was queued: hand the
            // waiting events to the loops that remain.
            posted_ = false;
            if (pending_ == 0) return;
            auto targets = targetsLocked();
            if (targets.empty()) return;
            posted_ = true;
            lock.unlock();
            post(targets);
            return;
        }
        mask = pending_;
        pending_ = 0;
        posted_ = false;
        receiver = delegate_.lock();
    }
    if (mask == 0 || !receiver || streamStatus() == StreamStatus::Closed) return;
    for (StreamEventMask bit = StreamEventOpenCompleted; bit <= StreamEventEndEncountered; bit <<= 1) {
        if (!(mask & bit)) continue;
        const bool readiness = bit == StreamEventHasBytesAvailable || bit == StreamEventHasSpaceAvailable;
        if (readiness && streamStatus() != StreamStatus::Open) continue;
        receiver->stream(*this, bit);
    }
}

} // namespace qx
