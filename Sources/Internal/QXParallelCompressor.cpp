// QXParallelCompressor.cpp - blocks compressed by a pool of threads, or
// liblzma's own threads for xz.
#include "Internal/QXParallelCompressor.h"

#include <QXFoundation/QXCompressor.h>
#include <QXFoundation/QXError.h>

#include "Internal/QXDriverErrors.h"

#include <bzlib.h>
#include <lzma.h>
#include <zlib.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

using qx::Data;
using qx::Error;
using qx::Ref;

namespace {

constexpr std::size_t kWindow = 32768;       // what deflate can reach back
constexpr std::size_t kLZMARoom = 1 << 20;   // output room of one lzma_code call

// One block of input and, once a worker is through, its output.
struct Job {
    std::vector<std::uint8_t> input;
    std::vector<std::uint8_t> dictionary;  // deflate: the input just before the block
    bool last = false;
    std::size_t length = 0;                // of the input, kept once it is freed
    std::vector<std::uint8_t> output;
    std::uint32_t check = 0;               // CRC-32 (gzip) or Adler-32 (zlib) of the input
    int failure = 0;                       // the library's code when it failed
    bool done = false;                     // guarded by the pool's mutex
};

bool isDeflate(QXDecompressionAlgorithm algorithm) {
    return algorithm >= QXDecompressionAlgorithmDeflateAny && algorithm <= QXDecompressionAlgorithmGzip;
}

void appendLittleEndian32(Data& out, std::uint32_t value) {
    const std::uint8_t bytes[4] = {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8),
                                   static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 24)};
    out.append(bytes, 4);
}

} // namespace

struct QXParallelCompressor::Impl {
    QXDecompressionAlgorithm algorithm = QXDecompressionAlgorithmNone;
    int level = 6;  // -1 already made 6
    unsigned threads = 1;

    lzma_stream lzma = LZMA_STREAM_INIT;  // xz only

    std::mutex mutex;
    std::condition_variable workReady, jobDone;
    std::deque<std::shared_ptr<Job>> queue;     // guarded: waiting for a worker
    bool stopping = false;                      // guarded
    std::deque<std::shared_ptr<Job>> inFlight;  // every job not yet collected, in output order
    std::vector<std::thread> workers;

    std::vector<std::uint8_t> pending;  // input not yet cut into a block
    std::vector<std::uint8_t> window;   // deflate: the last kWindow bytes already cut
    std::uint32_t check = 0;
    std::uint64_t total = 0;
    bool headerWritten = false;
    bool finished = false;

    ~Impl() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
            queue.clear();
        }
        workReady.notify_all();
        for (auto& worker : workers) worker.join();
        lzma_end(&lzma);
    }

    std::size_t blockSize() const {
        return algorithm == QXDecompressionAlgorithmBZip2 ? static_cast<std::size_t>(level) * 100000
                                                          : kDeflateBlockSize;
    }

    void work();
    void deflateJob(Job& job, z_stream& z, bool& ready) const;
    void bzip2Job(Job& job) const;
    void submit(const std::uint8_t* bytes, std::size_t length, bool last, Data& out, Ref<Error>* error, bool& ok);
    bool collect(bool wait, Data& out, Ref<Error>* error);
    void writeHeader(Data& out);
    bool lzmaCode(const std::uint8_t* bytes, std::size_t length, lzma_action action, Data& out, Ref<Error>* error);
};

void QXParallelCompressor::Impl::work() {
    z_stream z{};
    bool ready = false;  // deflateEnd is owed
    for (;;) {
        std::shared_ptr<Job> job;
        {
            std::unique_lock<std::mutex> lock(mutex);
            workReady.wait(lock, [&] { return stopping || !queue.empty(); });
            if (stopping) break;
            job = std::move(queue.front());
            queue.pop_front();
        }
        if (algorithm == QXDecompressionAlgorithmBZip2) {
            bzip2Job(*job);
        } else {
            deflateJob(*job, z, ready);
        }
        job->input = {};
        job->dictionary = {};
        {
            std::lock_guard<std::mutex> lock(mutex);
            job->done = true;
        }
        jobDone.notify_all();
    }
    if (ready) deflateEnd(&z);
}

