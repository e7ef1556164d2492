// PBZXBenchmark.cpp - PBZX decoding through QXDecompressor (chunks in parallel)
// against a sequential decode of the same file on the calling thread.
//
//   qx_pbzx_bench [--sequential] FILE
//       decodes FILE, counts the output and prints bytes, seconds, MB/s and
//       the peak resident size (getrusage).
//   qx_pbzx_bench --generate SIZE_MIB CHUNK_MIB PREFIX
//       writes PREFIX.pbzx (a mixed payload of SIZE_MIB MiB in xz chunks of
//       CHUNK_MIB MiB) and PREFIX.xz, the same xz streams back to back, whose
//       blocks record their sizes so that a multi-threaded xz decoder can
//       split the work the same way; PREFIX.raw is the payload itself.
//
// The sequential decode walks the container with QXPBZXDecode and gives each
// chunk to liblzma, 1 MiB at a time, exactly as the library's own chunk
// decoders do, only one after another on one thread.
#include <QXFoundation/QXDecompressor.h>
#include <QXFoundation/QXPBZXDecode.h>

#include <qx/FileHandle.h>

#include <lzma.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t kPiece = 1048576;

double peakMiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;  // kilobytes on Linux
}

// Walks the container on this thread; -1 on a damaged file.
std::int64_t decodeSequentially(const char* path) {
    FILE* file = std::fopen(path, "rb");
    if (!file) return -1;
    QXPBZXDecodeStream* s = QXPBZXDecodeInit();
    std::vector<std::uint8_t> in(kPiece), staging(kPiece), out(kPiece);
    lzma_stream lz = LZMA_STREAM_INIT;
    bool lzmaOpen = false, compressed = false;
    std::int64_t total = 0;
    bool failed = false;
    auto feed = [&](const std::uint8_t* bytes, std::size_t length, bool last) {
        if (!compressed) {
            total += static_cast<std::int64_t>(length);
            return;
        }
        lz.next_in = bytes;
        lz.avail_in = length;
        for (;;) {
            lz.next_out = out.data();
            lz.avail_out = out.size();
            const lzma_ret r = lzma_code(&lz, last ? LZMA_FINISH : LZMA_RUN);
            total += static_cast<std::int64_t>(out.size() - lz.avail_out);
            if (r == LZMA_STREAM_END) return;
            if (r != LZMA_OK) {
                failed = true;
                return;
            }
            if (lz.avail_in == 0 && lz.avail_out != 0) return;
        }
    };
    for (;;) {
        const std::size_t got = std::fread(in.data(), 1, in.size(), file);
        s->next_in = in.data();
        s->avail_in = got;
        int result;
        do {
            s->next_out = staging.data();
            s->avail_out = staging.size();
            const std::uint64_t before = s->total_out;
            result = QXPBZXDecode(s);
            if (result == QXPBZX_MEM_ERROR || result == QXPBZX_INVALID_ARGUMENT) failed = true;
            const std::size_t staged = static_cast<std::size_t>(s->total_out - before);
            if (staged > 0 && s->chunk_started) {
                if (lzmaOpen) lzma_end(&lz);
                lz = LZMA_STREAM_INIT;
                compressed = s->chunk_compressed;
                lzmaOpen = compressed && lzma_stream_decoder(&lz, UINT64_MAX, LZMA_CONCATENATED) == LZMA_OK;
                if (compressed && !lzmaOpen) failed = true;
            }
            if (staged > 0) feed(staging.data(), staged, s->chunk_ended);
        } while (result == QXPBZX_AGAIN && !failed);
        if (got == 0 || failed) break;
    }
    if (lzmaOpen) lzma_end(&lz);
    QXPBZXDecodeCleanup(s);
    std::fclose(file);
    return failed ? -1 : total;
}

std::int64_t decodeInParallel(const char* path) {
    auto handle = qx::FileHandle::fileHandleForReadingAtPath(path);
    if (!handle) return -1;
    std::int64_t total = 0;
    qx::Ref<qx::Error> error;
    const std::int64_t result = QXDecompressor::decompressFileHandle(
        handle, QXDecompressionAlgorithmPBZX, 0, 0, [&](const qx::Ref<qx::Data>& d) { total += d->length(); }, nullptr,
        nullptr, &error);
    if (result < 0) std::fprintf(stderr, "error: %s\n", error ? error->description().c_str() : "?");
    return result < 0 ? -1 : total;
}

