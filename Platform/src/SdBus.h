// SdBus.h - owners for the system bus library's handles, and the few calls every user makes.
//
// A connection, a message and a slot are each owned by a unique_ptr that
// drops its reference when it goes; SdBusError frees what a failed call
// filled in. A connection is not safe for use from two threads at once:
// whoever holds one uses it alone.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace qx::sdbus {

struct BusUnref {
    // Flushes what is queued, so a last request is not lost with the connection.
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageUnref {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
struct SlotUnref {
    // Dropping a match's slot removes the match from the bus as well.
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};

using Bus = std::unique_ptr<sd_bus, BusUnref>;
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;
using Slot = std::unique_ptr<sd_bus_slot, SlotUnref>;

/// An error a call may fill in; freed with its owner.
class SdBusError {
public:
    SdBusError() = default;
    ~SdBusError() { sd_bus_error_free(&error_); }
    SdBusError(const SdBusError&) = delete;
    SdBusError& operator=(const SdBusError&) = delete;

    sd_bus_error* get() { return &error_; }
    bool isSet() const { return sd_bus_error_is_set(&error_); }
    std::string name() const { return error_.name ? error_.name : ""; }
    std::string message() const { return error_.message ? error_.message : ""; }

private:
    sd_bus_error error_{nullptr, nullptr, 0};  // SD_BUS_ERROR_NULL is a C compound literal
};

/// A new connection to the system bus; nothing (with the negative errno in
/// failure) when there is no bus to connect to.
Bus openSystemBus(int* failure = nullptr);

/// A value of an options dictionary (a{sv}) of a request.
using OptionValue = std::variant<bool, std::uint64_t, std::string>;
using Options = std::vector<std::pair<std::string, OptionValue>>;

/// Appends options as an a{sv} to message; a negative errno on failure.
int appendOptions(sd_bus_message* message, const Options& options);

/// A new method call to destination; nothing when the message cannot be made.
Message newMethodCall(sd_bus* bus, const char* destination, const std::string& path, const char* interface, const char* member);

} // namespace qx::sdbus
