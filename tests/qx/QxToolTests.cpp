// QxToolTests.cpp - the qx program, run as a child process on real files.
//
// Every case starts the built qx binary, its standard streams redirected to files in a fresh temporary directory, and judges exit status,
// standard output, standard error and what was (or was not) written. What the
// reader makes of each fixture is the library tests' business; here it is how
// the program reports success and failure.
#include "QxProcessTest.h"

#include <gtest/gtest.h>

#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Data.h>
#include <qx/Error.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

namespace fs = std::filesystem;
using PLS = QXPropertyListSerialization;
using namespace qxtest;

namespace {

const fs::path kFixtures = QX_PLIST_TESTDATA_DIR;
const fs::path kGoodInput = kFixtures / "biplist/simple_binary.plist";

qx::Ref<qx::Object> readWithLibrary(const fs::path& path, qx::Ref<qx::Error>* error = nullptr) {
    QXPropertyListFormat format = 0;
    return PLS::propertyListWithData(qx::Data::withString(readFile(path)), &format, error);
}

class QxTool : public QxProcessTest {
protected:
    QxTool() : QxProcessTest("qx-tool") {}

    QxRun qx(const std::vector<std::string>& args, const std::string& stdinPath = "/dev/null",
             const std::string& environment = "") {
        return runQx(args, stdinPath, environment);
    }
    QxRun convert(const fs::path& input, const fs::path& output, const std::string& format = "binary") {
        return qx({"plist", "convert", "--format", format, input.string(), "-o", output.string()});
    }
};

// --- Converting and printing -------------------------------------------------

TEST_F(QxTool, ConvertWritesWhatTheLibraryWritesAndPrintShowsTheDescriptionFromFilesOrStreams) {
    for (const fs::path& input : {kGoodInput, kFixtures / "cpython/testdata-apple.bplist"}) {
        SCOPED_TRACE(input.string());
        const auto value = readWithLibrary(input);
        ASSERT_TRUE(value);
        const std::string written(PLS::binaryDataWithPropertyList(value)->view());
        const fs::path output = work() / "out.plist";
        QxRun run = convert(input, output);
        ASSERT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_TRUE(run.err.empty() && run.out.empty()) << run.describe();
        EXPECT_EQ(readFile(output), written);
        EXPECT_EQ(workEntries().size(), 1u);
        fs::remove(output);
        // "-" is standard input or standard output.
        for (const auto& [args, stdinPath] : std::vector<std::pair<std::vector<std::string>, std::string>>{
                 {{"plist", "convert", "--format", "binary", "-", "-o", "-"}, input.string()},
                 {{"plist", "convert", "--format", "binary", input.string(), "-o", "-"}, "/dev/null"}}) {
            run = qx(args, stdinPath);
            ASSERT_EQ(run.exitStatus, 0) << run.describe();
            EXPECT_EQ(run.out, written);
            EXPECT_TRUE(run.err.empty()) << run.err;
        }
        for (const auto& [path, stdinPath] : {std::pair{input.string(), std::string("/dev/null")}, {"-", input.string()}}) {
            run = qx({"plist", "print", path}, stdinPath);
            ASSERT_EQ(run.exitStatus, 0) << run.describe();
            EXPECT_TRUE(run.err.empty()) << run.err;
            EXPECT_EQ(run.out, value->description() + "\n");
        }
    }
    // A bad standard input is named as such.
    expectOneLineFailure(qx({"plist", "convert", "--format", "binary", "-", "-o", "-"},
                            (kFixtures / "cpython/invalid-13-too-large-offset.bplist").string()),
                         "(standard input)");
    expectOneLineFailure(qx({"plist", "print", "-"}), "(standard input)");
}

TEST_F(QxTool, RefusedInputsFailWithOneLineAndWriteNothing) {
    const std::string good = readFile(kGoodInput);
    ASSERT_GT(good.size(), 100u);
    std::vector<fs::path> inputs = {kFixtures / "cpython/invalid-13-too-large-offset.bplist",
                                    kFixtures / "cpython/invalid-19-too-large-reference-index.bplist",
                                    kFixtures / "cpython/invalid-11-offset-size-0.bplist",
                                    kFixtures / "biplist/invalid_object_ref_size.plist",  // a reference cycle
                                    kFixtures / "cpython/invalid-29-invalid-ascii.bplist"};
    // Cut short anywhere from empty to one byte less than whole.
    for (std::size_t length : {std::size_t{0}, std::size_t{8}, std::size_t{40}, good.size() / 2, good.size() - 1}) {
        inputs.push_back(dir() / ("cut-" + std::to_string(length)));
        writeFile(inputs.back(), good.substr(0, length));
    }
    const fs::path output = work() / "out.plist";
    const std::string previous = "previous content, not a property list\n";
    for (const auto& input : inputs) {
        SCOPED_TRACE(input.string());
        expectOneLineFailure(convert(input, output), input.string());
        EXPECT_EQ(workEntries().size(), 0u) << "an output or a temporary file was left behind";

        writeFile(output, previous);
        expectOneLineFailure(convert(input, output), input.string());
        EXPECT_EQ(readFile(output), previous);
        EXPECT_EQ(workEntries().size(), 1u);
        fs::remove(output);

        expectOneLineFailure(qx({"plist", "print", input.string()}), input.string());
    }
}

TEST_F(QxTool, MalformedDataIsReportedWithTheLibrarysReasonAndLogOnlyWhenVerbose) {
    const fs::path input = kFixtures / "cpython/invalid-19-too-large-reference-index.bplist";
    qx::Ref<qx::Error> error;
    ASSERT_FALSE(readWithLibrary(input, &error));
    ASSERT_TRUE(error);
    // The reader logs why it refuses this file; that stays out of a plain run.
    QxRun run = qx({"plist", "print", input.string()}, "/dev/null", "QX_LOG_STDERR=1");
    expectOneLineFailure(run, input.string());
    EXPECT_EQ(run.err, "qx: " + input.string() + ": " + error->localizedDescription() + "\n");

    run = qx({"--verbose", "plist", "print", input.string()});
    EXPECT_EQ(run.exitStatus, 1) << run.describe();
    EXPECT_GE(run.errLines(), 2u) << run.describe();
    const std::string last = run.err.substr(run.err.rfind('\n', run.err.size() - 2) + 1);
    EXPECT_EQ(last.rfind("qx: " + input.string() + ": ", 0), 0u) << "the failure line comes last: " << run.err;
}

TEST_F(QxTool, OtherOutputFormatsSucceedOrFailExactlyAsTheLibraryDoes) {
    const auto value = readWithLibrary(kGoodInput);
    ASSERT_TRUE(value);
    for (const auto& [name, code] : {std::pair{"xml", QXPropertyListXMLFormat_v1_0},
                                     std::pair{"text", QXPropertyListOpenStepFormat}}) {
        SCOPED_TRACE(name);
        const fs::path output = work() / (std::string("out.") + name);
        qx::Ref<qx::Error> error;
        const auto expected = PLS::dataWithPropertyList(value, code, &error);
        QxRun run = convert(kGoodInput, output, name);
        if (expected) {
            ASSERT_EQ(run.exitStatus, 0) << run.describe();
            EXPECT_EQ(readFile(output), std::string(expected->view()));
        } else {
            ASSERT_TRUE(error);
            expectOneLineFailure(run, kGoodInput.string());
            EXPECT_NE(run.err.find(name), std::string::npos) << "the message should say which format";
            EXPECT_NE(run.err.find(error->localizedDescription()), std::string::npos) << run.err;
            EXPECT_FALSE(fs::exists(output));
        }
    }
}

// --- Where output goes -------------------------------------------------------------

TEST_F(QxTool, OutputReplacesFilesKeepingTheirModeFollowsLinksAndWritesIntoPipes) {
    const fs::path reference = dir() / "reference.plist";
    ASSERT_EQ(convert(kGoodInput, reference).exitStatus, 0);
    const std::string expected = readFile(reference);
    ASSERT_EQ(expected.rfind("bplist00", 0), 0u);

    // A replaced file keeps its permissions; a new one gets the usual mode,
    // not the temporary file's 0600.
    const fs::path replaced = work() / "replaced.plist", fresh = work() / "new.plist";
    const auto perms = fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read;
    writeFile(replaced, "old");
    fs::permissions(replaced, perms);
    ASSERT_EQ(convert(kGoodInput, replaced).exitStatus, 0);
    EXPECT_EQ(readFile(replaced), expected);
    EXPECT_EQ(fs::status(replaced).permissions() & fs::perms::all, perms);
    ASSERT_EQ(convert(kGoodInput, fresh).exitStatus, 0);
    const mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(fs::status(fresh).permissions() & fs::perms::all, static_cast<fs::perms>(0666 & ~mask));

    // A file converted onto itself.
    const fs::path same = work() / "same.plist";
    fs::copy_file(kGoodInput, same);
    ASSERT_EQ(convert(same, same).exitStatus, 0);
    EXPECT_EQ(readFile(same), expected);

    // A symbolic link is followed and kept.
    const fs::path target = work() / "target.plist", link = work() / "link.plist";
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
    QxRun run = convert(kGoodInput, fifo);
    reader.join();
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(received, expected);
    EXPECT_TRUE(fs::is_fifo(fifo));
    EXPECT_EQ(workEntries().size(), 6u) << "a temporary file was left behind";
}

TEST_F(QxTool, UnwritableDestinationsAndUnreadableInputsNameTheFileAndTheReason) {
    const fs::path output = work() / "out.plist";
    const fs::path noDir = work() / "no-such-dir" / "out.plist";
    QxRun run = convert(kGoodInput, noDir);
    expectOneLineFailure(run, noDir.string());
    EXPECT_NE(run.err.find(std::strerror(ENOENT)), std::string::npos) << run.err;
    // A directory is not a file to replace.
    expectOneLineFailure(convert(kGoodInput, work()), work().string());
    EXPECT_TRUE(fs::is_directory(work()));

    const fs::path missing = dir() / "missing.plist";
    run = convert(missing, output);
    expectOneLineFailure(run, missing.string());
    EXPECT_NE(run.err.find(std::strerror(ENOENT)), std::string::npos) << run.err;
    expectOneLineFailure(qx({"plist", "print", missing.string()}), missing.string());
    run = qx({"plist", "print", work().string()});
    expectOneLineFailure(run, work().string());
    EXPECT_NE(run.err.find(std::strerror(EISDIR)), std::string::npos) << run.err;
    EXPECT_EQ(workEntries().size(), 0u);
}

TEST_F(QxTool, ArgumentErrorsExitWithStatusTwo) {
    const std::string input = kGoodInput.string(), output = (work() / "out.plist").string();
    const std::vector<std::vector<std::string>> bad{
        {},
        {"nonsense"},
        {"plist"},
        {"plist", "convert", "--format", "json", input, "-o", output},
        {"plist", "convert", input, "-o", output},
        {"plist", "convert", "--format", "binary", input},
        {"plist", "convert", "--format", "binary", "-o", output},
        {"plist", "print"},
        {"plist", "print", input, "extra"},
    };
    for (const auto& args : bad) {
        SCOPED_TRACE(::testing::PrintToString(args));
        const QxRun run = qx(args);
        EXPECT_EQ(run.exitStatus, 2) << run.describe();
        EXPECT_FALSE(run.err.empty());
    }
    EXPECT_EQ(workEntries().size(), 0u);
    const QxRun help = qx({"plist", "convert", "--help"});
    EXPECT_EQ(help.exitStatus, 0);
    EXPECT_NE(help.out.find("--format"), std::string::npos);
}

} // namespace

