// main.cpp - the qx command-line program.
//
// Parses the command line with CLI11 and runs the one subcommand chosen.
// Adding a subcommand: write its file pair (see Command.h) and list its
// registration function in kCommands.
#include "Command.h"
#include "Diagnostics.h"
#include "HexdumpCommand.h"
#include "PlistCommand.h"
#include "ChecksumCommand.h"
#include "ZipCommand.h"
#include "DetectCommand.h"
#include "DecompressCommand.h"
#include "CompressCommand.h"
#include "BytesCommand.h"
#include "ImageCommand.h"
#include "WatchCommand.h"
#include "DevicesCommand.h"

#include <CLI/CLI.hpp>

#include <exception>

namespace {

constexpr qxtool::CommandRegistration kCommands[] = {
    qxtool::addPlistCommand,
    qxtool::addHexdumpCommand,
    qxtool::addChecksumCommand,
    qxtool::addZipCommand,
    qxtool::addDetectCommand,
    qxtool::addDecompressCommand,
    qxtool::addCompressCommand,
    qxtool::addBytesCommand,
    qxtool::addImageCommand,
    qxtool::addWatchCommand,
    qxtool::addDevicesCommand,
};

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"qx - inspect, convert and extract compressed payloads, archives and property lists"};
    app.name("qx");
    app.require_subcommand(1);
    bool verbose = false;
    app.add_flag("--verbose,-v", verbose, "Also show the library's diagnostic log lines");

    qxtool::Action selected;
    for (auto registration : kCommands) registration(app, selected);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // Help and version requests exit 0; every argument error exits 2.
        const int status = app.exit(e);
        return status == 0 ? qxtool::kExitSuccess : qxtool::kExitUsage;
    }

    qxtool::routeLibraryLog(verbose);
    if (!selected) return qxtool::kExitUsage;
    try {
        return selected();
    } catch (const std::exception& e) {
        return qxtool::reportFailure("internal error", e.what());
    }
}
