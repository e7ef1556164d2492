// QxDecompressCommandTests.cpp - `qx decompress`, run as a child process.
//
// Payloads are made by the reference tools (gzip, bzip2, xz, python3's zlib;
// PBZX from chunks that xz compressed) and the expected output is what those
// tools decompress them to. Each case judges the exit status, the one-line
// report, and what was (or was not) left at the destination.
#include "HttpTestServer.h"
#include "QxProcessTest.h"

#include <gtest/gtest.h>

#include <qx/FileHandle.h>
#include <qx/Process.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace qxtest;

namespace {

// Text that compresses well but not trivially, with some binary noise.
std::string makePlain(std::size_t size) {
    static const char* words[] = {"alpha ", "bravo ", "charlie ", "delta\n", "echo ", "foxtrot ", "golf ", "hotel "};
    std::mt19937 rng(7);
    std::string out;
    out.reserve(size);
    while (out.size() < size) {
        out += words[rng() % 8];
        if (rng() % 5 == 0) out += static_cast<char>(rng());
    }
    out.resize(size);
    return out;
}

void appendBigEndian64(std::string& out, std::uint64_t value) {
    for (int i = 7; i >= 0; --i) out += static_cast<char>(value >> (8 * i));
}

struct Format {
    std::string name;   // as -a takes it
    std::string file;   // the payload, in the suite's directory
    std::string reference;  // what the reference tool decompresses it to
};

class QxDecompress : public QxProcessTest {
protected:
    QxDecompress() : QxProcessTest("qx-decompress") {}

    // The payloads are made once: the tools take a while on every run.
    static void SetUpTestSuite() {
        std::string tmpl = (fs::temp_directory_path() / "qx-decompress-payloads-XXXXXX").string();
        ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
        payloads_ = tmpl;
        const fs::path plain = payloads_ / "plain";
        writeFile(plain, makePlain(1536 * 1024 + 4321));
        const std::string p = shellQuote(plain.string());
        const auto at = [](const std::string& name) { return shellQuote((payloads_ / name).string()); };
        const std::string zlibScript =
            "import sys, zlib\n"
            "data = open(sys.argv[1], 'rb').read()\n"
            "if sys.argv[2] == 'zlib': out = zlib.compress(data)\n"
            "elif sys.argv[2] == 'raw':\n"
            "    c = zlib.compressobj(6, zlib.DEFLATED, -15); out = c.compress(data) + c.flush()\n"
            "elif sys.argv[2] == 'unzlib': out = zlib.decompress(data)\n"
            "else: out = zlib.decompress(data, -15)\n"
            "open(sys.argv[3], 'wb').write(out)\n";
        writeFile(payloads_ / "zlib.py", zlibScript);
        const std::string py = "python3 " + at("zlib.py") + " ";
        ASSERT_EQ(shell("gzip -c " + p + " > " + at("p.gz") + " && gzip -dc " + at("p.gz") + " > " + at("ref.gz")), 0);
        ASSERT_EQ(shell("bzip2 -c " + p + " > " + at("p.bz2") + " && bzip2 -dc " + at("p.bz2") + " > " + at("ref.bz2")), 0);
        ASSERT_EQ(shell("xz -c " + p + " > " + at("p.xz") + " && xz -dc " + at("p.xz") + " > " + at("ref.xz")), 0);
        ASSERT_EQ(shell(py + p + " zlib " + at("p.zlib") + " && " + py + at("p.zlib") + " unzlib " + at("ref.zlib")), 0);
        ASSERT_EQ(shell(py + p + " raw " + at("p.raw") + " && " + py + at("p.raw") + " unraw " + at("ref.raw")), 0);

        // PBZX: three chunks compressed by xz, the middle one kept as it is.
        const std::string text = readFile(plain);
        const std::vector<std::string> pieces = {text.substr(0, 1000000), text.substr(1000000, 1000), text.substr(1001000)};
        std::string container = "pbzx", reference;
        appendBigEndian64(container, 0x01000000);
        for (std::size_t i = 0; i < pieces.size(); ++i) {
            const std::string name = "piece" + std::to_string(i);
            writeFile(payloads_ / name, pieces[i]);
            std::string stored = pieces[i];
            if (i != 1) {
                ASSERT_EQ(shell("xz -c " + at(name) + " > " + at(name + ".xz") + " && xz -dc " + at(name + ".xz") + " > " +
                                at(name + ".ref")),
                          0);
                stored = readFile(payloads_ / (name + ".xz"));
                reference += readFile(payloads_ / (name + ".ref"));
            } else {
                reference += pieces[i];
            }
            appendBigEndian64(container, pieces[i].size());
            appendBigEndian64(container, stored.size());
            container += stored;
        }
        writeFile(payloads_ / "p.pbzx", container);
        writeFile(payloads_ / "ref.pbzx", reference);
    }
    static void TearDownTestSuite() {
        std::error_code ec;
        fs::remove_all(payloads_, ec);
    }

