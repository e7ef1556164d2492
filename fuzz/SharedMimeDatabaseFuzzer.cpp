// SharedMimeDatabaseFuzzer.cpp - libFuzzer target for the shared MIME
// database's reader (its files sit in a folder any user can write to).
//
// Input: globs2, aliases, subclasses and then file names, one per line,
// separated by NUL bytes. Besides not crashing: the ancestry of every type a
// name gets starts with its canonical name, holds each type once and stays
// within the reader's bound.
#include "FuzzSupport.h"

#include "Internal/QXSharedMimeDatabase.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

const char* const kFiles[] = {"globs2", "aliases", "subclasses"};

// The reader takes folders, so the input is written to one made once per run
// and removed at exit. A plain array: a string would be gone before the exit
// handler that needs it runs.
char folderPath[] = "/tmp/qx-mime-fuzz-XXXXXX";

void removeFolder() {
    for (const char* name : kFiles) ::unlink((std::string(folderPath) + "/" + name).c_str());
    ::rmdir(folderPath);
}

std::string folder() {
    static const bool made = [] {
        fuzz::require(::mkdtemp(folderPath) != nullptr);
        std::atexit(removeFolder);
        return true;
    }();
    (void)made;
    return folderPath;
}

void writeFile(const std::string& name, std::string_view text) {
    std::ofstream out(folder() + "/" + name, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    std::vector<std::string_view> parts;
    for (int i = 0; i < 3; ++i) {
        const auto end = input.find('\0');
        parts.push_back(input.substr(0, end));
        input = end == std::string_view::npos ? std::string_view() : input.substr(end + 1);
    }
    for (int i = 0; i < 3; ++i) writeFile(kFiles[i], parts[static_cast<std::size_t>(i)]);
    const auto database = QXSharedMimeDatabase::loadFolders({folder()});
    for (std::size_t start = 0; start <= input.size();) {
        const auto end = std::min(input.find('\n', start), input.size());
        for (const auto& type : database->typesForFileName(input.substr(start, end - start))) {
            const auto ancestry = database->typeAndAncestors(type);
            fuzz::require(!ancestry.empty() && ancestry.front() == database->canonicalType(type));
            fuzz::require(ancestry.size() <= 256);
            for (std::size_t i = 0; i < ancestry.size(); ++i)
                fuzz::require(std::count(ancestry.begin(), ancestry.end(), ancestry[i]) == 1);
        }
        start = end + 1;
    }
    return 0;
}
