// QXDecompressor.cpp - the streaming decompressor, detection and the synchronous drivers.
#include <QXFoundation/QXDecompressor.h>

#include <QXFoundation/QXDecompressionOperation.h>
#include <QXFoundation/QXError.h>
#include <QXFoundation/QXExplode.h>
#include <QXFoundation/QXPBZXDecode.h>
#include <QXFoundation/QXRingBuffer.h>
#include <QXFoundation/QXUnshrink.h>

#include "Internal/QXFoundationPrivate.h"
#include "Internal/QXStoragePool.h"

#include <qx/Exception.h>
#include <qx/Log.h>
#include <qx/String.h>
#include <qx/UUID.h>

#include <bzlib.h>
#include <fcntl.h>
#include <lzma.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <exception>
#include <limits>
#include <mutex>
#include <set>
#include <thread>

using qx::Data;
using qx::Error;
using qx::Ref;

namespace {

constexpr std::size_t kBufferSize = 1048576;
// The most one zlib or libbz2 call can take (their counts are 32-bit).
constexpr std::uint64_t kMaxPieceLength = 4294967295ULL;

const std::uint8_t kXZMagic[6] = {0xFD, 0x37, 0x7A, 0x58, 0x5A, 0x00};
const std::uint8_t kPBZXMagic[4] = {'p', 'b', 'z', 'x'};

struct InflateEnd {
    void operator()(z_stream* s) const {
        inflateEnd(s);
        delete s;
    }
};
struct BZDecompressEnd {
    void operator()(bz_stream* s) const {
        BZ2_bzDecompressEnd(s);
        delete s;
    }
};
// xz decoders that have ended, kept for the next ones: liblzma keeps a
// stream's dictionary when the stream is set up again for one of the same
// size, so a PBZX file's chunk decoders stop mapping and clearing megabytes
// of fresh dictionary per chunk. Bounded by the parallel decoders there can
// be and by what each holds (the presets up to 7 fit), since the pool lives
// as long as the process.
class LzmaPool {
    static constexpr std::uint64_t kMaxPooledXZMemory = 24 * 1048576;

public:
    static LzmaPool& shared() {
        static LzmaPool* const pool = new LzmaPool();
        return *pool;
    }
    lzma_stream* take() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!spare_.empty()) {
                lzma_stream* stream = spare_.back();
                spare_.pop_back();
                return stream;
            }
        }
        return new lzma_stream(LZMA_STREAM_INIT);
    }
    void giveBack(lzma_stream* stream) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (spare_.size() < static_cast<std::size_t>(QXDecompressor::maxOperationCount()) &&
                lzma_memusage(stream) <= kMaxPooledXZMemory) {
                spare_.push_back(stream);
                return;
            }
        }
        lzma_end(stream);
        delete stream;
    }

private:
    std::mutex mutex_;
    std::vector<lzma_stream*> spare_;
};

// Turns for the chunk decoders to run liblzma, as many as there are
// processors. More chunks than that are decoded at once (the drain needs the
// later ones under way while it waits for the oldest), but letting them all
// run would have them take the processors from each other every few
// milliseconds, each time with the caches full of another decoder's
// dictionary. A turn goes to the oldest chunk waiting, so the one the drain
// waits for is never held up by later ones. A decoder that has to wait for
// room gives its turn up first: the room comes from a drain that may be
// waiting for the very chunk that needs the turn.
class DecodeTurns {
public:
    static DecodeTurns& shared() {
        static DecodeTurns* const turns = new DecodeTurns();
        return *turns;
    }
    void take(std::uint64_t order) {
        std::unique_lock<std::mutex> lock(mutex_);
        waiting_.insert(order);
        changed_.wait(lock, [&] { return running_ < processors_ && *waiting_.begin() == order; });
        waiting_.erase(waiting_.begin());
        ++running_;
        // The next oldest may find a turn free too.
        if (running_ < processors_ && !waiting_.empty()) changed_.notify_all();
    }
    // Whether a chunk older than order waits for a turn.
    bool olderWaits(std::uint64_t order) {
        std::lock_guard<std::mutex> lock(mutex_);
        return !waiting_.empty() && *waiting_.begin() < order;
    }
    void giveBack() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            --running_;
            if (waiting_.empty()) return;
        }
        changed_.notify_all();
    }

private:
    DecodeTurns() : processors_(std::max(1u, std::thread::hardware_concurrency())) {}
    const unsigned processors_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::set<std::uint64_t> waiting_;
    unsigned running_ = 0;
};

struct LzmaEnd {
    void operator()(lzma_stream* s) const { LzmaPool::shared().giveBack(s); }
};
struct ExplodeEnd {
    void operator()(QXExplodeStream* s) const { QXExplodeCleanup(s); }
};
struct UnshrinkEnd {
    void operator()(QXUnshrinkStream* s) const { QXUnshrinkCleanup(s); }
};
struct PBZXEnd {
    void operator()(QXPBZXDecodeStream* s) const { QXPBZXDecodeCleanup(s); }
};

void setError(Ref<Error>* error, Ref<Error> value) {
    if (error) *error = std::move(value);
}

Ref<Error> cocoaError(std::int64_t code) { return QXGenerateError(qx::NSCocoaErrorDomain, code); }
Ref<Error> posixError(std::int64_t code) { return QXGenerateError(qx::NSPOSIXErrorDomain, code); }

// A platform file-handle fault, turned into an error at the library's boundary.
Ref<Error> exceptionError(const qx::Exception& e, std::int64_t code) {
    return QXGenerateError(qx::NSCocoaErrorDomain, code, nullptr, nullptr, nullptr, QXFLocalizedString("%@"),
                           qx::str(e.description()));
}

Ref<qx::Array> magicArray(std::initializer_list<std::initializer_list<std::uint8_t>> prefixes) {
    auto array = qx::Array::create();
    for (const auto& prefix : prefixes) array->addObject(Data::withBytes(prefix.begin(), prefix.size()));
    return array;
}

const Ref<qx::Array>& gzipMagic() {
    static const Ref<qx::Array> magic = magicArray({{0x1F, 0x8B}});
    return magic;
}
const Ref<qx::Array>& zlibMagic() {
    static const Ref<qx::Array> magic = magicArray({{0x78, 0x9C}, {0x78, 0xDA}, {0x78, 0x01}});
    return magic;
}
const Ref<qx::Array>& bzip2Magic() {
    static const Ref<qx::Array> magic = magicArray({{0x42, 0x5A, 0x68}});
    return magic;
}
const Ref<qx::Array>& xzMagic() {
    static const Ref<qx::Array> magic = magicArray({{0xFD, 0x37, 0x7A, 0x58, 0x5A, 0x00}});
    return magic;
}
const Ref<qx::Array>& pbzxMagic() {
    static const Ref<qx::Array> magic = magicArray({{0x70, 0x62, 0x7A, 0x78}});
    return magic;
}

// liblzma's output room per call: small enough to stay in the first-level caches.
constexpr std::size_t kXZRoomSize = 65536;

// The most output storage kept for reuse between calls.
constexpr std::size_t kMaxKeptOutput = 64 * kBufferSize;

// Output storage for one streaming call. A fresh buffer of megabytes per call
// costs more in page faults than decoding fills it, so storage that an earlier
// output gave back is used again; an output still held is never touched. Two
// are kept: a caller may still hold one output while asking for the next.
Ref<Data> reusableOutput(std::shared_ptr<QXStoragePool>& pool) {
    if (!pool) pool = QXStoragePool::create(2, 0, kMaxKeptOutput);
    return pool->take();
}

