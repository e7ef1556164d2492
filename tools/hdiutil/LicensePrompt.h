// LicensePrompt.h - asking the user to accept an image's licence agreement.
//
// The agreement goes to standard output and the question, "Agree Y/N? ", to
// the console: the controlling terminal when there is one, else standard
// error; the answer is read from the same console (standard input without a
// terminal). A program driving the tool on a pseudo-terminal reads the text
// from the output pipe and the question from the terminal, so the two must
// not mix. While the answer is typed the terminal does not echo it, so that
// what the console shows after the question is the tool's own next words (a
// failure line starts the console text, and callers look for it there).
#pragma once

#include <string>

namespace hdiutil {

/// Shows text and asks; true when the answer begins with "y" or "Y". End of
/// input, or any other answer, declines.
bool askToAcceptLicense(const std::string& text);

} // namespace hdiutil