// One MiB of text-like words, of random bytes or of long runs, in turn, so
// that chunks neither all compress to nothing nor all resist compression.
void fillMixed(std::vector<std::uint8_t>& out, std::size_t size) {
    static const char* words[] = {"alpha ", "bravo ", "charlie ", "delta\n", "echo ", "foxtrot ", "golf ", "hotel "};
    std::mt19937_64 rng(42);
    out.clear();
    out.reserve(size);
    for (std::size_t block = 0; out.size() < size; ++block) {
        const std::size_t end = std::min(size, out.size() + kPiece);
        switch (block % 3) {
        case 0:
            while (out.size() < end) {
                for (const char* p = words[rng() % 8]; *p && out.size() < end; ++p) out.push_back(static_cast<std::uint8_t>(*p));
                if (rng() % 7 == 0 && out.size() < end) out.push_back(static_cast<std::uint8_t>(rng()));
            }
            break;
        case 1:
            while (out.size() < end) out.push_back(static_cast<std::uint8_t>(rng()));
            break;
        default:
            while (out.size() < end) {
                const std::uint8_t value = static_cast<std::uint8_t>(rng());
                for (std::size_t run = 1 + rng() % 200; run > 0 && out.size() < end; --run) out.push_back(value);
            }
        }
    }
}

// One xz stream whose single block records its sizes.
std::vector<std::uint8_t> encodeChunk(const std::uint8_t* bytes, std::size_t length) {
    lzma_stream lz = LZMA_STREAM_INIT;
    lzma_mt mt{};
    mt.threads = 1;
    mt.block_size = length;
    mt.preset = 1;
    mt.check = LZMA_CHECK_CRC64;
    if (lzma_stream_encoder_mt(&lz, &mt) != LZMA_OK) std::abort();
    std::vector<std::uint8_t> out(lzma_stream_buffer_bound(length));
    lz.next_in = bytes;
    lz.avail_in = length;
    lz.next_out = out.data();
    lz.avail_out = out.size();
    while (lzma_code(&lz, LZMA_FINISH) == LZMA_OK) {
    }
    out.resize(out.size() - lz.avail_out);
    lzma_end(&lz);
    return out;
}

void putBigEndian64(std::ofstream& out, std::uint64_t v) {
    for (int i = 7; i >= 0; --i) out.put(static_cast<char>(v >> (8 * i)));
}

int generate(std::size_t sizeMiB, std::size_t chunkMiB, const std::string& prefix) {
    std::vector<std::uint8_t> raw;
    fillMixed(raw, sizeMiB * kPiece);
    const std::size_t chunk = std::max<std::size_t>(1, chunkMiB) * kPiece;
    const std::size_t count = (raw.size() + chunk - 1) / chunk;
    std::vector<std::vector<std::uint8_t>> packed(count);
    std::vector<std::thread> workers;
    const unsigned threads = std::max(1u, std::thread::hardware_concurrency());
    for (unsigned t = 0; t < threads; ++t)
        workers.emplace_back([&, t] {
            for (std::size_t i = t; i < count; i += threads) {
                const std::size_t at = i * chunk;
                packed[i] = encodeChunk(raw.data() + at, std::min(chunk, raw.size() - at));
            }
        });
    for (auto& w : workers) w.join();
    std::ofstream pbzx(prefix + ".pbzx", std::ios::binary), xz(prefix + ".xz", std::ios::binary),
        plain(prefix + ".raw", std::ios::binary);
    pbzx.write("pbzx", 4);
    putBigEndian64(pbzx, chunk);
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t length = std::min(chunk, raw.size() - i * chunk);
        putBigEndian64(pbzx, length);
        // A chunk that did not shrink is stored, as a PBZX writer does.
        const bool store = packed[i].size() >= length;
        putBigEndian64(pbzx, store ? length : packed[i].size());
        if (store)
            pbzx.write(reinterpret_cast<const char*>(raw.data() + i * chunk), static_cast<std::streamsize>(length));
        else
            pbzx.write(reinterpret_cast<const char*>(packed[i].data()), static_cast<std::streamsize>(packed[i].size()));
        xz.write(reinterpret_cast<const char*>(packed[i].data()), static_cast<std::streamsize>(packed[i].size()));
    }
    plain.write(reinterpret_cast<const char*>(raw.data()), static_cast<std::streamsize>(raw.size()));
    return pbzx && xz && plain ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::strcmp(argv[1], "--generate") == 0)
        return generate(std::strtoull(argv[2], nullptr, 10), std::strtoull(argv[3], nullptr, 10), argv[4]);
    const bool sequential = argc == 3 && std::strcmp(argv[1], "--sequential") == 0;
    if (argc != 2 && !sequential) {
        std::fprintf(stderr, "usage: qx_pbzx_bench [--sequential] FILE\n"
                             "       qx_pbzx_bench --generate SIZE_MIB CHUNK_MIB PREFIX\n");
        return 2;
    }
    const char* path = argv[argc - 1];
    const auto start = std::chrono::steady_clock::now();
    const std::int64_t total = sequential ? decodeSequentially(path) : decodeInParallel(path);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (total < 0) {
        std::fprintf(stderr, "%s: decoding failed\n", path);
        return 1;
    }
    std::printf("%s: %lld bytes in %.3f s, %.1f MB/s, peak RSS %.0f MiB\n", sequential ? "sequential" : "parallel",
                static_cast<long long>(total), seconds, static_cast<double>(total) / 1e6 / seconds, peakMiB());
    return 0;
}
