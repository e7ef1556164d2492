// PlistGenerator.h - a large, varied property list for benchmarks.
//
// The same seed and object count give the same value (and so the same binary
// file) on every machine: the generator uses its own random sequence rather
// than the standard library's distributions, whose results differ between
// implementations.
#pragma once

#include <qx/Object.h>

#include <cstdint>

namespace qxbench {

struct GeneratedPlist {
    qx::Ref<qx::Object> root;
    /// Objects the binary writer emits for root: every value and every
    /// dictionary key.
    std::uint64_t objects = 0;
};

/// A root dictionary whose "records" array holds as many records as it takes
/// to pass minimumObjects. Each record mixes every kind a binary file can
/// carry: dictionaries with string keys, arrays (some longer than 14
/// elements), ASCII and non-ASCII strings (some with characters outside the
/// Basic Multilingual Plane), integers of 1, 2, 4 and 8 bytes including
/// negative ones and the 64-bit extremes, double and single-precision reals,
/// booleans, dates and data.
GeneratedPlist generatePlist(std::uint64_t seed, std::uint64_t minimumObjects);

} // namespace qxbench
