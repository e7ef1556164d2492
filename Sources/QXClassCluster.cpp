// QXClassCluster.cpp - the process-wide table of class-cluster factories.
#include <QXFoundation/QXClassCluster.h>

#include <map>
#include <memory>
#include <mutex>

namespace {

class Factory final : public QXClassClusterFactory {
public:
    explicit Factory(std::string name) : name_(std::move(name)) {}
    const std::any* primitive(const std::string& initializer) const override {
        auto it = primitives_.find("QXClassCluster_Primitive_" + initializer);
        return it == primitives_.end() ? nullptr : &it->second;
    }
    const std::string& name() const override { return name_; }
    void setPrimitive(const std::string& initializer, std::any callback) {
        primitives_["QXClassCluster_Primitive_" + initializer] = std::move(callback);
    }

private:
    std::string name_;
    std::map<std::string, std::any> primitives_;
};

// Factories live until the process ends: a callback may be asked for at any
// time, also while other libraries are being unloaded.
std::mutex& tableMutex() {
    static auto* mutex = new std::mutex;
    return *mutex;
}

std::map<std::type_index, std::unique_ptr<Factory>>& table() {
    static auto* factories = new std::map<std::type_index, std::unique_ptr<Factory>>;
    return *factories;
}

} // namespace

void QXCreateClassCluster(std::type_index cls, const std::string& className, const std::string& initializer,
                          std::any callback) {
    std::lock_guard<std::mutex> lock(tableMutex());
    auto& slot = table()[cls];
    if (!slot) slot = std::make_unique<Factory>("QXClassClusterFactory_" + className);
    slot->setPrimitive(initializer, std::move(callback));
}

const QXClassClusterFactory* QXClassClusterFactoryForClass(std::type_index cls) {
    std::lock_guard<std::mutex> lock(tableMutex());
    auto it = table().find(cls);
    return it == table().end() ? nullptr : it->second.get();
}