// The generic driver's input: pieces of up to kBufferSize bytes read from a
// handle. From a regular file the next piece is read on a thread of its own
// while the current one is decoded, so that copying the file in overlaps with
// decoding; pipes, sockets and terminals are read inline, when asked, since a
// read ahead there could wait for bytes nobody is going to send. Two buffers
// go back and forth between the reader and the decoder.
class HandleReader {
public:
    explicit HandleReader(qx::FileHandle& handle) : handle_(handle) {
        struct stat info {};
        const bool regular = ::fstat(handle.fileDescriptor(), &info) == 0 && S_ISREG(info.st_mode);
        for (int i = 0; i < 2; ++i) free_.push_back(Data::create());
        if (regular) thread_ = std::thread([this] { run(); });
    }
    ~HandleReader() {
        if (!thread_.joinable()) return;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }
    HandleReader(const HandleReader&) = delete;
    HandleReader& operator=(const HandleReader&) = delete;

    /// The next piece, empty at the end; a read fault is rethrown here.
    Ref<Data> next() {
        if (!thread_.joinable()) {
            Ref<Data> piece = free_.front();
            fill(*piece);
            return piece;
        }
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return !ready_.empty() || failure_; });
        if (ready_.empty()) std::rethrow_exception(failure_);
        Ref<Data> piece = std::move(ready_.front());
        ready_.pop_front();
        return piece;
    }
    /// Hands a piece from next() back for the reads to come.
    void recycle(Ref<Data> piece) {
        if (!thread_.joinable()) return;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            free_.push_back(std::move(piece));
        }
        changed_.notify_all();
    }

private:
    void fill(Data& piece) {
        piece.setLength(kBufferSize);
        piece.setLength(handle_.readBytesOfLength(piece.mutableBytes(), kBufferSize));
    }
    void run() {
        for (;;) {
            Ref<Data> piece;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                changed_.wait(lock, [this] { return stop_ || !free_.empty(); });
                if (stop_) return;
                piece = std::move(free_.back());
                free_.pop_back();
            }
            bool atEnd = false;
            try {
                fill(*piece);
                atEnd = piece->length() == 0;
            } catch (...) {
                std::lock_guard<std::mutex> lock(mutex_);
                failure_ = std::current_exception();
                changed_.notify_all();
                return;
            }
            {
                std::lock_guard<std::mutex> lock(mutex_);
                ready_.push_back(std::move(piece));
            }
            changed_.notify_all();
            if (atEnd) return;
        }
    }

    qx::FileHandle& handle_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Ref<Data>> free_;
    std::deque<Ref<Data>> ready_;
    std::exception_ptr failure_;
    bool stop_ = false;
    std::thread thread_;  // joined by the destructor before the state it uses goes
};

std::uint64_t readBigEndian64(const std::uint8_t* p) {
    std::uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v = (v << 8) | p[i];
    return v;
}

} // namespace

// ---------------------------------------------------------------------------
// Decoder states

struct QXDecompressor::Decoders {
    // Storage given back by earlier outputs once their holders let go.
    std::shared_ptr<QXStoragePool> output;
    // PBZX only: storage of input pieces the chunk decoders are done with.
    std::shared_ptr<QXStoragePool> pieces;
    // Gzip only: filled in by inflate; done once the header is read.
    gz_header gzipHeader{};
    bool checkOff = false;
    std::unique_ptr<bz_stream, BZDecompressEnd> bzip2;
    std::unique_ptr<z_stream, InflateEnd> zlib;
    std::unique_ptr<QXExplodeStream, ExplodeEnd> explode;
    std::unique_ptr<QXUnshrinkStream, UnshrinkEnd> unshrink;
    std::unique_ptr<lzma_stream, LzmaEnd> lzma;
    std::unique_ptr<QXPBZXDecodeStream, PBZXEnd> pbzx;
};

// ---------------------------------------------------------------------------
// The streaming object

QXDecompressor::QXDecompressor() : decoders_(std::make_unique<Decoders>()), streamIn_(Data::create()) {}

QXDecompressor::~QXDecompressor() {
    releaseDecodeTurn();
    // Chunk decoders still at work would otherwise go on filling buffers that
    // nobody reads; cancelling wakes any of them asleep on a full one.
    if (!operations_.empty()) {
        const auto error = cocoaError(3072);
        for (auto& operation : operations_) operation->cancelWithError(error);
        // Their threads stop within one run of output; none is left holding
        // memory of a decompressor that is gone.
        for (auto& operation : operations_) operation->waitUntilInputIsProcessed();
    }
}

Ref<QXDecompressor> QXDecompressor::init() { return Ref<QXDecompressor>(new QXDecompressor()); }

Ref<QXDecompressor> QXDecompressor::initForStreamingAndReturnError(Ref<Error>* error) {
    return initForStreamingWithAlgorithm(QXDecompressionAlgorithmAutomatic, error);
}

Ref<QXDecompressor> QXDecompressor::initForStreamingWithAlgorithm(QXDecompressionAlgorithm algorithm,
                                                                  Ref<Error>* error) {
    auto decompressor = init();
    decompressor->algorithm_ = algorithm;
    if (!decompressor->setUpWithData(Data::create(), error)) return nullptr;
    return decompressor;
}

Ref<QXDecompressor> QXDecompressor::initForExplodeStreamingWithUncompressedSize(std::uint64_t uncompressedSize,
                                                                                bool useLargeDictionary,
                                                                                bool useLiteralTree,
                                                                                Ref<Error>* error) {
    auto decompressor = init();
    decompressor->decoders_->explode.reset(QXExplodeInit(uncompressedSize, useLargeDictionary, useLiteralTree));
    if (!decompressor->decoders_->explode) {
        setError(error, cocoaError(256));
        return nullptr;
    }
    decompressor->setUp_ = true;
    return decompressor;
}

Ref<QXDecompressor> QXDecompressor::initForUnshrinkStreamingWithUncompressedSize(std::uint64_t uncompressedSize,
                                                                                 Ref<Error>* error) {
    auto decompressor = init();
    decompressor->decoders_->unshrink.reset(QXUnshrinkInit(uncompressedSize));
    if (!decompressor->decoders_->unshrink) {
        setError(error, cocoaError(256));
        return nullptr;
    }
    decompressor->setUp_ = true;
    return decompressor;
}

Ref<QXDecompressor> QXDecompressor::streamingDecompressorWithError(Ref<Error>* error) {
    return initForStreamingWithAlgorithm(QXDecompressionAlgorithmAutomatic, error);
}

Ref<QXDecompressor> QXDecompressor::streamingDecompressorWithAlgorithm(QXDecompressionAlgorithm algorithm,
                                                                       Ref<Error>* error) {
    return initForStreamingWithAlgorithm(algorithm, error);
}

