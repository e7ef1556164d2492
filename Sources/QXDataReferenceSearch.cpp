// QXDataReferenceSearch.cpp - searching a data reference's contents: a
// quick-search (Sunday) scan and a Horspool scan over 1 MiB windows, with the
// same candidates and therefore the same answers.
#include <QXFoundation/QXDataReference.h>

#include <array>
#include <cstring>
#include <limits>
#include <vector>

namespace {

constexpr std::uint64_t kWindowSize = 0x100000;

// Mac OS Roman's lower-case letters that have a single-byte upper case there.
constexpr std::array<std::pair<unsigned char, unsigned char>, 29> kAccentedUppercase = {{
    {0x87, 0xE7}, {0x88, 0xCB}, {0x89, 0xE5}, {0x8A, 0x80}, {0x8B, 0xCC}, {0x8C, 0x81}, {0x8D, 0x82}, {0x8E, 0x83},
    {0x8F, 0xE9}, {0x90, 0xE6}, {0x91, 0xE8}, {0x92, 0xEA}, {0x93, 0xED}, {0x94, 0xEB}, {0x95, 0xEC}, {0x96, 0x84},
    {0x97, 0xEE}, {0x98, 0xF1}, {0x99, 0xEF}, {0x9A, 0x85}, {0x9B, 0xCD}, {0x9C, 0xF2}, {0x9D, 0xF4}, {0x9E, 0xF3},
    {0x9F, 0x86}, {0xBE, 0xAE}, {0xBF, 0xAF}, {0xCF, 0xCE}, {0xD8, 0xD9},
}};

const std::array<unsigned char, 256>& uppercaseTable() {
    static const std::array<unsigned char, 256> table = [] {
        std::array<unsigned char, 256> t{};
        for (unsigned c = 0; c < 256; ++c) t[c] = static_cast<unsigned char>(c);
        for (unsigned c = 'a'; c <= 'z'; ++c) t[c] = static_cast<unsigned char>(c - 'a' + 'A');
        for (const auto& [lower, upper] : kAccentedUppercase) t[lower] = upper;
        return t;
    }();
    return table;
}

// The text of the searched range, read a window at a time and folded to upper
// case as it arrives when the search ignores case.
class SearchText {
public:
    SearchText(QXDataReference& reference, QXDataRange range, std::uint64_t window, bool fold)
        : reference_(reference), begin_(range.location), end_(range.location + range.length), window_(window), fold_(fold) {}

    // Makes [from, to) of the contents available (within the range); false when it cannot be read.
    bool cover(std::uint64_t from, std::uint64_t to) {
        if (from >= start_ && to <= start_ + bytes_.size()) return true;
        if (from >= start_ && from <= start_ + bytes_.size()) {
            // Forwards: drop what lies before the candidate, append the next window.
            bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(from - start_));
            start_ = from;
            const std::uint64_t readFrom = start_ + bytes_.size();
            append(readFrom, std::max(to, std::min(end_, readFrom + window_)));
        } else if (to <= start_ + bytes_.size() && to >= start_) {
            // Backwards: drop what lies after the candidate, prepend the window before it.
            bytes_.resize(static_cast<std::size_t>(to - start_));
            const std::uint64_t readFrom = std::min(from, start_ > begin_ + window_ ? start_ - window_ : begin_);
            prepend(readFrom);
        } else {
            bytes_.clear();
            start_ = from;
            append(from, std::max(to, std::min(end_, from + window_)));
        }
        return from >= start_ && to <= start_ + bytes_.size();
    }
    unsigned char at(std::uint64_t position) const { return bytes_[static_cast<std::size_t>(position - start_)]; }

private:
    void fold(std::uint8_t* p, std::size_t length) const {
        if (!fold_) return;
        const auto& table = uppercaseTable();
        for (std::size_t i = 0; i < length; ++i) p[i] = table[p[i]];
    }
    void append(std::uint64_t from, std::uint64_t to) {
        const auto data = reference_.subdataWithRange(QXDataRange{from, to - from});
        const std::size_t before = bytes_.size();
        bytes_.insert(bytes_.end(), data->vector().begin(), data->vector().end());
        fold(bytes_.data() + before, data->length());
    }
    void prepend(std::uint64_t from) {
        const auto data = reference_.subdataWithRange(QXDataRange{from, start_ - from});
        if (data->length() != start_ - from) return;  // unreadable: cover reports it
        fold(data->mutableBytes(), data->length());
        bytes_.insert(bytes_.begin(), data->vector().begin(), data->vector().end());
        start_ = from;
    }

