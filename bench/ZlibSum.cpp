// ZlibSum.cpp - the peer for `qx checksum -a crc32|adler32`: zlib's own sums
// over a file, read in 128 KiB pieces, printed like the sha*sum tools.
//
//   qx_zlib_sum crc32|adler32 FILE
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: qx_zlib_sum crc32|adler32 FILE\n");
        return 2;
    }
    const bool crc = std::strcmp(argv[1], "crc32") == 0;
    const int fd = ::open(argv[2], O_RDONLY);
    if (fd < 0) {
        std::perror(argv[2]);
        return 1;
    }
    std::vector<unsigned char> buffer(128 * 1024);
    uLong value = crc ? crc32(0, nullptr, 0) : adler32(0, nullptr, 0);
    for (;;) {
        const ssize_t n = ::read(fd, buffer.data(), buffer.size());
        if (n <= 0) break;
        value = crc ? crc32(value, buffer.data(), static_cast<uInt>(n)) : adler32(value, buffer.data(), static_cast<uInt>(n));
    }
    ::close(fd);
    std::printf("%08lx  %s\n", value, argv[2]);
    return 0;
}
