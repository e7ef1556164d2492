// DecompressorAsyncTests.cpp - the handler-based drivers over local files, open
// handles, pipes and the in-process HTTP server: the calls a run makes, their
// totals and checksums, stops, and failures at every stage.

#include "TestSupport.h"

#include <QXFoundation/QXChecksum.h>
#include <QXFoundation/QXDecompressor.h>
#include <QXFoundation/QXRemoteFileHandle.h>

#include "CallLog.h"
#include "DecompressorPayloads.h"
#include "HttpTestServer.h"

#include <qx/FileHandle.h>
#include <qx/URL.h>

#include <pthread.h>
#include <signal.h>

using namespace decompressorpayloads;
using qx::Error;
using qxtest::Pipe;
using qxtest::TempDir;

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

// Everything one run told its handler, once the driver has let go of it.
class Recording {
public:
    /// A handler that records each call and answers with answer(index of the call).
    QXDecompressor::Handler handler(std::function<bool(std::size_t)> answer) const {
        return [log = log_, token = log_.token(), answer](const Ref<Data>& output, std::uint64_t compressed,
                                                          std::uint64_t decompressed, bool finished, const Ref<Data>& inSum,
                                                          const Ref<Data>& outSum, const Ref<Error>& error) {
            return answer(
                log.record({output != nullptr, toBytes(output), compressed, decompressed, finished, inSum, outSum, error}));
        };
    }
    std::vector<Call> wait() const { return log_.wait(); }

private:
    qxtest::CallLog<Call> log_;
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
        EXPECT_TRUE(!call.error || !call.hasOutput) << "call " << i;
        EXPECT_TRUE((call.finished && !call.error) || !(call.compressedChecksum || call.decompressedChecksum));
    }
    return joined;
}

Bytes checksum(const Bytes& bytes, QXChecksumAlgorithm algorithm) {
    return toBytes(QXChecksum::checksumForData(toData(bytes), algorithm));
}

Ref<qx::FileHandle> openForReading(const std::string& path) { return qx::FileHandle::fileHandleForReadingAtPath(path); }

// Incompressible bytes in gzip: several chunks of every local read.
const Bytes& bigPlain() {
    static const Bytes b = randomBytes(3 * 1048576 + 12345, 7);
    return b;
}
const Bytes& bigGzip() {
    static const Bytes b = deflateBytes(bigPlain(), 31, 1);
    return b;
}

// The three handler-based forms: a URL (a file's path or an http URL), an open
// file handle, a remote handle on the URL.
enum class Form { URL, Handle, Remote };
const char* name(Form f) { return f == Form::URL ? "URL" : f == Form::Handle ? "handle" : "remote handle"; }
void start(Form form, const std::string& source, QXDecompressor::Handler handler, QXChecksumAlgorithm inSum = QXChecksumAlgorithmNone,
           QXChecksumAlgorithm outSum = QXChecksumAlgorithmNone, QXDecompressionAlgorithm algorithm = QXDecompressionAlgorithmAutomatic) {
    const auto url = source.starts_with("http") ? qx::URL::URLWithString(source) : qx::URL::fileURLWithPath(source);
    const auto end = QXRemoteFileHandle::ToEndOfFile;
    if (form == Form::URL) QXDecompressor::decompressFileAtURL(url, 0, end, algorithm, inSum, outSum, handler);
    if (form == Form::Handle) QXDecompressor::decompressFileHandle(openForReading(source), 0, end, algorithm, inSum, outSum, handler);
    if (form == Form::Remote)
        QXDecompressor::decompressRemoteFileHandle(QXRemoteFileHandle::initForReadingFromURL(url), 0, end, algorithm, inSum, outSum, handler);
}

} // namespace