bool QXDecompressor::setUpWithData(const Ref<Data>& data, Ref<Error>* error) {
    if (setUp_) return true;
    const std::size_t length = data ? data->length() : 0;
    switch (algorithm_) {
    case QXDecompressionAlgorithmAutomatic: {
        QXDecompressionAlgorithm found = QXDecompressionAlgorithmNone;
        if (!data || !isDataCompressed(data, &found)) return true;
        algorithm_ = found;
        return setUpWithData(data, error);
    }
    case QXDecompressionAlgorithmDeflateAny:
    case QXDecompressionAlgorithmRawDeflate:
    case QXDecompressionAlgorithmZlib:
    case QXDecompressionAlgorithmGzip: {
        if (length < 2) return true;
        int windowBits = 47;  // zlib or gzip header, detected by zlib; 32 KiB window
        if (algorithm_ == QXDecompressionAlgorithmRawDeflate) windowBits = -15;
        if (algorithm_ == QXDecompressionAlgorithmDeflateAny) {
            if (isDataZlibCompressed(data)) {
                algorithm_ = QXDecompressionAlgorithmZlib;
            } else if (isDataGZCompressed(data)) {
                algorithm_ = QXDecompressionAlgorithmGzip;
            } else {
                algorithm_ = QXDecompressionAlgorithmRawDeflate;
                windowBits = -15;
            }
        }
        auto stream = std::unique_ptr<z_stream>(new z_stream{});
        int result = inflateInit2(stream.get(), windowBits);
        if (result != Z_OK) {
            QXLog("inflateInit2: error %d", result);
            setError(error, QXGenerateError("inflateInit2", result, nullptr, nullptr, nullptr,
                                            QXFLocalizedString("inflateInit2: %s"), std::string(zError(result))));
            return false;
        }
        if (algorithm_ == QXDecompressionAlgorithmGzip) inflateGetHeader(stream.get(), &decoders_->gzipHeader);
        decoders_->zlib.reset(stream.release());
        break;
    }
    case QXDecompressionAlgorithmBZip2: {
        auto stream = std::unique_ptr<bz_stream>(new bz_stream{});
        int result = BZ2_bzDecompressInit(stream.get(), 0, 0);
        if (result != BZ_OK) {
            QXLog("BZ2_bzDecompressInit: error %d", result);
            setError(error, QXGenerateError("BZ2_bzDecompressInit", result, nullptr, nullptr, nullptr,
                                            "BZ2_bzDecompressInit: error %d", result));
            return false;
        }
        decoders_->bzip2.reset(stream.release());
        break;
    }
    case QXDecompressionAlgorithmXZ: {
        // A chunk decoder takes a stream only once it may run: a decoder
        // ended before it gives its stream back, dictionary already paged in.
        if (directOutput_) takeDecodeTurn();
        auto stream = std::unique_ptr<lzma_stream, LzmaEnd>(LzmaPool::shared().take());
        lzma_ret result = lzma_stream_decoder(stream.get(), UINT64_MAX, LZMA_CONCATENATED);
        if (result != LZMA_OK) {
            QXLog("lzma_stream_decoder: error %d", static_cast<int>(result));
            setError(error, QXGenerateError("lzma_stream_decoder", result));
            return false;
        }
        decoders_->lzma.reset(stream.release());
        break;
    }
    case QXDecompressionAlgorithmPBZX: {
        decoders_->pbzx.reset(QXPBZXDecodeInit());
        if (!decoders_->pbzx) {
            QXLog("QXPBZXDecodeInit failed");
            setError(error, cocoaError(256));
            return false;
        }
        operations_.clear();
        break;
    }
    default:
        break;
    }
    setUp_ = true;
    return true;
}

Ref<Data> QXDecompressor::decompressedDataFromStreamWithInputData(const Ref<Data>& input, bool isFinal,
                                                                  bool* shouldRunAgain, Ref<Error>* error) {
    if (shouldRunAgain) *shouldRunAgain = false;
    if (!input) {
        setError(error, posixError(22));
        return nullptr;
    }
    if (finished_) return Data::create();

    if (algorithm_ == QXDecompressionAlgorithmGzip && firstDataRead_ && decoders_->zlib &&
        streamIn_->length() <= 8 && input->length() >= 8) {
        // The steady state of a gzip stream: all that is held is the previous
        // call's last 8 bytes. They go to inflate ahead of this input, and this
        // input's last 8 are held instead, without joining the two first.
        std::uint8_t held[8];
        const std::size_t heldLength = streamIn_->length();
        std::memcpy(held, streamIn_->bytes(), heldLength);
        streamIn_->setLength(0);
        streamIn_->append(input->bytes() + input->length() - 8, 8);
        auto out = reusableOutput(decoders_->output);
        if (!zlibFeed(held, heldLength, *out, error) ||
            !zlibFeed(input->bytes(), input->length() - 8, *out, error))
            return nullptr;
        return out;
    }

    Ref<Data> in = input;
    if (streamIn_->length() > 0) {
        streamIn_->append(*input);
        in = streamIn_;
        streamIn_ = Data::create();
    }
    if (!setUp_) {
        if (!setUpWithData(in, error)) return nullptr;
        if (!setUp_) {
            // Detection looks at the first maxMagicLength bytes only; once that
            // many failed to match, more input can never change the answer, so
            // unrecognised data is not buffered without bound.
            const std::size_t held = algorithm_ == QXDecompressionAlgorithmAutomatic
                                         ? std::min<std::size_t>(in->length(), maxMagicLength())
                                         : in->length();
            streamIn_->append(in->bytes(), held);
            return Data::create();
        }
    }
    if (algorithm_ == QXDecompressionAlgorithmGzip) {
        // The trailer is kept back from inflate on purpose (see the header).
        const std::size_t keep = std::min<std::size_t>(8, in->length());
        if (!firstDataRead_ && in->length() - keep == 1) {
            // Too little to start on: hold it all, in order, ahead of the trailer bytes.
            streamIn_->append(*in);
            firstDataRead_ = true;
            return Data::create();
        }
        streamIn_->append(in->bytes() + in->length() - keep, keep);
        in = in->subdata(0, in->length() - keep);
    }
    Ref<Data> out;
    if (decoders_->zlib) {
        out = zlibRoutine(in, error);
    } else if (decoders_->bzip2) {
        out = bzip2Routine(in, error);
    } else if (decoders_->explode) {
        out = explodeRoutine(in, error);
    } else if (decoders_->unshrink) {
        out = unshrinkRoutine(in, error);
    } else if (decoders_->lzma) {
        out = xzRoutine(in, isFinal, error);
    } else if (decoders_->pbzx) {
        out = pbzxRoutine(in, isFinal, shouldRunAgain, error);
    } else {
        out = Data::withBytes(in->bytes(), in->length());
    }
    firstDataRead_ = true;
    return out;
}

Ref<Data> QXDecompressor::zlibRoutine(const Ref<Data>& input, Ref<Error>* error) {
    if (input->length() == 0) return Data::create();
    if (!firstDataRead_ && input->length() < 2) {
        streamIn_->append(*input);
        return Data::create();
    }
    auto out = reusableOutput(decoders_->output);
    if (!zlibFeed(input->bytes(), input->length(), *out, error)) return nullptr;
    return out;
}

bool QXDecompressor::zlibFeed(const std::uint8_t* bytes, std::uint64_t length, Data& out, Ref<Error>* error) {
    z_stream* z = decoders_->zlib.get();
    while (length > 0 && !finished_) {
        const std::uint64_t piece = std::min(kMaxPieceLength, length);
        z->next_in = const_cast<Bytef*>(bytes);
        z->avail_in = static_cast<uInt>(piece);
        int result;
        for (;;) {
            const std::size_t at = out.length();
            out.setLength(at + kBufferSize);
            z->next_out = out.mutableBytes() + at;
            z->avail_out = static_cast<uInt>(kBufferSize);
            result = inflate(z, Z_SYNC_FLUSH);
            out.setLength(at + kBufferSize - z->avail_out);
            if (decoders_->gzipHeader.done != 0 && !decoders_->checkOff) {
                // Gzip trailers never reach inflate (see the header), so the
                // running CRC-32 could never be compared: stop computing it
                // once the header, and with it any header CRC, is checked.
                inflateValidate(z, 0);
                decoders_->checkOff = true;
            }
            if (result == Z_OK) {
                // A full output room may mean more output is pending without input.
                if (z->avail_in == 0 && z->avail_out != 0) break;
                continue;
            }
            if (result == Z_STREAM_END) finished_ = true;
            break;
        }
        z->next_in = nullptr;
        z->avail_in = 0;
        if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) {
            QXLog("zlib error: %d", result);
            setError(error, QXGenerateError("inflate", result, nullptr, nullptr, nullptr,
                                            QXFLocalizedString("inflate: %s"), std::string(zError(result))));
            return false;
        }
        if (result == Z_BUF_ERROR) break;
        bytes += piece;
        length -= piece;
    }
    return true;
}

