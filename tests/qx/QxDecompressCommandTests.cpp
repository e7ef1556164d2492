// QxDecompressCommandTests.cpp - `qx decompress` and `qx detect`, run as child processes: the
// routes in and out, where the tool itself decides the format, and what a failure leaves behind.

#include "TestSupport.h"
#include "DecompressorPayloads.h"
#include "HttpTestServer.h"
#include "LegacyZipFixtures.h"
#include "QxProcessTest.h"
#include "ToolDecode.h"

#include <qx/FileHandle.h>

#include <csignal>

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace qxtest;
using decompressorpayloads::deflateBytes;
using decompressorpayloads::payloads;

namespace {

class QxDecompress : public QxProcessTest {
protected:
    QxRun qx(std::vector<std::string> args, const std::string& stdinPath = "/dev/null", const std::string& before = "") {
        args.insert(args.begin(), "decompress");
        return runQx(args, stdinPath, before);
    }
    std::string pipeFrom(const std::string& path) const { return "cat " + shellQuote(path) + " |"; }
    // Status 1, one line naming `name` with a reason, nothing written.
    void expectFailure(const QxRun& run, const std::string& name) const {
        expectOneLineFailure(run, name);
        EXPECT_EQ(workEntries(), std::vector<std::string>{}) << "left behind";
    }
    const std::string plain = toString(payloads().plain);
};

} // namespace

TEST_F(QxDecompress, TheToolDecidesTheFormatFromTheFirstBytesOrTheDeflateFamily) {
    const auto& p = payloads();
    const std::vector<std::pair<std::vector<std::string>, const Bytes*>> cases = {
        {{}, &p.zlib}, {{}, &p.bzip2}, {{"-a", "deflate"}, &p.gzip}, {{"-a", "deflate"}, &p.raw},
        {{"-a", "none"}, &p.plain},  // not compressed: copied on request
    };
    for (const auto& [algorithm, bytes] : cases) {
        auto args = algorithm;
        args.push_back(input("payload", *bytes));
        const QxRun run = qx(args);
        EXPECT_TRUE(run.exitStatus == 0 && run.out == plain && run.err.empty())
            << ::testing::PrintToString(algorithm) << " " << bytes->size() << ": " << run.describe();
    }
}

TEST_F(QxDecompress, AutomaticDetectionRefusesWhatItDoesNotRecognise) {
    Bytes damagedXZ = payloads().xz;
    damagedXZ[1] ^= 0x20;  // the header magic
    for (const auto& [name, bytes] : {std::pair{"text", payloads().plain}, {"damaged xz", damagedXZ}, {"empty", Bytes{}}}) {
        const std::string path = input("unknown", bytes);
        const QxRun run = qx({path, "-o", out()});
        expectFailure(run, path);
        EXPECT_NE(run.err.find("not in a known compressed format"), std::string::npos) << name << run.describe();
    }
}

TEST_F(QxDecompress, OutputToAFileAndFromARangeOfAFileOrAPipe) {
    QxRun run = qx({"-a", "GZIP", input("p.gz", payloads().gzip), "-o", out()});
    EXPECT_TRUE(run.exitStatus == 0 && run.out.empty() && run.err.empty() && readFile(out()) == plain) << run.describe();

    // A payload inside a larger file, from the file and from a pipe (skipped, then read).
    Bytes container = randomBytes(4099, 3) + payloads().gzip;
    container.resize(container.size() + 777, 0x1F);
    const std::string path = input("container", container), length = std::to_string(payloads().gzip.size());
    // The output's checksum goes to standard error, out of the data.
    for (const auto& [source, pipe] : {std::pair{path, std::string()}, {std::string("-"), pipeFrom(path)}}) {
        run = qx({"--checksum", "SHA256", "--offset", "4099", "--length", length, source}, pipe.empty() ? "/dev/null" : "", pipe);
        ASSERT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_TRUE(run.out == plain) << source;
        EXPECT_EQ(run.err, "sha256 (decompressed): " + legacyzip::sha256Hex(payloads().plain) + "\n");
    }
}

