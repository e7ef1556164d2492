// DecompressorAsyncTests.cpp - the handler-based drivers over local files, open
// handles, pipes and the in-process HTTP server: the calls a run makes, their
// totals and checksums, stops, and failures at every stage.
#include <gtest/gtest.h>

#include <QXFoundation/QXChecksum.h>
#include <QXFoundation/QXDecompressor.h>
#include <QXFoundation/QXRemoteFileHandle.h>

#include "DecompressorPayloads.h"
#include "HttpTestServer.h"

#include <qx/FileHandle.h>
#include <qx/URL.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace decompressorpayloads;
using qx::Error;

namespace {

struct Call {
    bool hasOutput = false;
    Bytes output;
    std::uint64_t compressedTotal = 0;
    std::uint64_t decompressedTotal = 0;
    bool finished = false;
    Ref<Data> compressedChecksum;
    Ref<Data> decompressedChecksum;
    Ref<Error> error;
};

// Everything one run told its handler. The run is over when the driver has
// let go of the handler: no call can follow, and nothing of the run is left
// behind (reading thread, transfer, handle).
class Recording {
public:
    /// A handler that records each call and answers with answer(index of the call).
    QXDecompressor::Handler handler(std::function<bool(std::size_t)> answer) {
        auto release = std::make_shared<Release>(state_);
        return [state = state_, release, answer](const Ref<Data>& output, std::uint64_t compressedTotal,
                                                 std::uint64_t decompressedTotal, bool finished,
                                                 const Ref<Data>& compressedChecksum,
                                                 const Ref<Data>& decompressedChecksum, const Ref<Error>& error) {
            Call call{output != nullptr, toBytes(output), compressedTotal, decompressedTotal, finished,
                      compressedChecksum, decompressedChecksum, error};
            std::size_t index;
            {
                std::lock_guard<std::mutex> lock(state->mutex);
                index = state->calls.size();
                state->calls.push_back(std::move(call));
            }
            return answer(index);
        };
    }

