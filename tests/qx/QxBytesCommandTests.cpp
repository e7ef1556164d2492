// QxBytesCommandTests.cpp - `qx bytes find|edit`: offsets printed for each
// kind of search, edit scripts compared with a byte-array model, resource
// forks, and refused invocations that leave the file alone.
#include "DataReferenceTestSupport.h"
#include "QxProcessTest.h"

#include <iomanip>
#include <sstream>

using namespace qxtest;

namespace {

class QxBytes : public QxProcessTest {};

struct FindCase { const char* name; std::vector<std::string> args; std::string out; };

TEST_F(QxBytes, FindPrintsTheOffsetsOfMatches) {
    const std::string file = input("text", toBytes("abc xyz ABC abcabc \x8A"));
    const FindCase cases[] = {
        {"all, overlapping starts included", {"abc", "--all"}, "0\n12\n15\n"},
        {"backwards finds the last", {"abc", "--backwards"}, "15\n"},
        {"backwards, all, down to offset 0", {"abc", "--backwards", "--all"}, "15\n12\n0\n"},
        {"ignoring case", {"abc", "-i", "--all"}, "0\n8\n12\n15\n"},
        {"hex", {"78797a", "--hex"}, "4\n"},
        {"within a range", {"abc", "--offset", "1", "--length", "14", "--all"}, "12\n"},
        {"range ending inside the match", {"abc", "--offset", "1", "--length", "13"}, ""},
        {"range just the match", {"abc", "--offset", "12", "--length", "3", "--backwards"}, "12\n"},
        {"backwards from an offset that starts a match", {"abc", "--offset", "12", "--backwards", "--all"}, "15\n12\n"},
        {"no match", {"nothing"}, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<std::string> args = c.args;
        args.insert(args.begin(), {"bytes", "find", file});
        const auto run = runQx(args);
        EXPECT_EQ(run.exitStatus, c.out.empty() ? 1 : 0) << run.describe();
        EXPECT_EQ(run.out, c.out);
        EXPECT_TRUE(run.err.empty()) << run.err;
    }
}

// Edit scripts made of several edits per run, each offset in the file as the
// edits before it left it; the file after each run is the model's bytes.
TEST_F(QxBytes, EditAppliesExactlyTheEditsAskedFor) {
    std::mt19937_64 random(5);
    Bytes model = randomBytes(150000, 8);
    const std::string file = input("data", model);
    const char* options[] = {"--insert", "--delete", "--replace"};
    for (int run = 0; run < 8; ++run) {
        std::vector<std::string> args = {"bytes", "edit", file};
        for (int i = 0; i < 4; ++i) {
            // A replacement overwrites as many bytes as it brings.
            const unsigned kind = random() % 3;
            const std::uint64_t at = random() % model.size(), count = 1 + random() % std::min<std::uint64_t>(40, model.size() - at);
            const Edit edit{at, kind == 0 ? 0 : count, kind == 1 ? Bytes{} : randomBytes(count, static_cast<unsigned>(random()))};
            std::ostringstream operand;
            operand << at << ':';
            if (kind == 1) operand << count;
            for (auto b : edit.bytes) operand << std::hex << std::setw(2) << std::setfill('0') << static_cast<unsigned>(b);
            args.insert(args.end(), {options[kind], operand.str()});
            edit.applyTo(model);
        }
        const auto result = runQx(args);
        ASSERT_EQ(result.exitStatus, 0) << result.describe();
        ASSERT_EQ(readBytes(file), model) << "run " << run;
    }
}

TEST_F(QxBytes, ForkIsEditedAndSearchedAlone) {
    const Bytes data = makePayload(100);
    const std::string file = input("forked", data);
    if (!setFork(file, toBytes("resource fork bytes"))) GTEST_SKIP() << "no user extended attributes here";
    auto run = runQx({"bytes", "edit", file, "--fork", "--insert", "0:3e3e", "--replace", "2:52", "--delete", "10:5"});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(toString(forkOf(file)), ">>Resource bytes");
    EXPECT_EQ(readBytes(file), data);
    run = runQx({"bytes", "find", file, "bytes", "--fork"});
    EXPECT_EQ(run.out, "11\n");
}

TEST_F(QxBytes, RefusedInvocationsFailOnOneLineAndLeaveTheFileAlone) {
    const Bytes original = makePayload(64);
    const std::string file = input("data", original);
    const std::vector<std::vector<std::string>> cases = {
        {"edit", file, "--delete", "60:5"}, {"edit", file, "--insert", "0:41", "--delete", "64:2"},  // in range only before the insertion
        {"edit", file, "--insert", "65:41"}, {"edit", file, "--insert", "1:4"}, {"edit", file, "--insert", "x:41"},
        {"edit", file, "--replace", "1:"}, {"edit", file}, {"find", file, "zz", "--hex"}, {"find", file, "a", "--offset", "65"},
        {"find", file, "a", "--offset", "10", "--length", "55"}, {"find", (dir() / "missing").string(), "a"},
    };
    for (auto args : cases) {
        args.insert(args.begin(), "bytes");
        expectOneLineFailure(runQx(args), args[2]);
        EXPECT_EQ(readBytes(file), original);
    }
}

} // namespace
