// QxToolTests.cpp - `qx plist` and `qx hexdump`, run as child processes.
//
// What the reader makes of each property list is the library suites'
// business; here it is how the program reads, writes and reports.
#include "QxProcessTest.h"

#include <QXFoundation/QXPropertyListSerialization.h>

#include <cerrno>
#include <cstring>
#include <thread>

namespace fs = std::filesystem;
using PLS = QXPropertyListSerialization;
using namespace qxtest;

namespace {

const fs::path kFixtures = QX_PLIST_TESTDATA_DIR;
const fs::path kGoodInput = kFixtures / "biplist/simple_binary.plist";
const fs::path kBadInput = kFixtures / "cpython/invalid-19-too-large-reference-index.bplist";

qx::Ref<qx::Object> readWithLibrary(const fs::path& path, qx::Ref<qx::Error>* error = nullptr) {
    QXPropertyListFormat format = 0;
    return PLS::propertyListWithData(qx::Data::withString(readFile(path)), &format, error);
}

class QxTool : public QxProcessTest {
protected:
    QxRun qx(const std::vector<std::string>& args, const std::string& stdinPath = "/dev/null", const std::string& before = "") {
        return runQx(args, stdinPath, before);
    }
    QxRun convert(const fs::path& input, const fs::path& output, const std::string& format = "binary") {
        return qx({"plist", "convert", "--format", format, input.string(), "-o", output.string()});
    }
};

} // namespace

// --- Converting and printing -------------------------------------------------

TEST_F(QxTool, ConvertWritesWhatTheLibraryWritesAndPrintShowsTheDescription) {
    const auto value = readWithLibrary(kGoodInput);
    ASSERT_TRUE(value);
    const std::string written(PLS::binaryDataWithPropertyList(value)->view());
    const fs::path output = work() / "out.plist";
    QxRun run = convert(kGoodInput, output);
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_TRUE(run.err.empty() && run.out.empty()) << run.describe();
    EXPECT_EQ(readFile(output), written);
    EXPECT_EQ(workEntries(), std::vector<std::string>{"out.plist"});
    // "-" is standard input or standard output.
    for (const auto& [input, stdinPath] : {std::pair{std::string("-"), kGoodInput.string()}, {kGoodInput.string(), "/dev/null"}}) {
        run = qx({"plist", "convert", "--format", "binary", input, "-o", "-"}, stdinPath);
        ASSERT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_EQ(run.out, written);
        run = qx({"plist", "print", input}, stdinPath);
        ASSERT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_TRUE(run.err.empty()) << run.err;
        EXPECT_EQ(run.out, value->description() + "\n");
    }
    expectOneLineFailure(qx({"plist", "convert", "-f", "binary", "-", "-o", "-"}, kBadInput.string()), "(standard input)");
    expectOneLineFailure(qx({"plist", "print", "-"}), "(standard input)");
}

TEST_F(QxTool, RefusedInputsFailWithOneLineAndKeepThePreviousOutput) {
    const std::string good = readFile(kGoodInput);
    const std::vector<std::string> inputs = {kBadInput.string(), dir() / "empty", dir() / "cut"};
    writeFile(inputs[1], "");
    writeFile(inputs[2], good.substr(0, good.size() - 1));
    const fs::path output = work() / "out.plist";
    for (const auto& input : inputs) {
        SCOPED_TRACE(input);
        expectOneLineFailure(convert(input, output), input);
        EXPECT_EQ(workEntries(), std::vector<std::string>{}) << "an output or a temporary file was left behind";
        writeFile(output, "previous");
        expectOneLineFailure(convert(input, output), input);
        EXPECT_EQ(readFile(output), "previous");
        EXPECT_EQ(workEntries(), std::vector<std::string>{"out.plist"});
        fs::remove(output);
        expectOneLineFailure(qx({"plist", "print", input}), input);
    }
}