    /// Waits until the run has let go of its handler, then returns its calls.
    std::vector<Call> wait() {
        std::unique_lock<std::mutex> lock(state_->mutex);
        // Only a guard against a hang: a run takes a fraction of this.
        const bool released = state_->changed.wait_for(lock, std::chrono::minutes(2), [&] { return state_->released; });
        EXPECT_TRUE(released) << "the run never let go of its handler";
        return state_->calls;
    }

private:
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<Call> calls;
        bool released = false;
    };
    struct Release {
        std::shared_ptr<State> state;
        explicit Release(std::shared_ptr<State> s) : state(std::move(s)) {}
        ~Release() {
            std::lock_guard<std::mutex> lock(state->mutex);
            state->released = true;
            state->changed.notify_all();
        }
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

const auto goOn = [](std::size_t) { return true; };
// The URL form's caller answers the other way round.
const auto urlGoOn = [](std::size_t) { return false; };

// Checks what holds for every run: one finished call, the last; totals that
// add up; checksums only on a successful end. Returns the output joined.
Bytes checkSequence(const std::vector<Call>& calls) {
    Bytes joined;
    EXPECT_FALSE(calls.empty());
    std::uint64_t compressed = 0;
    for (std::size_t i = 0; i < calls.size(); ++i) {
        const Call& call = calls[i];
        EXPECT_EQ(call.finished, i + 1 == calls.size()) << "call " << i << " of " << calls.size();
        EXPECT_GE(call.compressedTotal, compressed);
        compressed = call.compressedTotal;
        joined.insert(joined.end(), call.output.begin(), call.output.end());
        EXPECT_EQ(call.decompressedTotal, joined.size()) << "call " << i;
        if (call.error) {
            EXPECT_FALSE(call.hasOutput);
            EXPECT_FALSE(call.compressedChecksum);
            EXPECT_FALSE(call.decompressedChecksum);
        }
        if (!call.finished) {
            EXPECT_FALSE(call.compressedChecksum || call.decompressedChecksum);
        }
    }
    return joined;
}

// The CRC-32 as QXChecksum presents it (the value's bytes in machine order),
// computed here by zlib directly.
Ref<Data> crc32Of(const Bytes& bytes) {
    const std::uint32_t value = static_cast<std::uint32_t>(crc32(0L, bytes.data(), static_cast<uInt>(bytes.size())));
    return Data::withBytes(&value, sizeof value);
}

Bytes bytesOf(const Ref<Data>& d) { return toBytes(d); }

Ref<qx::FileHandle> openForReading(const std::string& path) {
    return qx::FileHandle::fileHandleForReadingAtPath(path);
}

// Incompressible bytes in gzip: several chunks of every local read.
const Bytes& bigPlain() {
    static const Bytes b = randomBytes(3 * 1048576 + 12345, 7);
    return b;
}
const Bytes& bigGzip() {
    static const Bytes b = deflateBytes(bigPlain(), 31, 1);
    return b;
}

} // namespace

TEST(DecompressorAsync, EveryFormatThroughEveryForm) {
    PayloadFiles files;
    const Bytes& plain = payloads().plain;
    const Ref<Data> plainSHA256 = QXChecksum::checksumForData(toData(plain), QXChecksumAlgorithmSHA256);
    for (const Format& format : everyFormat()) {
        SCOPED_TRACE(format.name);
        const Bytes& compressed = *format.compressed;
        const std::string path = files.write(format.name, compressed);
        const auto fileURL = qx::URL::fileURLWithPath(path);
        HttpTestServer server(compressed);

        const std::vector<std::pair<const char*, std::function<void(Recording&)>>> forms = {
            {"file URL",
             [&](Recording& r) {
                 QXDecompressor::decompressFileAtURL(fileURL, 0, QXRemoteFileHandle::ToEndOfFile, format.algorithm,
                                                     QXChecksumAlgorithmCRC32, QXChecksumAlgorithmSHA256,
                                                     r.handler(urlGoOn));
             }},
            {"file handle",
             [&](Recording& r) {
                 QXDecompressor::decompressFileHandle(openForReading(path), 0, QXRemoteFileHandle::ToEndOfFile,
                                                      format.algorithm, QXChecksumAlgorithmCRC32,
                                                      QXChecksumAlgorithmSHA256, r.handler(goOn));
             }},
            {"HTTP remote handle without ranges",
             [&](Recording& r) {
                 auto remote = QXRemoteFileHandle::initForReadingFromURL(
                     qx::URL::URLWithString(server.url(HttpTestServer::NoRangesPath)));
                 ASSERT_TRUE(remote);
                 QXDecompressor::decompressRemoteFileHandle(remote, 0, QXRemoteFileHandle::ToEndOfFile,
                                                            format.algorithm, QXChecksumAlgorithmCRC32,
                                                            QXChecksumAlgorithmSHA256, r.handler(goOn));
             }},
        };
        for (const auto& [formName, start] : forms) {
            SCOPED_TRACE(formName);
            Recording recording;
            start(recording);
            const auto calls = recording.wait();
            ASSERT_FALSE(calls.empty());
            const Bytes output = checkSequence(calls);
            const Call& last = calls.back();
            ASSERT_FALSE(last.error) << last.error->localizedDescription();
            EXPECT_TRUE(output == plain) << output.size() << " bytes of " << plain.size();
            EXPECT_EQ(last.compressedTotal, compressed.size());
            EXPECT_EQ(bytesOf(last.compressedChecksum), bytesOf(crc32Of(compressed)));
            EXPECT_EQ(bytesOf(last.decompressedChecksum), bytesOf(plainSHA256));
        }
    }
}

TEST(DecompressorAsync, ChecksumsFollowASourceReadInManyChunks) {
    PayloadFiles files;
    const std::string path = files.write("big.gz", bigGzip());
    Recording recording;
    QXDecompressor::decompressFileHandle(openForReading(path), 0, QXRemoteFileHandle::ToEndOfFile,
                                         QXDecompressionAlgorithmAutomatic, QXChecksumAlgorithmSHA1,
                                         QXChecksumAlgorithmAdler32, recording.handler(goOn));
    const auto calls = recording.wait();
    EXPECT_GT(calls.size(), 3u);
    EXPECT_TRUE(checkSequence(calls) == bigPlain());
    EXPECT_EQ(calls.back().compressedTotal, bigGzip().size());
    EXPECT_EQ(bytesOf(calls.back().compressedChecksum),
              bytesOf(QXChecksum::checksumForData(toData(bigGzip()), QXChecksumAlgorithmSHA1)));
    EXPECT_EQ(bytesOf(calls.back().decompressedChecksum),
              bytesOf(QXChecksum::checksumForData(toData(bigPlain()), QXChecksumAlgorithmAdler32)));
}

TEST(DecompressorAsync, RangeInsideALargerFileIsFoundWhereverTheHandleStands) {
    PayloadFiles files;
    const Payloads& p = payloads();
    const Bytes junk = randomBytes(777, 3);
    Bytes contents = junk;
    contents.insert(contents.end(), p.gzip.begin(), p.gzip.end());
    const std::uint64_t bzip2At = contents.size();
    contents.insert(contents.end(), p.bzip2.begin(), p.bzip2.end());
    auto handle = openForReading(files.write("mixed", contents));
    handle->seekToFileOffset(bzip2At);  // bzip2's magic here would mislead detection
    Recording recording;
    QXDecompressor::decompressFileHandle(handle, junk.size(), p.gzip.size(), QXDecompressionAlgorithmAutomatic,
                                         QXChecksumAlgorithmCRC32, QXChecksumAlgorithmNone, recording.handler(goOn));
    const auto calls = recording.wait();
    EXPECT_TRUE(checkSequence(calls) == p.plain);
    EXPECT_FALSE(calls.back().error);
    EXPECT_EQ(calls.back().compressedTotal, p.gzip.size());
    EXPECT_EQ(bytesOf(calls.back().compressedChecksum), bytesOf(crc32Of(p.gzip)));
    EXPECT_FALSE(calls.back().decompressedChecksum);
    EXPECT_EQ(handle->offsetInFile(), junk.size() + p.gzip.size());  // left open where the range ends
}

TEST(DecompressorAsync, PipeGivesTheDecoderTheBytesTakenForDetection) {
    const Payloads& p = payloads();
    const Bytes junk = randomBytes(3000, 9);
    for (const Format& format : everyFormat()) {
        for (const std::uint64_t offset : {std::uint64_t{0}, std::uint64_t{junk.size()}}) {
            SCOPED_TRACE(std::string(format.name) + " at offset " + std::to_string(offset));
            Bytes contents(junk.begin(), junk.begin() + static_cast<std::ptrdiff_t>(offset));
            contents.insert(contents.end(), format.compressed->begin(), format.compressed->end());
            int fds[2];
            ASSERT_EQ(::pipe(fds), 0);
            std::thread writer([fd = fds[1], &contents] {
                // A run that gives up early closes the read end: the write
                // then fails instead of killing the test process.
                sigset_t pipeSignal;
                sigemptyset(&pipeSignal);
                sigaddset(&pipeSignal, SIGPIPE);
                pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);
                std::size_t at = 0;
                while (at < contents.size()) {
                    const ssize_t n = ::write(fd, contents.data() + at, contents.size() - at);
                    if (n <= 0) break;
                    at += static_cast<std::size_t>(n);
                }
                ::close(fd);
            });
            auto handle = qx::FileHandle::initWithFileDescriptor(fds[0], true);
            Recording recording;
            QXDecompressor::decompressFileHandle(handle, offset, QXRemoteFileHandle::ToEndOfFile, format.algorithm,
                                                 QXChecksumAlgorithmCRC32, QXChecksumAlgorithmNone,
                                                 recording.handler(goOn));
            const auto calls = recording.wait();
            handle = nullptr;
            writer.join();
            EXPECT_TRUE(checkSequence(calls) == p.plain);
            EXPECT_FALSE(calls.back().error);
            EXPECT_EQ(calls.back().compressedTotal, format.compressed->size());
            EXPECT_EQ(bytesOf(calls.back().compressedChecksum), bytesOf(crc32Of(*format.compressed)));
        }
    }
}