// Each form with one format read in many chunks, and PBZX, whose decoder
// drains in parallel: output, totals and the checksums of both sides.
TEST(DecompressorAsync, EveryFormWithItsChecksums) {
    TempDir dir;
    const Payloads& p = payloads();
    const std::pair<const Bytes*, const Bytes*> formats[] = {{&bigGzip(), &bigPlain()}, {&p.pbzx, &p.plain}};
    for (const auto& [compressed, plain] : formats) {
        const std::string path = dir.file("in", *compressed);
        HttpTestServer server(*compressed);
        const std::pair<Form, std::string> forms[] = {
            {Form::URL, path}, {Form::Handle, path}, {Form::Remote, server.url(HttpTestServer::NoRangesPath)}};
        for (const auto& [form, source] : forms) {
            SCOPED_TRACE(std::string(name(form)) + ", " + std::to_string(compressed->size()) + " bytes");
            Recording recording;
            start(form, source, recording.handler(form == Form::URL ? urlGoOn : goOn), QXChecksumAlgorithmCRC32,
                  QXChecksumAlgorithmSHA256);
            const auto calls = recording.wait();
            ASSERT_FALSE(calls.empty());
            const Bytes output = checkSequence(calls);
            const Call& last = calls.back();
            ASSERT_FALSE(last.error) << last.error->localizedDescription();
            EXPECT_TRUE(output == *plain) << output.size() << " bytes of " << plain->size();
            EXPECT_TRUE(compressed != &bigGzip() || calls.size() > 3u);
            EXPECT_EQ(last.compressedTotal, compressed->size());
            EXPECT_EQ(toBytes(last.compressedChecksum), checksum(*compressed, QXChecksumAlgorithmCRC32));
            EXPECT_EQ(toBytes(last.decompressedChecksum), checksum(*plain, QXChecksumAlgorithmSHA256));
        }
    }
}

TEST(DecompressorAsync, RangeInsideALargerFileIsFoundWhereverTheHandleStands) {
    TempDir dir;
    const Payloads& p = payloads();
    const Bytes junk = randomBytes(777, 3);
    auto handle = openForReading(dir.file("mixed", junk + p.gzip + p.bzip2));
    handle->seekToFileOffset(junk.size() + p.gzip.size());  // bzip2's magic here would mislead detection
    Recording recording;
    QXDecompressor::decompressFileHandle(handle, junk.size(), p.gzip.size(), QXDecompressionAlgorithmAutomatic,
                                         QXChecksumAlgorithmCRC32, QXChecksumAlgorithmNone, recording.handler(goOn));
    const auto calls = recording.wait();
    EXPECT_TRUE(checkSequence(calls) == p.plain);
    EXPECT_FALSE(calls.back().error);
    EXPECT_EQ(calls.back().compressedTotal, p.gzip.size());
    EXPECT_EQ(toBytes(calls.back().compressedChecksum), checksum(p.gzip, QXChecksumAlgorithmCRC32));
    EXPECT_FALSE(calls.back().decompressedChecksum);
    EXPECT_EQ(handle->offsetInFile(), junk.size() + p.gzip.size());  // left open where the range ends
}

TEST(DecompressorAsync, PipeGivesTheDecoderTheBytesTakenForDetection) {
    const Payloads& p = payloads();
    const Bytes junk = randomBytes(3000, 9);
    for (const std::size_t offset : {std::size_t{0}, junk.size()}) {
        SCOPED_TRACE(offset);
        const Bytes contents = slice(junk, 0, offset) + p.xz;
        Pipe pipe;
        std::thread writer([&] {
            // A run that gives up early closes the read end: the write then
            // fails instead of killing the test process.
            sigset_t pipeSignal;
            sigemptyset(&pipeSignal);
            sigaddset(&pipeSignal, SIGPIPE);
            pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);
            pipe.write(qxtest::toString(contents));
            pipe.closeWriter();
        });
        Recording recording;
        QXDecompressor::decompressFileHandle(qx::FileHandle::initWithFileDescriptor(pipe.reader(), false), offset,
                                             QXRemoteFileHandle::ToEndOfFile, QXDecompressionAlgorithmAutomatic,
                                             QXChecksumAlgorithmCRC32, QXChecksumAlgorithmNone, recording.handler(goOn));
        const auto calls = recording.wait();
        pipe.closeReader();
        writer.join();
        EXPECT_TRUE(checkSequence(calls) == p.plain);
        EXPECT_FALSE(calls.back().error);
        EXPECT_EQ(calls.back().compressedTotal, p.xz.size());
        EXPECT_EQ(toBytes(calls.back().compressedChecksum), checksum(p.xz, QXChecksumAlgorithmCRC32));
    }
}

