// Exception.cpp - the platform's named exceptions.
#include <qx/Exception.h>

#include <cstring>

namespace qx {

Exception Exception::fileHandleOperation(const char* operation, int errnum) {
    char buffer[256];
    // The GNU strerror_r returns its text, which need not be in buffer.
    const char* text = ::strerror_r(errnum, buffer, sizeof buffer);
    return Exception(FileHandleOperationException, std::string("*** -[FileHandle ") + operation + "]: " + text);
}

} // namespace qx
