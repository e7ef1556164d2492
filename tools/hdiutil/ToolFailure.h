// ToolFailure.h - the tool's failure lines.
//
// A failure is one line on standard error, "hdiutil: VERB failed - REASON",
// and nothing on standard output: callers read the first "hdiutil: " of the
// console as the failure and the text after it as the message.
#pragma once

#include <qx/Error.h>

#include <string>

namespace hdiutil {

inline constexpr int kExitFailure = 1;
inline constexpr int kExitBusy = 16;  // EBUSY, what a busy detach exits with

/// Writes "hdiutil: VERB failed - REASON" and returns status.
int fail(const std::string& verb, const std::string& reason, int status = kExitFailure);
/// Writes "hdiutil: TEXT" as it is and returns status.
int failWithLine(const std::string& text, int status = kExitFailure);

/// The reason for a failed library call: the POSIX text of a file that could
/// not be read ("No such file or directory"), "image not recognized" for
/// what is no image this tool reads, else the error's own text.
std::string reasonFromError(const qx::Ref<qx::Error>& error);

} // namespace hdiutil
