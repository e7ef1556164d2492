// QXLZFSEDecoder.h - whole-buffer decoding of LZFSE streams.
//
// Private to Sources/. A stream is a run of blocks, each opened by a 4-byte
// tag: "bvx2" and "bvx1" (entropy-coded literals and matches, with packed and
// plain headers), "bvxn" (LZVN opcodes), "bvx-" (stored) and "bvx$" (end).
// Blocks share one history: a match may reach into earlier blocks.
#pragma once

#include <cstddef>
#include <cstdint>

// Decodes one complete LZFSE stream (blocks up to and including the end-of-stream block) from input into
// output, which has room for outputCapacity bytes. Returns the number of bytes written, or -1 when the
// stream is damaged, truncated, or would write more than outputCapacity bytes.
std::ptrdiff_t QXLZFSEDecode(const std::uint8_t* input, std::size_t inputLength, std::uint8_t* output,
                             std::size_t outputCapacity);
