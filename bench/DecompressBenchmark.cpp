// DecompressBenchmark.cpp - inputs and a decoding driver for
// bench/run-decompress-bench.sh.
//
//   qx_decompress_bench payload OUT MIB      deterministic mixed payload
//   qx_decompress_bench pbzx IN OUT MIB [XZ] PBZX container, xz chunks of MIB;
//                                            XZ: the same blocks as one stream
//   qx_decompress_bench decode FILE [OUT]    the file driver, automatic
//                                            detection, to OUT ("-" = stdout,
//                                            default the null device)
//
// The payload alternates 1 MiB of text-like and 1 MiB of binary data. Pure
// random bytes would not compress and would only measure copying, so the
// binary half imitates what real payloads carry: instruction streams with a
// skewed opcode mix and small immediates, and fixed-size records whose fields
// move slowly (ids, timestamps, measurements) next to a few random bytes.
#include <QXFoundation/QXDecompressor.h>

#include <lzma.h>

#include <qx/FileHandle.h>
#include <qx/URL.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Random {
    std::uint64_t state;
    std::uint64_t next() {
        std::uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    std::uint32_t below(std::uint32_t n) { return static_cast<std::uint32_t>((next() >> 32) * n >> 32); }
    double unit() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
};

// Index into a table of n entries, skewed towards the front (roughly Zipf):
// a few words and opcodes dominate, as they do in real text and code.
std::uint32_t skewed(Random& r, std::uint32_t n) {
    const double u = r.unit();
    return std::min(n - 1, static_cast<std::uint32_t>(std::pow(static_cast<double>(n), u * u) - 1.0));
}

class PayloadGenerator {
public:
    PayloadGenerator() {
        static const char* const syllables[] = {"ka", "lo", "mi", "ne", "ra", "to", "su", "vel", "an", "or", "in",
                                                "est", "de", "qua", "pro", "ti", "ble", "con", "sta", "ment"};
        for (int i = 0; i < 4000; ++i) {
            std::string word;
            const auto count = 1 + random_.below(4);
            for (std::uint32_t s = 0; s < count; ++s) word += syllables[random_.below(20)];
            words_.push_back(word);
        }
        for (int i = 0; i < 256; ++i) {
            Bytes op;
            if (random_.below(4) == 0) op.push_back(0x48 | static_cast<std::uint8_t>(random_.below(8)));
            op.push_back(static_cast<std::uint8_t>(random_.next()));
            if (random_.below(3) != 0) op.push_back(static_cast<std::uint8_t>(random_.next()));
            opcodes_.push_back(op);
            immediates_.push_back(random_.below(5));  // 0, 1, 2 (small), 3 (4 bytes), 4 (address)
        }
    }

    void text(Bytes& out, std::size_t length) {
        const std::size_t end = out.size() + length;
        char line[64];
        while (out.size() < end) {
            lineNumber_ += 1 + random_.below(3);
            const int n = std::snprintf(line, sizeof line, "%08llu %02u:%02u:%02u ",
                                        static_cast<unsigned long long>(lineNumber_), random_.below(24),
                                        random_.below(60), random_.below(60));
            out.insert(out.end(), line, line + n);
            const auto count = 4 + random_.below(12);
            for (std::uint32_t w = 0; w < count; ++w) {
                const std::string& word = words_[skewed(random_, static_cast<std::uint32_t>(words_.size()))];
                out.insert(out.end(), word.begin(), word.end());
                const auto p = random_.below(16);
                out.push_back(p == 0 ? ',' : p == 1 ? '.' : p == 2 ? '=' : ' ');
            }
            out.push_back('\n');
        }
        out.resize(end);
    }

    void binary(Bytes& out, std::size_t length) {
        const std::size_t end = out.size() + length;
        while (out.size() < end) {
            if (random_.below(2) == 0) {
                code(out, 4096);
            } else {
                records(out, 4096);
            }
        }
        out.resize(end);
    }

private:
    void code(Bytes& out, std::size_t length) {
        const std::size_t end = out.size() + length;
        while (out.size() < end) {
            const auto i = skewed(random_, static_cast<std::uint32_t>(opcodes_.size()));
            out.insert(out.end(), opcodes_[i].begin(), opcodes_[i].end());
            switch (immediates_[i]) {
            case 1: out.push_back(static_cast<std::uint8_t>(random_.below(16) * 8)); break;
            case 2: out.push_back(static_cast<std::uint8_t>(random_.below(256))); break;
            case 3: put32(out, random_.below(4096)); break;
            case 4: put32(out, 0x00400000u + random_.below(1 << 20) * 4); break;
            default: break;
            }
        }
    }

