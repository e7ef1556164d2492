// QXDataReferenceIO.h - the descriptor-level reads and writes of a data
// reference's write-out: positional writes that report every failure,
// resource-fork slices, and the unlinked temporary file the staged pass uses.
#pragma once

#include <qx/UniqueFd.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace qxdataref {

// Linux keeps resource forks in the user namespace of extended attributes.
inline constexpr const char* kResourceForkAttribute = "user.com.apple.ResourceFork";
// The most a resource fork (and a position in it) can be.
inline constexpr std::uint64_t kMaxForkPosition = 0xFFFFFFFFull;

/// Called before every write, truncation and sync of a write-out; a non-zero
/// result is taken as that call's errno. Tests inject faults through it;
/// nothing is installed otherwise. Not thread-safe.
using FaultHook = std::function<int()>;
void setFaultHook(FaultHook hook);

/// Writes all of bytes at offset; 0 or an errno (a short write is retried,
/// a write that makes no progress is ENOSPC).
int writeAt(int fd, const void* bytes, std::size_t length, std::uint64_t offset);
/// Reads up to length bytes at offset; the count, or -1 with errno set.
long long readAt(int fd, void* bytes, std::size_t length, std::uint64_t offset);
int truncateTo(int fd, std::uint64_t length);
int syncFile(int fd);

/// The fork's length (0 when there is none); 0 or an errno.
int forkLength(int fd, std::uint64_t* length);
/// Up to length bytes of the fork at position into bytes; the count, or -1 with errno set.
long long readFork(int fd, std::uint64_t position, void* bytes, std::size_t length);
/// Sets length bytes of the fork at position (growing it as needed); 0 or an errno.
int writeFork(int fd, std::uint64_t position, const void* bytes, std::size_t length);
/// Removes the fork; 0 or an errno (a missing fork is no failure).
int removeFork(int fd);

/// A temporary file for reading and writing, on the file system of path's
/// nearest existing folder, with no name left behind; 0 or an errno.
int openUnlinkedTemporary(const std::string& path, qx::UniqueFd* file);

} // namespace qxdataref
