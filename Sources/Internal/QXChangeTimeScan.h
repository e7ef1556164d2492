// QXChangeTimeScan.h - the history of a folder tree, read from change times.
//
// There is no daemon keeping a journal of changes, so "the latest event under
// these folders" is the highest change time (ctime) of anything under them:
// a created, written, renamed or re-attributed item carries its own change,
// and a deletion or a rename shows in the change time of its folder. Change
// times cannot be set back by users, so they survive restarts as a history.
//
// The identifier rule. Change times are stamped in granules (the timer tick,
// or whole seconds on FUSE), and a change made after the scan, but in the
// granule the scan began in, may carry a time equal to one the scan saw. An
// answer therefore never names a time at or above G, the start of that
// granule (read before the first directory is opened): a tree whose latest
// change is at or above G is answered G - 1. Every change made after the scan
// began carries a time >= G > answer, so asking "changed since answer" later
// always sees it: no false negative across restarts. The price is that the
// changes held back are reported once more by the next question (at most one
// repeated "changed"). When G - 1 is not above the asker's own identifier (it
// asked twice within one granule), "changed" and "unchanged" cannot be told
// apart yet; the caller then waits for the granule to end and scans again,
// after which G - 1 lies above the old identifier.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class QXChangeTimeScan {
public:
    struct Tree {
        std::uint64_t latest = 0;        // highest change time under the root; 0 when it does not exist
        std::uint64_t granuleStart = 0;  // G for the root's file system when its scan began
    };

    /// What one asker learns from the trees under its folders.
    struct Answer {
        std::uint64_t event = 0;  // the asker's own identifier when nothing changed after it
        bool mustWait = false;    // undecidable until the current granule ends
    };

    /// Scans each root (an absolute, standardised path) and everything below
    /// it, without following symbolic links, on a few threads.
    static std::vector<Tree> scan(const std::vector<std::string>& roots);

    /// The answer for an asker holding identifier after, over trees, under
    /// the identifier rule above.
    static Answer answer(const std::vector<Tree>& trees, std::uint64_t after);
};