// A stop after the first call ends the run with one more, cancelled call.
// Over HTTP the transfer's own end after the stop is not passed on.
TEST(DecompressorAsync, AStopEndsTheRunWithOneCancelledCall) {
    TempDir dir;
    const std::string path = dir.file("big.gz", bigGzip());
    HttpTestServer server(bigGzip());
    const std::pair<Form, std::string> forms[] = {
        {Form::Handle, path}, {Form::URL, path}, {Form::Remote, server.url(HttpTestServer::RangesPath)}};
    for (const auto& [form, source] : forms) {
        SCOPED_TRACE(name(form));
        Recording recording;
        // The URL form's caller answers the other way round.
        const bool stop = form == Form::URL;
        start(form, source, recording.handler([stop](std::size_t) { return stop; }), QXChecksumAlgorithmSHA256,
              QXChecksumAlgorithmSHA256, form == Form::Remote ? QXDecompressionAlgorithmGzip : QXDecompressionAlgorithmAutomatic);
        const auto calls = recording.wait();
        ASSERT_EQ(calls.size(), 2u);
        checkSequence(calls);
        EXPECT_TRUE(calls[0].hasOutput);
        EXPECT_FALSE(calls[0].error);
        EXPECT_FALSE(calls[1].hasOutput);
        EXPECT_QX_ERROR(calls[1].error, qx::NSCocoaErrorDomain, 3072);
        EXPECT_EQ(calls[1].compressedTotal, calls[0].compressedTotal);
        EXPECT_LT(calls[1].compressedTotal, bigGzip().size());
    }
}

// Each ends in one finished call with the error, after output that is a
// prefix of the payload (none when the file is absent).
TEST(DecompressorAsync, FailuresEndTheRunWithTheirError) {
    const Payloads& p = payloads();
    Bytes badCheck = p.zlib;
    badCheck.back() ^= 0x55;  // the Adler-32 trailer, checked once everything is out
    HttpTestServer checkServer(badCheck), dropServer(p.gzip, p.gzip.size() / 3);
    TempDir dir;
    const struct { std::string source; const char* domain; std::int64_t code; std::uint64_t maxCompressed; } cases[] = {
        {checkServer.url(HttpTestServer::RangesPath), "inflate", Z_DATA_ERROR, badCheck.size()},
        {dir.file("cut.xz", slice(p.xz, 0, p.xz.size() / 2)), "lzma_code", LZMA_BUF_ERROR,
         p.xz.size() / 2},
        {dropServer.url(HttpTestServer::TruncatedPath), "NSURLErrorDomain", -1005,
         p.gzip.size() / 3},
        {dir / "absent.gz", qx::NSCocoaErrorDomain, 260, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.source);
        Recording recording;
        start(Form::URL, c.source, recording.handler(urlGoOn), QXChecksumAlgorithmCRC32, QXChecksumAlgorithmCRC32);
        const auto calls = recording.wait();
        const Bytes output = checkSequence(calls);
        EXPECT_QX_ERROR(calls.back().error, c.domain, c.code);
        EXPECT_LE(calls.back().compressedTotal, c.maxCompressed);
        EXPECT_LE(output.size(), p.plain.size());
        EXPECT_TRUE(std::equal(output.begin(), output.end(), p.plain.begin()));
    }
}

// A handle open for writing only can't be read for detection: one finished call.
TEST(DecompressorAsync, AnUnreadableHandleGivesOneFinishedCall) {
    TempDir dir;
    const int fd = ::open(dir.file("w", payloads().gzip).c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    Recording recording;
    QXDecompressor::decompressFileHandle(qx::FileHandle::initWithFileDescriptor(fd, true), 0,
                                         QXRemoteFileHandle::ToEndOfFile, QXDecompressionAlgorithmAutomatic,
                                         QXChecksumAlgorithmNone, QXChecksumAlgorithmNone, recording.handler(goOn));
    const auto calls = recording.wait();
    ASSERT_EQ(calls.size(), 1u);
    checkSequence(calls);
    EXPECT_FALSE(calls[0].hasOutput);
    EXPECT_EQ(calls[0].compressedTotal, 0u);
    EXPECT_QX_ERROR(calls[0].error, qx::NSPOSIXErrorDomain, EINVAL);
}
