// QXADCDecoder.h - the byte-oriented LZ77 format of old compressed disk images.
//
// A chunk is one self-contained stream: matches never reach into another
// chunk, so each chunk decodes on its own into a buffer of the chunk's size.
#pragma once

#include <cstddef>
#include <cstdint>

/// Decodes one complete ADC stream from input into output, which has room for
/// outputCapacity bytes. Returns the number of bytes written, or -1 when the
/// stream is damaged (a match reaching before the start of the output), cut
/// short inside a code, or would write more than outputCapacity bytes.
std::ptrdiff_t QXADCDecode(const std::uint8_t* input, std::size_t inputLength, std::uint8_t* output,
                           std::size_t outputCapacity);
