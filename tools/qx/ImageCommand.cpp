// ImageCommand.cpp - `qx image info|verify|license|convert`.
//
// IMAGE is a path or an http(s) URL (read by ranges). Failures are one line
// and exit 1; verify exits 1 also when a checksum does not match.
#include "ImageCommand.h"

#include "Diagnostics.h"
#include "FileIO.h"
#include "ProgressLine.h"

#include <QXFoundation/QXDiskImage.h>
#include <QXFoundation/QXDiskImageWriter.h>
#include <QXFoundation/QXPropertyListSerialization.h>

#include "Internal/QXDiskImageExport.h"
#include "Internal/QXDiskImageSummary.h"
#include "Internal/QXSafeFileWriter.h"

#include <qx/Array.h>
#include <qx/Dictionary.h>
#include <qx/Number.h>
#include <qx/String.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include <unistd.h>

namespace qxtool {

namespace {

struct ImageOptions {
    std::string image;
    std::string output;
    bool plist = false;
    std::string format = "raw";
    std::optional<int> level;
    unsigned threads = 0;
    std::string license;
};

qx::Ref<QXDiskImage> openImage(const std::string& image, qx::Ref<qx::Error>* error) {
    const bool remote = image.rfind("http://", 0) == 0 || image.rfind("https://", 0) == 0;
    auto url = remote ? qx::URL::URLWithString(image) : qx::URL::fileURLWithPath(image);
    return QXDiskImage::imageWithContentsOfURL(url, error);
}

std::string checksumText(const QXDiskImageChecksum& sum) {
    if (sum.type == 0) return "none";
    char text[32];
    std::snprintf(text, sizeof text, "%s $%08" PRIX32, sum.type == 2 ? "CRC32" : "type", sum.value);
    return text;
}

bool printText(const std::string& text, qx::Ref<qx::Error>* error) {
    auto output = OutputFile::open("-", error);
    return output && output->write(text.data(), text.size(), error) && output->commit(error);
}

int runInfo(const ImageOptions& options) {
    qx::Ref<qx::Error> error;
    auto image = openImage(options.image, &error);
    if (!image) return reportFailure(inputDisplayName(options.image), reasonFromError(error));
    std::string text;
    if (options.plist) {
        auto data = QXPropertyListSerialization::dataWithPropertyList(QXDiskImageSummary::propertyList(*image), 100, &error);
        if (!data) return reportFailure(inputDisplayName(options.image), reasonFromError(error));
        text.assign(reinterpret_cast<const char*>(data->bytes()), data->length());
    } else {
        char line[256];
        text += "format: " + image->formatName() + " (" + image->formatDescription() + ")\n";
        if (image->isUDIF()) text += "variant: " + std::to_string(image->imageVariant()) + "\n";
        std::snprintf(line, sizeof line, "size: %" PRIu64 " bytes (%" PRIu64 " sectors), file %" PRIu64 " bytes\n",
                      image->size(), image->sectorCount(), image->fileSize());
        text += line;
        text += "checksum: " + checksumText(image->masterChecksum()) + ", data fork " +
                checksumText(image->dataForkChecksum()) + "\n";
        text += std::string("license agreement: ") + (image->hasLicenseAgreement() ? "yes" : "no") + "\n";
        std::size_t index = 0;
        for (const auto& p : image->partitions()) {
            std::snprintf(line, sizeof line, "partition %zu: %s (%s) number %" PRId64 " start %" PRIu64 " length %" PRIu64 "\n",
                          index++, p.name.c_str(), p.type.c_str(), p.number, p.firstSector, p.sectorCount);
            text += line;
        }
    }
    if (!printText(text, &error)) return reportFailure(outputDisplayName("-"), reasonFromError(error));
    return kExitSuccess;
}

const char* stateText(QXDiskImageVerification::State state) {
    switch (state) {
    case QXDiskImageVerification::State::NotPresent: return "none";
    case QXDiskImageVerification::State::Unsupported: return "not checked";
    case QXDiskImageVerification::State::Passed: return "ok";
    case QXDiskImageVerification::State::Failed: return "MISMATCH";
    }
    return "";
}

int runVerify(const ImageOptions& options) {
    qx::Ref<qx::Error> error;
    auto image = openImage(options.image, &error);
    if (!image) return reportFailure(inputDisplayName(options.image), reasonFromError(error));
    QXDiskImageVerification result;
    if (!image->verifyChecksums(&result, &error)) return reportFailure(inputDisplayName(options.image), reasonFromError(error));
    std::string text;
    for (std::size_t i = 0; i < result.partitions.size(); ++i)
        text += "partition " + std::to_string(i) + ": " + stateText(result.partitions[i]) + "\n";
    text += std::string("master checksum: ") + stateText(result.master) + "\n";
    text += std::string("data fork checksum: ") + stateText(result.dataFork) + "\n";
    if (!printText(text, &error)) return reportFailure(outputDisplayName("-"), reasonFromError(error));
    if (!result.passed()) return reportFailure(inputDisplayName(options.image), "checksum mismatch");
    return kExitSuccess;
}

int runLicense(const ImageOptions& options) {
    qx::Ref<qx::Error> error;
    auto image = openImage(options.image, &error);
    if (!image) return reportFailure(inputDisplayName(options.image), reasonFromError(error));
    const auto text = image->licenseAgreement();
    if (!text) return reportFailure(inputDisplayName(options.image), "the image has no license agreement");
    std::string out = *text;
    if (out.empty() || out.back() != '\n') out += '\n';
    if (!printText(out, &error)) return reportFailure(outputDisplayName("-"), reasonFromError(error));
    return kExitSuccess;
}

int convertToUDIF(const ImageOptions& options, QXDiskImageFormat format) {
    auto writer = QXDiskImageWriter::writerWithFormat(format);
    writer->setCompressionLevel(options.level);
    writer->setThreadCount(options.threads);
    qx::Ref<qx::Error> error;
    if (!options.license.empty()) {
        std::ifstream file(options.license, std::ios::binary);
        std::ostringstream text;
        text << file.rdbuf();
        if (!file || file.bad()) return reportFailure(inputDisplayName(options.license), std::strerror(errno ? errno : EIO));
        if (!writer->setLicenseAgreement(text.str(), &error))
            return reportFailure(inputDisplayName(options.license), reasonFromError(error));
    }
    auto image = openImage(options.image, &error);
    if (!image) return reportFailure(inputDisplayName(options.image), reasonFromError(error));
    ProgressLine progress(image->size(), ::isatty(STDERR_FILENO) == 1);
    writer->setProgressBlock([&progress](std::uint64_t done, std::uint64_t) { progress.update(done, done); });
    const bool written = writer->writeImage(*image, options.output, &error);
    progress.clear();
    if (!written) {
        const std::int64_t code = error && error->domain() == kQXDiskImageErrorDomain ? error->code() : 0;
        const std::string name = code == kQXDiskImageErrorWriteFailed   ? outputDisplayName(options.output)
                                 : code == kQXDiskImageErrorInvalidLevel ? std::string("image convert")
                                                                          : inputDisplayName(options.image);
        return reportFailure(name, reasonFromError(error));
    }
    return kExitSuccess;
}

int runConvert(const ImageOptions& options) {
    if (options.format != "raw") {
        const auto format = QXDiskImageWriter::formatNamed(options.format);
        if (!format) return reportFailure("image convert", "unknown format '" + options.format + "' (raw, UDRO, UDZO, UDBZ, ULMO)");
        return convertToUDIF(options, *format);
    }
    if (!options.license.empty()) return reportFailure("image convert", "--license needs a UDIF format");
    qx::Ref<qx::Error> error;
    auto image = openImage(options.image, &error);
    if (!image) return reportFailure(inputDisplayName(options.image), reasonFromError(error));
    QXSafeFileWriter writer;
    if (const int code = writer.open(options.output)) return reportFailure(outputDisplayName(options.output), std::strerror(code));
    ProgressLine progress(image->size(), ::isatty(STDERR_FILENO) == 1);
    int writeError = 0;
    const bool written = QXDiskImageExport::writeDisk(
        *image, writer.fd(), [&](std::uint64_t done, std::uint64_t) {
            writer.wroteUpTo(done);
            progress.update(done, done);
            return true;
        },
        &writeError, &error);
    progress.clear();
    if (writeError != 0) return reportFailure(outputDisplayName(options.output), std::strerror(writeError));
    if (!written) return reportFailure(inputDisplayName(options.image), reasonFromError(error));
    if (const int code = writer.commit()) return reportFailure(outputDisplayName(options.output), std::strerror(code));
    return kExitSuccess;
}

CLI::App* addVerb(CLI::App& image, const char* name, const char* help, const std::shared_ptr<ImageOptions>& options) {
    auto* verb = image.add_subcommand(name, help);
    verb->add_option("IMAGE", options->image, "Disk image path or http(s) URL")->required();
    return verb;
}

} // namespace

void addImageCommand(CLI::App& app, Action& selected) {
    auto options = std::make_shared<ImageOptions>();
    auto* image = app.add_subcommand("image", "Inspect, check and convert disk images (.dmg, raw)");
    image->require_subcommand(1);

    auto* info = addVerb(*image, "info", "Print the format, sizes, partitions and checksums", options);
    info->add_flag("--plist", options->plist, "Print the information as an XML property list");
    info->callback([&selected, options] { selected = [options] { return runInfo(*options); }; });

    auto* verify = addVerb(*image, "verify", "Check every stored checksum (exit 1 on a mismatch)", options);
    verify->callback([&selected, options] { selected = [options] { return runVerify(*options); }; });

    auto* license = addVerb(*image, "license", "Print the software license agreement", options);
    license->callback([&selected, options] { selected = [options] { return runLicense(*options); }; });

    auto* convert = addVerb(*image, "convert", "Write the decoded disk as a raw (sparse) image or as UDIF", options);
    convert->add_option("-o,--output", options->output, "Output file")->required();
    convert->add_option("--format", options->format, "raw (default), UDRO, UDZO, UDBZ or ULMO");
    convert->add_option("--level", options->level, "Compression level (zlib 0-9, bzip2 1-9, xz 0-9)");
    convert->add_option("-T,--threads", options->threads, "Compressing threads (0: one per processor)");
    convert->add_option("--license", options->license, "Add this English text file as the license agreement");
    convert->callback([&selected, options] { selected = [options] { return runConvert(*options); }; });
}

} // namespace qxtool
