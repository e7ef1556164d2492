// PlistCommand.cpp - `qx plist`: print and convert property lists.
#include "PlistCommand.h"

#include "Diagnostics.h"
#include "FileIO.h"
#include "PlistEditCommand.h"

#include <QXFoundation/QXPropertyListSerialization.h>

#include <CLI/CLI.hpp>

#include <exception>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace qxtool {

namespace {

struct PlistOptions {
    std::string input;
    std::string output;
    std::string format;  // a key of formatNames()
};

// Every format name the library has a code for. Whether it can write that
// format today is the library's answer, not this table's.
const std::map<std::string, QXPropertyListFormat>& formatNames() {
    static const std::map<std::string, QXPropertyListFormat> names{
        {"binary", QXPropertyListBinaryFormat_v1_0},
        {"xml", QXPropertyListXMLFormat_v1_0},
        {"text", QXPropertyListOpenStepFormat},
    };
    return names;
}

// A decoded tree can hold millions of objects, and freeing them one by one
// just before the process ends costs about a tenth of a conversion. Handing
// the tree here keeps it reachable until exit, so the memory goes back with
// the process and leak checkers still see it as reachable, not leaked.
void keepUntilExit(qx::Ref<qx::Object> value) {
    static auto* kept = new std::vector<qx::Ref<qx::Object>>();
    kept->push_back(std::move(value));
}

// Reads and decodes INPUT; on failure reports it and returns null.
qx::Ref<qx::Object> loadPropertyList(const std::string& path) {
    const std::string name = inputDisplayName(path);
    qx::Ref<qx::Error> error;
    auto data = readInput(path, &error);
    if (!data) {
        reportFailure(name, reasonFromError(error));
        return nullptr;
    }
    QXPropertyListFormat format = 0;
    auto plist = QXPropertyListSerialization::propertyListWithData(data, &format, &error);
    if (!plist) {
        reportFailure(name, reasonFromError(error));
        return nullptr;
    }
    return plist;
}

int runPrint(const PlistOptions& options) {
    auto plist = loadPropertyList(options.input);
    if (!plist) return kExitFailure;
    std::string text = plist->description();
    text += '\n';
    keepUntilExit(std::move(plist));
    qx::Ref<qx::Error> error;
    if (!writeOutput("-", text.data(), text.size(), &error))
        return reportFailure(outputDisplayName("-"), reasonFromError(error));
    return kExitSuccess;
}

int runConvert(const PlistOptions& options) {
    auto plist = loadPropertyList(options.input);
    if (!plist) return kExitFailure;

    qx::Ref<qx::Error> error;
    const QXPropertyListFormat format = formatNames().at(options.format);
    auto bytes = serializeForWriting(plist, format, &error);
    if (!bytes) {
        return reportFailure(inputDisplayName(options.input),
                             "cannot be written in the " + options.format + " format: " + reasonFromError(error));
    }
    keepUntilExit(std::move(plist));
    // OUTPUT is opened only now: a failed read or conversion leaves no trace.
    if (!writeOutput(options.output, bytes->bytes(), bytes->length(), &error))
        return reportFailure(outputDisplayName(options.output), reasonFromError(error));
    return kExitSuccess;
}

// Runs an action so that running out of memory on a hostile input is a
// reported failure of that input rather than an abort.
int guarded(const std::string& input, int (*action)(const PlistOptions&), const PlistOptions& options) {
    try {
        return action(options);
    } catch (const std::bad_alloc&) {
        return reportFailure(inputDisplayName(input), "not enough memory to process this file");
    } catch (const std::exception& e) {
        return reportFailure(inputDisplayName(input), e.what());
    }
}

} // namespace

void addPlistCommand(CLI::App& app, Action& selected) {
    auto* plist = app.add_subcommand("plist", "Print, convert, search and edit property lists");
    plist->require_subcommand(1);

    auto options = std::make_shared<PlistOptions>();

    auto* print = plist->add_subcommand("print", "Print a property list's value as text");
    print->add_option("INPUT", options->input, "Property list to read (\"-\": standard input)")->required();
    print->callback([&selected, options] {
        selected = [options] { return guarded(options->input, runPrint, *options); };
    });

    auto* convert = plist->add_subcommand("convert", "Convert a property list to another format");
    std::vector<std::string> names;
    for (const auto& entry : formatNames()) names.push_back(entry.first);
    convert->add_option("--format,-f", options->format, "Output format")
        ->required()
        ->type_name("FORMAT")
        ->transform(CLI::IsMember(names, CLI::ignore_case));
    convert->add_option("INPUT", options->input, "Property list to read (\"-\": standard input)")->required();
    convert->add_option("--output,-o", options->output, "File to write (\"-\": standard output)")->required();
    convert->callback([&selected, options] {
        selected = [options] { return guarded(options->input, runConvert, *options); };
    });

    addPlistEditCommands(*plist, selected);
}

} // namespace qxtool
