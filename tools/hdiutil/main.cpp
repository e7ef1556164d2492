// main.cpp - the Linux disk-image tool: attach, detach, info and imageinfo.
//
// Speaks the command lines a disk-image mounter runs and answers the way it
// reads: property lists alone on standard output with -plist, one
// "hdiutil: ..." line on standard error for a failure.
#include "AttachCommand.h"
#include "DetachCommand.h"
#include "ImageInfoCommand.h"
#include "InfoCommand.h"
#include "ToolArguments.h"
#include "ToolFailure.h"

#include <qx/Log.h>

#include <cstdio>
#include <exception>

int main(int argc, char** argv) {
    using namespace hdiutil;
    // The library's log lines would reach the console, where callers read
    // "hdiutil:" as the start of a failure.
    qx::setLogSink([](const std::string&) {});
    std::vector<std::string> words(argv + (argc > 0 ? 1 : 0), argv + argc);
    ToolArguments arguments;
    std::string reason;
    if (!parseArguments(words, arguments, reason))
        return fail(arguments.verbName.empty() ? std::string("hdiutil") : arguments.verbName, reason);
    try {
        switch (arguments.verb) {
        case Verb::Attach: return runAttach(arguments);
        case Verb::Detach: return runDetach(arguments);
        case Verb::Info: return runInfo(arguments);
        case Verb::ImageInfo: return runImageInfo(arguments);
        case Verb::Help: break;
        }
    } catch (const std::exception& e) {
        return fail(arguments.verbName, e.what());
    }
    std::fputs(usageText().c_str(), stdout);
    return words.empty() ? kExitFailure : 0;
}
