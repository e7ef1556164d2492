// BytesCommand.cpp - `qx bytes find|edit` over QXDataReference.
#include "BytesCommand.h"

#include "Diagnostics.h"

#include <QXFoundation/QXDataReference.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace qxtool {

namespace {

struct FindOptions {
    std::string file, pattern;
    bool hex = false, ignoreCase = false, backwards = false, all = false, fork = false;
    std::string offset, length;
};

struct EditOptions {
    std::string file;
    bool fork = false;
    CLI::Option* insert = nullptr;
    CLI::Option* remove = nullptr;
    CLI::Option* replace = nullptr;
    const CLI::App* command = nullptr;
};

struct ByteEdit {
    std::uint64_t offset = 0, length = 0;
    std::vector<std::uint8_t> bytes;
};

// A decimal number, or hexadecimal after "0x"; nothing when it is not one.
std::optional<std::uint64_t> parseNumber(const std::string& text) {
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const std::string digits = hex ? text.substr(2) : text;
    if (digits.empty() || digits.find_first_not_of(hex ? "0123456789abcdefABCDEF" : "0123456789") != std::string::npos)
        return std::nullopt;
    errno = 0;
    const unsigned long long value = std::strtoull(digits.c_str(), nullptr, hex ? 16 : 10);
    if (errno == ERANGE) return std::nullopt;
    return value;
}

std::optional<std::vector<std::uint8_t>> parseHex(const std::string& text) {
    std::string digits;
    for (char c : text)
        if (c != ' ' && c != ':') digits += c;
    if (digits.empty() || digits.size() % 2 != 0 || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return std::nullopt;
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}

// The file as a reference, or a one-line failure.
QXDataReference::Ref openFile(const std::string& path, bool fork, std::string& reason) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        reason = std::strerror(errno);
        return nullptr;
    }
    if (!S_ISREG(info.st_mode)) {
        reason = "not a regular file";
        return nullptr;
    }
    auto reference = QXDataReference::dataReferenceWithURL(qx::URL::fileURLWithPath(path), fork);
    if (!reference->URL() || (!fork && reference->size() != static_cast<std::uint64_t>(info.st_size))) {
        reason = "cannot be read";
        return nullptr;
    }
    return reference;
}

int runFind(const FindOptions& options) {
    const std::string name = inputDisplayName(options.file);
    std::string reason;
    auto reference = openFile(options.file, options.fork, reason);
    if (!reference) return reportFailure(name, reason);

    std::vector<std::uint8_t> pattern(options.pattern.begin(), options.pattern.end());
    if (options.hex) {
        auto bytes = parseHex(options.pattern);
        if (!bytes) return reportFailure(name, "PATTERN is not hexadecimal bytes: " + options.pattern);
        pattern = *bytes;
    }
    if (pattern.empty()) return reportFailure(name, "PATTERN is empty");
    if (pattern.size() > 0x100000) return reportFailure(name, "PATTERN is longer than 1 MiB");

    const std::uint64_t size = reference->size();
    const auto offset = options.offset.empty() ? std::optional<std::uint64_t>(0) : parseNumber(options.offset);
    if (!offset) return reportFailure(name, "--offset is not a number: " + options.offset);
    if (*offset > size) return reportFailure(name, "--offset is beyond the end (" + std::to_string(size) + " bytes)");
    const auto length = options.length.empty() ? std::optional<std::uint64_t>(size - *offset) : parseNumber(options.length);
    if (!length) return reportFailure(name, "--length is not a number: " + options.length);
    if (*length > size - *offset) return reportFailure(name, "--offset and --length reach beyond the end (" + std::to_string(size) + " bytes)");

    const auto needle = qx::Data::withBytes(pattern.data(), pattern.size());
    const std::uint64_t m = pattern.size();
    const std::uint64_t caseOption = options.ignoreCase ? std::uint64_t{QXDataReferenceCaseInsensitiveSearch} : 0;
    // A match is told by its length: a scan without one answers length 0.
    const auto search = [&](std::uint64_t from, std::uint64_t to) -> std::optional<std::uint64_t> {
        if (to < from || to - from < m) return std::nullopt;
        if (!options.backwards) {
            const QXDataRange found = reference->fastSearch(needle, caseOption, QXDataRange{from, to - from});
            return found.length > 0 ? std::optional<std::uint64_t>(found.location) : std::nullopt;
        }
        // The backwards scan never tries the candidate that starts at the
        // range's location; that one is asked for separately.
        const QXDataRange found = reference->fastSearch(needle, caseOption | QXDataReferenceBackwardsSearch, QXDataRange{from, to - from});
        if (found.length > 0) return found.location;
        const QXDataRange atStart = reference->fastSearch(needle, caseOption, QXDataRange{from, m});
        return atStart.length > 0 ? std::optional<std::uint64_t>(from) : std::nullopt;
    };

    std::string out;
    std::uint64_t from = *offset, to = *offset + *length;
    while (const auto match = search(from, to)) {
        out += std::to_string(*match) + "\n";
        if (!options.all) break;
        if (options.backwards) {
            if (*match + m == 0) break;
            to = *match + m - 1;  // every match starting before this one, overlapping ones included
        } else {
            from = *match + 1;
        }
    }
    if (out.empty()) return kExitFailure;  // like grep: no match is status 1 without a message
    std::fwrite(out.data(), 1, out.size(), stdout);
    return std::fflush(stdout) == 0 ? kExitSuccess : reportFailure("-", std::strerror(errno));
}

