// QXDirectoryEntries.h - the entries of an open directory, read in large slices.
//
// getdents64 with a big buffer, rather than readdir: scanning and watching
// whole trees spend most of their time here, and the entry types it gives
// spare a stat per entry where only folders matter.
#pragma once

#include <cstddef>
#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

/// Calls visit(name, type) for each entry of the directory open as fd except
/// "." and ".."; type is a DT_ value (DT_UNKNOWN where the file system does
/// not say). buffer is scratch space reused between calls.
template <class Visit> void QXForEachDirectoryEntry(int fd, std::vector<char>& buffer, Visit&& visit) {
    // struct linux_dirent64: ino (8), off (8), reclen (2), type (1), name.
    constexpr std::size_t kReclenOffset = 16, kTypeOffset = 18, kNameOffset = 19;
    if (buffer.size() < 32 * 1024) buffer.resize(32 * 1024);
    for (;;) {
        const long length = ::syscall(SYS_getdents64, fd, buffer.data(), buffer.size());
        if (length <= 0) return;
        for (long offset = 0; offset < length;) {
            const char* entry = buffer.data() + offset;
            unsigned short reclen;
            std::memcpy(&reclen, entry + kReclenOffset, sizeof reclen);
            offset += reclen;
            const char* name = entry + kNameOffset;
            if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0))) continue;
            visit(name, static_cast<unsigned char>(entry[kTypeOffset]));
        }
    }
}