TEST(DecompressorAsync, AStopEndsTheRunWithOneCancelledCall) {
    PayloadFiles files;
    const std::string path = files.write("big.gz", bigGzip());
    HttpTestServer server(bigGzip());
    const auto expectStoppedAfterFirst = [](const std::vector<Call>& calls) {
        ASSERT_EQ(calls.size(), 2u);
        checkSequence(calls);
        EXPECT_TRUE(calls[0].hasOutput);
        EXPECT_FALSE(calls[0].error);
        EXPECT_FALSE(calls[1].hasOutput);
        ASSERT_TRUE(calls[1].error);
        EXPECT_EQ(calls[1].error->domain(), qx::NSCocoaErrorDomain);
        EXPECT_EQ(calls[1].error->code(), 3072);
        EXPECT_EQ(calls[1].compressedTotal, calls[0].compressedTotal);
        EXPECT_LT(calls[1].compressedTotal, bigGzip().size());
    };
    {
        SCOPED_TRACE("handle form: false stops");
        Recording recording;
        QXDecompressor::decompressFileHandle(openForReading(path), 0, QXRemoteFileHandle::ToEndOfFile,
                                             QXDecompressionAlgorithmAutomatic, QXChecksumAlgorithmSHA256,
                                             QXChecksumAlgorithmSHA256, recording.handler([](std::size_t) { return false; }));
        expectStoppedAfterFirst(recording.wait());
    }
    {
        SCOPED_TRACE("URL form: true stops");
        Recording recording;
        QXDecompressor::decompressFileAtURL(qx::URL::fileURLWithPath(path), 0, QXRemoteFileHandle::ToEndOfFile,
                                            QXDecompressionAlgorithmAutomatic, QXChecksumAlgorithmNone,
                                            QXChecksumAlgorithmNone, recording.handler([](std::size_t) { return true; }));
        expectStoppedAfterFirst(recording.wait());
    }
    {
        SCOPED_TRACE("HTTP: the transfer's own end after the stop is not passed on");
        Recording recording;
        auto remote =
            QXRemoteFileHandle::initForReadingFromURL(qx::URL::URLWithString(server.url(HttpTestServer::RangesPath)));
        ASSERT_TRUE(remote);
        QXDecompressor::decompressRemoteFileHandle(remote, 0, QXRemoteFileHandle::ToEndOfFile,
                                                   QXDecompressionAlgorithmGzip, QXChecksumAlgorithmNone,
                                                   QXChecksumAlgorithmNone,
                                                   recording.handler([](std::size_t index) { return index < 2; }));
        const auto calls = recording.wait();
        ASSERT_EQ(calls.size(), 4u);
        checkSequence(calls);
        ASSERT_TRUE(calls[3].error);
        EXPECT_EQ(calls[3].error->code(), 3072);
    }
}

