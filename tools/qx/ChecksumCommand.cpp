// ChecksumCommand.cpp - `qx checksum`: checksums and digests of files.
#include "ChecksumCommand.h"

#include "Diagnostics.h"
#include "FileIO.h"

#include <QXFoundation/QXChecksum.h>

#include <qx/UniqueFd.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qxtool {

namespace {

struct ChecksumOptions {
    QXChecksumAlgorithm algorithm = QXChecksumAlgorithmSHA256;
    std::vector<std::string> files;
};

const std::map<std::string, QXChecksumAlgorithm> kAlgorithms = {
    {"crc32", QXChecksumAlgorithmCRC32},   {"adler32", QXChecksumAlgorithmAdler32}, {"sha1", QXChecksumAlgorithmSHA1},
    {"sha224", QXChecksumAlgorithmSHA224}, {"sha256", QXChecksumAlgorithmSHA256},   {"sha384", QXChecksumAlgorithmSHA384},
    {"sha512", QXChecksumAlgorithmSHA512},
};

// Small enough to stay in the cache between the read and the hashing.
constexpr std::size_t kReadLength = 128 * 1024;

// The checksum of one file as hexadecimal, or empty and the reason.
std::string checksumOfFile(const std::string& path, QXChecksumAlgorithm algorithm, std::vector<std::uint8_t>& buffer,
                           std::string& reason) {
    int fd = STDIN_FILENO;
    qx::UniqueFd file;
    if (path != "-") {
        file.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file) {
            reason = std::strerror(errno);
            return {};
        }
        fd = file.get();
        ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    }
    auto checksum = QXChecksum::initWithAlgorithm(algorithm);
    for (;;) {
        const ssize_t n = ::read(fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) reason = std::strerror(errno);
        if (n <= 0) break;
        checksum->updateWithInputData(buffer.data(), static_cast<std::uint64_t>(n));
    }
    file.reset();
    if (!reason.empty()) return {};

    return checksumText(checksum->checksumData(), algorithm);
}

int runChecksum(const ChecksumOptions& options) {
    std::vector<std::uint8_t> buffer(kReadLength);
    qx::Ref<qx::Error> error;
    auto output = OutputFile::open("-", &error);
    if (!output) return reportFailure(outputDisplayName("-"), reasonFromError(error));
    bool failed = false;
    for (const auto& path : options.files) {
        std::string reason;
        const std::string sum = checksumOfFile(path, options.algorithm, buffer, reason);
        if (sum.empty()) {
            reportFailure(inputDisplayName(path), reason);
            failed = true;
            continue;
        }
        const std::string line = sum + "  " + path + "\n";
        if (!output->write(line.data(), line.size(), &error)) return reportFailure(outputDisplayName("-"), reasonFromError(error));
    }
    if (!output->commit(&error)) return reportFailure(outputDisplayName("-"), reasonFromError(error));
    return failed ? kExitFailure : kExitSuccess;
}

} // namespace

const std::map<std::string, QXChecksumAlgorithm>& checksumAlgorithmsByName() { return kAlgorithms; }

std::string checksumText(const qx::Ref<qx::Data>& sum, QXChecksumAlgorithm algorithm) {
    if (!sum) return {};
    std::vector<std::uint8_t> bytes(sum->bytes(), sum->bytes() + sum->length());
    if ((algorithm == QXChecksumAlgorithmCRC32 || algorithm == QXChecksumAlgorithmAdler32) && bytes.size() == 4) {
        // The library gives the 32-bit value in machine order; print it as a number.
        std::uint32_t value = 0;
        std::memcpy(&value, bytes.data(), sizeof value);
        for (int i = 0; i < 4; ++i) bytes[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
    }
    static const char* digits = "0123456789abcdef";
    std::string text;
    for (auto b : bytes) {
        text += digits[b >> 4];
        text += digits[b & 15];
    }
    return text;
}

void addChecksumCommand(CLI::App& app, Action& selected) {
    auto options = std::make_shared<ChecksumOptions>();
    auto* checksum = app.add_subcommand("checksum", "Print checksums or digests of files");
    checksum->add_option("-a,--algorithm", options->algorithm, "crc32, adler32, sha1, sha224, sha256, sha384 or sha512")
        ->required()
        ->transform(CLI::CheckedTransformer(kAlgorithms, CLI::ignore_case));
    checksum->add_option("FILE", options->files, "Files to sum (\"-\": standard input)")->required();
    checksum->callback([&selected, options] { selected = [options] { return runChecksum(*options); }; });
}

} // namespace qxtool
