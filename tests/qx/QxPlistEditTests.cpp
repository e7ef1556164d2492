// QxPlistEditTests.cpp - `qx plist get|set|insert|remove|find` on the good
// fixtures, each edit compared with python3's plistlib making the same edit;
// kept formats, refused edits that leave the file alone, and binary output
// that must read back however large the file grows.
#include "PlistFixtures.h"
#include "PropertyListTrees.h"
#include "QxProcessTest.h"

#include <QXFoundation/QXPropertyList.h>

#include <nlohmann/json.hpp>

#include <sstream>

namespace fs = std::filesystem;
using namespace qxtest;
using PL = QXPropertyList;

namespace {

std::string pathOf(const PL::Ref& node) {
    std::string path;
    for (auto n = node; n->parent(); n = n->parent()) {
        std::string component;
        const auto key = n->key();
        for (char c : key->utf8()) component += c == '.' ? std::string("\\.") : std::string(1, c);
        path = path.empty() ? component : component + "." + path;
    }
    return path;
}

class QxPlistEdit : public QxProcessTest {
protected:
    void SetUp() override {
        if (std::system("python3 -c 'import plistlib' >/dev/null 2>&1") != 0) GTEST_SKIP() << "no python3";
    }
    fs::path copyOf(const fs::path& from, const std::string& name) const {
        const fs::path to = dir() / name;
        fs::copy_file(from, to, fs::copy_options::overwrite_existing);
        return to;
    }
};

} // namespace

// Per good fixture: an unchanged rewrite (the baseline), a set of the first
// string, a removal of the first leaf and an insertion at the root's end.
TEST_F(QxPlistEdit, EditsMatchPlistlibDoingTheSame) {
    std::string manifest;
    int edits = 0;
    for (const char* format : {"binary", "xml"})
        for (const auto& entry : plisttest::fixtures(format)) {
            if (entry.status != "good") continue;
            const fs::path original = fs::path(QX_PLIST_TESTDATA_DIR) / entry.file;
            auto tree = PL::propertyListWithData(plisttest::fixture(entry.file), nullptr);
            if (!tree || !tree->isContainer()) continue;
            auto nodes = plisttree::preOrder(tree);
            nodes.erase(nodes.begin());  // the root is no edit's target
            // The edit op at path (value and type when it has them), run by qx and described for plistlib.
            auto add = [&](const std::string& op, const std::string& path, const std::string& value = "", const std::string& type = "") {
                const std::string out = (work() / ("e" + std::to_string(edits++) + ".plist")).string();
                std::vector<std::string> command{"plist", op == "none" ? "convert" : op, original.string()};
                for (const auto& arg : op == "none" ? std::vector<std::string>{"--format", format}
                                       : value.empty() ? std::vector<std::string>{path}
                                                       : std::vector<std::string>{path, value, "--type", type})
                    command.push_back(arg);
                command.insert(command.end(), {"-o", out});
                const QxRun run = runQx(command);
                ASSERT_EQ(run.exitStatus, 0) << entry.file << " " << op << " " << run.describe();
                // The format is kept: binary stays binary.
                EXPECT_EQ(readFile(out).rfind("bplist00", 0) == 0, std::string(format) == "binary") << out;
                manifest += nlohmann::json{{"op", op}, {"original", original.string()}, {"output", out}, {"path", path},
                                           {"value", value}, {"type", type}}.dump() + "\n";
            };
            add("none", "");
            const auto isString = [](const PL::Ref& n) { return n->typeCode() == QXPropertyListStringType; };
            if (auto n = std::find_if(nodes.begin(), nodes.end(), isString); n != nodes.end()) add("set", pathOf(*n), "edited . value", "string");
            if (auto n = std::find_if(nodes.begin(), nodes.end(), [](const PL::Ref& n) { return n->isLeaf(); }); n != nodes.end())
                add("remove", pathOf(*n));
            add("insert", tree->typeCode() == QXPropertyListArrayType ? std::to_string(tree->countOfChildren()) : "qx\\.new", "42", "integer");
        }
    // "none" lines replace the file's rewrite as the check for files plistlib and
    // the library read alike; other files' edits cannot be compared.
    const std::string manifestPath = dir() / "manifest.jsonl";
    writeFile(manifestPath, manifest);
    const QxRun python = runShell("python3 " + shellQuote(QX_SOURCE_DIR "/tests/Support/plist-edit.py"), manifestPath);
    ASSERT_EQ(python.exitStatus, 0) << python.err;
    std::istringstream lines(python.out), manifestLines(manifest);
    std::string line, entry;
    int compared = 0, baselineFailures = 0;
    bool baselineOk = true;
    while (std::getline(lines, line) && std::getline(manifestLines, entry)) {
        if (nlohmann::json::parse(entry)["op"] == "none") {
            baselineOk = line == "ok";
            baselineFailures += !baselineOk;
        } else if (baselineOk) {
            EXPECT_EQ(line, "ok") << entry;
            ++compared;
        }
    }
    EXPECT_GT(compared, 100);
    EXPECT_LT(baselineFailures, 10);
}