Ref<Data> QXDecompressor::bzip2Routine(const Ref<Data>& input, Ref<Error>* error) {
    if (input->length() == 0) return Data::create();
    auto out = reusableOutput(decoders_->output);
    if (!bzip2Feed(input->bytes(), input->length(), *out, error)) return nullptr;
    return out;
}

bool QXDecompressor::bzip2Feed(const std::uint8_t* bytes, std::uint64_t length, Data& out, Ref<Error>* error) {
    bz_stream* bz = decoders_->bzip2.get();
    while (length > 0 && !finished_) {
        const std::uint64_t piece = std::min(kMaxPieceLength, length);
        bz->next_in = reinterpret_cast<char*>(const_cast<std::uint8_t*>(bytes));
        bz->avail_in = static_cast<unsigned>(piece);
        int result;
        for (;;) {
            const std::size_t at = out.length();
            out.setLength(at + kBufferSize);
            bz->next_out = reinterpret_cast<char*>(out.mutableBytes() + at);
            bz->avail_out = static_cast<unsigned>(kBufferSize);
            const unsigned inBefore = bz->avail_in;
            result = BZ2_bzDecompress(bz);
            out.setLength(at + kBufferSize - bz->avail_out);
            if (result == BZ_OK) {
                if (bz->avail_in == 0 && bz->avail_out != 0) break;
                if (bz->avail_in == inBefore && bz->avail_out == kBufferSize) break;  // no progress possible
                continue;
            }
            // libbz2 refuses every call after its end; later input is ignored.
            if (result == BZ_STREAM_END) finished_ = true;
            break;
        }
        bz->next_in = nullptr;
        bz->avail_in = 0;
        if (result != BZ_OK && result != BZ_STREAM_END) {
            QXLog("error decompressing: %d", result);
            setError(error, QXGenerateError("BZ2_bzDecompress", result, nullptr, nullptr, nullptr,
                                            QXFLocalizedString("BZ2_bzDecompress: error %d"), result));
            return false;
        }
        bytes += piece;
        length -= piece;
    }
    return true;
}

Ref<Data> QXDecompressor::xzRoutine(const Ref<Data>& input, bool isFinal, Ref<Error>* error) {
    Ref<Data> in = input;
    if (!firstDataRead_) {
        if (in->length() < 6) {
            streamIn_->append(*in);
            return Data::create();
        }
        // Only the first five bytes are looked at, as the header check does.
        if (std::memcmp(in->bytes(), kXZMagic, 4) != 0 || in->bytes()[4] != kXZMagic[4]) {
            auto withMagic = Data::withBytes(kXZMagic, sizeof kXZMagic);
            withMagic->append(*in);
            in = withMagic;
        }
    }
    lzma_stream* lz = decoders_->lzma.get();
    lz->next_in = in->bytes();
    lz->avail_in = in->length();
    const lzma_action action = isFinal ? LZMA_FINISH : LZMA_RUN;
    if (directOutput_) return xzIntoRing(isFinal, error) ? Data::create() : nullptr;
    auto out = reusableOutput(decoders_->output);
    // liblzma copies out of its dictionary anyway, so its output goes to the
    // one room that stays in cache and is appended from there, rather than
    // into freshly cleared storage at the end of out.
    std::uint8_t* room = scratch();
    for (;;) {
        lz->next_out = room;
        lz->avail_out = kXZRoomSize;
        const lzma_ret result = lzma_code(lz, action);
        out->append(room, kXZRoomSize - lz->avail_out);
        const XZStep step = xzStep(result, isFinal, error);
        if (step == XZStep::More) continue;
        if (step == XZStep::Stop) break;
        lz->next_in = nullptr;
        lz->avail_in = 0;
        return nullptr;
    }
    lz->next_in = nullptr;
    lz->avail_in = 0;
    return out;
}

// What to do after one liblzma call whose output has been taken care of.
QXDecompressor::XZStep QXDecompressor::xzStep(int result, bool isFinal, Ref<Error>* error) {
    const lzma_stream* lz = decoders_->lzma.get();
    if (result == LZMA_OK) {
        // When finishing, liblzma answers a call that can make no progress
        // with LZMA_BUF_ERROR: that is how a truncated stream shows.
        return !isFinal && lz->avail_in == 0 && lz->avail_out != 0 ? XZStep::Stop : XZStep::More;
    }
    if (result == LZMA_STREAM_END) {
        finished_ = true;
        return XZStep::Stop;
    }
    setError(error, QXGenerateError("lzma_code", result));
    return XZStep::Failed;
}

// The chunk decoders' form of the xz routine: liblzma copies out of its
// dictionary anyway, so it copies straight into the ring buffer the drain
// reads, a run of at most kBufferSize at a time so that output reaches the
// drain as it is made.
bool QXDecompressor::xzIntoRing(bool isFinal, Ref<Error>* error) {
    lzma_stream* lz = decoders_->lzma.get();
    const lzma_action action = isFinal ? LZMA_FINISH : LZMA_RUN;
    bool ok = true;
    takeDecodeTurn();
    for (;;) {
        std::uint64_t room = 0;
        std::uint8_t* at = directOutput_->reserveWrite(&room, false);
        if (at && directOutput_->isClosed()) {
            // A cancel closes the buffer: no use decoding the rest of the piece.
            at = nullptr;
            room = 0;
        } else if (!at) {
            releaseDecodeTurn();
            at = directOutput_->reserveWrite(&room, true);
            if (at) takeDecodeTurn();
        }
        if (!at) {
            // Closed: before the end only a cancel or a failure does that.
            setError(error, cancelError_ ? cancelError_ : cocoaError(3072));
            ok = false;
            break;
        }
        room = std::min<std::uint64_t>(room, kBufferSize);
        lz->next_out = at;
        lz->avail_out = static_cast<std::size_t>(room);
        const lzma_ret result = lzma_code(lz, action);
        directOutput_->commitWrite(room - lz->avail_out);
        yieldDecodeTurnToOlder();
        const XZStep step = xzStep(result, isFinal, error);
        if (step == XZStep::More) continue;
        ok = step == XZStep::Stop;
        break;
    }
    lz->next_in = nullptr;
    lz->avail_in = 0;
    lz->next_out = nullptr;
    lz->avail_out = 0;
    if (!ok || finished_) {
        // Nothing more to decode: the stream goes back for the next chunk now,
        // not when the drain lets go of this decoder.
        if (finished_) decoders_->lzma.reset();
        releaseDecodeTurn();
    }
    return ok;
}

void QXDecompressor::takeDecodeTurn() {
    if (holdsDecodeTurn_) return;
    DecodeTurns::shared().take(directOutputOrder_);
    holdsDecodeTurn_ = true;
}

void QXDecompressor::releaseDecodeTurn() {
    if (!holdsDecodeTurn_) return;
    DecodeTurns::shared().giveBack();
    holdsDecodeTurn_ = false;
}

// Hands the turn to an older chunk that waits for one, and waits for the next.
void QXDecompressor::yieldDecodeTurnToOlder() {
    if (!holdsDecodeTurn_ || !DecodeTurns::shared().olderWaits(directOutputOrder_)) return;
    releaseDecodeTurn();
    takeDecodeTurn();
}

std::uint8_t* QXDecompressor::scratch() {
    // Left uninitialised: decoders only hand back bytes they wrote.
    if (!buffer_) buffer_.reset(new std::uint8_t[kBufferSize]);
    return buffer_.get();
}

