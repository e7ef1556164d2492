// BlockDeviceService.h - a session with the block-device provider, answering on run loops.
//
// A service is what the library holds on to: it asks its provider for
// descriptions, sends requests (mount, unmount, eject, loop set-up and
// delete) to a private serial queue so that the caller is never blocked by
// the provider, and hands every answer back through one run-loop source, on
// the run loops and modes the service is scheduled on, in the order the
// answers came. Description watches are answered the same way: the handler
// of a watched device runs there when its description differs from the one
// seen last.
//
// Nothing is delivered while the service is not scheduled on a running
// loop; answers wait in order until it is. Destroying the service drops the
// answers not yet delivered (requests already sent still finish).
#pragma once

#include <qx/BlockDeviceProvider.h>
#include <qx/RunLoop.h>
#include <qx/SerialQueue.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

namespace qx {

class BlockDeviceService final : public Object {
public:
    using Completion = std::function<void(const BlockDeviceAnswer& answer)>;
    using ChangeHandler = std::function<void()>;

    /// A session with provider (the machine's own when none is given).
    static Ref<BlockDeviceService> create(Ref<BlockDeviceProvider> provider = nullptr);
    ~BlockDeviceService() override;

    const Ref<BlockDeviceProvider>& provider() const { return provider_; }

    /// Adds the service's source to loop in mode; harmless when already there.
    void scheduleWithRunLoop(const Ref<RunLoop>& loop, const std::string& mode);
    void unscheduleFromRunLoop(const Ref<RunLoop>& loop, const std::string& mode);

    /// Every device with a medium, in the provider's stable order. Each
    /// description is remembered, and the next device() for that name within
    /// the session answers from memory once, so that wrapping the results of
    /// one search does not probe every device twice.
    std::vector<BlockDeviceDescription> devices();
    /// The device's current description (or the one devices() just gave);
    /// also what watches compare against from now on.
    std::optional<BlockDeviceDescription> device(const std::string& name);
    /// Forgets what devices() remembered for device().
    void forgetRememberedDescriptions();

    /// Calls handler on the scheduled loops whenever the description of the
    /// device called name changes (or the device goes away). Returns a token.
    std::uint64_t watchDescription(const std::string& name, ChangeHandler handler);
    /// After it returns, handler is not called again.
    void unwatchDescription(std::uint64_t token);

    void mount(const std::string& name, const std::string& mountPoint, const std::string& options, Completion completion);
    void unmount(const std::string& name, bool force, Completion completion);
    void eject(const std::string& name, Completion completion);
    /// fd is duplicated: the caller may close its own at once.
    void loopSetup(int fd, const LoopSetupOptions& options, Completion completion);
    void loopDelete(const std::string& name, Completion completion);

    std::string className() const override { return "BlockDeviceService"; }

    explicit BlockDeviceService(Ref<BlockDeviceProvider> provider);

private:
    struct State;

    void request(std::function<BlockDeviceAnswer(BlockDeviceProvider&)> work, Completion completion);

    const Ref<BlockDeviceProvider> provider_;
    const std::shared_ptr<State> state_;
    Ref<RunLoopSource> source_;
    Ref<SerialQueue> queue_;
};

} // namespace qx