    static std::vector<Format> formats() {
        return {{"gzip", "p.gz", "ref.gz"},    {"bzip2", "p.bz2", "ref.bz2"}, {"xz", "p.xz", "ref.xz"},
                {"zlib", "p.zlib", "ref.zlib"}, {"raw-deflate", "p.raw", "ref.raw"}, {"pbzx", "p.pbzx", "ref.pbzx"}};
    }
    static fs::path payload(const std::string& name) { return payloads_ / name; }
    static std::string reference(const Format& format) { return readFile(payloads_ / format.reference); }

    // Runs qx decompress; `before` may set limits or feed a pipe (then
    // with an empty stdinPath).
    QxRun qx(std::vector<std::string> args, const std::string& stdinPath = "/dev/null", const std::string& before = "") {
        args.insert(args.begin(), "decompress");
        return runQx(args, stdinPath, before);
    }

    // Status 1, one line naming `name` with a reason, nothing written.
    void expectFailure(const QxRun& run, const std::string& name) const {
        expectOneLineFailure(run, name);
        EXPECT_TRUE(workEntries().empty()) << "left behind: " << workEntries().front();
    }

    static fs::path payloads_;
};

fs::path QxDecompress::payloads_;

} // namespace

// --- Output ----------------------------------------------------------------

TEST_F(QxDecompress, EveryFormatMatchesTheReferenceToolOnStdoutInAFileAndInPlace) {
    for (const auto& format : formats()) {
        SCOPED_TRACE(format.name);
        const std::string expected = reference(format);
        ASSERT_GT(expected.size(), 1536u * 1024);
        // Raw deflate has no header to be recognised by.
        const std::vector<std::string> algorithm =
            format.name == "raw-deflate" ? std::vector<std::string>{"-a", "raw-deflate"} : std::vector<std::string>{};

        auto args = algorithm;
        args.push_back(payload(format.file).string());
        QxRun run = qx(args);
        ASSERT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_TRUE(run.out == expected) << "standard output differs";
        EXPECT_TRUE(run.err.empty()) << run.err;

        // The algorithm named explicitly, into a file.
        const fs::path out = work() / "out";
        run = qx({"-a", format.name, payload(format.file).string(), "-o", out.string()});
        ASSERT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_TRUE(readFile(out) == expected) << "file differs";
        EXPECT_TRUE(run.out.empty());
        EXPECT_EQ(workEntries(), std::vector<std::string>{"out"});

        const fs::path copy = work() / "copy";
        fs::copy_file(payload(format.file), copy, fs::copy_options::overwrite_existing);
        args = algorithm;
        args.insert(args.end(), {"--in-place", copy.string()});
        run = qx(args);
        ASSERT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_TRUE(readFile(copy) == expected) << "replaced file differs";
        EXPECT_EQ(workEntries(), (std::vector<std::string>{"copy", "out"}));
        fs::remove(copy);
        fs::remove(out);
    }
}

TEST_F(QxDecompress, ShippedPBZXPayloadDecodesToTheArchiveItWasMadeFrom) {
    const fs::path fixtures = fs::path(QX_TESTDATA_DIR) / "pbzx";
    QxRun run = qx({(fixtures / "pkgbuild-payload.pbzx").string()});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_TRUE(run.out == readFile(fixtures / "pkgbuild-payload.cpio"));
}