TEST_F(QxPlistEdit, GetFindAndRefusedEdits) {
    const fs::path file = copyOf(fs::path(QX_PLIST_TESTDATA_DIR) / "biplist/simple_binary.plist", "s.plist");
    const std::string before = readFile(file);
    QxRun run = runQx({"plist", "get", file.string(), "stringItem"});
    EXPECT_EQ(run.out, "\"Hi there\"\n") << run.describe();
    EXPECT_EQ(runQx({"plist", "get", file.string(), "stringItem", "--raw"}).out, "Hi there\n");
    EXPECT_EQ(runQx({"plist", "get", file.string(), "arrayItem.0", "--raw"}).out, "item0\n");
    EXPECT_EQ(runQx({"plist", "find", file.string(), "item0", "--values"}).out, "arrayItem.0\n");
    // --all lists a matching container and then its matching descendants; --backwards reverses.
    const std::string all = runQx({"plist", "find", file.string(), "Item", "--all", "-i"}).out;
    EXPECT_NE(all.find("arrayItem\narrayItem.0\n"), std::string::npos) << all;
    const std::string reversed = runQx({"plist", "find", file.string(), "Item", "--all", "--backwards", "-i"}).out;
    EXPECT_NE(reversed.find("arrayItem.0\narrayItem\n"), std::string::npos) << reversed;
    EXPECT_EQ(runQx({"plist", "find", file.string(), "Item", "--type", "bool"}).out, "boolItem\n");
    EXPECT_EQ(runQx({"plist", "find", file.string(), "no such text"}).exitStatus, 1);
    for (auto args : std::vector<std::vector<std::string>>{
             {"get", "nope"}, {"set", "numberItem", "12x"}, {"set", "arrayItem", "x"}, {"insert", "stringItem", "x", "--type", "string"},
             {"insert", "arrayItem.5", "x", "--type", "string"}, {"remove", "arrayItem.1"}, {"set", "dateItem", "yesterday"}}) {
        args.insert(args.begin() + 1, file.string());
        args.insert(args.begin(), "plist");
        expectOneLineFailure(runQx(args), file.string());
        EXPECT_EQ(readFile(file), before) << args[1];
    }
    // In place, and in another format on request.
    run = runQx({"plist", "set", file.string(), "numberItem", "7", "--format", "xml"});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(readFile(file).rfind("<?xml", 0), 0u);
    EXPECT_EQ(runQx({"plist", "get", file.string(), "numberItem"}).out, "7\n");
}

// 3,412 keys with long values in old-style text: 6,825 objects, few enough
// values for 2-byte references but offsets far beyond them.
TEST_F(QxPlistEdit, BinaryOutputReadsBackWhateverItsSize) {
    std::string text = "{\n";
    for (int i = 0; i < 3412; ++i) text += "    key" + std::to_string(i) + " = \"value number " + std::to_string(i) + " of many\";\n";
    text += "}\n";
    const fs::path input = dir() / "big.txt";
    writeFile(input, text);
    const fs::path output = work() / "big.plist";
    QxRun run = runQx({"plist", "convert", "--format", "binary", input.string(), "-o", output.string()});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_GT(fs::file_size(output), 65535u);
    EXPECT_EQ(runQx({"plist", "get", output.string(), "key3411", "--raw"}).out, "value number 3411 of many\n");
    run = runShell("python3 -c 'import plistlib,sys; print(len(plistlib.load(open(sys.argv[1],\"rb\"))))' " +
                   shellQuote(output.string()));
    EXPECT_EQ(run.out, "3412\n") << run.describe();
    run = runQx({"plist", "set", input.string(), "key0", "changed", "-o", output.string(), "--format", "binary"});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(runQx({"plist", "get", output.string(), "key0", "--raw"}).out, "changed\n");
}