    void records(Bytes& out, std::size_t length) {
        const std::size_t end = out.size() + length;
        while (out.size() < end) {
            recordId_ += 1;
            timestamp_ += 1 + random_.below(1000);
            measurement_ += (random_.unit() - 0.5) * 0.01;
            put32(out, static_cast<std::uint32_t>(recordId_));
            put32(out, static_cast<std::uint32_t>(timestamp_));
            put32(out, static_cast<std::uint32_t>(timestamp_ >> 32));
            float value = static_cast<float>(measurement_);
            std::uint32_t bits;
            std::memcpy(&bits, &value, sizeof bits);
            put32(out, bits);
            put32(out, random_.below(8) | (random_.below(2) << 16));
            put32(out, static_cast<std::uint32_t>(random_.next()));  // a hash: incompressible
            put32(out, 0);
            put32(out, 0xFFFFFFFFu);
        }
    }

    static void put32(Bytes& out, std::uint32_t v) {
        for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    }

    Random random_{0x5158466F756E64ULL};
    std::vector<std::string> words_;
    std::vector<Bytes> opcodes_;
    std::vector<std::uint32_t> immediates_;
    std::uint64_t lineNumber_ = 0;
    std::uint64_t recordId_ = 0;
    std::uint64_t timestamp_ = 1700000000000ULL;
    double measurement_ = 20.0;
};