TEST_F(QxDecompress, ChecksumOfTheOutputIsPrintedOnStandardError) {
    const Format gzip = formats()[0];
    const fs::path out = work() / "out";
    const std::string source = shellQuote(payload(gzip.reference).string()), sum = shellQuote((dir() / "sum").string());
    ASSERT_EQ(shell("sha256sum " + source + " | cut -d' ' -f1 > " + sum +
                    " && python3 -c 'import sys, zlib; print(\"%08x\" % zlib.crc32(open(sys.argv[1], \"rb\").read()))' " +
                    source + " >> " + sum),
              0);
    const std::string sums = readFile(dir() / "sum");
    const std::string sha256 = sums.substr(0, sums.find('\n')), crc32 = sums.substr(sums.find('\n') + 1, 8);

    QxRun run = qx({"--checksum", "sha256", payload(gzip.file).string(), "-o", out.string()});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(run.err, "sha256 (decompressed): " + sha256 + "\n");
    // Printed beside output on standard output, it stays out of the data.
    run = qx({"--checksum", "CRC32", "-"}, payload(gzip.file).string());
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(run.err, "crc32 (decompressed): " + crc32 + "\n");
    EXPECT_TRUE(run.out == reference(gzip));
}

TEST_F(QxDecompress, OffsetAndLengthSelectAPayloadInsideALargerFile) {
    std::mt19937 rng(3);
    std::string before(4099, '\0'), after(777, '\0');
    for (auto& c : before) c = static_cast<char>(rng());
    for (auto& c : after) c = static_cast<char>(rng());
    for (const auto& format : {formats()[0], formats()[1], formats()[5]}) {
        SCOPED_TRACE(format.name);
        const std::string payloadBytes = readFile(payload(format.file));
        const fs::path container = dir() / "container";
        writeFile(container, before + payloadBytes + after);
        const std::vector<std::string> range = {"--offset", std::to_string(before.size()), "--length",
                                                std::to_string(payloadBytes.size())};

        auto args = range;
        args.push_back(container.string());
        QxRun run = qx(args);
        ASSERT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_TRUE(run.out == reference(format)) << "from the file";

        // The same range of a pipe: skipped, then read front to back.
        args = range;
        args.push_back("-");
        run = qx(args, "", "cat " + shellQuote(container.string()) + " |");
        ASSERT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_TRUE(run.out == reference(format)) << "from a pipe";
    }
}

TEST_F(QxDecompress, StandardInputFromAPipe) {
    for (const auto& format : formats()) {
        if (format.name == "raw-deflate") continue;
        SCOPED_TRACE(format.name);
        const fs::path out = work() / "out";
        QxRun run = qx({"-", "-o", out.string()}, "", "cat " + shellQuote(payload(format.file).string()) + " |");
        ASSERT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_TRUE(readFile(out) == reference(format));
        fs::remove(out);
    }
}

TEST_F(QxDecompress, HttpSourcesWithAndWithoutRangesAndOneThatDiesMidTransfer) {
    const Format gzip = formats()[0];
    const std::string bytes = readFile(payload(gzip.file));
    HttpTestServer server(std::vector<std::uint8_t>(bytes.begin(), bytes.end()), bytes.size() / 2);
    for (const char* path : {HttpTestServer::RangesPath, HttpTestServer::NoRangesPath}) {
        SCOPED_TRACE(path);
        const fs::path out = work() / "out";
        QxRun run = qx({server.url(path), "-o", out.string()});
        ASSERT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_TRUE(readFile(out) == reference(gzip));
        fs::remove(out);
    }
    const std::string truncated = server.url(HttpTestServer::TruncatedPath);
    expectFailure(qx({truncated, "-o", (work() / "out").string()}), truncated);
    // An error page is not a payload, not even with detection left automatic.
    for (const char* path : {HttpTestServer::NotFoundPath, HttpTestServer::ServerErrorPath}) {
        const std::string url = server.url(path);
        QxRun run = qx({url, "-o", (work() / "out").string()});
        expectFailure(run, url);
        EXPECT_NE(run.err.find("HTTP status"), std::string::npos) << run.describe();
    }
}

// --- Failures --------------------------------------------------------------

TEST_F(QxDecompress, WrongAlgorithmForcedFails) {
    const std::string gz = payload("p.gz").string();
    for (const char* algorithm : {"bzip2", "xz", "pbzx", "zlib"}) {
        SCOPED_TRACE(algorithm);
        expectFailure(qx({"-a", algorithm, gz, "-o", (work() / "out").string()}), gz);
    }
}

