// QXRunLoopTable.h - where a stream's own run-loop source is scheduled.
//
// The streams that deliver their events through a source of their own keep
// the run loops (weakly) and, per loop, the modes the source was added for,
// so that scheduling twice is a no-op, removing goes per mode, everything can
// be removed at the end, and an event can wake every loop that may handle it.
// Not locked: the owning stream guards it together with its pending events.
#pragma once

#include <qx/RunLoop.h>
#include <qx/RunLoopSource.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

class QXRunLoopTable {
public:
    /// Adds source to runLoop for mode unless the table already has that pair.
    void schedule(const qx::Ref<qx::RunLoopSource>& source, const qx::Ref<qx::RunLoop>& runLoop, const std::string& mode) {
        if (!runLoop) return;
        std::erase_if(entries_, [](const Entry& e) { return e.loop.expired(); });
        auto it = find(runLoop.get());
        if (it == entries_.end()) it = entries_.insert(entries_.end(), Entry{runLoop, runLoop.get(), {}});
        if (!it->modes.insert(mode).second) return;
        runLoop->addSource(source, mode);
    }

    void remove(const qx::Ref<qx::RunLoopSource>& source, const qx::Ref<qx::RunLoop>& runLoop, const std::string& mode) {
        if (!runLoop) return;
        auto it = find(runLoop.get());
        if (it == entries_.end() || it->modes.erase(mode) == 0) return;
        runLoop->removeSource(source, mode);
        if (it->modes.empty()) entries_.erase(it);
    }

    void removeAll(const qx::Ref<qx::RunLoopSource>& source) {
        for (const auto& e : entries_)
            if (auto loop = e.loop.lock())
                for (const auto& mode : e.modes) loop->removeSource(source, mode);
        entries_.clear();
    }

    /// The loops still alive.
    std::vector<qx::Ref<qx::RunLoop>> loops() const {
        std::vector<qx::Ref<qx::RunLoop>> result;
        for (const auto& e : entries_)
            if (auto loop = e.loop.lock()) result.push_back(std::move(loop));
        return result;
    }

private:
    struct Entry {
        qx::WeakRef<qx::RunLoop> loop;
        const qx::RunLoop* key;  // identity, also once the loop is gone
        std::set<std::string> modes;
    };

    std::vector<Entry>::iterator find(const qx::RunLoop* key) {
        return std::find_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.key == key; });
    }

    std::vector<Entry> entries_;
};
