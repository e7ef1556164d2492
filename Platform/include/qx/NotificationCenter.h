// NotificationCenter.h - named notifications delivered synchronously to observers.
//
// An observer is a callback registered for a name (empty: every name) and a
// sender object (nothing: every sender). post() calls the matching observers
// on the posting thread, in the order they were added, before it returns.
//
// Observers may be added and removed from any thread, also from inside a
// callback: a post works on the observers present when it began, skipping any
// removed before its turn came. The centre holds senders weakly: registering
// for an object does not keep it alive, and a destroyed sender matches nothing.
#pragma once

#include <qx/Dictionary.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace qx {

class Notification final : public Object {
public:
    Notification(std::string name, Ref<Object> object, Ref<Dictionary> userInfo)
        : name_(std::move(name)), object_(std::move(object)), userInfo_(std::move(userInfo)) {}

    const std::string& name() const { return name_; }
    /// The sender, or nothing.
    const Ref<Object>& object() const { return object_; }
    /// The user info, or nothing.
    const Ref<Dictionary>& userInfo() const { return userInfo_; }

    std::string className() const override { return "Notification"; }

private:
    std::string name_;
    Ref<Object> object_;
    Ref<Dictionary> userInfo_;
};

class NotificationCenter final : public Object {
public:
    using Callback = std::function<void(const Ref<Notification>&)>;
    /// Identifies one registration; 0 is never handed out.
    using ObserverToken = std::uint64_t;

    static Ref<NotificationCenter> defaultCenter();

    ObserverToken addObserver(std::string name, const Ref<Object>& object, Callback callback);
    /// Unknown or already removed tokens are ignored. When this returns, the
    /// observer is not called by any post that has not yet reached it.
    void removeObserver(ObserverToken token);

    void post(const std::string& name, const Ref<Object>& object = nullptr, const Ref<Dictionary>& userInfo = nullptr);
    void post(const Ref<Notification>& notification);

    std::string className() const override { return "NotificationCenter"; }

    NotificationCenter() = default;

private:
    struct Observer;

    std::mutex mutex_;
    ObserverToken nextToken_ = 1;
    std::vector<std::shared_ptr<Observer>> observers_;
};

} // namespace qx
