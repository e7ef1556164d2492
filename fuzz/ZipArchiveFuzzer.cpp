// ZipArchiveFuzzer.cpp - libFuzzer target for the ZIP reader behind `qx zip`.
//
// The input is an archive: it is written to a memory file, opened, and every
// entry listed and extracted into memory (at most 64 MiB per input, so that
// a small input claiming huge entries stays fast). Besides not crashing, an
// entry that decodes must have produced exactly its recorded size, and a
// refused open or entry must say why.
#include "ZipArchive.h"

#include <algorithm>
#include "FuzzSupport.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// A memory file holding the input, closed with the object.
class MemoryFile {
public:
    MemoryFile(const std::uint8_t* data, std::size_t size) : fd_(::memfd_create("zip-fuzz", MFD_CLOEXEC)) {
        fuzz::require(fd_ >= 0);
        for (std::size_t at = 0; at < size;) {
            const ssize_t n = ::write(fd_, data + at, size - at);
            fuzz::require(n > 0);
            at += static_cast<std::size_t>(n);
        }
    }
    ~MemoryFile() { ::close(fd_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

private:
    int fd_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const MemoryFile file(data, size);
    std::string reason;
    const auto archive = qxtool::ZipArchive::open(file.path(), reason);
    if (!archive) {
        fuzz::require(!reason.empty());
        return 0;
    }
    std::uint64_t budget = 64u << 20;
    for (const auto& entry : archive->entries()) {
        (void)qxtool::zipMethodName(entry.method);
        if (entry.isDirectory() || !qxtool::zipEntryRefusal(entry).empty()) continue;
        std::uint64_t produced = 0;
        bool overBudget = false;
        auto sink = [&](const std::uint8_t* bytes, std::size_t length, std::string& why) {
            fuzz::require(length == 0 || bytes != nullptr);
            produced += length;
            if (produced > budget) {
                overBudget = true;
                why = "over the fuzzer's budget";
                return false;
            }
            return true;
        };
        reason.clear();
        if (qxtool::decodeZipEntry(*archive, entry, sink, reason)) {
            fuzz::require(produced == entry.uncompressedSize);
        } else {
            fuzz::require(!reason.empty());
            if (overBudget) break;
        }
        budget -= std::min(budget, produced);
    }
    return 0;
}
