// RunLoopSource.cpp - the signal mark and the set of loops to wake.
#include <qx/RunLoop.h>
#include <qx/RunLoopSource.h>

#include <algorithm>

namespace qx {

RunLoopSource::RunLoopSource(Perform perform) : perform_(std::move(perform)) {}

Ref<RunLoopSource> RunLoopSource::create(Perform perform) { return std::make_shared<RunLoopSource>(std::move(perform)); }

void RunLoopSource::signal() {
    if (!isValid()) return;
    signalled_.store(true, std::memory_order_release);
    std::vector<Ref<RunLoop>> loops;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& a : loops_)
            if (auto loop = a.loop.lock()) loops.push_back(std::move(loop));
    }
    for (const auto& loop : loops) loop->sourceSignalled();
}

void RunLoopSource::invalidate() {
    std::vector<Attachment> loops;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!valid_.exchange(false, std::memory_order_acq_rel)) return;
        loops.swap(loops_);
    }
    signalled_.store(false, std::memory_order_release);
    for (const auto& a : loops)
        if (auto loop = a.loop.lock()) loop->purgeSource(this);
}

bool RunLoopSource::attach(const Ref<RunLoop>& loop) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!isValid()) return false;
    std::erase_if(loops_, [](const Attachment& a) { return a.loop.expired(); });
    auto it = std::find_if(loops_.begin(), loops_.end(), [&](const Attachment& a) { return a.key == loop.get(); });
    if (it == loops_.end())
        loops_.push_back({loop, loop.get(), 1});
    else
        ++it->modes;
    return true;
}

void RunLoopSource::detach(const RunLoop* loop) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = std::find_if(loops_.begin(), loops_.end(), [&](const Attachment& a) { return a.key == loop; });
    if (it != loops_.end() && --it->modes <= 0) loops_.erase(it);
}

void RunLoopSource::perform() const {
    if (perform_) perform_();
}

} // namespace qx
