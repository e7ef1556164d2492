// BlockDeviceService.cpp - a session with the block-device provider, answering on run loops.
#include <qx/BlockDeviceService.h>

#include <qx/UniqueFd.h>

#include <fcntl.h>
#include <set>
#include <unistd.h>

namespace qx {

// Shared with the source, the provider's listener and the queued requests,
// any of which may outlive the service for the length of a call under way.
struct BlockDeviceService::State {
    struct Watch {
        std::string name;
        ChangeHandler handler;
    };

    Ref<BlockDeviceProvider> provider;
    std::mutex mutex;
    std::deque<std::function<void()>> ready;  // guarded by mutex; deliveries in order
    bool cancelled = false;                   // guarded by mutex
    std::map<std::uint64_t, Watch> watches;   // guarded by mutex
    std::uint64_t nextToken = 1;              // guarded by mutex
    // The description each watched name had when last looked at; no entry
    // until the first look, so that a watch never fires before its owner
    // has read the description once.
    std::map<std::string, std::optional<BlockDeviceDescription>> seen;  // guarded by mutex
    std::map<std::string, BlockDeviceDescription> remembered;          // guarded by mutex
    std::mutex refreshMutex;  // one comparison pass at a time
    std::mutex listenMutex;   // guards listenerToken
    std::uint64_t listenerToken = 0;
    WeakRef<RunLoopSource> source;

    void deliver(std::function<void()> delivery) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (cancelled) return;
            ready.push_back(std::move(delivery));
        }
        if (auto strong = source.lock()) strong->signal();
    }

    void perform() {
        for (;;) {
            std::function<void()> delivery;
            {
                std::lock_guard<std::mutex> lock(mutex);
                if (cancelled || ready.empty()) return;
                delivery = std::move(ready.front());
                ready.pop_front();
            }
            // A delivery may release the service; cancelled is looked at again before the next.
            delivery();
        }
    }

    void callWatch(std::uint64_t token) {
        ChangeHandler handler;
        {
            std::lock_guard<std::mutex> lock(mutex);
            auto found = watches.find(token);
            if (found == watches.end()) return;
            handler = found->second.handler;
        }
        handler();
    }

    // Describes every watched device again and queues the handlers of those
    // whose description differs from the one seen last.
    void refresh(const std::weak_ptr<State>& self) {
        std::lock_guard<std::mutex> pass(refreshMutex);
        std::set<std::string> names;
        {
            std::lock_guard<std::mutex> lock(mutex);
            for (const auto& entry : watches) names.insert(entry.second.name);
        }
        for (const auto& name : names) {
            auto now = provider->device(name);
            std::vector<std::uint64_t> tokens;
            {
                std::lock_guard<std::mutex> lock(mutex);
                auto last = seen.find(name);
                if (last == seen.end() || last->second == now) continue;
                last->second = std::move(now);
                for (const auto& entry : watches)
                    if (entry.second.name == name) tokens.push_back(entry.first);
            }
            for (const auto token : tokens)
                deliver([self, token] {
                    if (auto strong = self.lock()) strong->callWatch(token);
                });
        }
    }
};

Ref<BlockDeviceService> BlockDeviceService::create(Ref<BlockDeviceProvider> provider) {
    return std::make_shared<BlockDeviceService>(provider ? std::move(provider) : BlockDeviceProvider::systemProvider());
}

BlockDeviceService::BlockDeviceService(Ref<BlockDeviceProvider> provider)
    : provider_(std::move(provider)), state_(std::make_shared<State>()), queue_(SerialQueue::create("qx.BlockDeviceService")) {
    state_->provider = provider_;
    std::weak_ptr<State> state = state_;
    source_ = RunLoopSource::create([state] {
        if (auto strong = state.lock()) strong->perform();
    });
    state_->source = source_;
}

