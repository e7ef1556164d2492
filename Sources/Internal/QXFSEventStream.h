// QXFSEventStream.h - a live stream of file-system events over folder trees.
//
// The stream watches its paths and everything below them through inotify, on
// a reader thread of its own, and hands the changes over in batches: the
// first change of a batch opens it, and the batch is handed over latency
// seconds later with everything that came meanwhile (at once for latency 0).
// Consecutive changes to one path within a batch become one event with the
// flags of both. Batches are delivered on the run loops the stream is
// scheduled on, by a run-loop source, in the order they were made.
//
// Lifecycle: create, schedule, start, ... stop, unschedule, invalidate (the
// destructor does whatever is left). Changes made after start() returns are
// reported; the watch is set up before it returns.
#pragma once

#include "Internal/QXInotifyTranslator.h"

#include <qx/RunLoop.h>
#include <qx/UniqueFd.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

class QXFSEventStream {
public:
    using Callback = std::function<void(const std::vector<QXFSEventRecord>& batch)>;

    /// A stream over paths (absolute, standardised), not started; nothing when
    /// paths is empty.
    static std::unique_ptr<QXFSEventStream> create(std::vector<std::string> paths, double latency, Callback callback);
    ~QXFSEventStream();
    QXFSEventStream(const QXFSEventStream&) = delete;
    QXFSEventStream& operator=(const QXFSEventStream&) = delete;

    void scheduleWithRunLoop(const qx::Ref<qx::RunLoop>& loop, const std::string& mode);
    void unscheduleFromRunLoop(const qx::Ref<qx::RunLoop>& loop, const std::string& mode);
    /// Sets up the watches and starts the reader; false when inotify refuses
    /// (no instance left) or the stream was started before.
    bool start();
    /// Ends the reader; batches not yet handed over are dropped.
    void stop();
    /// No batch is delivered after this, not even one already handed over.
    void invalidate();

    const std::vector<std::string>& pathsBeingWatched() const { return paths_; }

private:
    struct Delivery;

    QXFSEventStream(std::vector<std::string> paths, double latency, Callback callback);
    void read();
    void append(std::vector<QXFSEventRecord>& records);

    const std::vector<std::string> paths_;
    const double latency_;
    std::shared_ptr<Delivery> delivery_;
    qx::Ref<qx::RunLoopSource> source_;
    qx::UniqueFd inotify_, wake_;
    std::unique_ptr<QXInotifyTree> tree_;
    std::unique_ptr<QXInotifyTranslator> translator_;
    std::vector<QXFSEventRecord> batch_;  // reader thread only
    std::thread reader_;
    bool started_ = false;
};