TEST_F(QxTool, MalformedDataIsReportedWithTheLibrarysReasonAndLogOnlyWhenVerbose) {
    qx::Ref<qx::Error> error;
    ASSERT_FALSE(readWithLibrary(kBadInput, &error));
    ASSERT_TRUE(error);
    // The reader logs why it refuses this file; that stays out of a plain run.
    QxRun run = qx({"plist", "print", kBadInput.string()}, "/dev/null", "QX_LOG_STDERR=1");
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.err, "qx: " + kBadInput.string() + ": " + error->localizedDescription() + "\n");

    run = qx({"--verbose", "plist", "print", kBadInput.string()});
    EXPECT_EQ(run.exitStatus, 1) << run.describe();
    EXPECT_GE(run.errLines(), 2u) << run.describe();
    const std::string last = run.err.substr(run.err.rfind('\n', run.err.size() - 2) + 1);
    EXPECT_EQ(last.rfind("qx: " + kBadInput.string() + ": ", 0), 0u) << "the failure line comes last: " << run.err;
}

TEST_F(QxTool, OtherOutputFormatsAreWhatTheLibraryWrites) {
    const auto value = readWithLibrary(kGoodInput);
    ASSERT_TRUE(value);
    for (const auto& [name, code] : {std::pair{"xml", QXPropertyListXMLFormat_v1_0}, {"text", QXPropertyListOpenStepFormat}}) {
        const auto expected = PLS::dataWithPropertyList(value, code, nullptr);
        ASSERT_TRUE(expected) << name;
        const QxRun run = convert(kGoodInput, work() / name, name);
        ASSERT_EQ(run.exitStatus, 0) << name << ": " << run.describe();
        EXPECT_EQ(readFile(work() / name), std::string(expected->view())) << name;
    }
}

// --- Where output goes -------------------------------------------------------

TEST_F(QxTool, OutputReplacesFilesKeepingTheirModeFollowsLinksAndWritesIntoPipes) {
    const fs::path reference = dir() / "reference.plist";
    ASSERT_EQ(convert(kGoodInput, reference).exitStatus, 0);
    const std::string expected = readFile(reference);

    // A replaced file keeps its permissions; a new one gets the usual mode, not the temporary file's 0600.
    const fs::path replaced = work() / "replaced", fresh = work() / "new", same = work() / "same";
    writeFile(replaced, "old");
    fs::permissions(replaced, static_cast<fs::perms>(0640));
    ASSERT_EQ(convert(kGoodInput, replaced).exitStatus, 0);
    EXPECT_EQ(readFile(replaced), expected);
    EXPECT_EQ(fileMode(replaced), 0640u);
    ASSERT_EQ(convert(kGoodInput, fresh).exitStatus, 0);
    const mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(fileMode(fresh), 0666 & ~mask);
    // A file converted onto itself.
    fs::copy_file(kGoodInput, same);
    ASSERT_EQ(convert(same, same).exitStatus, 0);
    EXPECT_EQ(readFile(same), expected);

    // A symbolic link is followed and kept.
    const fs::path target = work() / "target", link = work() / "link";
    writeFile(target, "old");
    fs::create_symlink(target, link);
    ASSERT_EQ(convert(kGoodInput, link).exitStatus, 0);
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(readFile(target), expected);

    // A pipe is written to, not replaced.
    const fs::path fifo = work() / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0) << std::strerror(errno);
    std::string received;
    std::thread reader([&] { received = readFile(fifo); });
    const QxRun run = convert(kGoodInput, fifo);
    reader.join();
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(received, expected);
    EXPECT_EQ(workEntries(), (std::vector<std::string>{"fifo", "link", "new", "replaced", "same", "target"}));
}