    QXDataReference& reference_;
    std::uint64_t begin_, end_, window_;
    bool fold_;
    std::uint64_t start_ = 0;          // contents offset of bytes_[0]
    std::vector<std::uint8_t> bytes_;  // begin_ <= start_, start_ + size <= end_
};

} // namespace

unsigned char ConvertCharToUppercaseUsingMacOSRoman(unsigned char c) {
    return uppercaseTable()[c];
}

QXDataRange QXDataReference::rangeOfData(const qx::Ref<qx::Data>& pattern, std::uint64_t options, QXDataRange range) {
    if (pattern && pattern->length() <= size()) return fastSearch(pattern, options, range);
    return QXDataRange{QXDataReferenceNotFound, 0};
}

QXDataRange QXDataReference::fastSearch(const qx::Ref<qx::Data>& pattern, std::uint64_t options, QXDataRange range) {
    return quickSearch(pattern, options, range, false);
}

QXDataRange QXDataReference::boyerMooreSearch(const qx::Ref<qx::Data>& pattern, std::uint64_t options, QXDataRange range) {
    return quickSearch(pattern, options, range, true);
}

QXDataRange QXDataReference::quickSearch(const qx::Ref<qx::Data>& pattern, std::uint64_t options, QXDataRange range, bool horspool) {
    constexpr QXDataRange notFound{QXDataReferenceNotFound, 0};
    if (range.location > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) return QXDataRange{0, 0};
    const std::uint64_t P = range.location;
    const std::uint64_t L = std::min(range.length, std::numeric_limits<std::uint64_t>::max() - P);
    if (L == 0 || !pattern || pattern->length() == 0 || P + L > size() || pattern->length() > L) return notFound;

    const bool ignoreCase = (options & QXDataReferenceCaseInsensitiveSearch) != 0;
    const bool backwards = (options & QXDataReferenceBackwardsSearch) != 0;
    const std::uint64_t W = std::min<std::uint64_t>(L, kWindowSize);
    // A longer pattern is searched by its first window's worth only (deliberate).
    const std::uint64_t m = std::min<std::uint64_t>(pattern->length(), W);
    std::vector<unsigned char> q(pattern->bytes(), pattern->bytes() + m);
    if (ignoreCase)
        for (auto& c : q) c = ConvertCharToUppercaseUsingMacOSRoman(c);

    // Sunday shifts by the byte just past the candidate, Horspool by the
    // candidate's own outermost byte; both are safe, so both visit every
    // candidate that can match and find the same first match.
    std::array<std::uint64_t, 256> shift;
    if (horspool) {
        shift.fill(m);
        for (std::uint64_t i = 0; i + 1 < m; ++i) {
            if (backwards) {
                shift[q[m - 1 - i]] = m - 1 - i;
            } else {
                shift[q[i]] = m - 1 - i;
            }
        }
    } else {
        shift.fill(m + 1);
        for (std::uint64_t i = 0; i < m; ++i) shift[backwards ? q[m - 1 - i] : q[i]] = m - i;
    }

    SearchText text(*this, QXDataRange{P, L}, W, ignoreCase);
    const auto matchesAt = [&](std::uint64_t start) {
        if (text.at(start) != q[0] || text.at(start + m - 1) != q[m - 1]) return false;
        if (backwards) {
            for (std::uint64_t i = 1; i + 1 < m; ++i)
                if (text.at(start + i) != q[i]) return false;
        } else {
            for (std::uint64_t i = m - 2; i >= 1 && i < m; --i)
                if (text.at(start + i) != q[i]) return false;
        }
        return true;
    };

    if (!backwards) {
        for (std::uint64_t pos = P; pos <= P + L - m;) {
            const std::uint64_t lookahead = horspool ? pos + m - 1 : pos + m;
            const std::uint64_t need = std::min(P + L, std::max(pos + m, lookahead + 1));
            if (!text.cover(pos, need)) break;
            if (matchesAt(pos)) return QXDataRange{pos, m};
            if (lookahead >= P + L) break;
            pos += shift[text.at(lookahead)];
        }
    } else {
        // pos is the candidate's last byte; the candidate starting at P is
        // never examined (kept: callers have always had this bound).
        for (std::uint64_t pos = P + L - 1; pos >= P + m;) {
            const std::uint64_t lookbehind = horspool ? pos - m + 1 : pos - m;
            if (!text.cover(lookbehind, pos + 1)) break;
            if (matchesAt(pos - m + 1)) return QXDataRange{pos - m + 1, m};
            const std::uint64_t step = shift[text.at(lookbehind)];
            if (pos < step) break;
            pos -= step;
        }
    }
    return QXDataRange{0, 0};
}
