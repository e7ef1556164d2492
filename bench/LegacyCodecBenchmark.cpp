// LegacyCodecBenchmark.cpp - explode and unshrink throughput, in MB/s of output.
//
//   qx_legacy_codec_bench MIB [METHOD FLAGS SIZE OFFSET LENGTH FILE LABEL]...
//
// Decodes the entries named on the command line (LENGTH bytes at OFFSET in
// FILE; run-codec-bench.sh picks the largest real ones from the fixture
// manifests) and a generated input of MIB MiB packed by the tests' small
// encoders, each five times, feeding 1 MiB of input per call as the
// decompressor does; prints the best run.
#include "LegacyZipEncoders.h"

#include <QXFoundation/QXExplode.h>
#include <QXFoundation/QXUnshrink.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr std::size_t kPiece = 1 << 20;

Bytes readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

Bytes slice(const Bytes& b, std::size_t offset, std::size_t length) {
    if (offset + length > b.size()) {
        std::fprintf(stderr, "fixture is too short\n");
        std::exit(1);
    }
    return Bytes(b.begin() + static_cast<std::ptrdiff_t>(offset), b.begin() + static_cast<std::ptrdiff_t>(offset + length));
}

std::uint64_t explode(const Bytes& in, std::uint64_t size, unsigned flags) {
    QXExplodeStream* s = QXExplodeInit(size, flags & 2, flags & 4);
    std::uint64_t total = 0;
    int result = QXEXPLODE_NEED_INPUT;
    for (std::size_t at = 0; at < in.size() && result == QXEXPLODE_NEED_INPUT; at += kPiece) {
        s->next_in = in.data() + at;
        s->avail_in = std::min(kPiece, in.size() - at);
        std::uint64_t n = 0;
        result = QXExplode(s, nullptr, &n);
        total += n;
    }
    QXExplodeCleanup(s);
    return result == QXEXPLODE_OK ? total : 0;
}

std::uint64_t unshrink(const Bytes& in, std::uint64_t size) {
    QXUnshrinkStream* s = QXUnshrinkInit(size);
    Bytes out(kPiece);
    int result = QXUNSHRINK_AGAIN;
    for (std::size_t at = 0; result == QXUNSHRINK_AGAIN;) {
        const std::size_t n = std::min(kPiece, in.size() - at);
        s->next_in = in.data() + at;
        s->avail_in = n;
        at += n;
        std::uint64_t written;
        do {
            s->next_out = out.data();
            s->avail_out = out.size();
            result = QXUnshrink(s);
            written = out.size() - s->avail_out;
        } while (result == QXUNSHRINK_AGAIN && written > 0);
        if (n == 0 && written == 0) break;
    }
    const std::uint64_t total = s->total_out;
    QXUnshrinkCleanup(s);
    return result == QXUNSHRINK_OK ? total : 0;
}

template <class F> void report(const char* what, std::uint64_t expected, F&& decode) {
    double best = 1e30;
    for (int run = 0; run < 5; ++run) {
        const auto start = std::chrono::steady_clock::now();
        const std::uint64_t produced = decode();
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (produced != expected) {
            std::printf("%-44s FAILED (%llu of %llu bytes)\n", what, static_cast<unsigned long long>(produced),
                        static_cast<unsigned long long>(expected));
            return;
        }
        best = std::min(best, seconds);
    }
    std::printf("%-44s %10.1f MB/s  (%llu bytes out)\n", what, static_cast<double>(expected) / best / 1e6,
                static_cast<unsigned long long>(expected));
}

Bytes generated(std::size_t size) {
    // Mostly text with near and far repeats, some noise: the kind of data
    // the two methods were made for.
    std::mt19937 rng(11);
    Bytes data;
    data.reserve(size);
    const std::string words[] = {"the ", "quick ", "brown ", "fox ", "jumps ", "over ", "lazy ", "dog ", "\r\n", "1985 "};
    while (data.size() < size) {
        const unsigned kind = rng() % 16;
        if (kind < 11) {
            const auto& w = words[rng() % 10];
            data.insert(data.end(), w.begin(), w.end());
        } else if (kind < 15 && data.size() > 8192) {
            const std::size_t from = data.size() - 1 - rng() % 8000;
            const std::size_t len = 3 + rng() % 60;
            for (std::size_t i = 0; i < len; ++i) data.push_back(data[from + i]);
        } else {
            for (int i = 0; i < 8; ++i) data.push_back(static_cast<std::uint8_t>(rng()));
        }
    }
    data.resize(size);
    return data;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2 || (argc - 2) % 7 != 0) {
        std::fprintf(stderr, "usage: qx_legacy_codec_bench MIB [METHOD FLAGS SIZE OFFSET LENGTH FILE LABEL]...\n");
        return 2;
    }
    const std::size_t mib = std::strtoul(argv[1], nullptr, 10);
    for (int i = 2; i < argc; i += 7) {
        const int method = std::atoi(argv[i]);
        const unsigned flags = static_cast<unsigned>(std::atoi(argv[i + 1]));
        const std::uint64_t size = std::strtoull(argv[i + 2], nullptr, 10);
        const Bytes in = slice(readFile(argv[i + 5]), std::strtoull(argv[i + 3], nullptr, 10), std::strtoull(argv[i + 4], nullptr, 10));
        const std::string label = std::string(method == 6 ? "explode " : "unshrink ") + argv[i + 6];
        if (method == 6) report(label.c_str(), size, [&] { return explode(in, size, flags); });
        else report(label.c_str(), size, [&] { return unshrink(in, size); });
    }
    const Bytes data = generated(mib << 20);
    for (unsigned flags : {0u, 6u}) {
        const Bytes packed = legacyzip::implode(data, flags & 2, flags & 4);
        const std::string label = "explode generated " + std::to_string(mib) + " MiB, flags " + std::to_string(flags);
        report(label.c_str(), data.size(), [&] { return explode(packed, data.size(), flags); });
    }
    const Bytes shrunk = legacyzip::shrink(data);
    const std::string label = "unshrink generated " + std::to_string(mib) + " MiB";
    report(label.c_str(), data.size(), [&] { return unshrink(shrunk, data.size()); });
    return 0;
}
