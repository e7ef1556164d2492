// QXFSEventManager.h - watching folder trees, and asking what changed since.
//
// Two uses. Watching: startWatchingURLs hands batches of QXFSEvent to a
// handler, on the run loop of the thread that started the watch (in the
// common modes; that thread must run its loop). History: latestFSEvent...
// and changesMadeSince... answer, for saved parameters, the latest event
// identifier under their folders and so whether anything changed, also
// across restarts of the application and while nothing was watching.
//
// Event identifiers. An identifier is the change time (ctime, which no user
// can set back) of what changed, in nanoseconds since the epoch; for a
// deletion or a rename away, the change time of its folder. Live identifiers
// are strictly increasing within a process: one that would not be above the
// last one handed out becomes that one plus one. History answers are found
// by scanning the change times under the folders, so both share one scale.
//
// The history rule. Change times are stamped in granules (the 4 ms timer
// tick; whole seconds on FUSE), so a change made later within the granule
// in progress may get a time a scan has already seen. A history answer
// therefore never names a time at or above G, the start of the granule in
// progress when the scan began: a tree whose latest change lies at or above
// G is answered G - 1. Why this has no false negative: every change made
// after the scan began is stamped at or above G, which is above the answer,
// so "changes since the answer" sees it whenever it is asked, by this
// process or a later one. The price: changes held back below G are reported
// as "changed" once more by the next question. When even G - 1 is not above
// the identifier asked about (asked twice within one granule), the query
// waits for the granule to end (at most one tick; a second on FUSE) and
// scans again. Caveat: a live identifier raised by the plus-one rule sits a
// few nanoseconds above the change time it stands for; it is the last
// identifier of a burst within one granule.
//
// Deliberate behaviour that applications rely on: starting a watch adds the
// new folders to those already watched; restarting a running watch (and so
// setLatency on one) clears the manager's stored handler, and the restarted
// stream delivers to the handler given to that start, so a latency change
// silences the watch until startWatchingURLs is called again with a handler.
//
// Threads: history queries are serialised per manager and may come from any
// thread. Starting, restarting and ending a watch (startWatching...,
// setLatency, dumpFSEventStream) must happen on the thread that started it.
//
// Names: the class operations that start a new manager are
// managerWatchingURL / managerWatchingURLs, since they would clash with the
// instance operations of the same selector.
#pragma once

#include <QXFoundation/QXFSEvent.h>
#include <QXFoundation/QXFSEventManagerParameters.h>

#include <qx/Array.h>
#include <qx/Dictionary.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

class QXFSEventStream;

class QXFSEventManager : public qx::Object {
public:
    using Ref = qx::Ref<QXFSEventManager>;
    /// Called with an array of QXFSEvent, in the order the changes were made.
    using Handler = std::function<void(const qx::Ref<qx::Array>& events)>;

    /// The identifier meaning "from now on".
    static constexpr std::uint64_t SinceNow = ~std::uint64_t(0);

    /// One manager for the process, made on first use.
    static Ref sharedFSEventManager();
    /// A new, idle manager.
    static Ref create();
    /// A new manager watching url / URLs, or nothing when the watch did not start.
    static Ref managerWatchingURL(const qx::Ref<qx::URL>& url, Handler handler);
    static Ref managerWatchingURLs(const qx::Ref<qx::Array>& URLs, Handler handler);

    /// Watches URLs as well as those already watched, delivering to handler;
    /// false when the stream could not start (no URLs at all, or the system
    /// has no watch instance left).
    bool startWatchingURL(const qx::Ref<qx::URL>& url, Handler handler);
    bool startWatchingURLs(const qx::Ref<qx::Array>& URLs, Handler handler);

    /// Seconds between the first change of a batch and its delivery.
    double latency() const { return _latency; }
    /// Stores the value; a running watch is restarted with it, and without a
    /// handler (see above).
    void setLatency(double latency);

    /// The watched folders as file URLs; empty when nothing is watched.
    qx::Ref<qx::Array> URLsBeingWatched() const;
    /// Stops and discards the running watch and clears the stored handler.
    void dumpFSEventStream();

    /// The latest event identifier under the URLs after event (event itself
    /// when nothing changed after it); the one-argument forms ask after 0.
    std::uint64_t latestFSEventAtURL(const qx::Ref<qx::URL>& url);
    std::uint64_t latestFSEventAtURL(const qx::Ref<qx::URL>& url, std::uint64_t afterEvent);
    std::uint64_t latestFSEventAtURLs(const qx::Ref<qx::Array>& URLs);
    std::uint64_t latestFSEventAtURLs(const qx::Ref<qx::Array>& URLs, std::uint64_t afterEvent);
    /// Maps each QXFSEventManagerParameters to its latest event identifier (a
    /// number). URLs that are not file URLs contribute nothing.
    qx::Ref<qx::Dictionary> latestFSEventsWithParameters(const qx::Ref<qx::Array>& parameters);
    /// True when something under url changed after event.
    bool changesMadeSinceFSEvent(std::uint64_t event, const qx::Ref<qx::URL>& url);
    /// Maps each parameters object to a boolean number: whether its latest
    /// event differs from its own.
    qx::Ref<qx::Dictionary> changesMadeSinceParameters(const qx::Ref<qx::Array>& parameters);

    static QXFSEventManagerParameters::Ref parametersWithURLs(const qx::Ref<qx::Array>& URLs, std::uint64_t event) {
        return QXFSEventManagerParameters::parametersWithURLs(URLs, event);
    }

    std::string className() const override { return "QXFSEventManager"; }

    QXFSEventManager();
    ~QXFSEventManager() override;

private:
    mutable std::recursive_mutex _lock;
    double _latency = 0;
    std::unique_ptr<QXFSEventStream> _stream;
    Handler _handler;
};
