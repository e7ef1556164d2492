// Assert.cpp - the assertion-failure report.
#include <qx/Assert.h>
#include <qx/Log.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace qx {

void assertionFailure(const char* function, const char* file, int line, const char* expression) {
    const std::string where = std::string("*** Assertion failure in ") + (function ? function : "?") + "(), " +
                              (file ? file : "?") + ":" + std::to_string(line);
    const std::string why = std::string("*** Terminating app due to uncaught exception "
                                        "'NSInternalInconsistencyException', reason: 'Invalid parameter not "
                                        "satisfying: ") +
                            (expression ? expression : "?") + "'";
    // Standard error first: the log sink may be what is broken.
    std::fprintf(stderr, "%s\n%s\n", where.c_str(), why.c_str());
    std::fflush(stderr);
    logLine(where);
    logLine(why);
    std::abort();
}

} // namespace qx
