// Assert.h - assertion failures that end the process with the platform's text.
//
// Unlike assert(), these stay in release builds: they guard states in which
// going on would do more harm than stopping (a library without its resources,
// a system version it cannot read). The file and line are those the caller
// names, so the text stays the same whatever the build does to __FILE__.
#pragma once

namespace qx {

/// Writes
///   *** Assertion failure in FUNCTION, FILE:LINE
///   *** Terminating app due to uncaught exception 'NSInternalInconsistencyException',
///       reason: 'Invalid parameter not satisfying: EXPRESSION'
/// to standard error (and the log) and aborts.
[[noreturn]] void assertionFailure(const char* function, const char* file, int line, const char* expression);

} // namespace qx

/// Stops the process unless condition holds; the expression text, file and
/// line are reported as given.
#define QX_ASSERT_AT(condition, expressionText, file, line)                        \
    do {                                                                           \
        if (!(condition)) ::qx::assertionFailure(__func__, file, line, expressionText); \
    } while (0)