BlockDeviceService::~BlockDeviceService() {
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->cancelled = true;
        state_->ready.clear();
        state_->watches.clear();
    }
    source_->invalidate();
    std::uint64_t token;
    {
        std::lock_guard<std::mutex> lock(state_->listenMutex);
        token = state_->listenerToken;
        state_->listenerToken = 0;
    }
    // Not under a lock of ours: the provider waits here for a listener call
    // under way, which takes them.
    if (token) provider_->removeChangeListener(token);
}

void BlockDeviceService::scheduleWithRunLoop(const Ref<RunLoop>& loop, const std::string& mode) { loop->addSource(source_, mode); }

void BlockDeviceService::unscheduleFromRunLoop(const Ref<RunLoop>& loop, const std::string& mode) {
    loop->removeSource(source_, mode);
}

std::vector<BlockDeviceDescription> BlockDeviceService::devices() {
    auto list = provider_->devices();
    std::lock_guard<std::mutex> lock(state_->mutex);
    for (const auto& d : list) state_->remembered[d.name] = d;
    return list;
}

std::optional<BlockDeviceDescription> BlockDeviceService::device(const std::string& name) {
    std::optional<BlockDeviceDescription> d;
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        if (auto found = state_->remembered.find(name); found != state_->remembered.end()) {
            d = std::move(found->second);
            state_->remembered.erase(found);
        }
    }
    if (!d) d = provider_->device(name);
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->seen[name] = d;
    return d;
}

void BlockDeviceService::forgetRememberedDescriptions() {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->remembered.clear();
}

std::uint64_t BlockDeviceService::watchDescription(const std::string& name, ChangeHandler handler) {
    std::uint64_t token;
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        token = state_->nextToken++;
        state_->watches.emplace(token, State::Watch{name, std::move(handler)});
    }
    std::lock_guard<std::mutex> listen(state_->listenMutex);
    if (!state_->listenerToken) {
        std::weak_ptr<State> state = state_;
        state_->listenerToken = provider_->addChangeListener([state](const std::vector<std::string>&) {
            if (auto strong = state.lock()) strong->refresh(state);
        });
    }
    return token;
}

void BlockDeviceService::unwatchDescription(std::uint64_t token) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->watches.erase(token);
}

void BlockDeviceService::request(std::function<BlockDeviceAnswer(BlockDeviceProvider&)> work, Completion completion) {
    std::weak_ptr<State> state = state_;
    auto provider = provider_;
    queue_->async([state, provider, work = std::move(work), completion = std::move(completion)] {
        BlockDeviceAnswer answer = work(*provider);
        if (auto strong = state.lock())
            strong->deliver([completion, answer = std::move(answer)] {
                if (completion) completion(answer);
            });
    });
}

void BlockDeviceService::mount(const std::string& name, const std::string& mountPoint, const std::string& options,
                               Completion completion) {
    request([name, mountPoint, options](BlockDeviceProvider& p) { return p.mount(name, mountPoint, options); },
            std::move(completion));
}

void BlockDeviceService::unmount(const std::string& name, bool force, Completion completion) {
    request([name, force](BlockDeviceProvider& p) { return p.unmount(name, force); }, std::move(completion));
}

void BlockDeviceService::eject(const std::string& name, Completion completion) {
    request([name](BlockDeviceProvider& p) { return p.eject(name); }, std::move(completion));
}

void BlockDeviceService::loopSetup(int fd, const LoopSetupOptions& options, Completion completion) {
    auto owned = std::make_shared<UniqueFd>(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
    request(
        [owned, options](BlockDeviceProvider& p) {
            if (!*owned) return BlockDeviceAnswer::failure(BlockDeviceErrorName::Failed, "Error setting up loop device: bad descriptor");
            return p.loopSetup(owned->get(), options);
        },
        std::move(completion));
}

void BlockDeviceService::loopDelete(const std::string& name, Completion completion) {
    request([name](BlockDeviceProvider& p) { return p.loopDelete(name); }, std::move(completion));
}

} // namespace qx
