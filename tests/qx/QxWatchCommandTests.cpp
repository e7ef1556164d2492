// QxWatchCommandTests.cpp - `qx watch`, run as a child process: live event lines,
// the latest identifier and changed-since across separate runs, one-line errors.
#include "QxProcessTest.h"
#include "TestSupport.h"

#include <csignal>
#include <poll.h>

namespace fs = std::filesystem;
using namespace qxtest;

namespace {

class QxWatch : public QxProcessTest {
protected:
    // Not dir(): the runs' own output files are made there.
    std::string folder() const { return watched_.path().string(); }
    fs::path at(const std::string& name) const { return watched_.path() / name; }

    // Reads the child's output into lines_ until it holds text or time runs out.
    bool readUntil(int fd, const std::string& text, std::chrono::milliseconds limit) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (lines_.find(text) == std::string::npos) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 50) <= 0) continue;
            char buffer[4096];
            const ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n <= 0) return false;
            lines_.append(buffer, static_cast<std::size_t>(n));
        }
        return true;
    }

    std::string lines_;
    TempDir watched_{"qx-watch"};
};

} // namespace

TEST_F(QxWatch, PrintsJsonLinesAsChangesComeAndEndsCleanlyOnInterrupt) {
    auto process = launchQx({"watch", folder(), "--json"}, false);
    const int output = process->standardOutput()->fileDescriptor();

    // The watch is ready when a probe shows; probes go on until one does.
    bool ready = false;
    for (int i = 0; i < 100 && !ready; ++i) {
        writeFile(at("probe" + std::to_string(i)), "");
        ready = readUntil(output, "probe", std::chrono::milliseconds(200));
    }
    ASSERT_TRUE(ready) << lines_;
    fs::create_directory(at("made"));
    writeFile(at("made") / "at once", "x");
    EXPECT_TRUE(readUntil(output, "\"path\":\"" + folder() + "/made/at once\"", std::chrono::seconds(20))) << lines_;
    EXPECT_NE(lines_.find("{\"id\":"), std::string::npos);
    EXPECT_NE(lines_.find("\"flags\":[\"ItemCreated\",\"ItemIsDir\"],\"path\":\"" + folder() + "/made\"}"), std::string::npos)
        << lines_;

    ASSERT_TRUE(process->sendSignal(SIGINT));
    ASSERT_TRUE(process->waitUntilExit(std::chrono::steady_clock::now() + std::chrono::seconds(60)));
    EXPECT_TRUE(process->terminationReason() == qx::Process::TerminationReason::Exit && process->terminationStatus() == 0);
}

TEST_F(QxWatch, ChangedSinceAnswersAcrossRuns) {
    writeFile(at("file"), "x");
    auto latest = runQx({"watch", "--latest", folder()});
    ASSERT_EQ(latest.exitStatus, 0) << latest.describe();
    // A second run settles an answer held back within the current clock tick.
    auto settled = runQx({"watch", "--changed-since", latest.out.substr(0, latest.out.size() - 1), folder()});
    const std::string id = settled.out.substr(0, settled.out.find('\n'));
    auto unchanged = runQx({"watch", "--changed-since", id, folder()});
    EXPECT_EQ(unchanged.exitStatus, 1) << unchanged.describe();
    EXPECT_EQ(unchanged.out, id + "\n");

    fs::remove(at("file"));
    auto changed = runQx({"watch", "--changed-since", id, folder()});
    EXPECT_EQ(changed.exitStatus, 0) << changed.describe();
    EXPECT_NE(changed.out, id + "\n");
}

TEST_F(QxWatch, ErrorsAreOneLineAndExitTwo) {
    const std::string file = input("plain", toBytes("x"));
    const struct { std::vector<std::string> args; std::string name; } cases[] = {
        {{"watch", at("missing").string()}, at("missing").string()},
        {{"watch", "--latest", file}, file},
        {{"watch", "--changed-since", "12x", folder()}, "watch"},
        {{"watch", "--changed-since", "-1", folder()}, "watch"},
        {{"watch", "--latest", "--changed-since", "5", folder()}, "watch"},
    };
    for (const auto& c : cases) expectOneLineFailure(runQx(c.args), c.name, 2);
}