Ref<Error> QXDecompressor::failPBZX(int result) {
    QXLog("Error decoding PBZX file: %ld", static_cast<long>(result));
    Ref<Error> error;
    switch (result) {
    case 1: error = cocoaError(256); break;
    case 4: error = posixError(22); break;
    case 5: error = cocoaError(259); break;
    default: error = QXGenerateError("QXPBZXDecode", result); break;
    }
    cancelWithError(error);
    return error;
}

// The drain takes output from the oldest operation only, so the output keeps
// the container's order. When it has to wait for that operation (a new chunk
// starts while the list is full, or the input has ended and the caller came
// back for output), it sleeps
// in the operation's ring buffer until bytes arrive or the operation can
// produce no more: a consumer that polled instead would take a core from the
// very decoders it waits for. An operation leaves the list once it has ended
// (done or failed), whether or not the shared queue has started it yet: the
// decoding runs on the operation's own queue, and waiting for a queue place
// could deadlock when the queue is full of workers that are themselves
// waiting here.
Ref<Error> QXDecompressor::drainPBZXOperations(Data& out, bool waitForOutput, bool roomForAnother) {
    const std::size_t limit = static_cast<std::size_t>(maxOperationCount());
    while (!operations_.empty()) {
        Ref<QXDecompressionOperation> first = operations_.front();
        if (auto failure = first->error()) return failure;
        first->consumeOutputDataWithMaxLength(std::numeric_limits<std::uint64_t>::max(), out);
        if (first->hasEnded()) {
            if (auto failure = first->error()) return failure;
            // Done: its buffer is touched by nobody now. Reusing it keeps the
            // pages the system has already cleared, instead of mapping and
            // clearing fresh ones for every chunk.
            if (spareBuffers_.size() < limit) spareBuffers_.push_back(first->outputBuffer());
            operations_.erase(operations_.begin());
            continue;
        }
        if ((roomForAnother && operations_.size() >= limit) || (waitForOutput && out.length() == 0)) {
            first->waitForOutputData();
            continue;
        }
        break;
    }
    return nullptr;
}

Ref<Data> QXDecompressor::pbzxRoutine(const Ref<Data>& input, bool isFinal, bool* shouldRunAgain,
                                      Ref<Error>* error) {
    if (cancelled_) {
        setError(error, cancelError_ ? cancelError_ : cocoaError(3072));
        return nullptr;
    }
    // After the final call only output is collected: the buffer driver gives
    // the whole input again while asked to run again.
    Ref<Data> in = pbzxInputEnded_ ? Data::create() : input;
    if (!firstDataRead_) {
        if (in->length() <= 3) {
            streamIn_->append(*in);
            return Data::create();
        }
        if (std::memcmp(in->bytes(), kPBZXMagic, 4) != 0) {
            auto withMagic = Data::withBytes(kPBZXMagic, sizeof kPBZXMagic);
            withMagic->append(*in);
            in = withMagic;
        }
    }
    QXPBZXDecodeStream* s = decoders_->pbzx.get();
    s->next_in = in->bytes();
    s->avail_in = in->length();
    std::uint8_t* staging = scratch();
    auto out = reusableOutput(decoders_->output);
    int result;
    do {
        s->next_out = staging;
        s->avail_out = kBufferSize;
        const std::uint64_t before = s->total_out;
        result = QXPBZXDecode(s);
        if (result == 1 || result > 3 || result < 0) {
            setError(error, failPBZX(result));
            return nullptr;
        }
        const std::uint64_t staged = s->total_out - before;
        if (staged > 0 && s->chunk_started) {
            // Waiting here takes an older chunk's whole output, and what the
            // ones after it have ready: room for about two chunks is set aside
            // at once (only what is written is ever backed), rather than the
            // output being copied over and over as it grows. The header's
            // size is only a hint: an implausibly large one is ignored and
            // the output grows as it must.
            if (s->chunk_uncompressed_size <= kMaxKeptOutput / 2) {
                std::vector<std::uint8_t>& room = out->vector();
                const std::size_t hint = static_cast<std::size_t>(s->chunk_uncompressed_size);
                const std::size_t wanted = std::min(kMaxKeptOutput, room.size() + 2 * hint);
                if (room.capacity() < wanted) room.reserve(wanted);
            }
            // Back-pressure falls on new chunks only: the newest chunk gets
            // all its input while the oldest is awaited, so that it has work
            // for a processor the chunks in between may have left idle.
            if (auto failure = drainPBZXOperations(*out, false, true)) {
                cancelWithError(failure);
                setError(error, failure);
                return nullptr;
            }
            Ref<Error> operationError;
            Ref<QXRingBuffer> spare;
            if (!spareBuffers_.empty()) {
                spare = std::move(spareBuffers_.back());
                spareBuffers_.pop_back();
            }
            auto operation = QXDecompressionOperation::initWithAlgorithm(
                s->chunk_compressed ? QXDecompressionAlgorithmAutomatic : QXDecompressionAlgorithmNone, spare,
                &operationError);
            if (!operation) {
                cancelWithError(operationError);
                setError(error, operationError);
                return nullptr;
            }
            currentOperation_ = operation;
            operations_.push_back(operation);
            operationQueue()->addOperation(operation);
        }
        if (staged > 0 && currentOperation_) {
            // Pieces queue up behind the chunks being decoded, megabytes at a
            // time; their storage comes back once a decoder is done with it.
            if (!decoders_->pieces)
                decoders_->pieces =
                    QXStoragePool::create(8 * static_cast<std::size_t>(maxOperationCount()), kBufferSize, kBufferSize);
            auto piece = decoders_->pieces->take();
            // Only large pieces are worth keeping; a small input stays small.
            if (staged >= kBufferSize / 4) piece->vector().reserve(kBufferSize);
            piece->append(staging, staged);
            currentOperation_->provideInputData(piece, s->chunk_ended);
        }
        // The container ends here: a chunk cut short is closed with what it
        // has, so that its decoder reports the truncation (xz does) instead of
        // waiting for bytes that never come. An operation ignores pieces after
        // its last one, so this is harmless for a chunk that is complete.
        if (isFinal && result == 3 && currentOperation_) currentOperation_->provideInputData(Data::create(), true);
        Ref<Error> failure = operationError();
        if (!failure) failure = drainPBZXOperations(*out, isFinal && result != 2, false);
        if (failure) {
            cancelWithError(failure);
            setError(error, failure);
            return nullptr;
        }
    } while (result == 2);
    if (isFinal) pbzxInputEnded_ = true;
    // Run again while any chunk decoder is listed, even one that has ended:
    // it may have failed after the drain looked, and only the drain reports
    // its error (its output so far can already have been taken).
    if (shouldRunAgain) *shouldRunAgain = isFinal && !operations_.empty();
    return out;
}

Ref<Data> QXDecompressor::explodeRoutine(const Ref<Data>& input, Ref<Error>* error) {
    QXExplodeStream* s = decoders_->explode.get();
    s->next_in = input->bytes();
    s->avail_in = input->length();
    auto out = Data::create();
    int result;
    for (;;) {
        const std::uint8_t* bytes = nullptr;
        std::uint64_t count = 0;
        result = QXExplode(s, &bytes, &count);
        if ((result == 0 || result == 2) && count > 0) out->append(bytes, count);
        if (result == 2 && s->avail_in > 0 && count > 0) continue;
        break;
    }
    s->next_in = nullptr;
    s->avail_in = 0;
    if (result == 0 || result == 2) return out;
    QXLog("error decompressing: %ld", static_cast<long>(result));
    switch (result) {
    case 1: setError(error, cocoaError(256)); break;
    case 3: setError(error, posixError(22)); break;
    case 4: setError(error, cocoaError(259)); break;
    default: setError(error, QXGenerateError("QXExplode", result)); break;
    }
    return nullptr;
}

