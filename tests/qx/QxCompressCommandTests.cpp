// QxCompressCommandTests.cpp - `qx compress` run as a child process: every
// format read back by the standard tools, the routes in and out, and what a
// failure or an interrupt leaves behind.
#include "DecompressorPayloads.h"
#include "QxProcessTest.h"
#include "ToolDecode.h"

#include <csignal>

namespace fs = std::filesystem;
using namespace qxtest;
using decompressorpayloads::deflateBytes;

namespace {

class QxCompress : public QxProcessTest {
protected:
    QxRun qx(std::vector<std::string> args, const std::string& stdinPath = "/dev/null", const std::string& before = "") {
        args.insert(args.begin(), "compress");
        return runQx(args, stdinPath, before);
    }
    const Bytes plain = makePayload(700000, 11);
};

} // namespace

TEST_F(QxCompress, EveryFormatFromAFileOrAPipeDecodesWithTheTools) {
    const std::string source = input("plain", plain);
    const std::vector<std::pair<std::vector<std::string>, QXDecompressionAlgorithm>> cases = {
        {{}, QXDecompressionAlgorithmGzip},
        {{"-a", "zlib", "-l", "9"}, QXDecompressionAlgorithmZlib},
        {{"-a", "deflate", "-l", "0"}, QXDecompressionAlgorithmRawDeflate},
        {{"-a", "BZIP2", "-l", "1"}, QXDecompressionAlgorithmBZip2},
        {{"-a", "xz", "-l", "0", "-T", "1"}, QXDecompressionAlgorithmXZ},
    };
    for (const auto& [options, algorithm] : cases) {
        SCOPED_TRACE(::testing::PrintToString(options));
        auto args = options;
        args.insert(args.end(), {source, "-o", out()});
        QxRun run = qx(args);
        ASSERT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_TRUE(run.out.empty() && run.err.empty()) << run.describe();
        EXPECT_EQ(toolDecode(algorithm, readBytes(out())), std::optional<Bytes>(plain));
        EXPECT_EQ(workEntries(), std::vector<std::string>{"out"});
        fs::remove(out());
    }
    // From standard input to standard output.
    const QxRun piped = qx({"-"}, source);
    EXPECT_EQ(piped.exitStatus, 0) << piped.describe();
    EXPECT_EQ(toolDecode(QXDecompressionAlgorithmGzip, toBytes(piped.out)), std::optional<Bytes>(plain));
}

TEST_F(QxCompress, OneThreadWritesTheLibrarysSingleStream) {
    const std::string source = input("plain", plain);
    EXPECT_TRUE(toBytes(qx({"-T", "1", source}).out) == deflateBytes(plain, 31, 6));
    EXPECT_TRUE(toBytes(qx({"-a", "zlib", "-T", "1", "-l", "3", source}).out) == deflateBytes(plain, 15, 3));
}

TEST_F(QxCompress, ARangeOfAFileOrAPipeAndInPlace) {
    Bytes container = randomBytes(4099, 3) + plain;
    container.resize(container.size() + 777, 0x1F);
    const std::string path = input("container", container), length = std::to_string(plain.size());
    for (const auto& [source, pipe] : {std::pair{path, std::string()}, {std::string("-"), "cat " + shellQuote(path) + " |"}}) {
        const QxRun run = qx({"--offset", "4099", "--length", length, "-a", "xz", "-l", "1", source},
                             pipe.empty() ? "/dev/null" : "", pipe);
        ASSERT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_EQ(toolDecode(QXDecompressionAlgorithmXZ, toBytes(run.out)), std::optional<Bytes>(plain)) << source;
    }
    const std::string copy = (work() / "copy").string();
    writeFile(copy, plain);
    ::chmod(copy.c_str(), 0604);
    const QxRun run = qx({"--in-place", "-a", "bzip2", copy});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(toolDecode(QXDecompressionAlgorithmBZip2, readBytes(copy)), std::optional<Bytes>(plain));
    EXPECT_EQ(fileMode(copy), 0604u);
    EXPECT_EQ(workEntries(), std::vector<std::string>{"copy"});
}

TEST_F(QxCompress, FailuresLeaveTheSourceAndNoDestination) {
    const std::string source = input("plain", plain);
    // Levels the library would refuse are usage errors, named before anything is read.
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"-l", "10", source}, {"-a", "bzip2", "-l", "0", source}, {"-a", "xz", "-l", "-1", source},
             {"--in-place", "-"}, {"--in-place", source, "-o", out()}})
        expectOneLineFailure(qx(args), "compress", 2);
    expectOneLineFailure(qx({(dir() / "missing").string(), "-o", out()}), (dir() / "missing").string());
    expectOneLineFailure(qx({dir().string(), "-o", out()}), dir().string());
    // A full destination: 100 blocks of 1 KiB at most, below the output's size.
    const std::string incompressible = input("random", randomBytes(400000, 2));
    QxRun run = qx({incompressible, "-o", out()}, "/dev/null", "ulimit -f 100;");
    expectOneLineFailure(run, out());
    EXPECT_NE(run.err.find("too large"), std::string::npos) << run.err;
    EXPECT_EQ(workEntries(), std::vector<std::string>{});
    const std::string copy = (work() / "copy").string();
    writeFile(copy, randomBytes(400000, 2));
    run = qx({"--in-place", copy}, "/dev/null", "ulimit -f 300;");
    expectOneLineFailure(run, copy);
    EXPECT_TRUE(readBytes(copy) == randomBytes(400000, 2));
    EXPECT_EQ(workEntries(), std::vector<std::string>{"copy"});
}

TEST_F(QxCompress, InterruptLeavesNoDestination) {
    auto process = launchQx({"compress", "-a", "deflate", "-T", "1", "-", "-o", out()}, true);
    // More than one read's worth, and the pipe kept open: the command waits for more.
    const Bytes chunk = randomBytes(3 << 20, 4);
    process->standardInput()->writeBytes(chunk.data(), chunk.size());
    expectInterruptLeavesNothing(process, SIGINT);
}