TEST_F(QxDecompress, TruncatedOrCorruptInputOfEveryCheckedFormatFailsAndLeavesNothing) {
    for (const auto& format : formats()) {
        // Raw deflate carries nothing to tell where it should end.
        if (format.name == "raw-deflate") continue;
        SCOPED_TRACE(format.name);
        const std::string whole = readFile(payload(format.file));
        const fs::path damaged = dir() / "damaged";
        const std::vector<std::pair<std::string, std::string>> cases = {
            {"cut at two thirds", whole.substr(0, whole.size() * 2 / 3)},
            {"cut by one byte", whole.substr(0, whole.size() - 1)},
            {"a byte flipped in the middle", [&] {
                 std::string bytes = whole;
                 bytes[bytes.size() / 2] = static_cast<char>(bytes[bytes.size() / 2] ^ 0x55);
                 return bytes;
             }()},
        };
        for (const auto& [what, bytes] : cases) {
            SCOPED_TRACE(what);
            writeFile(damaged, bytes);
            expectFailure(qx({"-a", format.name, damaged.string(), "-o", (work() / "out").string()}), damaged.string());
        }
    }
}

TEST_F(QxDecompress, CorruptGzipTrailerIsDetectedFromFilesAndPipes) {
    const std::string whole = readFile(payload("p.gz"));
    const fs::path damaged = dir() / "damaged.gz";
    for (const std::size_t fromEnd : {8u, 1u}) {  // the CRC-32, then the length
        SCOPED_TRACE(fromEnd);
        std::string bytes = whole;
        bytes[bytes.size() - fromEnd] = static_cast<char>(bytes[bytes.size() - fromEnd] ^ 1);
        writeFile(damaged, bytes);
        QxRun run = qx({damaged.string(), "-o", (work() / "out").string()});
        expectFailure(run, damaged.string());
        EXPECT_NE(run.err.find("trailer"), std::string::npos) << run.err;
        run = qx({"-", "-o", (work() / "out").string()}, "", "cat " + shellQuote(damaged.string()) + " |");
        expectFailure(run, "(standard input)");
    }
}

TEST_F(QxDecompress, FullDiskLeavesNoDestinationAndNoTemporary) {
    const fs::path out = work() / "out";
    // 200 blocks of at most 1 KiB: far below the 1.5 MiB of output.
    QxRun run = qx({payload("p.xz").string(), "-o", out.string()}, "/dev/null", "ulimit -f 200;");
    expectFailure(run, out.string());
    EXPECT_NE(run.err.find("too large"), std::string::npos) << run.err;
}

TEST_F(QxDecompress, ClosedOutputPipeIsReportedNotSilent) {
    auto process = qx::Process::create(QX_QX_BINARY, {"decompress", payload("p.bz2").string()});
    process->setStandardInput(qx::Process::Stdio::Null);
    process->setStandardOutput(qx::Process::Stdio::Pipe);
    process->setStandardError(qx::Process::Stdio::Pipe);
    qx::Ref<qx::Error> error;
    ASSERT_TRUE(process->launch(&error)) << qx::describe(error.get());
    // Some output proves the child is writing; then the reader goes away.
    EXPECT_EQ(process->standardOutput()->readDataOfLength(1000)->length(), 1000u);
    process->standardOutput()->closeFile();
    const std::string err(process->standardError()->readDataToEndOfFile()->view());
    ASSERT_TRUE(process->waitUntilExit(std::chrono::steady_clock::now() + 60s));
    EXPECT_EQ(process->terminationReason(), qx::Process::TerminationReason::Exit);
    EXPECT_EQ(process->terminationStatus(), 1);
    EXPECT_EQ(err.rfind("qx: (standard output): ", 0), 0u) << err;
    EXPECT_NE(err.find("Broken pipe"), std::string::npos) << err;
}

// An interrupted command leaves at once, without joining threads that may be
// blocked on input; a thread sanitizer in the child would report those.
std::map<std::string, std::string> environmentForAnAbruptExit() {
    std::map<std::string, std::string> environment;
    for (char** entry = environ; *entry; ++entry) {
        const std::string text = *entry;
        const auto equals = text.find('=');
        if (equals != std::string::npos) environment[text.substr(0, equals)] = text.substr(equals + 1);
    }
    auto& tsan = environment["TSAN_OPTIONS"];
    tsan += (tsan.empty() ? "" : ":") + std::string("report_thread_leaks=0");
    return environment;
}