TEST(DecompressorAsync, DecoderFailuresEndTheRunWithTheirError) {
    const Payloads& p = payloads();
    Bytes badCheck = p.zlib;
    badCheck.back() ^= 0x55;  // the Adler-32 trailer, checked once everything is out
    HttpTestServer server(badCheck);
    {
        SCOPED_TRACE("zlib with a wrong check value, over HTTP in many chunks");
        Recording recording;
        QXDecompressor::decompressFileAtURL(qx::URL::URLWithString(server.url(HttpTestServer::RangesPath)), 0,
                                            QXRemoteFileHandle::ToEndOfFile, QXDecompressionAlgorithmAutomatic,
                                            QXChecksumAlgorithmCRC32, QXChecksumAlgorithmCRC32,
                                            recording.handler(urlGoOn));
        const auto calls = recording.wait();
        const Bytes output = checkSequence(calls);
        ASSERT_TRUE(calls.back().error);
        EXPECT_EQ(calls.back().error->domain(), "inflate");
        EXPECT_EQ(calls.back().error->code(), Z_DATA_ERROR);
        EXPECT_LE(output.size(), p.plain.size());
        EXPECT_TRUE(std::equal(output.begin(), output.end(), p.plain.begin()));
    }
    {
        SCOPED_TRACE("xz cut short");
        PayloadFiles files;
        const Bytes cut(p.xz.begin(), p.xz.begin() + static_cast<std::ptrdiff_t>(p.xz.size() / 2));
        Recording recording;
        QXDecompressor::decompressFileAtURL(qx::URL::fileURLWithPath(files.write("cut.xz", cut)), 0,
                                            QXRemoteFileHandle::ToEndOfFile, QXDecompressionAlgorithmAutomatic,
                                            QXChecksumAlgorithmNone, QXChecksumAlgorithmNone,
                                            recording.handler(urlGoOn));
        const auto calls = recording.wait();
        checkSequence(calls);
        ASSERT_TRUE(calls.back().error);
        EXPECT_EQ(calls.back().error->domain(), "lzma_code");
    }
}