// --- Hex dumps -----------------------------------------------------------------------

TEST_F(QxTool, HexdumpShowsOffsetHexAndTextColumnsOfAnyRange) {
    std::string bytes;
    for (int i = 0; i < 40; ++i) bytes += static_cast<char>((i * 7 + 30) & 0x7F);
    bytes[1] = '\x80';  // Mac OS Roman "Ä"
    bytes[2] = '\xCA';  // no-break space: shown as "."
    const fs::path input = dir() / "bytes.bin";
    writeFile(input, bytes);
    // Each line built independently: offset, 16 hexadecimal bytes padded to
    // full width, then the text column.
    const auto expected = [&](std::size_t offset, std::size_t length) {
        std::string out;
        for (std::size_t line = offset; line < offset + length; line += 16) {
            char head[32];
            std::snprintf(head, sizeof head, "%08zx  ", line);
            std::string hex, text;
            for (std::size_t i = line; i < std::min(line + 16, offset + length); ++i) {
                char h[4];
                std::snprintf(h, sizeof h, "%02X ", static_cast<unsigned char>(bytes[i]));
                hex += h;
                const unsigned char b = static_cast<unsigned char>(bytes[i]);
                text += b == 0x80 ? std::string("\u00c4") : (b >= 32 && b < 127) ? std::string(1, char(b)) : std::string(".");
            }
            hex.resize(48, ' ');
            out += head + hex + " " + text + "\n";
        }
        return out;
    };
    struct Case {
        std::vector<std::string> args;
        std::size_t offset, length;
    };
    const std::vector<Case> cases = {
        {{}, 0, 40}, {{"--offset", "5"}, 5, 35}, {{"--offset", "3", "--length", "20"}, 3, 20},
        {{"--length", "1000"}, 0, 40}, {{"--offset", "40"}, 40, 0}, {{"--length", "0"}, 0, 0},
        {{"--offset", "0x10", "--length", "0X3"}, 16, 3},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args{"hexdump", input.string()};
        args.insert(args.end(), c.args.begin(), c.args.end());
        QxRun run = qx(args);
        EXPECT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_EQ(run.out, expected(c.offset, c.length)) << c.offset << "+" << c.length;
        EXPECT_TRUE(run.err.empty()) << run.err;
        // Standard input (not seekable when it is a pipe) gives the same lines.
        args[1] = "-";
        QxRun piped = qx(args, input.string());
        EXPECT_EQ(piped.out, run.out);
    }
}

TEST_F(QxTool, HexdumpFailuresNameTheInput) {
    const fs::path input = dir() / "small.bin";
    writeFile(input, "abc");
    expectOneLineFailure(qx({"hexdump", input.string(), "--offset", "4"}), input.string());
    expectOneLineFailure(qx({"hexdump", (dir() / "missing").string()}), (dir() / "missing").string());
    expectOneLineFailure(qx({"hexdump", dir().string()}), dir().string());
    expectOneLineFailure(qx({"hexdump", "-", "--offset", "4"}, input.string()), "(standard input)");
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"hexdump"}, {"hexdump", input.string(), "--offset", "-1"}, {"hexdump", input.string(), "--length", "x"},
             {"hexdump", input.string(), "--length", "18446744073709551616"}, {"hexdump", input.string(), "--offset", "0x"}})
        EXPECT_EQ(qx(args).exitStatus, 2);
}
