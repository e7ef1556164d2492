// Diagnostics.h - the one-line failure reports of the qx program.
//
// Every failure a user can cause (bad input, missing files, unwritable
// output) is reported as exactly one line, "qx: NAME: REASON", on standard
// error, so that scripts can show or parse it without guessing how many lines
// follow.
#pragma once

#include <qx/Error.h>

#include <string>
#include <string_view>

namespace qxtool {

/// The name a path is reported under; "-" stands for the standard streams.
std::string inputDisplayName(std::string_view path);
std::string outputDisplayName(std::string_view path);

/// Writes "qx: name: reason" and returns kExitFailure.
int reportFailure(std::string_view name, std::string_view reason);

/// The reason text of error, or the platform's text for a malformed-data
/// error when a call failed without saying why.
std::string reasonFromError(const qx::Ref<qx::Error>& error);

/// Routes the library's log lines: to standard error when verbose (they hold
/// the only detailed reason a property-list reader gives), else nowhere, so a
/// command-line run does not fill the system log with one entry per bad file.
void routeLibraryLog(bool verbose);

} // namespace qxtool
