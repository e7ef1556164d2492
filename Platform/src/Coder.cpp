// Coder.cpp - the registry of classes that decode themselves.
#include <qx/Coder.h>

#include <map>
#include <mutex>

namespace qx {

namespace {

struct Registration {
    DecodingFunction decode;
    std::vector<std::string> classes;
};

std::mutex& registryMutex() {
    static std::mutex mutex;
    return mutex;
}

std::map<std::string, Registration>& registry() {
    static std::map<std::string, Registration> table;
    return table;
}

} // namespace

void registerCodingClass(const std::string& className, std::vector<std::string> classes, DecodingFunction decode) {
    if (classes.empty() || classes.front() != className) classes.insert(classes.begin(), className);
    std::lock_guard<std::mutex> lock(registryMutex());
    registry()[className] = Registration{std::move(decode), std::move(classes)};
}

bool codingClass(const std::string& className, DecodingFunction* decode, std::vector<std::string>* classes) {
    std::lock_guard<std::mutex> lock(registryMutex());
    auto it = registry().find(className);
    if (it == registry().end()) return false;
    if (decode) *decode = it->second.decode;
    if (classes) *classes = it->second.classes;
    return true;
}

} // namespace qx
