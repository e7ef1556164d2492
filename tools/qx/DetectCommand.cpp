// DetectCommand.cpp - `qx detect`: which compression format files are in.
#include "DetectCommand.h"

#include "Diagnostics.h"
#include "FileIO.h"

#include <QXFoundation/QXDecompressor.h>

#include <qx/UniqueFd.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qxtool {

namespace {

const char* formatName(QXDecompressionAlgorithm algorithm) {
    switch (algorithm) {
    case QXDecompressionAlgorithmGzip: return "gzip";
    case QXDecompressionAlgorithmZlib: return "zlib";
    case QXDecompressionAlgorithmBZip2: return "bzip2";
    case QXDecompressionAlgorithmXZ: return "xz";
    case QXDecompressionAlgorithmPBZX: return "pbzx";
    default: return "none";
    }
}

// Empty when the file can be read as a regular file or a stream, else why not.
std::string unreadableReason(const std::string& path) {
    const qx::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return std::strerror(errno);
    struct stat info {};
    if (::fstat(file.get(), &info) != 0) return std::strerror(errno);
    if (S_ISDIR(info.st_mode)) return std::strerror(EISDIR);
    return {};
}

int runDetect(const std::vector<std::string>& files) {
    qx::Ref<qx::Error> error;
    auto output = OutputFile::open("-", &error);
    if (!output) return reportFailure(outputDisplayName("-"), reasonFromError(error));
    bool failed = false;
    for (const auto& path : files) {
        const std::string reason = unreadableReason(path);
        if (!reason.empty()) {
            reportFailure(inputDisplayName(path), reason);
            failed = true;
            continue;
        }
        QXDecompressionAlgorithm algorithm = QXDecompressionAlgorithmNone;
        QXDecompressor::isFileCompressedAtURL(qx::URL::fileURLWithPath(path), &algorithm);
        const std::string line = path + ": " + formatName(algorithm) + "\n";
        if (!output->write(line.data(), line.size(), &error))
            return reportFailure(outputDisplayName("-"), reasonFromError(error));
    }
    if (!output->commit(&error)) return reportFailure(outputDisplayName("-"), reasonFromError(error));
    return failed ? kExitFailure : kExitSuccess;
}

} // namespace

void addDetectCommand(CLI::App& app, Action& selected) {
    auto files = std::make_shared<std::vector<std::string>>();
    auto* detect = app.add_subcommand("detect", "Name the compression format of files from their first bytes");
    detect->add_option("FILE", *files, "Files to examine")->required();
    detect->callback([&selected, files] { selected = [files] { return runDetect(*files); }; });
}

} // namespace qxtool
