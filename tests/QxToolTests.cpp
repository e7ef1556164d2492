// QxToolTests.cpp - the qx program, run as a child process on real files.
//
// Every case starts the built qx binary with posix_spawn, its standard streams
// redirected to files in a fresh temporary directory, and judges exit status,
// standard output, standard error and what was (or was not) written.
#include <gtest/gtest.h>

#include "JsonValue.h"

#include <QXFoundation/QXPropertyListSerialization.h>
#include <QXFoundation/QXUIDPropertyList.h>

#include <qx/Array.h>
#include <qx/Data.h>
#include <qx/Dictionary.h>
#include <qx/Error.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace fs = std::filesystem;

namespace {

// --- The fixture index -------------------------------------------------------

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeFile(const fs::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

// What the library's binary reader must do with a fixture.
enum class Expect {
    Reads,    // must convert and print
    Refuses,  // must fail: exit 1, one line, no output
    Either,   // the reader may accept or refuse; whichever, it must end cleanly
};

struct Fixture {
    std::string file;  // relative to the fixture directory
    std::string status;
    std::vector<std::string> issues;
    Expect expect = Expect::Either;
    fs::path path() const { return fs::path(QX_PLIST_TESTDATA_DIR) / file; }
};

bool anyIssueContains(const Fixture& f, std::initializer_list<const char*> needles) {
    for (const auto& issue : f.issues)
        for (const char* needle : needles)
            if (issue.find(needle) != std::string::npos) return true;
    return false;
}

// The index's "strict_reader_issues" describe how a strict reader differs
// from plistlib. Mapped onto the library's reader:
//  - 16-byte integers and 4-byte reals are read (with a different value);
//  - offset-table widths other than 1, 2, 4 and 8 are refused;
//  - references past the object count, offsets past the data, lengths past
//    the data, non-ASCII bytes in ASCII strings and reference cycles are
//    refused in a file plistlib also refuses;
//  - anything else (trailer fields the reader does not look at, a set, a
//    date out of plistlib's range) is the reader's call.
Expect expectationFor(const Fixture& f) {
    if (anyIssueContains(f, {"offset-table entry width"})) return Expect::Refuses;
    if (f.status == "good") {
        for (const auto& issue : f.issues)
            if (issue.find("16-byte integer") == std::string::npos && issue.find("4-byte real") == std::string::npos)
                return Expect::Either;
        return Expect::Reads;
    }
    if (anyIssueContains(f, {"shorter than header + trailer", ">= number of objects", "outside the object table",
                             "runs past the object table", "non-ASCII byte", "reference cycle"}))
        return Expect::Refuses;
    return Expect::Either;
}

const std::vector<Fixture>& binaryFixtures() {
    static const std::vector<Fixture> fixtures = [] {
        std::vector<Fixture> out;
        const auto index = JsonValue::parse(readFile(fs::path(QX_PLIST_TESTDATA_DIR) / "index.json"));
        const JsonValue* files = index ? index->member("files") : nullptr;
        if (!files) throw std::runtime_error("index.json has no files");
        for (const JsonValue& entry : files->items) {
            const JsonValue* format = entry.member("format");
            if (!format || format->text != "binary") continue;
            Fixture f;
            f.file = entry.member("file")->text;
            f.status = entry.member("status")->text;
            if (const JsonValue* issues = entry.member("strict_reader_issues"))
                for (const JsonValue& issue : issues->items) f.issues.push_back(issue.text);
            f.expect = expectationFor(f);
            out.push_back(std::move(f));
        }
        return out;
    }();
    return fixtures;
}

std::vector<Fixture> fixturesExpected(Expect e) {
    std::vector<Fixture> out;
    for (const auto& f : binaryFixtures())
        if (f.expect == e) out.push_back(f);
    return out;
}

// --- Running qx ----------------------------------------------------------------

struct QxRun {
    int exitStatus = -1;  // -1 when the child did not exit normally
    int signal = 0;
    std::string out;
    std::string err;

    std::size_t errLines() const {
        std::size_t n = 0;
        for (char c : err) n += c == '\n';
        return n;
    }
    std::string describe() const {
        std::ostringstream s;
        s << "exit " << exitStatus << " signal " << signal << "; stderr: [" << err << "]";
        return s.str();
    }
};

class QxTool : public ::testing::Test {
protected:
    void SetUp() override {
        std::string tmpl = (fs::temp_directory_path() / "qx-tool-XXXXXX").string();
        ASSERT_NE(::mkdtemp(tmpl.data()), nullptr) << std::strerror(errno);
        dir_ = tmpl;
        work_ = dir_ / "work";
        fs::create_directory(work_);
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    // The scratch directory outputs go to; kept free of anything else so a
    // leftover temporary file shows up.
    const fs::path& work() const { return work_; }

    QxRun qx(const std::vector<std::string>& args, const std::string& stdinPath = "/dev/null",
             const std::vector<std::string>& extraEnvironment = {}) {
        const fs::path outPath = dir_ / "stdout";
        const fs::path errPath = dir_ / "stderr";
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, stdinPath.c_str(), O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);

        std::vector<std::string> argvStrings{QX_QX_BINARY};
        argvStrings.insert(argvStrings.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& a : argvStrings) argv.push_back(a.data());
        argv.push_back(nullptr);

        std::vector<char*> envp;
        for (char** e = environ; *e; ++e) envp.push_back(*e);
        std::vector<std::string> extra = extraEnvironment;
        for (auto& e : extra) envp.push_back(e.data());
        envp.push_back(nullptr);

        QxRun run;
        pid_t pid = 0;
        const int rc = ::posix_spawn(&pid, QX_QX_BINARY, &actions, nullptr, argv.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0) {
            ADD_FAILURE() << "cannot start " << QX_QX_BINARY << ": " << std::strerror(rc);
            return run;
        }
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
        if (WIFEXITED(status)) run.exitStatus = WEXITSTATUS(status);
        if (WIFSIGNALED(status)) run.signal = WTERMSIG(status);
        run.out = readFile(outPath);
        run.err = readFile(errPath);
        return run;
    }

    std::vector<std::string> workEntries() const {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(work_)) names.push_back(e.path().filename().string());
        return names;
    }

    // A failure as the program promises it: status 1, one line naming the
    // file, nothing on standard output.
    static void expectOneLineFailure(const QxRun& run, const std::string& name) {
        EXPECT_EQ(run.exitStatus, 1) << run.describe();
        EXPECT_EQ(run.errLines(), 1u) << run.describe();
        EXPECT_EQ(run.err.rfind("qx: " + name + ": ", 0), 0u) << run.describe();
        EXPECT_GT(run.err.size(), ("qx: " + name + ": \n").size()) << "the reason is missing";
        EXPECT_TRUE(run.out.empty()) << run.out;
    }

    fs::path dir_;
    fs::path work_;
};

qx::Ref<qx::Object> readWithLibrary(const std::string& bytes) {
    QXPropertyListFormat format = 0;
    return QXPropertyListSerialization::propertyListWithData(qx::Data::withString(bytes), &format);
}

// Value equality as a round trip must keep it: UIDs compare by identity in
// the object model, so they are compared here by their bytes.
bool sameValue(const qx::Ref<qx::Object>& a, const qx::Ref<qx::Object>& b) {
    if (!a || !b) return !a && !b;
    if (auto ua = qx::dyn_cast<QXUIDPropertyList>(a)) {
        auto ub = qx::dyn_cast<QXUIDPropertyList>(b);
        return ub && qx::isEqual(ua->data(), ub->data());
    }
    if (auto da = qx::dyn_cast<qx::Dictionary>(a)) {
        auto db = qx::dyn_cast<qx::Dictionary>(b);
        if (!db || da->count() != db->count()) return false;
        for (const auto& [key, value] : *da)
            if (!sameValue(value, db->objectForKey(*key))) return false;
        return true;
    }
    if (auto aa = qx::dyn_cast<qx::Array>(a)) {
        auto ab = qx::dyn_cast<qx::Array>(b);
        if (!ab || aa->count() != ab->count()) return false;
        for (std::size_t i = 0; i < aa->count(); ++i)
            if (!sameValue((*aa)[i], (*ab)[i])) return false;
        return true;
    }
    return a->isEqual(*b);
}

// --- Fixtures through the program ----------------------------------------------

TEST_F(QxTool, ReadableBinaryFixturesConvertPrintAndReconvertIdentically) {
    const auto fixtures = fixturesExpected(Expect::Reads);
    ASSERT_GE(fixtures.size(), 30u) << "the fixture index lost its good files";
    for (const auto& f : fixtures) {
        SCOPED_TRACE(f.file);
        const fs::path first = work() / "first.plist";
        const fs::path second = work() / "second.plist";

        QxRun run = qx({"plist", "convert", "--format", "binary", f.path().string(), "-o", first.string()});
        ASSERT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_TRUE(run.err.empty()) << run.err;
        EXPECT_TRUE(run.out.empty());

        // The converted file holds the same value as the original.
        const auto original = readWithLibrary(readFile(f.path()));
        const auto converted = readWithLibrary(readFile(first));
        ASSERT_TRUE(original);
        ASSERT_TRUE(converted) << "qx wrote a file the library cannot read";
        EXPECT_TRUE(sameValue(original, converted));

        // Our own output is a fixed point of conversion.
        run = qx({"plist", "convert", "--format", "binary", first.string(), "-o", second.string()});
        ASSERT_EQ(run.exitStatus, 0) << run.describe();
        EXPECT_EQ(readFile(first), readFile(second));

        for (const fs::path& input : {f.path(), first}) {
            run = qx({"plist", "print", input.string()});
            ASSERT_EQ(run.exitStatus, 0) << run.describe();
            EXPECT_TRUE(run.err.empty()) << run.err;
            const auto value = readWithLibrary(readFile(input));
            ASSERT_TRUE(value);
            EXPECT_EQ(run.out, value->description() + "\n");
        }
        EXPECT_EQ(workEntries().size(), 2u);
        fs::remove(first);
        fs::remove(second);
    }
}

TEST_F(QxTool, RefusedBinaryFixturesFailWithOneLineAndWriteNothing) {
    const auto fixtures = fixturesExpected(Expect::Refuses);
    ASSERT_GE(fixtures.size(), 40u) << "the fixture index lost its malformed files";
    const fs::path output = work() / "out.plist";
    const std::string previous = "previous content, not a property list\n";
    for (const auto& f : fixtures) {
        SCOPED_TRACE(f.file + (f.issues.empty() ? std::string() : " (" + f.issues.front() + ")"));
        const std::string input = f.path().string();

        QxRun run = qx({"plist", "convert", "--format", "binary", input, "-o", output.string()});
        expectOneLineFailure(run, input);
        EXPECT_FALSE(fs::exists(output));
        EXPECT_TRUE(workEntries().empty()) << "a temporary file was left behind";

        writeFile(output, previous);
        run = qx({"plist", "convert", "--format", "binary", input, "-o", output.string()});
        expectOneLineFailure(run, input);
        EXPECT_EQ(readFile(output), previous);
        EXPECT_EQ(workEntries().size(), 1u);
        fs::remove(output);

        run = qx({"plist", "print", input});
        expectOneLineFailure(run, input);
    }
}

TEST_F(QxTool, UndecidedBinaryFixturesEndCleanlyEitherWay) {
    const fs::path output = work() / "out.plist";
    for (const auto& f : fixturesExpected(Expect::Either)) {
        SCOPED_TRACE(f.file);
        const std::string input = f.path().string();
        QxRun run = qx({"plist", "convert", "--format", "binary", input, "-o", output.string()});
        ASSERT_EQ(run.signal, 0) << run.describe();
        if (run.exitStatus == 0) {
            // Not necessarily readable again: a set read from such a file is
            // written as an object without bytes.
            EXPECT_TRUE(run.err.empty()) << run.err;
            EXPECT_EQ(readFile(output).rfind("bplist00", 0), 0u);
        } else {
            expectOneLineFailure(run, input);
            EXPECT_FALSE(fs::exists(output));
        }
        EXPECT_LE(workEntries().size(), 1u) << "a temporary file was left behind";
        fs::remove(output);
    }
}

TEST_F(QxTool, EveryTruncationOfAGoodFileEndsCleanly) {
    const std::string whole = readFile(fs::path(QX_PLIST_TESTDATA_DIR) / "biplist/simple_binary.plist");
    ASSERT_GT(whole.size(), 100u);
    const fs::path input = dir_ / "truncated.plist";
    const fs::path output = work() / "out.plist";
    for (std::size_t length = 0; length < whole.size(); ++length) {
        SCOPED_TRACE("length " + std::to_string(length));
        writeFile(input, whole.substr(0, length));
        QxRun run = qx({"plist", "convert", "--format", "binary", input.string(), "-o", output.string()});
        ASSERT_EQ(run.signal, 0) << run.describe();
        if (run.exitStatus != 0) {
            expectOneLineFailure(run, input.string());
            EXPECT_FALSE(fs::exists(output));
        }
        fs::remove(output);
    }
}

// --- Standard streams ------------------------------------------------------------

TEST_F(QxTool, DashReadsStandardInputAndWritesStandardOutput) {
    const fs::path input = fs::path(QX_PLIST_TESTDATA_DIR) / "cpython/testdata-apple.bplist";
    const fs::path viaFiles = work() / "files.plist";
    ASSERT_EQ(qx({"plist", "convert", "--format", "binary", input.string(), "-o", viaFiles.string()}).exitStatus, 0);
    const std::string expected = readFile(viaFiles);
    ASSERT_FALSE(expected.empty());

    QxRun run = qx({"plist", "convert", "--format", "binary", "-", "-o", "-"}, input.string());
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(run.out, expected);
    EXPECT_TRUE(run.err.empty());

    run = qx({"plist", "convert", "--format", "binary", input.string(), "-o", "-"});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(run.out, expected);

    const QxRun fromFile = qx({"plist", "print", input.string()});
    run = qx({"plist", "print", "-"}, input.string());
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(run.out, fromFile.out);
    EXPECT_FALSE(run.out.empty());
}

TEST_F(QxTool, BadStandardInputIsNamedAsSuch) {
    const fs::path input = fs::path(QX_PLIST_TESTDATA_DIR) / "cpython/invalid-13-too-large-offset.bplist";
    QxRun run = qx({"plist", "convert", "--format", "binary", "-", "-o", "-"}, input.string());
    expectOneLineFailure(run, "(standard input)");
    run = qx({"plist", "print", "-"}, "/dev/null");
    expectOneLineFailure(run, "(standard input)");
}

// --- Where output goes -------------------------------------------------------------

const fs::path kGoodInput = fs::path(QX_PLIST_TESTDATA_DIR) / "biplist/simple_binary.plist";

TEST_F(QxTool, ReplacedOutputKeepsItsPermissions) {
    const fs::path output = work() / "out.plist";
    writeFile(output, "old");
    fs::permissions(output, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    QxRun run = qx({"plist", "convert", "--format", "binary", kGoodInput.string(), "-o", output.string()});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(readFile(output).rfind("bplist00", 0), 0u);
    EXPECT_EQ(fs::status(output).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    EXPECT_EQ(workEntries().size(), 1u);
}

TEST_F(QxTool, NewOutputGetsTheUsualModeNotTheTemporaryFilesMode) {
    const fs::path output = work() / "new.plist";
    ASSERT_EQ(qx({"plist", "convert", "--format", "binary", kGoodInput.string(), "-o", output.string()}).exitStatus, 0);
    const mode_t mask = ::umask(0);
    ::umask(mask);
    struct stat st {};
    ASSERT_EQ(::stat(output.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666 & ~mask);
}

TEST_F(QxTool, ConvertingAFileOntoItselfReplacesIt) {
    const fs::path file = work() / "same.plist";
    fs::copy_file(kGoodInput, file);
    QxRun run = qx({"plist", "convert", "--format", "binary", file.string(), "-o", file.string()});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    const auto before = readWithLibrary(readFile(kGoodInput));
    const auto after = readWithLibrary(readFile(file));
    ASSERT_TRUE(before && after);
    EXPECT_TRUE(sameValue(before, after));
    EXPECT_EQ(workEntries().size(), 1u);
}

TEST_F(QxTool, SymbolicLinkIsFollowedAndKept) {
    const fs::path target = work() / "target.plist";
    const fs::path link = work() / "link.plist";
    writeFile(target, "old");
    fs::create_symlink(target, link);
    QxRun run = qx({"plist", "convert", "--format", "binary", kGoodInput.string(), "-o", link.string()});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(readFile(target).rfind("bplist00", 0), 0u);
}

TEST_F(QxTool, PipeIsWrittenToNotReplaced) {
    const fs::path fifo = work() / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0) << std::strerror(errno);
    std::string received;
    std::thread reader([&] { received = readFile(fifo); });
    QxRun run = qx({"plist", "convert", "--format", "binary", kGoodInput.string(), "-o", fifo.string()});
    reader.join();
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(received.rfind("bplist00", 0), 0u);
    EXPECT_TRUE(fs::is_fifo(fifo));
    EXPECT_EQ(workEntries().size(), 1u);
}

TEST_F(QxTool, UnwritableDestinationFailsWithOneLineNamingIt) {
    const fs::path output = work() / "no-such-dir" / "out.plist";
    QxRun run = qx({"plist", "convert", "--format", "binary", kGoodInput.string(), "-o", output.string()});
    expectOneLineFailure(run, output.string());
    EXPECT_NE(run.err.find(std::strerror(ENOENT)), std::string::npos) << run.err;

    // A directory is not a file to replace.
    run = qx({"plist", "convert", "--format", "binary", kGoodInput.string(), "-o", work().string()});
    expectOneLineFailure(run, work().string());
    EXPECT_TRUE(fs::is_directory(work()));
}

// --- Input problems and arguments ------------------------------------------------

TEST_F(QxTool, UnreadableInputsFailWithOneLineAndTheSystemsReason) {
    const fs::path output = work() / "out.plist";
    const fs::path missing = dir_ / "missing.plist";
    QxRun run = qx({"plist", "convert", "--format", "binary", missing.string(), "-o", output.string()});
    expectOneLineFailure(run, missing.string());
    EXPECT_NE(run.err.find(std::strerror(ENOENT)), std::string::npos) << run.err;
    EXPECT_FALSE(fs::exists(output));

    run = qx({"plist", "print", missing.string()});
    expectOneLineFailure(run, missing.string());

    run = qx({"plist", "print", work().string()});
    expectOneLineFailure(run, work().string());
    EXPECT_NE(run.err.find(std::strerror(EISDIR)), std::string::npos) << run.err;

    const fs::path empty = dir_ / "empty.plist";
    writeFile(empty, "");
    run = qx({"plist", "convert", "--format", "binary", empty.string(), "-o", output.string()});
    expectOneLineFailure(run, empty.string());
    EXPECT_FALSE(fs::exists(output));
}

TEST_F(QxTool, MalformedDataIsReportedWithTheLibrarysReason) {
    const fs::path input = fs::path(QX_PLIST_TESTDATA_DIR) / "cpython/invalid-19-too-large-reference-index.bplist";
    qx::Ref<qx::Error> error;
    QXPropertyListFormat format = 0;
    ASSERT_FALSE(QXPropertyListSerialization::propertyListWithData(qx::Data::withString(readFile(input)), &format,
                                                                   &error));
    ASSERT_TRUE(error);
    const QxRun run = qx({"plist", "print", input.string()});
    expectOneLineFailure(run, input.string());
    EXPECT_EQ(run.err, "qx: " + input.string() + ": " + error->localizedDescription() + "\n");
}

TEST_F(QxTool, LibraryLogLinesAppearOnlyWhenVerbose) {
    // This file makes the reader log why it refuses it.
    const std::string input =
        (fs::path(QX_PLIST_TESTDATA_DIR) / "cpython/invalid-19-too-large-reference-index.bplist").string();
    QxRun run = qx({"plist", "print", input}, "/dev/null", {"QX_LOG_STDERR=1"});
    expectOneLineFailure(run, input);

    run = qx({"--verbose", "plist", "print", input});
    EXPECT_EQ(run.exitStatus, 1) << run.describe();
    EXPECT_GE(run.errLines(), 2u) << run.describe();
    const std::string last = run.err.substr(run.err.rfind('\n', run.err.size() - 2) + 1);
    EXPECT_EQ(last.rfind("qx: " + input + ": ", 0), 0u) << "the failure line comes last: " << run.err;
}

TEST_F(QxTool, OtherOutputFormatsSucceedOrFailExactlyAsTheLibraryDoes) {
    const auto value = readWithLibrary(readFile(kGoodInput));
    ASSERT_TRUE(value);
    const std::map<std::string, QXPropertyListFormat> formats{{"xml", QXPropertyListXMLFormat_v1_0},
                                                              {"text", QXPropertyListOpenStepFormat}};
    for (const auto& [name, code] : formats) {
        SCOPED_TRACE(name);
        const fs::path output = work() / ("out." + name);
        qx::Ref<qx::Error> error;
        const auto expected = QXPropertyListSerialization::dataWithPropertyList(value, code, &error);
        QxRun run = qx({"plist", "convert", "--format", name, kGoodInput.string(), "-o", output.string()});
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
    EXPECT_LE(workEntries().size(), formats.size());
}

TEST_F(QxTool, ArgumentErrorsExitWithStatusTwo) {
    const std::string input = kGoodInput.string();
    const std::string output = (work() / "out.plist").string();
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
        std::string joined;
        for (const auto& a : args) joined += a + " ";
        SCOPED_TRACE(joined);
        const QxRun run = qx(args);
        EXPECT_EQ(run.exitStatus, 2) << run.describe();
        EXPECT_FALSE(run.err.empty());
    }
    EXPECT_TRUE(workEntries().empty());

    const QxRun help = qx({"plist", "convert", "--help"});
    EXPECT_EQ(help.exitStatus, 0);
    EXPECT_NE(help.out.find("--format"), std::string::npos);
}

} // namespace
