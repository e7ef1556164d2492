// SdBus.cpp - owners for the system bus library's handles, and the few calls every user makes.
#include "SdBus.h"

namespace qx::sdbus {

Bus openSystemBus(int* failure) {
    sd_bus* bus = nullptr;
    const int result = sd_bus_open_system(&bus);
    if (result < 0) {
        if (failure) *failure = result;
        return nullptr;
    }
    return Bus(bus);
}

int appendOptions(sd_bus_message* message, const Options& options) {
    int r = sd_bus_message_open_container(message, 'a', "{sv}");
    for (const auto& option : options) {
        if (r < 0) return r;
        r = sd_bus_message_open_container(message, 'e', "sv");
        if (r >= 0) r = sd_bus_message_append_basic(message, 's', option.first.c_str());
        if (r < 0) return r;
        if (const auto* flag = std::get_if<bool>(&option.second)) {
            r = sd_bus_message_append(message, "v", "b", static_cast<int>(*flag));
        } else if (const auto* number = std::get_if<std::uint64_t>(&option.second)) {
            r = sd_bus_message_append(message, "v", "t", *number);
        } else {
            r = sd_bus_message_append(message, "v", "s", std::get<std::string>(option.second).c_str());
        }
        if (r >= 0) r = sd_bus_message_close_container(message);
    }
    return r < 0 ? r : sd_bus_message_close_container(message);
}

Message newMethodCall(sd_bus* bus, const char* destination, const std::string& path, const char* interface, const char* member) {
    sd_bus_message* message = nullptr;
    if (sd_bus_message_new_method_call(bus, &message, destination, path.c_str(), interface, member) < 0) return nullptr;
    return Message(message);
}

} // namespace qx::sdbus
