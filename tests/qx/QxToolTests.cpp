// QxToolTests.cpp - `qx plist` and `qx hexdump`, run as child processes: how the program
// reads, writes and reports (what the reader makes of a property list is the library's business).

#include "TestSupport.h"
#include "QxProcessTest.h"

#include <QXFoundation/QXPropertyListSerialization.h>

namespace fs = std::filesystem;
using PLS = QXPropertyListSerialization;
using namespace qxtest;

namespace {

const fs::path kGoodInput = fs::path(QX_PLIST_TESTDATA_DIR) / "biplist/simple_binary.plist";
const fs::path kBadInput = fs::path(QX_PLIST_TESTDATA_DIR) / "cpython/invalid-19-too-large-reference-index.bplist";

qx::Ref<qx::Object> readWithLibrary(const fs::path& path, qx::Ref<qx::Error>* error = nullptr) {
    QXPropertyListFormat format = 0;
    return PLS::propertyListWithData(qx::Data::withString(readFile(path)), &format, error);
}

class QxTool : public QxProcessTest {
protected:
    QxRun convert(const fs::path& input, const fs::path& output, const std::string& format = "binary") {
        return runQx({"plist", "convert", "--format", format, input.string(), "-o", output.string()});
    }
};

} // namespace

TEST_F(QxTool, ConvertWritesWhatTheLibraryWritesInEachFormatAndPrintShowsTheDescription) {
    const auto value = readWithLibrary(kGoodInput);
    ASSERT_TRUE(value);
    const std::string written(PLS::binaryDataWithPropertyList(value)->view());
    const fs::path output = work() / "out.plist";
    QxRun run = convert(kGoodInput, output);
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(run.err + run.out, "");
    EXPECT_EQ(readFile(output), written);
    // "-" is standard input or standard output.
    run = runQx({"plist", "convert", "--format", "binary", "-", "-o", "-"}, kGoodInput.string());
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(run.out, written);
    run = runQx({"plist", "print", kGoodInput.string()});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(run.out + run.err, value->description() + "\n");
    expectOneLineFailure(runQx({"plist", "print", "-"}, kBadInput.string()), "(standard input)");
    for (const auto& [name, code] : {std::pair{"xml", QXPropertyListXMLFormat_v1_0}, {"text", QXPropertyListOpenStepFormat}}) {
        ASSERT_EQ(convert(kGoodInput, work() / name, name).exitStatus, 0) << name;
        EXPECT_EQ(readFile(work() / name), std::string(PLS::dataWithPropertyList(value, code, nullptr)->view())) << name;
    }
}

TEST_F(QxTool, RefusedInputsFailWithOneLineAndKeepThePreviousOutput) {
    const fs::path output = work() / "out.plist";
    expectOneLineFailure(convert(kBadInput, output), kBadInput);
    EXPECT_EQ(workEntries(), std::vector<std::string>{}) << "an output or a temporary file was left behind";
    writeFile(output, "previous");
    expectOneLineFailure(convert(kBadInput, output), kBadInput);
    EXPECT_EQ(readFile(output), "previous");
    EXPECT_EQ(workEntries(), std::vector<std::string>{"out.plist"});
}

TEST_F(QxTool, MalformedDataIsReportedWithTheLibrarysReasonAndLogOnlyWhenVerbose) {
    qx::Ref<qx::Error> error;
    ASSERT_FALSE(readWithLibrary(kBadInput, &error));
    ASSERT_TRUE(error);
    // The reader logs why it refuses this file; that stays out of a plain run.
    QxRun run = runQx({"plist", "print", kBadInput.string()}, "/dev/null", "QX_LOG_STDERR=1");
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.err, "qx: " + kBadInput.string() + ": " + error->localizedDescription() + "\n");

    run = runQx({"--verbose", "plist", "print", kBadInput.string()});
    EXPECT_EQ(run.exitStatus, 1) << run.describe();
    EXPECT_GE(run.errLines(), 2u) << run.describe();
    const std::string last = run.err.substr(run.err.rfind('\n', run.err.size() - 2) + 1);
    EXPECT_EQ(last.rfind("qx: " + kBadInput.string() + ": ", 0), 0u) << "the failure line comes last: " << run.err;
}

