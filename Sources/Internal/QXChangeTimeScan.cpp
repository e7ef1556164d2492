// QXChangeTimeScan.cpp - the history of a folder tree, read from change times.
//
// The scan is a walk of every directory with getdents64 and one statx per
// entry; that stat is the whole cost, so directories are shared out among a
// few threads through one stack (depth first keeps the stack short).
#include "Internal/QXChangeTimeScan.h"

#include "Internal/QXDirectoryEntries.h"
#include "Internal/QXFSEventClock.h"

#include <qx/UniqueFd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

std::uint64_t changeTime(const struct statx& stx) {
    return static_cast<std::uint64_t>(stx.stx_ctime.tv_sec) * 1000000000ull + stx.stx_ctime.tv_nsec;
}

class TreeWalk {
public:
    explicit TreeWalk(std::size_t roots) : latest_(roots) {}

    void add(std::string path, std::size_t root) { stack_.push_back(Work{std::move(path), root}); }

    void run(unsigned threads) {
        std::vector<std::thread> helpers;
        for (unsigned i = 1; i < threads; ++i) helpers.emplace_back([this] { work(); });
        work();
        for (auto& helper : helpers) helper.join();
    }

    void note(std::size_t root, std::uint64_t time) {
        std::uint64_t seen = latest_[root].load(std::memory_order_relaxed);
        while (time > seen && !latest_[root].compare_exchange_weak(seen, time, std::memory_order_relaxed)) {
        }
    }

    std::uint64_t latest(std::size_t root) const { return latest_[root].load(std::memory_order_relaxed); }

private:
    struct Work {
        std::string path;
        std::size_t root;
    };

    void work() {
        std::vector<Work> found;
        std::vector<char> buffer(64 * 1024);
        for (;;) {
            Work item;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                ready_.wait(lock, [this] { return !stack_.empty() || busy_ == 0; });
                if (stack_.empty()) return;  // nobody busy: nothing more can appear
                item = std::move(stack_.back());
                stack_.pop_back();
                ++busy_;
            }
            found.clear();
            scanDirectory(item, buffer, found);
            bool wake;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                --busy_;
                for (auto& work : found) stack_.push_back(std::move(work));
                wake = !found.empty() || busy_ == 0;
            }
            if (wake) ready_.notify_all();
        }
    }

    void scanDirectory(const Work& item, std::vector<char>& buffer, std::vector<Work>& found) {
        qx::UniqueFd dir(::open(item.path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!dir) return;  // removed meanwhile or unreadable: its folder's change time already counts
        std::uint64_t latest = 0;
        QXForEachDirectoryEntry(dir.get(), buffer, [&](const char* name, unsigned char) {
            struct statx stx {};
            if (::statx(dir.get(), name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC,
                        STATX_CTIME | STATX_TYPE, &stx) != 0)
                return;
            latest = std::max(latest, changeTime(stx));
            if (S_ISDIR(stx.stx_mode)) found.push_back(Work{item.path + "/" + name, item.root});
        });
        note(item.root, latest);
    }

    std::mutex mutex_;
    std::condition_variable ready_;
    std::vector<Work> stack_;  // guarded by mutex_
    unsigned busy_ = 0;        // threads scanning a directory; guarded by mutex_
    std::vector<std::atomic<std::uint64_t>> latest_;
};

} // namespace

std::vector<QXChangeTimeScan::Tree> QXChangeTimeScan::scan(const std::vector<std::string>& roots) {
    std::vector<Tree> trees(roots.size());
    TreeWalk walk(roots.size());
    for (std::size_t i = 0; i < roots.size(); ++i) {
        // G is read before anything is looked at: a change made while the
        // walk runs, in a directory already passed, then still lies above
        // whatever the walk answers.
        trees[i].granuleStart = QXFSEventClock::granuleStart(roots[i]);
        struct stat st {};
        if (::lstat(roots[i].c_str(), &st) != 0) continue;
        walk.note(i, QXFSEventClock::changeTime(st));
        if (S_ISDIR(st.st_mode)) walk.add(roots[i], i);
    }
    // More walkers than processors: a stat that misses the inode cache waits
    // for the disk, and the others keep the processors busy meanwhile.
    walk.run(std::clamp(2 * std::thread::hardware_concurrency(), 2u, 8u));
    for (std::size_t i = 0; i < roots.size(); ++i) trees[i].latest = walk.latest(i);
    return trees;
}

QXChangeTimeScan::Answer QXChangeTimeScan::answer(const std::vector<Tree>& trees, std::uint64_t after) {
    Answer result{after, false};
    bool heldBackAboveAfter = false;
    for (const Tree& tree : trees) {
        if (tree.latest <= after) continue;
        std::uint64_t said = tree.latest;
        if (tree.latest >= tree.granuleStart) {
            said = tree.granuleStart - 1;
            if (said <= after) heldBackAboveAfter = true;
        }
        if (said > result.event) result.event = said;
    }
    // Something changed after "after" but can only be named inside the current
    // granule, and nothing else gives an answer that differs from "after".
    result.mustWait = heldBackAboveAfter && result.event == after;
    return result;
}
