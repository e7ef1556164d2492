// ProgressLine.h - a one-line progress display on standard error.
//
// Shown only when standard error is a terminal, so that logs and pipes get
// nothing but the command's own lines. Each draw rewrites the line in place
// (carriage return, erase to the end of the line): bytes read and written,
// the rate of output, and, when the input's size is known, the percentage
// and the time left estimated from the input read so far. Draws closer
// together than a tenth of a second are skipped, so the terminal never costs
// the decoder anything noticeable. clear() leaves the line empty again, for
// the report or the shell prompt that follows.
#pragma once

#include <chrono>
#include <cstdint>

namespace qxtool {

class ProgressLine {
public:
    /// inputTotal: the input's size, 0 when unknown. wanted: false when the
    /// line would land among other output (data written to the same terminal).
    ProgressLine(std::uint64_t inputTotal, bool wanted);
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    bool enabled() const { return enabled_; }
    /// Redraws with the counts so far, at most about ten times a second.
    void update(std::uint64_t inputDone, std::uint64_t outputDone);
    /// Erases the line when one was drawn.
    void clear();

private:
    bool enabled_;
    bool drawn_ = false;
    std::uint64_t inputTotal_;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point lastDraw_;
};

} // namespace qxtool