TEST_F(QxTool, OutputReplacesFilesAndWritesIntoPipes) {
    const std::string expected(PLS::binaryDataWithPropertyList(readWithLibrary(kGoodInput))->view());

    // A file is replaced the safe writer's way (its mode, links and the rest are the library's business);
    // one converted onto itself is read before it is replaced.
    const fs::path replaced = work() / "replaced", same = work() / "same";
    writeFile(replaced, "old");
    fs::permissions(replaced, static_cast<fs::perms>(0640));
    ASSERT_EQ(convert(kGoodInput, replaced).exitStatus, 0);
    EXPECT_EQ(readFile(replaced) == expected ? fileMode(replaced) : 0u, 0640u);
    fs::copy_file(kGoodInput, same);
    ASSERT_EQ(convert(same, same).exitStatus, 0);
    EXPECT_EQ(readFile(same), expected);

    // A pipe is written to, not replaced.
    const fs::path fifo = work() / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0) << std::strerror(errno);
    std::string received;
    std::thread reader([&] { received = readFile(fifo); });
    const QxRun run = convert(kGoodInput, fifo);
    reader.join();
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(received, expected);
    EXPECT_EQ(workEntries(), (std::vector<std::string>{"fifo", "replaced", "same"}));
}

TEST_F(QxTool, UnwritableDestinationsAndUnreadableInputsOrRangesNameTheFileAndTheReason) {
    const fs::path noDir = work() / "no-such-dir" / "out", missing = dir() / "missing";
    const std::string small = dir() / "small.bin";
    writeFile(small, "abc");
    const std::vector<std::tuple<QxRun, std::string, int>> cases = {
        {convert(kGoodInput, noDir), noDir.string(), ENOENT},
        {convert(kGoodInput, work()), work().string(), 0},  // a directory is not a file to replace
        {runQx({"plist", "print", missing.string()}), missing.string(), ENOENT},
        {runQx({"plist", "print", work().string()}), work().string(), EISDIR},
        {runQx({"hexdump", missing.string()}), missing.string(), ENOENT},
        {runQx({"hexdump", small, "--offset", "4"}), small, 0},  // past the end
        {runQx({"hexdump", "-", "--offset", "4"}, "", "cat " + shellQuote(small) + " |"), "(standard input)", 0},
    };
    for (const auto& [run, name, code] : cases) {
        expectOneLineFailure(run, name);
        if (code) { EXPECT_NE(run.err.find(std::strerror(code)), std::string::npos) << run.err; }
    }
    EXPECT_EQ(workEntries(), std::vector<std::string>{});
}

TEST_F(QxTool, ArgumentErrorsExitWithStatusTwo) {
    const std::string input = kGoodInput.string(), output = (work() / "out").string();
    for (const auto& args : std::vector<std::vector<std::string>>{
             {}, {"nonsense"}, {"plist", "convert", "--format", "json", input, "-o", output},
             {"plist", "convert", input, "-o", output}, {"plist", "convert", "--format", "binary", input},
             {"plist", "print", input, "extra"}, {"hexdump"}, {"hexdump", input, "--offset", "-1"},
             {"hexdump", input, "--length", "18446744073709551616"}}) {
        const QxRun run = runQx(args);
        EXPECT_TRUE(run.exitStatus == 2 && !run.err.empty()) << ::testing::PrintToString(args) << run.describe();
    }
    EXPECT_EQ(workEntries(), std::vector<std::string>{});
    const QxRun help = runQx({"plist", "convert", "--help"});
    EXPECT_TRUE(help.exitStatus == 0 && help.out.find("--format") != std::string::npos) << help.describe();
}

TEST_F(QxTool, HexdumpShowsOffsetHexAndTextColumnsOfAnyRangeOfFilesAndPipes) {
    const std::string input = dir() / "bytes.bin";
    writeFile(input, "Hello, hexdump!\n\x80\xCAxy");  // Mac OS Roman "Ä", a no-break space shown as "."
    const std::string pad(36, ' '), onePad(46, ' ');  // the hex column is 48 wide, then one space
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "00000000  48 65 6C 6C 6F 2C 20 68 65 78 64 75 6D 70 21 0A  Hello, hexdump!.\n"
             "00000010  80 CA 78 79 " + pad + " \u00c4.xy\n"},
        {{"--offset", "0x12", "--length", "0X1"}, "00000012  78 " + onePad + "x\n"},
        {{"--offset", "20"}, ""},
    };
    for (const auto& [options, expected] : cases) {
        std::vector<std::string> args{"hexdump", input};
        args.insert(args.end(), options.begin(), options.end());
        QxRun run = runQx(args);
        EXPECT_EQ(run.out + run.err, expected) << ::testing::PrintToString(options) << run.describe();
        // From a pipe, which cannot seek, the same lines.
        args[1] = "-";
        run = runQx(args, "", "cat " + shellQuote(input) + " |");
        EXPECT_EQ(run.out, expected) << "piped " << ::testing::PrintToString(options);
    }
}
