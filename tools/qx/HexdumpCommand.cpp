// HexdumpCommand.cpp - `qx hexdump`: show a file's bytes as hexadecimal and text.
#include "HexdumpCommand.h"

#include "Diagnostics.h"
#include "FileIO.h"

#include <QXFoundation/QXHexFormatter.h>

#include <qx/UniqueFd.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qxtool {

namespace {

struct HexdumpOptions {
    std::string input;
    std::uint64_t offset = 0;
    std::uint64_t length = std::numeric_limits<std::uint64_t>::max();
};

constexpr std::size_t kBytesPerLine = 16;
constexpr std::size_t kBlock = 4096 * kBytesPerLine;  // bytes read and printed at a time

std::string posixReason(int code) { return qx::Error::create(qx::NSPOSIXErrorDomain, code)->localizedDescription(); }

// Reads up to length bytes, retrying short reads; -1 (errno set) on failure.
ssize_t readFully(int fd, unsigned char* buffer, std::size_t length) {
    std::size_t done = 0;
    while (done < length) {
        const ssize_t n = ::read(fd, buffer + done, length - done);
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        done += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

// Appends the lines for bytes that start at file offset `offset`.
void formatLines(const QXHexFormatter& formatter, const unsigned char* bytes, std::size_t length,
                 std::uint64_t offset, std::string& out) {
    for (std::size_t i = 0; i < length; i += kBytesPerLine) {
        const std::size_t n = length - i < kBytesPerLine ? length - i : kBytesPerLine;
        qx::Ref<qx::String> text;
        const auto hex = formatter.hexStringForData(qx::Data::withBytes(bytes + i, n), &text);
        char prefix[32];
        std::snprintf(prefix, sizeof prefix, "%08" PRIx64 "  ", offset + i);
        out += prefix;
        out += hex->utf8();
        out.append((kBytesPerLine - n) * 3, ' ');
        out += ' ';
        out += text->utf8();
        out += '\n';
    }
}

int runHexdump(const HexdumpOptions& options) {
    const std::string name = inputDisplayName(options.input);
    int fd = STDIN_FILENO;
    qx::UniqueFd file;
    if (options.input != "-") {
        file.reset(::open(options.input.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file) return reportFailure(name, posixReason(errno));
        fd = file.get();
    }
    struct stat st;
    if (::fstat(fd, &st) != 0) return reportFailure(name, posixReason(errno));
    if (S_ISDIR(st.st_mode)) return reportFailure(name, posixReason(EISDIR));

    std::vector<unsigned char> buffer(kBlock);
    // Get to the offset: seek where the input allows it, else read past.
    if (S_ISREG(st.st_mode)) {
        const auto size = static_cast<std::uint64_t>(st.st_size);
        if (options.offset > size)
            return reportFailure(name, "offset " + std::to_string(options.offset) + " is beyond the end of the file (" +
                                           std::to_string(size) + " bytes)");
        if (::lseek(fd, static_cast<off_t>(options.offset), SEEK_SET) < 0) return reportFailure(name, posixReason(errno));
    } else {
        std::uint64_t skipped = 0;
        while (skipped < options.offset) {
            const std::uint64_t want = options.offset - skipped < kBlock ? options.offset - skipped : kBlock;
            const ssize_t n = readFully(fd, buffer.data(), static_cast<std::size_t>(want));
            if (n < 0) return reportFailure(name, posixReason(errno));
            if (n == 0)
                return reportFailure(name, "offset " + std::to_string(options.offset) +
                                               " is beyond the end of the input (" + std::to_string(skipped) + " bytes)");
            skipped += static_cast<std::uint64_t>(n);
        }
    }

    qx::Ref<qx::Error> error;
    auto output = OutputFile::open("-", &error);
    if (!output) return reportFailure(outputDisplayName("-"), reasonFromError(error));
    const auto formatter = QXHexFormatter::formatter();
    std::uint64_t position = options.offset;
    std::uint64_t remaining = options.length;
    std::string text;
    while (remaining > 0) {
        const std::size_t want = remaining < kBlock ? static_cast<std::size_t>(remaining) : kBlock;
        const ssize_t n = readFully(fd, buffer.data(), want);
        if (n < 0) return reportFailure(name, posixReason(errno));
        if (n == 0) break;
        text.clear();
        formatLines(*formatter, buffer.data(), static_cast<std::size_t>(n), position, text);
        if (!output->write(text.data(), text.size(), &error))
            return reportFailure(outputDisplayName("-"), reasonFromError(error));
        position += static_cast<std::uint64_t>(n);
        remaining -= static_cast<std::uint64_t>(n);
        if (static_cast<std::size_t>(n) < want) break;
    }
    if (!output->commit(&error)) return reportFailure(outputDisplayName("-"), reasonFromError(error));
    return kExitSuccess;
}

// Accepts a byte count in decimal or with "0x" in hexadecimal, and leaves it
// in decimal for the conversion; anything else (a sign, a fraction, more than
// 64 bits) is an argument error.
std::string normalizeByteCount(std::string& text) {
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char* first = text.data() + (hex ? 2 : 0);
    const char* last = text.data() + text.size();
    std::uint64_t value = 0;
    const auto result = std::from_chars(first, last, value, hex ? 16 : 10);
    if (first == last || result.ec != std::errc() || result.ptr != last)
        return "expected a byte count (decimal, or hexadecimal after 0x) up to 2^64-1";
    text = std::to_string(value);
    return {};
}

} // namespace

void addHexdumpCommand(CLI::App& app, Action& selected) {
    auto options = std::make_shared<HexdumpOptions>();
    auto* hexdump = app.add_subcommand("hexdump", "Show a file's bytes as hexadecimal and text");
    hexdump->add_option("FILE", options->input, "File to show (\"-\": standard input)")->required();
    hexdump->add_option("--offset", options->offset, "First byte to show (default 0)")->type_name("N")->transform(CLI::Validator(normalizeByteCount, "N"));
    hexdump->add_option("--length", options->length, "Number of bytes to show (default: to the end)")
        ->type_name("N")
        ->transform(CLI::Validator(normalizeByteCount, "N"));
    hexdump->callback([&selected, options] {
        selected = [options] {
            try {
                return runHexdump(*options);
            } catch (const std::bad_alloc&) {
                return reportFailure(inputDisplayName(options->input), "not enough memory");
            }
        };
    });
}

} // namespace qxtool