TEST(DecompressorAsync, ServerDroppingTheConnectionMidBodyIsReported) {
    const Payloads& p = payloads();
    HttpTestServer server(p.gzip, p.gzip.size() / 3);
    Recording recording;
    QXDecompressor::decompressFileAtURL(qx::URL::URLWithString(server.url(HttpTestServer::TruncatedPath)), 0,
                                        QXRemoteFileHandle::ToEndOfFile, QXDecompressionAlgorithmAutomatic,
                                        QXChecksumAlgorithmCRC32, QXChecksumAlgorithmCRC32, recording.handler(urlGoOn));
    const auto calls = recording.wait();
    const Bytes output = checkSequence(calls);
    ASSERT_TRUE(calls.back().error);
    EXPECT_LE(calls.back().compressedTotal, p.gzip.size() / 3);
    EXPECT_TRUE(std::equal(output.begin(), output.end(), p.plain.begin()));
}

TEST(DecompressorAsync, SourcesThatCantBeOpenedGiveOneFinishedCall) {
    PayloadFiles files;
    const auto expectOneFailure = [](const std::vector<Call>& calls, const std::string& domain, std::int64_t code) {
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_TRUE(calls[0].finished);
        EXPECT_FALSE(calls[0].hasOutput);
        EXPECT_EQ(calls[0].compressedTotal, 0u);
        EXPECT_EQ(calls[0].decompressedTotal, 0u);
        ASSERT_TRUE(calls[0].error);
        EXPECT_EQ(calls[0].error->domain(), domain);
        EXPECT_EQ(calls[0].error->code(), code);
    };
    {
        Recording recording;
        QXDecompressor::decompressFileAtURL(qx::URL::fileURLWithPath(files.path("absent.gz")), 0,
                                            QXRemoteFileHandle::ToEndOfFile, QXDecompressionAlgorithmAutomatic,
                                            QXChecksumAlgorithmCRC32, QXChecksumAlgorithmNone,
                                            recording.handler(urlGoOn));
        expectOneFailure(recording.wait(), qx::NSCocoaErrorDomain, 260);
    }
    {
        SCOPED_TRACE("a handle open for writing only can't be read for detection");
        const std::string path = files.write("w", payloads().gzip);
        const int fd = ::open(path.c_str(), O_WRONLY);
        ASSERT_GE(fd, 0);
        Recording recording;
        QXDecompressor::decompressFileHandle(qx::FileHandle::initWithFileDescriptor(fd, true), 0,
                                             QXRemoteFileHandle::ToEndOfFile, QXDecompressionAlgorithmAutomatic,
                                             QXChecksumAlgorithmNone, QXChecksumAlgorithmNone, recording.handler(goOn));
        expectOneFailure(recording.wait(), qx::NSPOSIXErrorDomain, EINVAL);
    }
}
