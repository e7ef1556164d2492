// QXFSEventManager.cpp - watching folder trees, and asking what changed since.
#include <QXFoundation/QXFSEventManager.h>

#include "Internal/QXChangeTimeScan.h"
#include "Internal/QXFSEventClock.h"
#include "Internal/QXFSEventStream.h"

#include <qx/Number.h>
#include <qx/RunLoop.h>

#include <algorithm>
#include <chrono>
#include <thread>

namespace {

std::vector<QXFSEventManagerParameters::Ref> parametersIn(const qx::Ref<qx::Array>& parameters) {
    std::vector<QXFSEventManagerParameters::Ref> list;
    if (parameters)
        for (const auto& item : *parameters)
            if (auto entry = qx::dyn_cast<QXFSEventManagerParameters>(item)) list.push_back(entry);
    return list;
}

// Waits until every root's file system has left the granule its scan began
// in and the coarse clock has passed the latest change time seen there; a
// later scan then sees all that granule's changes with their final times.
// The second condition matters because a change stamped with the fine clock
// can lie beyond the next coarse tick (the tick keeps back the part of an
// interval it has not accumulated yet). A change time far ahead of the clock
// (the clock was set back) is not waited for: the wait is bounded by a few
// granules and the held-back answer stands.
void waitForGranules(const std::vector<std::string>& roots, const std::vector<QXChangeTimeScan::Tree>& trees) {
    for (std::size_t i = 0; i < roots.size(); ++i) {
        const std::uint64_t length = QXFSEventClock::granuleLength(roots[i]);
        const auto step = std::chrono::nanoseconds(std::max<std::uint64_t>(length / 4, 100000));
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::nanoseconds(4 * length) + std::chrono::milliseconds(20);
        const std::uint64_t passed = std::max(trees[i].granuleStart, trees[i].latest);
        while (QXFSEventClock::granuleStart(roots[i]) <= passed && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(step);
    }
}

} // namespace

QXFSEventManager::QXFSEventManager() = default;

QXFSEventManager::~QXFSEventManager() { dumpFSEventStream(); }

QXFSEventManager::Ref QXFSEventManager::sharedFSEventManager() {
    static const Ref shared = create();
    return shared;
}

QXFSEventManager::Ref QXFSEventManager::create() { return std::make_shared<QXFSEventManager>(); }

QXFSEventManager::Ref QXFSEventManager::managerWatchingURL(const qx::Ref<qx::URL>& url, Handler handler) {
    auto manager = create();
    return manager->startWatchingURL(url, std::move(handler)) ? manager : nullptr;
}

QXFSEventManager::Ref QXFSEventManager::managerWatchingURLs(const qx::Ref<qx::Array>& URLs, Handler handler) {
    auto manager = create();
    return manager->startWatchingURLs(URLs, std::move(handler)) ? manager : nullptr;
}

bool QXFSEventManager::startWatchingURL(const qx::Ref<qx::URL>& url, Handler handler) {
    return startWatchingURLs(std::make_shared<qx::Array>(std::vector<qx::Ref<qx::Object>>{url}), std::move(handler));
}

bool QXFSEventManager::startWatchingURLs(const qx::Ref<qx::Array>& URLs, Handler handler) {
    std::lock_guard<std::recursive_mutex> lock(_lock);
    _handler = handler;
    auto list = URLsBeingWatched();
    if (URLs)
        for (const auto& url : *URLs) list->addObject(url);
    // Dumping the old stream clears _handler: the new stream delivers to the
    // handler of this call, and a restart without one (setLatency) stays silent.
    dumpFSEventStream();
    std::vector<std::string> paths;
    for (const auto& item : *list)
        if (auto url = qx::dyn_cast<qx::URL>(item); url && url->isFileURL()) {
            // A set of folders: a restart with the folders already watched
            // (setLatency) must not watch them twice.
            std::string path = QXFSEventStandardizedPath(url->path());
            if (std::find(paths.begin(), paths.end(), path) == paths.end()) paths.push_back(std::move(path));
        }
    auto stream = QXFSEventStream::create(std::move(paths), _latency, [handler](const std::vector<QXFSEventRecord>& batch) {
        if (!handler) return;
        auto events = qx::Array::create();
        events->reserve(batch.size());
        for (const auto& record : batch)
            events->addObject(QXFSEvent::eventWithURL(qx::URL::fileURLWithPath(record.path), record.flags, record.identifier));
        handler(events);
    });
    if (!stream) return false;
    stream->scheduleWithRunLoop(qx::RunLoop::current(), qx::RunLoop::CommonModes);
    if (!stream->start()) {
        stream->unscheduleFromRunLoop(qx::RunLoop::current(), qx::RunLoop::CommonModes);
        stream->invalidate();
        return false;
    }
    _stream = std::move(stream);
    return true;
}

void QXFSEventManager::setLatency(double latency) {
    std::lock_guard<std::recursive_mutex> lock(_lock);
    _latency = latency;
    if (_stream) startWatchingURLs(URLsBeingWatched(), nullptr);
}

qx::Ref<qx::Array> QXFSEventManager::URLsBeingWatched() const {
    std::lock_guard<std::recursive_mutex> lock(_lock);
    auto URLs = qx::Array::create();
    if (_stream)
        for (const auto& path : _stream->pathsBeingWatched()) URLs->addObject(qx::URL::fileURLWithPath(path));
    return URLs;
}

void QXFSEventManager::dumpFSEventStream() {
    std::unique_ptr<QXFSEventStream> stream;
    {
        std::lock_guard<std::recursive_mutex> lock(_lock);
        if (!_stream) return;
        stream = std::move(_stream);
        _handler = nullptr;
    }
    stream->stop();
    stream->unscheduleFromRunLoop(qx::RunLoop::current(), qx::RunLoop::CommonModes);
    stream->invalidate();
}

std::uint64_t QXFSEventManager::latestFSEventAtURL(const qx::Ref<qx::URL>& url) { return latestFSEventAtURL(url, 0); }

std::uint64_t QXFSEventManager::latestFSEventAtURL(const qx::Ref<qx::URL>& url, std::uint64_t afterEvent) {
    return latestFSEventAtURLs(std::make_shared<qx::Array>(std::vector<qx::Ref<qx::Object>>{url}), afterEvent);
}

std::uint64_t QXFSEventManager::latestFSEventAtURLs(const qx::Ref<qx::Array>& URLs) { return latestFSEventAtURLs(URLs, 0); }

std::uint64_t QXFSEventManager::latestFSEventAtURLs(const qx::Ref<qx::Array>& URLs, std::uint64_t afterEvent) {
    auto parameters = parametersWithURLs(URLs, afterEvent);
    auto answers = latestFSEventsWithParameters(std::make_shared<qx::Array>(std::vector<qx::Ref<qx::Object>>{parameters}));
    auto number = qx::dyn_cast<qx::Number>(answers->objectForKey(*parameters));
    return number ? number->uint64Value() : afterEvent;
}

qx::Ref<qx::Dictionary> QXFSEventManager::latestFSEventsWithParameters(const qx::Ref<qx::Array>& parameters) {
    std::lock_guard<std::recursive_mutex> lock(_lock);
    const auto list = parametersIn(parameters);
    std::vector<std::string> roots;
    for (const auto& entry : list)
        for (auto& path : entry->standardizedPaths())
            if (std::find(roots.begin(), roots.end(), path) == roots.end()) roots.push_back(std::move(path));

    // Each asker's answer comes from the trees of its own folders (a folder
    // of another asker counts when it lies below one of them). At most two
    // rounds: after waiting out the granule, G - 1 is above any identifier
    // that was undecidable in the first round.
    std::vector<std::uint64_t> answers(list.size());
    for (int round = 0; round < 2; ++round) {
        const auto trees = QXChangeTimeScan::scan(roots);
        bool mustWait = false;
        for (std::size_t p = 0; p < list.size(); ++p) {
            std::vector<QXChangeTimeScan::Tree> own;
            for (std::size_t r = 0; r < roots.size(); ++r)
                if (list[p]->covers(roots[r])) own.push_back(trees[r]);
            const auto answer = QXChangeTimeScan::answer(own, list[p]->event());
            answers[p] = answer.event;
            mustWait = mustWait || answer.mustWait;
        }
        if (!mustWait || round == 1) break;
        waitForGranules(roots, trees);
    }
    auto result = qx::Dictionary::create();
    for (std::size_t p = 0; p < list.size(); ++p) result->setObject(qx::Number::withUInt64(answers[p]), list[p]);
    return result;
}

bool QXFSEventManager::changesMadeSinceFSEvent(std::uint64_t event, const qx::Ref<qx::URL>& url) {
    return latestFSEventAtURL(url, event) != event;
}

qx::Ref<qx::Dictionary> QXFSEventManager::changesMadeSinceParameters(const qx::Ref<qx::Array>& parameters) {
    auto latest = latestFSEventsWithParameters(parameters);
    auto result = qx::Dictionary::create();
    for (const auto& entry : parametersIn(parameters)) {
        auto number = qx::dyn_cast<qx::Number>(latest->objectForKey(*entry));
        result->setObject(qx::Number::withBool(number && number->uint64Value() != entry->event()), entry);
    }
    return result;
}
