// NotificationCenter.cpp - observer registry and synchronous delivery.
#include <qx/NotificationCenter.h>

#include <algorithm>
#include <atomic>

namespace qx {

struct NotificationCenter::Observer {
    ObserverToken token;
    std::string name;     // empty: any name
    bool anySender;
    WeakRef<Object> sender;
    Callback callback;
    std::atomic<bool> removed{false};

    bool matches(const std::string& postedName, const Ref<Object>& postedSender) const {
        if (!name.empty() && name != postedName) return false;
        if (anySender) return true;
        if (!postedSender) return false;
        const auto s = sender.lock();
        return s && s.get() == postedSender.get();
    }
};

Ref<NotificationCenter> NotificationCenter::defaultCenter() {
    // Never destroyed: observers may be removed by objects that outlive exit().
    static Ref<NotificationCenter>* const center = new Ref<NotificationCenter>(std::make_shared<NotificationCenter>());
    return *center;
}

NotificationCenter::ObserverToken NotificationCenter::addObserver(std::string name, const Ref<Object>& object,
                                                                  Callback callback) {
    auto observer = std::make_shared<Observer>();
    observer->name = std::move(name);
    observer->anySender = object == nullptr;
    observer->sender = object;
    observer->callback = std::move(callback);
    std::lock_guard<std::mutex> lock(mutex_);
    observer->token = nextToken_++;
    observers_.push_back(observer);
    return observer->token;
}

void NotificationCenter::removeObserver(ObserverToken token) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = std::find_if(observers_.begin(), observers_.end(), [&](const auto& o) { return o->token == token; });
    if (it == observers_.end()) return;
    (*it)->removed.store(true);
    observers_.erase(it);
}

void NotificationCenter::post(const std::string& name, const Ref<Object>& object, const Ref<Dictionary>& userInfo) {
    post(std::make_shared<Notification>(name, object, userInfo));
}

void NotificationCenter::post(const Ref<Notification>& notification) {
    if (!notification) return;
    std::vector<std::shared_ptr<Observer>> targets;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& o : observers_)
            if (o->matches(notification->name(), notification->object())) targets.push_back(o);
    }
    // Called without the lock, so that callbacks may post, add and remove.
    for (const auto& o : targets)
        if (!o->removed.load() && o->callback) o->callback(notification);
}

} // namespace qx
