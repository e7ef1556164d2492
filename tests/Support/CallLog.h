// CallLog.h - the calls a handler received, from whatever threads made them.
//
// The work that calls a handler is over when every copy of the handler is
// gone: then no call can follow, and nothing of the work is left behind
// (reading threads, transfers, handles). A handler captures token() to say so.
#pragma once

#include "TestSupport.h"

namespace qxtest {

template <class Call>
class CallLog {
public:
    // To capture in the handler: when its last copy goes, the log is over.
    std::shared_ptr<void> token() const {
        return std::shared_ptr<void>(nullptr, [state = state_](void*) {
            std::lock_guard<std::mutex> lock(state->mutex);
            state->over = true;
            state->changed.notify_all();
        });
    }
    // Records one call; its index among the calls.
    std::size_t record(Call call) const {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->calls.push_back(std::move(call));
        return state_->calls.size() - 1;
    }
    // The calls, once the log is over. The deadline only guards against a hang.
    std::vector<Call> wait() const {
        std::unique_lock<std::mutex> lock(state_->mutex);
        EXPECT_TRUE(state_->changed.wait_for(lock, std::chrono::minutes(2), [&] { return state_->over; }))
            << "the work never let go of its handler";
        return state_->calls;
    }

private:
    struct State { std::mutex mutex; std::condition_variable changed; std::vector<Call> calls; bool over = false; };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

} // namespace qxtest