TEST_F(QxDecompress, EveryGzipMemberAndBzip2StreamIsDecoded) {
    const Bytes first = makePayload(200000, 5), second = randomBytes(70000, 6), empty;
    const Bytes both = first + second;
    const Bytes gz = deflateBytes(first, 31) + deflateBytes(empty, 31) + deflateBytes(second, 31);
    const Bytes bz2 = decompressorpayloads::bzip2Bytes(first) + decompressorpayloads::bzip2Bytes(second);
    const struct { const char* name; Bytes input; bool garbage; } cases[] = {
        {"gzip members", gz, false},
        {"bzip2 streams", bz2, false},
        {"gzip and zeros", gz + Bytes(1000, 0), true},
        {"bzip2 and text", bz2 + toBytes(std::string("BZ")), true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = input("payload", c.input);
        for (const auto& [source, pipe] : {std::pair{path, std::string()}, {std::string("-"), pipeFrom(path)}}) {
            const QxRun run = qx({source}, pipe.empty() ? "/dev/null" : "", pipe);
            EXPECT_EQ(run.exitStatus, 0) << run.describe();
            EXPECT_TRUE(toBytes(run.out) == both) << source;
            EXPECT_EQ(run.err, c.garbage ? "qx: " + (source == "-" ? std::string("(standard input)") : source) + ": warning: trailing garbage ignored\n" : "");
        }
    }
    // A member whose trailer does not match its data fails, wherever it lies.
    Bytes damaged = gz;
    damaged[deflateBytes(first, 31).size() - 1] ^= 1;  // the first member's length
    expectFailure(qx({input("damaged", damaged), "-o", out()}), (dir() / "damaged").string());
}

TEST_F(QxDecompress, XZInIndependentBlocksIsDecodedWholeAndACutOneFails) {
    // Blocks of 64 KiB, as a threaded encoder writes them for threaded decoders.
    auto xz = runFilter("xz -1 -T2 --block-size=65536 -c", payloads().plain).value_or(Bytes{});
    ASSERT_GT(xz.size(), 100u);
    const std::string path = input("blocks.xz", xz);
    for (const auto& [source, pipe] : {std::pair{path, std::string()}, {std::string("-"), pipeFrom(path)}}) {
        const QxRun run = qx({source}, pipe.empty() ? "/dev/null" : "", pipe);
        EXPECT_TRUE(run.exitStatus == 0 && run.out == plain && run.err.empty()) << source << ": " << run.describe();
    }
    xz.resize(xz.size() - 30);
    const std::string cut = input("cut.xz", xz);
    expectFailure(qx({cut, "-o", out()}), cut);
}

TEST_F(QxDecompress, HttpSourcesWithAndWithoutRangesAndFailingOnes) {
    HttpTestServer server(payloads().gzip, payloads().gzip.size() / 2);
    for (const char* path : {HttpTestServer::RangesPath, HttpTestServer::NoRangesPath}) {
        const QxRun run = qx({server.url(path)});
        ASSERT_EQ(run.exitStatus, 0) << path << ": " << run.describe();
        EXPECT_TRUE(run.out == plain) << path;
    }
    // An error page is not a payload, not even with detection left automatic.
    for (const auto& [path, status] : {std::pair{HttpTestServer::NotFoundPath, "404"}, {HttpTestServer::ServerErrorPath, "500"},
                                       {HttpTestServer::TruncatedPath, ""}}) {
        const QxRun run = qx({server.url(path), "-o", out()});
        expectFailure(run, server.url(path));
        EXPECT_NE(run.err.find(status), std::string::npos) << run.describe();
    }
}

TEST_F(QxDecompress, DamagedOrMislabelledInputFailsAndLeavesNothing) {
    const auto& p = payloads();
    const auto flipped = [](Bytes b, std::size_t fromEnd) { b[b.size() - fromEnd] ^= 1; return b; };
    const std::vector<std::tuple<std::string, Bytes, std::vector<std::string>>> cases = {
        {"zlib Adler-32", flipped(p.zlib, 1), {}},
        {"gzip forced as bzip2", p.gzip, {"-a", "bzip2"}},
    };
    for (const auto& [what, bytes, algorithm] : cases) {
        SCOPED_TRACE(what);
        auto args = algorithm;
        const std::string path = input("damaged", bytes);
        args.insert(args.end(), {path, "-o", out()});
        expectFailure(qx(args), path);
    }
    // The trailer of a pipe (its CRC-32 here) is checked from the tail it kept.
    const std::string path = input("damaged.gz", flipped(p.gzip, 8));
    const QxRun run = qx({"-", "-o", out()}, "", pipeFrom(path));
    expectFailure(run, "(standard input)");
    EXPECT_NE(run.err.find("trailer"), std::string::npos) << run.err;
}

TEST_F(QxDecompress, FullDiskLeavesNoDestinationAndNoTemporary) {
    // 100 blocks of at most 1 KiB: below the output's 300 KB.
    const QxRun run = qx({input("p.xz", payloads().xz), "-o", out()}, "/dev/null", "ulimit -f 100;");
    expectFailure(run, out());
    EXPECT_NE(run.err.find("too large"), std::string::npos) << run.err;
}

TEST_F(QxDecompress, ClosedOutputPipeIsReportedNotSilent) {
    auto process = launchQx({"decompress", input("p.bz2", payloads().bzip2)}, false);
    // Some output proves the child is writing; then the reader goes away.
    EXPECT_EQ(process->standardOutput()->readDataOfLength(1000)->length(), 1000u);
    process->standardOutput()->closeFile();
    const std::string err(process->standardError()->readDataToEndOfFile()->view());
    ASSERT_TRUE(process->waitUntilExit(std::chrono::steady_clock::now() + 60s));
    EXPECT_EQ(process->terminationStatus(), 1);
    EXPECT_EQ(err.rfind("qx: (standard output): ", 0), 0u) << err;
    EXPECT_NE(err.find("Broken pipe"), std::string::npos) << err;
}

TEST_F(QxDecompress, InterruptDuringASlowDecodeExitsWithTheSignalAndLeavesNoDestination) {
    const Bytes& gz = payloads().gzip;
    auto process = launchQx({"decompress", "-", "-o", out()}, true);
    // Half the payload, and the pipe kept open: the decoder waits for more.
    process->standardInput()->writeBytes(gz.data(), gz.size() / 2);
    expectInterruptLeavesNothing(process, SIGTERM);
}

TEST_F(QxDecompress, InPlaceReplacesTheSourceOnlyWhenSomethingCameOut) {
    const fs::path copy = work() / "copy.gz";
    Bytes corrupt = payloads().gzip;
    corrupt[corrupt.size() / 2] ^= 0x55;
    const Bytes empty = deflateBytes({}, 31);
    for (const auto& [source, status, after] : std::vector<std::tuple<Bytes, int, Bytes>>{
             {payloads().gzip, 0, payloads().plain}, {corrupt, 1, corrupt}, {empty, 0, empty}}) {
        writeFile(copy, source);
        const QxRun run = qx({"--in-place", copy.string()});
        EXPECT_EQ(run.exitStatus, status) << run.describe();
        EXPECT_TRUE(readBytes(copy) == after) << "the source is not as expected, status " << status;
        EXPECT_EQ(workEntries(), std::vector<std::string>{"copy.gz"});
    }
}

TEST_F(QxDecompress, CombinationsThatMakeNoSenseAreRefused) {
    const std::string gz = input("p.gz", payloads().gzip);
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"--in-place", "-"}, {"--in-place", "http://127.0.0.1:9/x.gz"}, {"--in-place", gz, "-o", out()},
             {"--in-place", "/dev/null"}}) {
        const QxRun run = qx(args);
        EXPECT_TRUE(run.exitStatus == 2 && run.err.rfind("qx: decompress: --in-place", 0) == 0) << args[1] << run.describe();
    }
    EXPECT_EQ(workEntries(), std::vector<std::string>{});
    expectFailure(qx({(dir() / "missing.gz").string(), "-o", out()}), (dir() / "missing.gz").string());
}

TEST_F(QxDecompress, DetectNamesEachFormatAndReportsUnreadableFiles) {
    const std::string gz = input("gz", payloads().gzip), pbzx = input("pbzx", payloads().pbzx);
    const std::string none = input("none", payloads().plain);
    QxRun run = runQx({"detect", gz, pbzx, none});
    EXPECT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(run.out, gz + ": gzip\n" + pbzx + ": pbzx\n" + none + ": none\n");
    // An unreadable file fails alone; the rest are still named.
    run = runQx({"detect", (dir() / "missing").string(), dir().string(), gz});
    EXPECT_EQ(run.exitStatus, 1) << run.describe();
    EXPECT_EQ(run.out, gz + ": gzip\n");
    EXPECT_EQ(run.err, "qx: " + (dir() / "missing").string() + ": " + std::strerror(ENOENT) + "\nqx: " + dir().string() +
                           ": " + std::strerror(EISDIR) + "\n");
}
