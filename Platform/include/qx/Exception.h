// Exception.h - the platform's named exception, thrown by file handles.
//
// Only Platform/ throws these, and only where the platform's own objects
// raise (file-handle faults). The library catches them at its boundary and
// turns them into errors whose text is the exception's description.
#pragma once

#include <exception>
#include <string>

namespace qx {

class Exception : public std::exception {
public:
    /// Raised by FileHandle for every failed operation on its descriptor.
    static constexpr const char* FileHandleOperationException = "NSFileHandleOperationException";

    Exception(std::string name, std::string reason) : name_(std::move(name)), reason_(std::move(reason)) {}

    /// A file-handle fault: "*** -[FileHandle <operation>]: <strerror(errnum)>".
    static Exception fileHandleOperation(const char* operation, int errnum);

    const std::string& name() const { return name_; }
    const std::string& reason() const { return reason_; }
    /// The text shown for the exception: its reason.
    const std::string& description() const { return reason_; }
    const char* what() const noexcept override { return reason_.c_str(); }

private:
    std::string name_;
    std::string reason_;
};

} // namespace qx