Ref<Data> QXDecompressor::unshrinkRoutine(const Ref<Data>& input, Ref<Error>* error) {
    QXUnshrinkStream* s = decoders_->unshrink.get();
    s->next_in = input->bytes();
    s->avail_in = input->length();
    auto out = Data::create();
    int result;
    for (;;) {
        std::uint8_t* room = scratch();
        s->next_out = room;
        s->avail_out = kBufferSize;
        result = QXUnshrink(s);
        const std::size_t written = kBufferSize - s->avail_out;
        if (result >= 0 && result <= 2) out->append(room, written);
        if (result == 2 && (written > 0 || s->avail_in > 0)) continue;
        break;
    }
    s->next_in = nullptr;
    s->avail_in = 0;
    s->next_out = nullptr;
    s->avail_out = 0;
    if (result == 0 || result == 2) return out;
    QXLog("Error decompressing: %ld", static_cast<long>(result));
    switch (result) {
    case 1: setError(error, cocoaError(256)); break;
    case 3: setError(error, posixError(22)); break;
    case 4: setError(error, cocoaError(259)); break;
    default: setError(error, QXGenerateError("QXUnshrink", result)); break;
    }
    return nullptr;
}

void QXDecompressor::cancel() { cancelWithError(cocoaError(3072)); }

void QXDecompressor::cancelWithError(const Ref<Error>& error) {
    cancelled_ = true;
    cancelError_ = error;
    for (auto& operation : operations_) operation->cancelWithError(error);
}

Ref<Error> QXDecompressor::operationError() const {
    for (const auto& operation : operations_)
        if (operation->error()) return operation->error();
    for (const auto& operation : operations_)
        if (operation->isCancelled()) return cocoaError(3072);
    return nullptr;
}

// ---------------------------------------------------------------------------
// Detection

Ref<qx::Array> QXDecompressor::supportedFilenameExtensions() {
    auto list = qx::Array::create();
    for (const char* extension : {"gz", "gzip", "bz", "bz2", "xz"}) list->addObject(qx::str(extension));
    return list;
}

std::uint64_t QXDecompressor::maxMagicLength() {
    static std::once_flag once;
    static std::uint64_t length = 0;
    std::call_once(once, [] {
        for (std::uint64_t prefixLength : {2, 2, 3, 6, 4}) length = std::max(length, prefixLength);
    });
    return length;
}

bool QXDecompressor::doesMagic(const Ref<qx::Array>& magics, const Ref<Data>& data) {
    if (!magics || !data) return false;
    for (const auto& object : *magics) {
        auto prefix = qx::dyn_cast<Data>(object);
        if (!prefix || prefix->length() > data->length()) continue;
        if (std::memcmp(prefix->bytes(), data->bytes(), prefix->length()) == 0) return true;
    }
    return false;
}

bool QXDecompressor::doesMagicMatch(const Ref<qx::Array>& magics, const Ref<qx::URL>& url) {
    if (!magics || !url) return false;
    std::size_t longest = 0;
    for (const auto& object : *magics)
        if (auto prefix = qx::dyn_cast<Data>(object)) longest = std::max(longest, prefix->length());
    auto handle = qx::FileHandle::fileHandleForReadingFromURL(url);
    if (!handle) return false;
    try {
        auto head = handle->readDataOfLength(longest);
        handle->closeFile();
        return doesMagic(magics, head);
    } catch (const qx::Exception&) {
        return false;
    }
}

bool QXDecompressor::isFileGZCompressedAtURL(const Ref<qx::URL>& url) { return doesMagicMatch(gzipMagic(), url); }
bool QXDecompressor::isFileZlibCompressedAtURL(const Ref<qx::URL>& url) { return doesMagicMatch(zlibMagic(), url); }
bool QXDecompressor::isFileBZ2CompressedAtURL(const Ref<qx::URL>& url) { return doesMagicMatch(bzip2Magic(), url); }
bool QXDecompressor::isFileXZCompressedAtURL(const Ref<qx::URL>& url) { return doesMagicMatch(xzMagic(), url); }
bool QXDecompressor::isFilePBZXCompressedAtURL(const Ref<qx::URL>& url) { return doesMagicMatch(pbzxMagic(), url); }
bool QXDecompressor::isDataGZCompressed(const Ref<Data>& data) { return doesMagic(gzipMagic(), data); }
bool QXDecompressor::isDataZlibCompressed(const Ref<Data>& data) { return doesMagic(zlibMagic(), data); }
bool QXDecompressor::isDataBZ2Compressed(const Ref<Data>& data) { return doesMagic(bzip2Magic(), data); }
bool QXDecompressor::isDataXZCompressed(const Ref<Data>& data) { return doesMagic(xzMagic(), data); }
bool QXDecompressor::isDataPBZXCompressed(const Ref<Data>& data) { return doesMagic(pbzxMagic(), data); }

bool QXDecompressor::isFileCompressedAtURL(const Ref<qx::URL>& url, QXDecompressionAlgorithm* algorithm) {
    // Read the head once and test it in the file order.
    auto handle = url ? qx::FileHandle::fileHandleForReadingFromURL(url) : nullptr;
    Ref<Data> head;
    if (handle) {
        try {
            head = handle->readDataOfLength(maxMagicLength());
            handle->closeFile();
        } catch (const qx::Exception&) {
            head = nullptr;
        }
    }
    QXDecompressionAlgorithm found = QXDecompressionAlgorithmNone;
    if (head) {
        if (isDataGZCompressed(head)) found = QXDecompressionAlgorithmGzip;
        else if (isDataBZ2Compressed(head)) found = QXDecompressionAlgorithmBZip2;
        else if (isDataXZCompressed(head)) found = QXDecompressionAlgorithmXZ;
        else if (isDataPBZXCompressed(head)) found = QXDecompressionAlgorithmPBZX;
        else if (isDataZlibCompressed(head)) found = QXDecompressionAlgorithmZlib;
    }
    if (algorithm) *algorithm = found;
    return found != QXDecompressionAlgorithmNone;
}

bool QXDecompressor::isDataCompressed(const Ref<Data>& data, QXDecompressionAlgorithm* algorithm) {
    QXDecompressionAlgorithm found = QXDecompressionAlgorithmNone;
    if (isDataGZCompressed(data)) found = QXDecompressionAlgorithmGzip;
    else if (isDataZlibCompressed(data)) found = QXDecompressionAlgorithmZlib;
    else if (isDataBZ2Compressed(data)) found = QXDecompressionAlgorithmBZip2;
    else if (isDataXZCompressed(data)) found = QXDecompressionAlgorithmXZ;
    else if (isDataPBZXCompressed(data)) found = QXDecompressionAlgorithmPBZX;
    if (algorithm) *algorithm = found;
    return found != QXDecompressionAlgorithmNone;
}

std::uint64_t QXDecompressor::uncompressedSizeOfGZFileAtURL(const Ref<qx::URL>& url) {
    if (!isFileGZCompressedAtURL(url)) return 0;
    auto handle = qx::FileHandle::fileHandleForReadingFromURL(url);
    if (!handle) return 0;
    try {
        const std::uint64_t end = handle->seekToEndOfFile();
        if (end < 4) return 0;
        handle->seekToFileOffset(end - 4);
        auto tail = handle->readDataOfLength(4);
        if (tail->length() < 4) return 0;
        const std::uint8_t* p = tail->bytes();
        return std::uint64_t(p[0]) | std::uint64_t(p[1]) << 8 | std::uint64_t(p[2]) << 16 | std::uint64_t(p[3]) << 24;
    } catch (const qx::Exception& e) {
        QXLog("uncompressedSizeOfGZFileAtURL: exception ignored: %@", qx::str(e.description()));
        return 0;
    }
}