TEST_F(QxTool, UnwritableDestinationsAndUnreadableInputsNameTheFileAndTheReason) {
    const fs::path noDir = work() / "no-such-dir" / "out", missing = dir() / "missing";
    const std::vector<std::tuple<QxRun, std::string, int>> cases = {
        {convert(kGoodInput, noDir), noDir.string(), ENOENT},
        {convert(kGoodInput, work()), work().string(), 0},  // a directory is not a file to replace
        {convert(missing, work() / "out"), missing.string(), ENOENT},
        {qx({"plist", "print", missing.string()}), missing.string(), ENOENT},
        {qx({"plist", "print", work().string()}), work().string(), EISDIR},
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
             {}, {"nonsense"}, {"plist"}, {"plist", "convert", "--format", "json", input, "-o", output},
             {"plist", "convert", input, "-o", output}, {"plist", "convert", "--format", "binary", input},
             {"plist", "convert", "--format", "binary", "-o", output}, {"plist", "print"}, {"plist", "print", input, "extra"}}) {
        const QxRun run = qx(args);
        EXPECT_EQ(run.exitStatus, 2) << ::testing::PrintToString(args) << run.describe();
        EXPECT_FALSE(run.err.empty());
    }
    EXPECT_EQ(workEntries(), std::vector<std::string>{});
    const QxRun help = qx({"plist", "convert", "--help"});
    EXPECT_EQ(help.exitStatus, 0);
    EXPECT_NE(help.out.find("--format"), std::string::npos);
}

// --- Hex dumps ---------------------------------------------------------------

TEST_F(QxTool, HexdumpShowsOffsetHexAndTextColumnsOfAnyRangeOfFilesAndPipes) {
    const std::string input = dir() / "bytes.bin";
    writeFile(input, "Hello, hexdump!\n\x80\xCAxy");  // Mac OS Roman "Ä", a no-break space shown as "."
    const std::string pad(36, ' '), onePad(46, ' ');  // the hex column is 48 wide, then one space
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "00000000  48 65 6C 6C 6F 2C 20 68 65 78 64 75 6D 70 21 0A  Hello, hexdump!.\n"
             "00000010  80 CA 78 79 " + pad + " \u00c4.xy\n"},
        {{"--offset", "3", "--length", "1000"}, "00000003  6C 6F 2C 20 68 65 78 64 75 6D 70 21 0A 80 CA 78  lo, hexdump!.\u00c4.x\n"
                                                "00000013  79 " + onePad + "y\n"},
        {{"--offset", "0x12", "--length", "0X1"}, "00000012  78 " + onePad + "x\n"},
        {{"--offset", "20"}, ""},
        {{"--length", "0"}, ""},
    };
    for (const auto& [options, expected] : cases) {
        std::vector<std::string> args{"hexdump", input};
        args.insert(args.end(), options.begin(), options.end());
        QxRun run = qx(args);
        EXPECT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_EQ(run.out, expected) << ::testing::PrintToString(options);
        EXPECT_TRUE(run.err.empty()) << run.err;
        // From a pipe, which cannot seek, the same lines.
        args[1] = "-";
        run = qx(args, "", "cat " + shellQuote(input) + " |");
        EXPECT_EQ(run.out, expected) << "piped " << ::testing::PrintToString(options);
    }
}

TEST_F(QxTool, HexdumpFailuresNameTheInput) {
    const std::string input = dir() / "small.bin", missing = dir() / "missing";
    writeFile(input, "abc");
    expectOneLineFailure(qx({"hexdump", input, "--offset", "4"}), input);
    expectOneLineFailure(qx({"hexdump", missing}), missing);
    expectOneLineFailure(qx({"hexdump", dir().string()}), dir().string());
    expectOneLineFailure(qx({"hexdump", "-", "--offset", "4"}, "", "cat " + shellQuote(input) + " |"), "(standard input)");
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"hexdump"}, {"hexdump", input, "--offset", "-1"}, {"hexdump", input, "--length", "x"},
             {"hexdump", input, "--length", "18446744073709551616"}, {"hexdump", input, "--offset", "0x"}})
        EXPECT_EQ(qx(args).exitStatus, 2) << ::testing::PrintToString(args);
}
