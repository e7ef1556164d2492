// LibplistConvert.cpp - binary to binary through plistutil's own library.
//
//   qx_libplist_convert INPUT OUTPUT
//
// plistutil 2.2 copies a binary input verbatim when asked for binary output,
// so its command line cannot measure a binary read plus a binary write. This
// runner does exactly that with the library plistutil is built on, loaded at
// run time (no development headers needed): read the file, decode it,
// encode it, write it, as plistutil does for its other conversions.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <dlfcn.h>

namespace {

using plist_t = void*;
// Declared with an int result: some releases return an error code, others
// nothing; the result register is ignored either way and success is judged
// by the output pointer.
using FromBin = int (*)(const char*, std::uint32_t, plist_t*);
using ToBin = int (*)(plist_t, char**, std::uint32_t*);
using Free = void (*)(plist_t);

template <class F> F symbol(void* library, const char* name) {
    void* p = dlsym(library, name);
    if (!p) {
        std::fprintf(stderr, "qx_libplist_convert: %s is missing\n", name);
        std::exit(1);
    }
    return reinterpret_cast<F>(p);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: qx_libplist_convert INPUT OUTPUT\n");
        return 2;
    }
    void* library = nullptr;
    for (const char* name : {"libplist-2.0.so.3", "libplist.so.3", "libplist-2.0.so.4", "libplist.so"})
        if ((library = dlopen(name, RTLD_NOW))) break;
    if (!library) {
        std::fprintf(stderr, "qx_libplist_convert: cannot load the plist library: %s\n", dlerror());
        return 1;
    }
    const auto fromBin = symbol<FromBin>(library, "plist_from_bin");
    const auto toBin = symbol<ToBin>(library, "plist_to_bin");
    const auto freePlist = symbol<Free>(library, "plist_free");

    std::FILE* in = std::fopen(argv[1], "rb");
    if (!in) {
        std::perror(argv[1]);
        return 1;
    }
    std::vector<char> bytes;
    char buffer[1 << 16];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, in)) > 0;) bytes.insert(bytes.end(), buffer, buffer + n);
    std::fclose(in);

    plist_t root = nullptr;
    fromBin(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
    if (!root) {
        std::fprintf(stderr, "qx_libplist_convert: %s: cannot decode\n", argv[1]);
        return 1;
    }
    char* out = nullptr;
    std::uint32_t length = 0;
    toBin(root, &out, &length);
    freePlist(root);
    if (!out) {
        std::fprintf(stderr, "qx_libplist_convert: cannot encode\n");
        return 1;
    }
    std::FILE* file = std::fopen(argv[2], "wb");
    if (!file || std::fwrite(out, 1, length, file) != length || std::fclose(file) != 0) {
        std::perror(argv[2]);
        return 1;
    }
    std::free(out);
    return 0;
}