TEST_F(QxDecompress, InterruptDuringASlowDecodeExitsWithTheSignalAndLeavesNoDestination) {
    const std::string gz = readFile(payload("p.gz"));
    for (const int signal : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(signal);
        const fs::path out = work() / "out";
        auto process = qx::Process::create(QX_QX_BINARY, {"decompress", "-", "-o", out.string()});
        process->setEnvironment(environmentForAnAbruptExit());
        process->setStandardInput(qx::Process::Stdio::Pipe);
        process->setStandardOutput(qx::Process::Stdio::Null);
        process->setStandardError(qx::Process::Stdio::Pipe);
        qx::Ref<qx::Error> error;
        ASSERT_TRUE(process->launch(&error)) << qx::describe(error.get());
        // Half the payload, and the pipe kept open: the decoder waits for more.
        process->standardInput()->writeBytes(gz.data(), gz.size() / 2);
        // The temporary file exists once the command has set up its signal
        // handling and output; output in it shows the decoder at work.
        const auto deadline = std::chrono::steady_clock::now() + 60s;
        bool writing = false;
        while (!writing && std::chrono::steady_clock::now() < deadline) {
            for (const auto& entry : fs::directory_iterator(work()))
                if (fs::file_size(entry.path()) > 0) writing = true;
            if (!writing) std::this_thread::yield();
        }
        ASSERT_TRUE(writing) << "no output appeared";
        ASSERT_TRUE(process->sendSignal(signal));
        const std::string err(process->standardError()->readDataToEndOfFile()->view());
        ASSERT_TRUE(process->waitUntilExit(std::chrono::steady_clock::now() + 60s));
        EXPECT_EQ(process->terminationReason(), qx::Process::TerminationReason::Exit);
        EXPECT_EQ(process->terminationStatus(), 128 + signal) << err;
        EXPECT_TRUE(workEntries().empty()) << "left behind: " << workEntries().front();
        process->standardInput()->closeFile();
        for (const auto& entry : fs::directory_iterator(work())) fs::remove(entry.path());
    }
}

TEST_F(QxDecompress, InPlaceKeepsTheSourceUnlessSomethingCameOut) {
    const fs::path copy = work() / "copy.gz";
    std::string bytes = readFile(payload("p.gz"));
    bytes[bytes.size() / 2] = static_cast<char>(bytes[bytes.size() / 2] ^ 0x55);
    writeFile(copy, bytes);
    QxRun run = qx({"--in-place", copy.string()});
    EXPECT_EQ(run.exitStatus, 1) << run.describe();
    EXPECT_EQ(run.errLines(), 1u) << run.describe();
    EXPECT_TRUE(readFile(copy) == bytes) << "the source changed";
    EXPECT_EQ(workEntries(), std::vector<std::string>{"copy.gz"});

    // Nothing decompressed, nothing replaced.
    ASSERT_EQ(shell("printf '' | gzip -c > " + shellQuote(copy.string())), 0);
    const std::string empty = readFile(copy);
    run = qx({"--in-place", copy.string()});
    EXPECT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_TRUE(readFile(copy) == empty);
    EXPECT_EQ(workEntries(), std::vector<std::string>{"copy.gz"});
}

TEST_F(QxDecompress, CombinationsThatMakeNoSenseAreRefused) {
    const std::string gz = payload("p.gz").string();
    for (const auto& args : std::vector<std::vector<std::string>>{{"--in-place", "-"},
                                                                   {"--in-place", "http://127.0.0.1:9/x.gz"},
                                                                   {"--in-place", gz, "-o", (work() / "out").string()},
                                                                   {"--in-place", "/dev/null"}}) {
        SCOPED_TRACE(args[1]);
        QxRun run = qx(args);
        EXPECT_EQ(run.exitStatus, 2) << run.describe();
        EXPECT_EQ(run.errLines(), 1u) << run.describe();
        EXPECT_EQ(run.err.rfind("qx: decompress: --in-place", 0), 0u) << run.describe();
        EXPECT_TRUE(workEntries().empty());
    }
    expectFailure(qx({(dir() / "missing.gz").string(), "-o", (work() / "out").string()}), (dir() / "missing.gz").string());
}