// The edits in command-line order, or a reason.
std::optional<std::vector<ByteEdit>> collectEdits(const EditOptions& options, std::string& reason) {
    std::vector<ByteEdit> edits;
    std::size_t inserts = 0, removes = 0, replaces = 0;
    for (const CLI::Option* option : options.command->parse_order()) {
        std::size_t* index = option == options.insert ? &inserts : option == options.remove ? &removes : option == options.replace ? &replaces : nullptr;
        if (!index) continue;
        const std::string text = option->results().at((*index)++);
        const auto colon = text.find(':');
        const auto offset = colon == std::string::npos ? std::nullopt : parseNumber(text.substr(0, colon));
        ByteEdit edit;
        if (offset) edit.offset = *offset;
        const std::string rest = colon == std::string::npos ? "" : text.substr(colon + 1);
        bool valid = offset.has_value();
        if (valid && option == options.remove) {
            const auto length = parseNumber(rest);
            valid = length.has_value();
            if (valid) edit.length = *length;
        } else if (valid) {
            auto bytes = parseHex(rest);
            valid = bytes.has_value();
            if (valid) edit.bytes = std::move(*bytes);
            if (option == options.replace) edit.length = edit.bytes.size();
        }
        if (!valid) {
            reason = "cannot read the edit " + option->get_name() + " " + text;
            return std::nullopt;
        }
        edits.push_back(std::move(edit));
    }
    if (edits.empty()) reason = "no edits given";
    return edits;
}

int runEdit(const EditOptions& options) {
    const std::string name = inputDisplayName(options.file);
    std::string reason;
    auto edits = collectEdits(options, reason);
    if (!reason.empty()) return reportFailure(name, reason);
    auto reference = openFile(options.file, options.fork, reason);
    if (!reference) return reportFailure(name, reason);

    // Checked against the sizes the edits leave before anything is written.
    std::uint64_t size = reference->size();
    for (const auto& edit : *edits) {
        if (edit.offset > size || edit.length > size - edit.offset)
            return reportFailure(name, "edit at " + std::to_string(edit.offset) + " reaches beyond the end (" + std::to_string(size) +
                                           " bytes)");
        size = size - edit.length + edit.bytes.size();
    }
    const auto url = qx::URL::fileURLWithPath(options.file);
    for (const auto& edit : *edits) {
        if (!reference) reference = QXDataReference::dataReferenceWithURL(url, options.fork);
        reference->replaceBytesInRange(QXDataRange{edit.offset, edit.length}, edit.bytes.data(), edit.bytes.size());
        qx::Ref<qx::Error> error;
        if (!reference->writeToURL(url, options.fork, &error)) return reportFailure(name, reasonFromError(error));
        reference.reset();
    }
    return kExitSuccess;
}

template <class Options> int guarded(int (*action)(const Options&), const Options& options) {
    try {
        return action(options);
    } catch (const std::bad_alloc&) {
        return reportFailure(inputDisplayName(options.file), "not enough memory");
    } catch (const std::exception& e) {
        return reportFailure(inputDisplayName(options.file), e.what());
    }
}

} // namespace

void addBytesCommand(CLI::App& app, Action& selected) {
    auto* bytes = app.add_subcommand("bytes", "Search and edit a file's bytes in place");
    bytes->require_subcommand(1);

    auto find = std::make_shared<FindOptions>();
    auto* findCommand = bytes->add_subcommand("find", "Print the offsets of a pattern");
    findCommand->add_option("FILE", find->file, "File to search")->required();
    findCommand->add_option("PATTERN", find->pattern, "Text, or hexadecimal bytes with --hex")->required();
    findCommand->add_flag("--hex", find->hex, "PATTERN is hexadecimal bytes");
    findCommand->add_flag("--ignore-case,-i", find->ignoreCase, "Ignore the case of Mac OS Roman letters");
    findCommand->add_flag("--backwards", find->backwards, "Find the last match instead");
    findCommand->add_option("--offset", find->offset, "Where the searched range starts")->type_name("N");
    findCommand->add_option("--length", find->length, "How long the searched range is")->type_name("N");
    findCommand->add_flag("--all", find->all, "Print every match");
    findCommand->add_flag("--fork", find->fork, "Search the resource fork");
    findCommand->callback([&selected, find] { selected = [find] { return guarded(runFind, *find); }; });

    auto edit = std::make_shared<EditOptions>();
    auto* editCommand = bytes->add_subcommand("edit", "Insert, delete and replace bytes, in the order given");
    editCommand->add_option("FILE", edit->file, "File to edit in place")->required();
    edit->insert = editCommand->add_option("--insert", "Insert bytes")->type_name("OFFSET:HEX")->allow_extra_args(false);
    edit->remove = editCommand->add_option("--delete", "Delete bytes")->type_name("OFFSET:LENGTH")->allow_extra_args(false);
    edit->replace = editCommand->add_option("--replace", "Overwrite bytes")->type_name("OFFSET:HEX")->allow_extra_args(false);
    for (auto* option : {edit->insert, edit->remove, edit->replace}) option->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    editCommand->add_flag("--fork", edit->fork, "Edit the resource fork");
    edit->command = editCommand;
    editCommand->callback([&selected, edit] { selected = [edit] { return guarded(runEdit, *edit); }; });
}

} // namespace qxtool
