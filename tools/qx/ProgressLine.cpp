// ProgressLine.cpp - a one-line progress display on standard error.
#include "ProgressLine.h"

#include <QXFoundation/QXFileSizeFormatter.h>

#include <qx/Number.h>

#include <cstdio>
#include <string>

#include <unistd.h>

namespace qxtool {

namespace {

constexpr auto kRedrawInterval = std::chrono::milliseconds(100);

std::string sizeText(std::uint64_t bytes) {
    static const auto formatter = QXFileSizeFormatter::create();
    const auto text = formatter->stringForObjectValue(qx::Number::withUInt64(bytes));
    return text ? text->utf8() : std::to_string(bytes) + " bytes";
}

std::string durationText(double seconds) {
    const auto whole = static_cast<std::uint64_t>(seconds + 0.5);
    char buffer[32];
    if (whole >= 3600)
        std::snprintf(buffer, sizeof buffer, "%llu:%02llu:%02llu", static_cast<unsigned long long>(whole / 3600),
                      static_cast<unsigned long long>(whole / 60 % 60), static_cast<unsigned long long>(whole % 60));
    else
        std::snprintf(buffer, sizeof buffer, "%llu:%02llu", static_cast<unsigned long long>(whole / 60),
                      static_cast<unsigned long long>(whole % 60));
    return buffer;
}

std::string lineText(std::uint64_t inputDone, std::uint64_t inputTotal, std::uint64_t outputDone, double seconds) {
    std::string line;
    const bool knownTotal = inputTotal > 0 && inputDone <= inputTotal;
    if (knownTotal) {
        char percent[8];
        std::snprintf(percent, sizeof percent, "%3u%% ", static_cast<unsigned>(inputDone * 100 / inputTotal));
        line += percent;
    }
    line += sizeText(inputDone) + " read, " + sizeText(outputDone) + " written";
    if (seconds > 0.05) {
        line += ", " + sizeText(static_cast<std::uint64_t>(static_cast<double>(outputDone) / seconds)) + "/s";
        // The time left follows the input: the output's final size is unknown.
        if (knownTotal && inputDone > 0) {
            const double left = seconds * static_cast<double>(inputTotal - inputDone) / static_cast<double>(inputDone);
            line += ", " + durationText(left) + " left";
        }
    }
    return line;
}

} // namespace

ProgressLine::ProgressLine(std::uint64_t inputTotal, bool wanted)
    : enabled_(wanted && ::isatty(STDERR_FILENO) == 1), inputTotal_(inputTotal), start_(std::chrono::steady_clock::now()),
      lastDraw_(start_ - kRedrawInterval) {}

ProgressLine::~ProgressLine() { clear(); }

void ProgressLine::update(std::uint64_t inputDone, std::uint64_t outputDone) {
    if (!enabled_) return;
    const auto now = std::chrono::steady_clock::now();
    if (now - lastDraw_ < kRedrawInterval) return;
    lastDraw_ = now;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    const std::string line = "\r\033[K" + lineText(inputDone, inputTotal_, outputDone, seconds);
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
    drawn_ = true;
}

void ProgressLine::clear() {
    if (!drawn_) return;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
    drawn_ = false;
}

} // namespace qxtool
