// ZipCommand.cpp - `qx zip`: list and extract ZIP archives, legacy methods included.
#include "ZipCommand.h"

#include "Diagnostics.h"
#include "FileIO.h"
#include "ZipArchive.h"

#include "Internal/QXSafeFileWriter.h"

#include <qx/UniqueFd.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qxtool {

namespace {

struct ZipOptions {
    std::string archive;
    std::string directory = ".";
    std::vector<std::string> names;
};

// The parts of an entry's name as a relative path; false when the name is
// absolute or climbs out of the destination. Backslashes count as
// separators too: old DOS archivers wrote them.
bool safeComponents(const std::string& name, std::vector<std::string>& parts) {
    parts.clear();
    if (name.empty() || name[0] == '/' || name[0] == '\\' || name.find('\0') != std::string::npos) return false;
    std::string part;
    for (std::size_t i = 0; i <= name.size(); ++i) {
        if (i == name.size() || name[i] == '/' || name[i] == '\\') {
            if (part == "..") return false;
            if (!part.empty() && part != ".") parts.push_back(part);
            part.clear();
        } else {
            part += name[i];
        }
    }
    return !parts.empty();
}

// Opens (creating when missing) the directory parts[0..count) under base,
// never following a symbolic link.
qx::UniqueFd openDirectories(int base, const std::vector<std::string>& parts, std::size_t count, std::string& reason) {
    qx::UniqueFd current(::fcntl(base, F_DUPFD_CLOEXEC, 0));
    for (std::size_t i = 0; i < count && current.get() >= 0; ++i) {
        int fd = ::openat(current.get(), parts[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0 && errno == ENOENT) {
            // A failed mkdir is reported below like a failed open, never taken as the folder.
            if (::mkdirat(current.get(), parts[i].c_str(), 0755) == 0 || errno == EEXIST)
                fd = ::openat(current.get(), parts[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        }
        if (fd < 0) {
            reason = "cannot make directory \"" + parts[i] + "\": " +
                     (errno == ELOOP || errno == ENOTDIR ? "a file or symbolic link is in the way" : std::strerror(errno));
            return qx::UniqueFd();
        }
        current.reset(fd);
    }
    if (current.get() < 0 && reason.empty()) reason = std::strerror(errno);
    return current;
}

// Extracts one file entry; false and the reason on failure, leaving nothing behind.
bool extractEntry(const ZipArchive& archive, const ZipEntry& entry, int destination, std::string& reason) {
    std::vector<std::string> parts;
    if (!safeComponents(entry.name, parts)) {
        reason = "refusing a name that is absolute or leads outside the destination";
        return false;
    }
    if (auto refusal = zipEntryRefusal(entry); !refusal.empty()) {
        reason = refusal;
        return false;
    }
    if (entry.isDirectory()) return openDirectories(destination, parts, parts.size(), reason).get() >= 0;

    qx::UniqueFd parent = openDirectories(destination, parts, parts.size() - 1, reason);
    if (!parent) return false;
    // Permission bits from Unix archivers; everything else gets the usual default.
    const bool unixMade = (entry.versionMadeBy >> 8) == 3 && (entry.externalAttributes >> 16) != 0;
    const mode_t mode = unixMade ? static_cast<mode_t>((entry.externalAttributes >> 16) & 0777) : 0644;
    QXSafeFileWriter file;
    if (const int failure = file.openAt(parent.get(), parts.back(), mode); failure != 0) {
        reason = std::string("cannot create a file: ") + std::strerror(failure);
        return false;
    }
    const auto write = [&](const std::uint8_t* bytes, std::size_t n, std::string& why) {
        const int failure = file.writeAll(bytes, n);
        if (failure != 0) why = std::string("cannot write: ") + std::strerror(failure);
        return failure == 0;
    };
    if (!decodeZipEntry(archive, entry, write, reason)) return false;  // the writer removes its temporary
    if (const int failure = file.commit(); failure != 0) {
        reason = std::string("cannot rename into place: ") + std::strerror(failure);
        return false;
    }
    return true;
}

int runList(const ZipOptions& options) {
    std::string reason;
    auto archive = ZipArchive::open(options.archive, reason);
    if (!archive) return reportFailure(inputDisplayName(options.archive), reason);
    std::string text;
    char line[96];
    std::snprintf(line, sizeof line, "%12s %12s  %-9s %-8s  %s\n", "Length", "Size", "Method", "CRC-32", "Name");
    text += line;
    for (const auto& e : archive->entries()) {
        std::snprintf(line, sizeof line, "%12" PRIu64 " %12" PRIu64 "  %-9s %08" PRIx32 "  ", e.uncompressedSize,
                      e.compressedSize, zipMethodName(e.method).c_str(), e.crc32);
        text += line;
        text += e.name;
        if (e.isEncrypted()) text += "  (encrypted)";
        text += '\n';
    }
    qx::Ref<qx::Error> error;
    auto output = OutputFile::open("-", &error);
    if (!output || !output->write(text.data(), text.size(), &error) || !output->commit(&error))
        return reportFailure(outputDisplayName("-"), reasonFromError(error));
    return kExitSuccess;
}

int runExtract(const ZipOptions& options) {
    const std::string archiveName = inputDisplayName(options.archive);
    std::string reason;
    auto archive = ZipArchive::open(options.archive, reason);
    if (!archive) return reportFailure(archiveName, reason);

    bool failed = false;
    std::vector<const ZipEntry*> selected;
    if (options.names.empty()) {
        for (const auto& e : archive->entries()) selected.push_back(&e);
    } else {
        for (const auto& name : options.names) {
            bool found = false;
            for (const auto& e : archive->entries()) {
                if (e.name == name) {
                    selected.push_back(&e);
                    found = true;
                }
            }
            if (!found) {
                reportFailure(archiveName + ": " + name, "no such entry in the archive");
                failed = true;
            }
        }
    }

    std::error_code ec;
    std::filesystem::create_directories(options.directory, ec);
    const qx::UniqueFd destination(::open(options.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (destination.get() < 0) return reportFailure(options.directory, std::strerror(errno));

    for (const ZipEntry* entry : selected) {
        if (!extractEntry(*archive, *entry, destination.get(), reason)) {
            reportFailure(archiveName + ": " + entry->name, reason);
            failed = true;
        }
    }
    return failed ? kExitFailure : kExitSuccess;
}

} // namespace

void addZipCommand(CLI::App& app, Action& selected) {
    auto options = std::make_shared<ZipOptions>();
    auto* zip = app.add_subcommand("zip", "List or extract ZIP archives, shrunk and imploded entries included");
    zip->require_subcommand(1);

    auto* list = zip->add_subcommand("list", "List the entries of a ZIP archive");
    list->add_option("ARCHIVE", options->archive, "The archive")->required();
    list->callback([&selected, options] { selected = [options] { return runList(*options); }; });

    auto* extract = zip->add_subcommand("extract", "Extract entries of a ZIP archive");
    extract->add_option("ARCHIVE", options->archive, "The archive")->required();
    extract->add_option("-d,--directory", options->directory, "Where to extract to (default: the current directory)")
        ->type_name("DIR");
    extract->add_option("NAME", options->names, "Entries to extract (default: all)");
    extract->callback([&selected, options] {
        selected = [options] {
            try {
                return runExtract(*options);
            } catch (const std::bad_alloc&) {
                return reportFailure(inputDisplayName(options->archive), "not enough memory");
            }
        };
    });
}

} // namespace qxtool