std::uint64_t QXDecompressor::uncompressedSizeOfPBZXFileAtURL(const Ref<qx::URL>& url) {
    auto handle = url ? qx::FileHandle::fileHandleForReadingFromURL(url) : nullptr;
    if (!handle || !isFilePBZXCompressedAtURL(url)) return 0;
    std::uint64_t sum = 0;
    try {
        std::uint64_t position = 12;
        handle->seekToFileOffset(position);
        for (;;) {
            auto header = handle->readDataOfLength(16);
            if (header->length() < 16) break;
            sum += readBigEndian64(header->bytes());
            const std::uint64_t compressedSize = readBigEndian64(header->bytes() + 8);
            position += 16;
            if (compressedSize > std::numeric_limits<std::uint64_t>::max() - position) break;
            position += compressedSize;
            handle->seekToFileOffset(position);
        }
    } catch (const qx::Exception& e) {
        QXLog("uncompressedSizeOfPBZXFileAtURL: exception ignored: %@", qx::str(e.description()));
        return 0;
    }
    return sum;
}

// ---------------------------------------------------------------------------
// Shared resources

std::int64_t QXDecompressor::maxOperationCount() {
    const unsigned processors = std::max(1u, std::thread::hardware_concurrency());
    return 2 * static_cast<std::int64_t>(processors);
}

Ref<qx::OperationQueue> QXDecompressor::operationQueue() {
    static std::once_flag once;
    static Ref<qx::OperationQueue> queue;
    std::call_once(once, [] {
        queue = qx::OperationQueue::create("com.tovarik.QXFoundation.QXDecompressor");
        queue->setMaxConcurrentOperationCount(static_cast<int>(maxOperationCount()));
    });
    return queue;
}

// ---------------------------------------------------------------------------
// Synchronous drivers

Ref<Data> QXDecompressor::decompressedDataFromData(const Ref<Data>& data, QXDecompressionAlgorithm algorithm,
                                                   Ref<Error>* error) {
    auto decompressor = initForStreamingWithAlgorithm(algorithm, error);
    if (!decompressor) return nullptr;
    auto result = Data::create();
    bool again = false;
    do {
        auto out = decompressor->decompressedDataFromStreamWithInputData(data, true, &again, error);
        if (!out) return nullptr;
        if (result->length() == 0) {
            result = out;  // usually the only piece: no copy
        } else {
            result->append(*out);
        }
    } while (again);
    return result;
}

Ref<Data> QXDecompressor::decompressedDataFromData(const Ref<Data>& data, Ref<Error>* error) {
    return decompressedDataFromData(data, QXDecompressionAlgorithmAutomatic, error);
}

Ref<Data> QXDecompressor::decompressedDataFromFileAtURL(const Ref<qx::URL>& url, std::uint64_t offset,
                                                        std::uint64_t length, QXDecompressionAlgorithm algorithm,
                                                        Ref<Error>* error) {
    auto handle = qx::FileHandle::fileHandleForReadingFromURL(url, error);
    if (!handle) return nullptr;
    if (algorithm == QXDecompressionAlgorithmAutomatic) isFileCompressedAtURL(url, &algorithm);
    auto result = decompressedDataFromFileHandle(handle, offset, length, algorithm, error);
    try {
        handle->closeFile();
    } catch (const qx::Exception&) {
    }
    return result;
}

Ref<Data> QXDecompressor::decompressedDataFromFileAtURL(const Ref<qx::URL>& url, std::uint64_t offset,
                                                        std::uint64_t length, Ref<Error>* error) {
    return decompressedDataFromFileAtURL(url, offset, length, QXDecompressionAlgorithmAutomatic, error);
}

Ref<Data> QXDecompressor::decompressedDataFromFileAtURL(const Ref<qx::URL>& url, Ref<Error>* error) {
    return decompressedDataFromFileAtURL(url, 0, 0, error);
}

Ref<Data> QXDecompressor::decompressedDataFromFileHandle(const Ref<qx::FileHandle>& handle, std::uint64_t offset,
                                                         std::uint64_t length, QXDecompressionAlgorithm algorithm,
                                                         Ref<Error>* error) {
    auto result = Data::create();
    const std::int64_t count = decompressFileHandle(
        handle, algorithm, offset, length, [&](const Ref<Data>& piece) { result->append(*piece); }, nullptr, nullptr,
        error);
    if (count < 0) return nullptr;
    return result;
}

std::int64_t QXDecompressor::decompressFileHandle(const Ref<qx::FileHandle>& handle,
                                                  QXDecompressionAlgorithm algorithm, std::uint64_t offset,
                                                  std::uint64_t length, const DataBlock& dataBlock,
                                                  const CancelBlock& cancelBlock, const ProgressBlock& progressBlock,
                                                  Ref<Error>* error) {
    if (!handle) {
        setError(error, posixError(22));
        return -1;
    }
    if (algorithm == QXDecompressionAlgorithmGzip)
        return decompressGZFileHandle(handle, static_cast<std::int64_t>(offset), length, dataBlock, cancelBlock,
                                      progressBlock, error);
    auto decompressor = initForStreamingWithAlgorithm(algorithm, error);
    if (!decompressor) return -1;

    constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
    const std::uint64_t end = length == 0 ? kMax : (offset > kMax - length ? kMax : offset + length);
    std::uint64_t total = 0;
    bool cancelled = false;

    auto deliver = [&](const Ref<Data>& out) {
        std::uint64_t produced = out->length();
        std::uint64_t newTotal = total + produced;
        if (newTotal > offset) {
            if (length != 0 && newTotal > end) {
                const std::uint64_t cut = newTotal - end;
                out->setLength(out->length() - cut);
                produced -= cut;
                newTotal -= cut;
            }
            if (dataBlock) {
                Ref<Data> piece = out;
                if (total < offset) piece = out->subdata(offset - total, out->length() - (offset - total));
                dataBlock(piece);
            }
            if (progressBlock) progressBlock(static_cast<std::int64_t>(produced));
        }
        total = newTotal;
    };
    auto askCancel = [&] { return cancelBlock && cancelBlock(); };

    try {
        // Input buffers are reused: the decompressor copies what it keeps,
        // and a fresh megabyte per read costs page faults.
        HandleReader reader(*handle);
        for (;;) {
            if (askCancel()) {
                cancelled = true;
                break;
            }
            auto chunk = reader.next();
            const bool isFinal = chunk->length() == 0;
            bool again = false;
            auto out = decompressor->decompressedDataFromStreamWithInputData(chunk, isFinal, &again, error);
            reader.recycle(std::move(chunk));
            if (!out) return -1;
            deliver(out);
            while (again) {
                if (askCancel()) {
                    cancelled = true;
                    break;
                }
                out = decompressor->decompressedDataFromStreamWithInputData(Data::create(), isFinal, &again, error);
                if (!out) return -1;
                deliver(out);
            }
            if (cancelled || isFinal) break;
            if (length != 0 && total >= end) break;
        }
    } catch (const qx::Exception& e) {
        setError(error, exceptionError(e, 256));
        return -1;
    }
    if (cancelled) {
        decompressor->cancel();
        setError(error, cocoaError(3072));
        return -1;
    }
    if (total < offset) {
        setError(error, cocoaError(256));
        return -1;
    }
    return static_cast<std::int64_t>(total - offset);
}

namespace {
struct GzFileCloser {
    void operator()(gzFile_s* file) const {
        const int result = gzclose(file);
        if (result != Z_OK) QXLog("Error %d closing file", result);
    }
};
} // namespace