bool writeFile(const char* path, const Bytes& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

int payload(const char* path, std::size_t mib) {
    PayloadGenerator generator;
    Bytes out;
    out.reserve(mib << 20);
    for (std::size_t i = 0; i < mib; ++i) {
        if (i % 2 == 0) {
            generator.text(out, 1 << 20);
        } else {
            generator.binary(out, 1 << 20);
        }
    }
    return writeFile(path, out) ? 0 : 1;
}

void appendBigEndian64(Bytes& out, std::uint64_t v) {
    for (int i = 7; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

// One xz stream around already encoded blocks: header, blocks, index, footer.
bool appendStream(Bytes& out, const std::vector<const Bytes*>& blocks, const std::vector<lzma_vli>& unpadded,
                  const std::vector<lzma_vli>& sizes) {
    lzma_stream_flags flags{};
    flags.check = LZMA_CHECK_CRC64;
    std::uint8_t header[LZMA_STREAM_HEADER_SIZE];
    if (lzma_stream_header_encode(&flags, header) != LZMA_OK) return false;
    out.insert(out.end(), header, header + sizeof header);
    lzma_index* index = lzma_index_init(nullptr);
    if (!index) return false;
    bool ok = true;
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        out.insert(out.end(), blocks[i]->begin(), blocks[i]->end());
        ok = ok && lzma_index_append(index, nullptr, unpadded[i], sizes[i]) == LZMA_OK;
    }
    const lzma_vli indexSize = lzma_index_size(index);
    const std::size_t at = out.size();
    out.resize(at + indexSize);
    std::size_t position = 0;
    ok = ok && lzma_index_buffer_encode(index, out.data() + at, &position, indexSize) == LZMA_OK;
    lzma_index_end(index, nullptr);
    flags.backward_size = indexSize;
    std::uint8_t footer[LZMA_STREAM_HEADER_SIZE];
    ok = ok && lzma_stream_footer_encode(&flags, footer) == LZMA_OK;
    out.insert(out.end(), footer, footer + sizeof footer);
    return ok;
}

// Each chunk is compressed once, as one xz block at preset 6; the blocks make
// both the PBZX container (one stream per chunk) and, when asked for, one xz
// stream of all of them, as `xz -6 --block-size=MIB` writes it.
int pbzx(const char* inPath, const char* outPath, std::size_t mib, const char* blocksPath) {
    std::ifstream in(inPath, std::ios::binary);
    const Bytes input((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::size_t chunkSize = mib << 20;
    const std::size_t chunks = (input.size() + chunkSize - 1) / chunkSize;
    std::vector<Bytes> encoded(chunks);
    std::vector<lzma_vli> unpadded(chunks), sizes(chunks);
    std::vector<char> failed(chunks);
    // Chunks are independent: encode them on every processor.
    const unsigned workers = std::max(1u, std::thread::hardware_concurrency());
    std::vector<std::thread> threads;
    for (unsigned w = 0; w < workers; ++w) {
        threads.emplace_back([&, w] {
            for (std::size_t c = w; c < chunks; c += workers) {
                const std::size_t length = std::min(chunkSize, input.size() - c * chunkSize);
                lzma_options_lzma options;
                lzma_lzma_preset(&options, 6);
                lzma_filter filters[] = {{LZMA_FILTER_LZMA2, &options}, {LZMA_VLI_UNKNOWN, nullptr}};
                lzma_block block{};
                block.check = LZMA_CHECK_CRC64;
                block.filters = filters;
                Bytes& out = encoded[c];
                out.resize(lzma_block_buffer_bound(length));
                std::size_t position = 0;
                failed[c] = lzma_block_buffer_encode(&block, nullptr, input.data() + c * chunkSize, length,
                                                     out.data(), &position, out.size()) != LZMA_OK;
                out.resize(position);
                unpadded[c] = lzma_block_unpadded_size(&block);
                sizes[c] = length;
            }
        });
    }
    for (auto& t : threads) t.join();
    if (std::find(failed.begin(), failed.end(), 1) != failed.end()) {
        std::fprintf(stderr, "xz encoding failed\n");
        return 1;
    }
    Bytes out = {'p', 'b', 'z', 'x'};
    appendBigEndian64(out, chunkSize);
    for (std::size_t c = 0; c < chunks; ++c) {
        Bytes stream;
        if (!appendStream(stream, {&encoded[c]}, {unpadded[c]}, {sizes[c]})) return 1;
        const std::size_t length = std::min(chunkSize, input.size() - c * chunkSize);
        appendBigEndian64(out, length);
        if (stream.size() >= length) {
            // A chunk that does not shrink is stored, as real containers do.
            appendBigEndian64(out, length);
            out.insert(out.end(), input.begin() + static_cast<std::ptrdiff_t>(c * chunkSize),
                       input.begin() + static_cast<std::ptrdiff_t>(c * chunkSize + length));
        } else {
            appendBigEndian64(out, stream.size());
            out.insert(out.end(), stream.begin(), stream.end());
        }
    }
    if (!writeFile(outPath, out)) return 1;
    if (!blocksPath) return 0;
    Bytes all;
    std::vector<const Bytes*> blocks;
    for (const auto& e : encoded) blocks.push_back(&e);
    if (!appendStream(all, blocks, unpadded, sizes)) return 1;
    return writeFile(blocksPath, all) ? 0 : 1;
}

int decode(const char* path, const char* outPath) {
    qx::Ref<qx::FileHandle> out;
    if (std::strcmp(outPath, "-") == 0) {
        out = qx::FileHandle::fileHandleWithStandardOutput();
    } else {
        out = qx::FileHandle::fileHandleForWritingAtPath(outPath);
    }
    if (!out) {
        std::fprintf(stderr, "%s: cannot open for writing\n", outPath);
        return 1;
    }
    qx::Ref<qx::Error> error;
    const std::int64_t count = QXDecompressor::decompressFileAtURLToFileHandle(
        qx::URL::fileURLWithPath(path), out, QXDecompressionAlgorithmAutomatic, nullptr, nullptr, &error);
    if (count < 0) {
        std::fprintf(stderr, "%s: %s\n", path, error ? error->description().c_str() : "failed");
        return 1;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "payload" && argc == 4) return payload(argv[2], std::stoul(argv[3]));
    if (command == "pbzx" && (argc == 5 || argc == 6))
        return pbzx(argv[2], argv[3], std::stoul(argv[4]), argc == 6 ? argv[5] : nullptr);
    if (command == "decode" && (argc == 3 || argc == 4)) return decode(argv[2], argc == 4 ? argv[3] : "/dev/null");
    std::fprintf(stderr,
                 "usage: qx_decompress_bench payload OUT MIB | pbzx IN OUT MIB [XZ] | decode FILE [OUT]\n");
    return 2;
}