void QXParallelCompressor::Impl::deflateJob(Job& job, z_stream& z, bool& ready) const {
    const int result = ready ? deflateReset(&z) : deflateInit2(&z, level, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
    if (result != Z_OK) {
        job.failure = result;
        return;
    }
    ready = true;
    if (!job.dictionary.empty()) deflateSetDictionary(&z, job.dictionary.data(), static_cast<uInt>(job.dictionary.size()));
    // Every block but the last ends byte-aligned and open, so the next one's
    // bytes simply follow.
    const int flush = job.last ? Z_FINISH : Z_SYNC_FLUSH;
    job.output.resize(deflateBound(&z, job.input.size()) + 64);
    z.next_in = job.input.data();
    z.avail_in = static_cast<uInt>(job.input.size());
    std::size_t produced = 0;
    for (;;) {
        z.next_out = job.output.data() + produced;
        z.avail_out = static_cast<uInt>(job.output.size() - produced);
        const int code = deflate(&z, flush);
        produced = job.output.size() - z.avail_out;
        if (code == Z_STREAM_ERROR) {
            job.failure = code;
            return;
        }
        if (job.last ? code == Z_STREAM_END : (z.avail_in == 0 && z.avail_out != 0)) break;
        job.output.resize(job.output.size() * 2);
    }
    job.output.resize(produced);
    if (algorithm == QXDecompressionAlgorithmGzip)
        job.check = static_cast<std::uint32_t>(crc32_z(0, job.input.data(), job.input.size()));
    else if (algorithm != QXDecompressionAlgorithmRawDeflate)
        job.check = static_cast<std::uint32_t>(adler32_z(1, job.input.data(), job.input.size()));
}

void QXParallelCompressor::Impl::bzip2Job(Job& job) const {
    unsigned length = static_cast<unsigned>(job.input.size() + job.input.size() / 100 + 600);
    job.output.resize(length);
    char none = 0;  // libbz2 refuses a null source even when it is empty
    const int result = BZ2_bzBuffToBuffCompress(reinterpret_cast<char*>(job.output.data()), &length,
                                                job.input.empty() ? &none : reinterpret_cast<char*>(job.input.data()),
                                                static_cast<unsigned>(job.input.size()), level, 0, 0);
    if (result != BZ_OK) {
        job.failure = result;
        return;
    }
    job.output.resize(length);
}

void QXParallelCompressor::Impl::writeHeader(Data& out) {
    if (headerWritten) return;
    headerWritten = true;
    // The bytes zlib writes for the same level, so tools see nothing unusual.
    if (algorithm == QXDecompressionAlgorithmGzip) {
        const std::uint8_t extra = level == 9 ? 2 : level < 2 ? 4 : 0;
        const std::uint8_t header[10] = {0x1F, 0x8B, 8, 0, 0, 0, 0, 0, extra, 3};
        out.append(header, sizeof header);
        check = static_cast<std::uint32_t>(crc32_z(0, nullptr, 0));
    } else if (algorithm == QXDecompressionAlgorithmZlib || algorithm == QXDecompressionAlgorithmDeflateAny) {
        const unsigned flags = level < 2 ? 0 : level < 6 ? 1 : level == 6 ? 2 : 3;
        unsigned header = (0x78u << 8) | (flags << 6);
        header += 31 - header % 31;
        const std::uint8_t bytes[2] = {static_cast<std::uint8_t>(header >> 8), static_cast<std::uint8_t>(header)};
        out.append(bytes, 2);
        check = 1;
    }
}

bool QXParallelCompressor::Impl::collect(bool wait, Data& out, Ref<Error>* error) {
    while (!inFlight.empty()) {
        auto& job = *inFlight.front();
        {
            std::unique_lock<std::mutex> lock(mutex);
            if (!job.done && !wait) return true;
            jobDone.wait(lock, [&] { return job.done; });
        }
        if (job.failure != 0) {
            const bool bzip2 = algorithm == QXDecompressionAlgorithmBZip2;
            QXSetError(error, QXGenerateError(bzip2 ? QXCompressorBZ2ErrorDomain : QXCompressorZLIBErrorDomain,
                                              job.failure));
            return false;
        }
        out.append(job.output.data(), job.output.size());
        if (algorithm == QXDecompressionAlgorithmGzip)
            check = static_cast<std::uint32_t>(crc32_combine(check, job.check, static_cast<z_off_t>(job.length)));
        else if (isDeflate(algorithm) && algorithm != QXDecompressionAlgorithmRawDeflate)
            check = static_cast<std::uint32_t>(adler32_combine(check, job.check, static_cast<z_off_t>(job.length)));
        inFlight.pop_front();
    }
    return true;
}

// Makes the bytes a job, after making room for it among those in flight.
void QXParallelCompressor::Impl::submit(const std::uint8_t* bytes, std::size_t length, bool last, Data& out,
                                        Ref<Error>* error, bool& ok) {
    auto job = std::make_shared<Job>();
    job->input.assign(bytes, bytes + length);
    job->length = length;
    job->last = last;
    if (algorithm != QXDecompressionAlgorithmBZip2) {
        job->dictionary = window;
        window.insert(window.end(), job->input.begin(), job->input.end());
        if (window.size() > kWindow) window.erase(window.begin(), window.end() - static_cast<std::ptrdiff_t>(kWindow));
    }
    // A few blocks per thread keep every thread busy while output is taken.
    while (ok && inFlight.size() >= 3 * static_cast<std::size_t>(threads)) {
        ok = collect(false, out, error);
        if (ok && inFlight.size() >= 3 * static_cast<std::size_t>(threads)) {
            auto& front = *inFlight.front();
            std::unique_lock<std::mutex> lock(mutex);
            jobDone.wait(lock, [&] { return front.done; });
        }
    }
    inFlight.push_back(job);
    {
        std::lock_guard<std::mutex> lock(mutex);
        queue.push_back(std::move(job));
    }
    workReady.notify_one();
}

bool QXParallelCompressor::Impl::lzmaCode(const std::uint8_t* bytes, std::size_t length, lzma_action action,
                                          Data& out, Ref<Error>* error) {
    lzma.next_in = bytes;
    lzma.avail_in = length;
    for (;;) {
        const std::size_t at = out.length();
        out.setLength(at + kLZMARoom);
        lzma.next_out = out.mutableBytes() + at;
        lzma.avail_out = kLZMARoom;
        const lzma_ret result = lzma_code(&lzma, action);
        out.setLength(at + kLZMARoom - lzma.avail_out);
        if (result == LZMA_STREAM_END) {
            finished = true;
            return true;
        }
        if (result != LZMA_OK) {
            QXSetError(error, QXGenerateError("lzma_code", result));
            return false;
        }
        if (action == LZMA_FINISH) return true;  // one piece at a time
        if (lzma.avail_in == 0 && lzma.avail_out != 0) return true;
    }
}

bool QXParallelCompressor::isFinished() const { return impl_->finished; }

QXParallelCompressor::QXParallelCompressor(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
QXParallelCompressor::~QXParallelCompressor() = default;

unsigned QXParallelCompressor::resolvedThreadCount(unsigned threads) {
    if (threads != 0) return threads;
    return std::max(1u, std::thread::hardware_concurrency());
}

std::unique_ptr<QXParallelCompressor> QXParallelCompressor::create(QXDecompressionAlgorithm algorithm, int level,
                                                                   unsigned threads, Ref<Error>* error) {
    if (algorithm == QXDecompressionAlgorithmNone) {
        QXSetError(error, QXGenerateError(qx::NSPOSIXErrorDomain, 22));
        return nullptr;
    }
    // The single-stream set-up refuses what the libraries would refuse, with its errors.
    if (!QXCompressor::initForStreamingWithAlgorithm(algorithm, level, error)) return nullptr;
    auto impl = std::make_unique<Impl>();
    impl->algorithm = algorithm;
    impl->level = level == Z_DEFAULT_COMPRESSION && isDeflate(algorithm) ? 6 : level;
    impl->threads = resolvedThreadCount(threads);
    if (algorithm == QXDecompressionAlgorithmXZ) {
        lzma_mt options{};
        options.threads = impl->threads;
        options.preset = static_cast<std::uint32_t>(level);
        options.check = LZMA_CHECK_CRC64;
        const lzma_ret result = lzma_stream_encoder_mt(&impl->lzma, &options);
        if (result != LZMA_OK) {
            QXSetError(error, QXGenerateError("lzma_stream_encoder_mt", result));
            return nullptr;
        }
    } else {
        for (unsigned i = 0; i < impl->threads; ++i) impl->workers.emplace_back([raw = impl.get()] { raw->work(); });
    }
    return std::unique_ptr<QXParallelCompressor>(new QXParallelCompressor(std::move(impl)));
}

Ref<Data> QXParallelCompressor::compress(const std::uint8_t* bytes, std::size_t length, Ref<Error>* error) {
    Impl& s = *impl_;
    auto out = Data::create();
    if (s.finished) {
        QXSetError(error, QXGenerateError(qx::NSPOSIXErrorDomain, 22));
        return nullptr;
    }
    if (s.algorithm == QXDecompressionAlgorithmXZ) {
        if (length == 0) return out;
        return s.lzmaCode(bytes, length, LZMA_RUN, *out, error) ? out : nullptr;
    }
    s.writeHeader(*out);
    s.pending.insert(s.pending.end(), bytes, bytes + length);
    s.total += length;
    bool ok = true;
    // A block is cut only once input follows it: the last block is the one
    // that finishes the stream.
    std::size_t cut = 0;
    while (ok && s.pending.size() - cut > s.blockSize()) {
        s.submit(s.pending.data() + cut, s.blockSize(), false, *out, error, ok);
        cut += s.blockSize();
    }
    s.pending.erase(s.pending.begin(), s.pending.begin() + static_cast<std::ptrdiff_t>(cut));
    if (ok) ok = s.collect(false, *out, error);
    return ok ? out : nullptr;
}

Ref<Data> QXParallelCompressor::finish(Ref<Error>* error) {
    Impl& s = *impl_;
    auto out = Data::create();
    if (s.finished) return out;
    if (s.algorithm == QXDecompressionAlgorithmXZ) {
        if (!s.lzmaCode(nullptr, 0, LZMA_FINISH, *out, error)) return nullptr;
        return out;
    }
    s.writeHeader(*out);
    bool ok = true;
    // Deflate's last block ends the stream even when empty; bzip2 needs one
    // stream, for empty input, but no empty one after others.
    if (s.algorithm != QXDecompressionAlgorithmBZip2 || !s.pending.empty() || s.total == 0)
        s.submit(s.pending.data(), s.pending.size(), true, *out, error, ok);
    if (!ok || !s.collect(true, *out, error)) return nullptr;
    if (s.algorithm == QXDecompressionAlgorithmGzip) {
        appendLittleEndian32(*out, s.check);
        appendLittleEndian32(*out, static_cast<std::uint32_t>(s.total));
    } else if (s.algorithm == QXDecompressionAlgorithmZlib || s.algorithm == QXDecompressionAlgorithmDeflateAny) {
        const std::uint8_t bytes[4] = {static_cast<std::uint8_t>(s.check >> 24), static_cast<std::uint8_t>(s.check >> 16),
                                       static_cast<std::uint8_t>(s.check >> 8), static_cast<std::uint8_t>(s.check)};
        out->append(bytes, 4);
    }
    s.finished = true;
    return out;
}
