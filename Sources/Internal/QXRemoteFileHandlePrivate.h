// QXRemoteFileHandlePrivate.h - what the units of QXRemoteFileHandle share:
// the local, the resource-fork and the HTTP paths.
#pragma once

#include <QXFoundation/QXRemoteFileHandle.h>

#include <cstdint>
#include <functional>
#include <vector>

namespace qxrfh {

// Linux keeps resource forks in the user namespace of extended attributes.
inline constexpr const char* kRsrcForkAttribute = "user.com.apple.ResourceFork";
// The most one read of a local descriptor asks for.
inline constexpr std::uint64_t kMaxReadBuffer = 0x100000;

qx::Ref<qx::Error> posixError(int errnum, const qx::Ref<qx::URL>& url = nullptr);

// Runs work on a new thread of its own; false when no thread can be had.
bool startThread(const char* name, std::function<void()> work);

// The whole fork into value; 0, or the errno (ENODATA when there is none).
int readWholeFork(int fd, std::vector<std::uint8_t>& value);

// Whether the scheme is http or https, compared without case.
bool isHTTPScheme(const std::string& scheme);

} // namespace qxrfh