std::int64_t QXDecompressor::decompressGZFileHandle(const Ref<qx::FileHandle>& handle, std::int64_t offset,
                                                    std::uint64_t length, const DataBlock& dataBlock,
                                                    const CancelBlock& cancelBlock, const ProgressBlock& progressBlock,
                                                    Ref<Error>* error) {
    const int fd = handle ? ::dup(handle->fileDescriptor()) : -1;
    gzFile file = fd >= 0 ? gzdopen(fd, "rb") : nullptr;
    if (!file) {
        if (fd >= 0) ::close(fd);
        QXLog("Error opening file!");
        setError(error, cocoaError(256));
        return -1;
    }
    std::unique_ptr<gzFile_s, GzFileCloser> owner(file);
    if (offset < 0) {
        setError(error, posixError(22));
        return -1;
    }
    if (offset > 0) gzseek(file, static_cast<z_off_t>(offset), SEEK_SET);

    std::vector<std::uint8_t> buffer(kBufferSize);
    std::uint64_t total = 0;
    while (total <= length - 1) {  // unsigned: length 0 never stops the loop
        if (gzeof(file)) break;
        if (cancelBlock && cancelBlock()) break;
        std::uint64_t want = kBufferSize;
        if (length != 0 && length - total < want) want = length - total;
        const int count = gzread(file, buffer.data(), static_cast<unsigned>(want));
        if (count < 0) {
            QXLog("Error! Aborting read\n");
            break;
        }
        if (count == 0) break;  // nothing more without an end flag: a damaged stream, reported below
        if (dataBlock) dataBlock(Data::withBytes(buffer.data(), static_cast<std::size_t>(count)));
        if (progressBlock) progressBlock(count);
        total += static_cast<std::uint64_t>(count);
    }
    int code = Z_OK;
    const char* message = gzerror(file, &code);
    if (code < 0 || code > 1) {
        auto text = qx::str(message ? message : "");
        QXLog("Error %d unpacking file: %@", code, text);
        setError(error, QXGenerateError("gzread", code, nullptr, nullptr, nullptr, QXFLocalizedString("gzread: %@"),
                                        text));
        return -1;
    }
    return static_cast<std::int64_t>(total);
}

void QXDecompressor::writeData(const Ref<Data>& data, const std::vector<Ref<qx::FileHandle>>& handles) {
    if (!data) return;
    for (const auto& handle : handles)
        if (handle) handle->writeData(*data);
}

std::int64_t QXDecompressor::decompressFileAtURLToFileHandleArray(const Ref<qx::URL>& url,
                                                                  const std::vector<Ref<qx::FileHandle>>& handles,
                                                                  QXDecompressionAlgorithm algorithm,
                                                                  const CancelBlock& cancelBlock,
                                                                  const ProgressBlock& progressBlock,
                                                                  Ref<Error>* error) {
    auto source = qx::FileHandle::fileHandleForReadingFromURL(url, error);
    if (!source) return -1;
    // A failed write stops the driver through its cancel check and is
    // reported as the write fault it was, not as a cancel.
    Ref<Error> writeError;
    auto write = [&](const Ref<Data>& piece) {
        if (writeError) return;
        try {
            writeData(piece, handles);
        } catch (const qx::Exception& e) {
            writeError = exceptionError(e, 512);
        }
    };
    auto cancel = [&] { return writeError || (cancelBlock && cancelBlock()); };
    Ref<Error> driverError;
    std::int64_t count = decompressFileHandle(source, algorithm, 0, 0, write, cancel, progressBlock, &driverError);
    try {
        source->closeFile();
    } catch (const qx::Exception&) {
    }
    if (writeError) {
        setError(error, writeError);
        return -1;
    }
    if (count < 0) setError(error, driverError);
    return count;
}

std::int64_t QXDecompressor::decompressFileAtURLToFileHandle(const Ref<qx::URL>& url,
                                                             const Ref<qx::FileHandle>& handle,
                                                             QXDecompressionAlgorithm algorithm,
                                                             const CancelBlock& cancelBlock,
                                                             const ProgressBlock& progressBlock, Ref<Error>* error) {
    return decompressFileAtURLToFileHandleArray(url, {handle}, algorithm, cancelBlock, progressBlock, error);
}

std::int64_t QXDecompressor::decompressFileAtURLToURL(const Ref<qx::URL>& url, const Ref<qx::URL>& destination,
                                                      QXDecompressionAlgorithm algorithm,
                                                      const CancelBlock& cancelBlock,
                                                      const ProgressBlock& progressBlock, Ref<Error>* error) {
    if (!url || !destination || !destination->isFileURL()) {
        setError(error, posixError(22));
        return -1;
    }
    const std::string& path = destination->path();
    const auto slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? std::string(".") : path.substr(0, slash + 1);
    const std::string temporary =
        directory + "." + destination->lastPathComponent() + "." + qx::UUID::create()->UUIDString() + ".partial";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        setError(error, QXGenerateError(qx::NSPOSIXErrorDomain, errno, destination));
        return -1;
    }
    auto handle = qx::FileHandle::initWithFileDescriptor(fd, true);
    std::int64_t count = decompressFileAtURLToFileHandle(url, handle, algorithm, cancelBlock, progressBlock, error);
    try {
        handle->closeFile();
    } catch (const qx::Exception& e) {
        if (count >= 0) {
            setError(error, exceptionError(e, 512));
            count = -1;
        }
    }
    if (count >= 0 && ::rename(temporary.c_str(), path.c_str()) != 0) {
        setError(error, QXGenerateError(qx::NSPOSIXErrorDomain, errno, destination));
        count = -1;
    }
    if (count < 0) ::unlink(temporary.c_str());
    return count;
}

std::int64_t QXDecompressor::decompressFileAtURLToURL(const Ref<qx::URL>& url, const Ref<qx::URL>& destination,
                                                      const CancelBlock& cancelBlock,
                                                      const ProgressBlock& progressBlock, Ref<Error>* error) {
    return decompressFileAtURLToURL(url, destination, QXDecompressionAlgorithmAutomatic, cancelBlock, progressBlock,
                                    error);
}

std::int64_t QXDecompressor::decompressFileAtURLToURL(const Ref<qx::URL>& url, const Ref<qx::URL>& destination,
                                                      Ref<Error>* error) {
    return decompressFileAtURLToURL(url, destination, nullptr, nullptr, error);
}

std::int64_t QXDecompressor::decompressFileAtURL(const Ref<qx::URL>& url, const CancelBlock& cancelBlock,
                                                 const ProgressBlock& progressBlock, Ref<Error>* error) {
    if (!url || !url->isFileURL()) {
        setError(error, posixError(22));
        return -1;
    }
    const std::string& path = url->path();
    const auto slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? std::string("./") : path.substr(0, slash + 1);
    auto sibling = qx::URL::fileURLWithPath(directory + qx::UUID::create()->UUIDString());
    const std::int64_t count = decompressFileAtURLToURL(url, sibling, QXDecompressionAlgorithmAutomatic, cancelBlock,
                                                        progressBlock, error);
    if (count <= 0) {
        if (count == 0) ::unlink(sibling->path().c_str());
        return count;
    }
    if (::rename(sibling->path().c_str(), path.c_str()) != 0) {
        setError(error, QXGenerateError(qx::NSPOSIXErrorDomain, errno, url));
        ::unlink(sibling->path().c_str());
        return -1;
    }
    return count;
}

std::int64_t QXDecompressor::decompressFileAtURL(const Ref<qx::URL>& url, Ref<Error>* error) {
    return decompressFileAtURL(url, nullptr, nullptr, error);
}
