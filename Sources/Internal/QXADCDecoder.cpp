// QXADCDecoder.cpp - ADC chunks: literal runs and two sizes of back-reference.
#include "Internal/QXADCDecoder.h"

std::ptrdiff_t QXADCDecode(const std::uint8_t* input, std::size_t inputLength, std::uint8_t* output,
                           std::size_t outputCapacity) {
    std::size_t in = 0;
    std::size_t out = 0;
    while (in < inputLength) {
        const std::uint8_t code = input[in];
        if (code & 0x80) {
            const std::size_t run = (code & 0x7Fu) + 1u;
            if (run > inputLength - in - 1 || run > outputCapacity - out) return -1;
            for (std::size_t i = 0; i < run; ++i) output[out + i] = input[in + 1 + i];
            in += 1 + run;
            out += run;
            continue;
        }
        std::size_t length;
        std::size_t distance;
        if (code & 0x40) {
            if (inputLength - in < 3) return -1;
            length = (code & 0x3Fu) + 4u;
            distance = ((static_cast<std::size_t>(input[in + 1]) << 8) | input[in + 2]) + 1u;
            in += 3;
        } else {
            if (inputLength - in < 2) return -1;
            length = ((code >> 2) & 0x0Fu) + 3u;
            distance = ((static_cast<std::size_t>(code & 0x03u) << 8) | input[in + 1]) + 1u;
            in += 2;
        }
        if (distance > out || length > outputCapacity - out) return -1;
        // Byte by byte on purpose: a distance shorter than the length repeats
        // the bytes this very match is writing.
        const std::size_t from = out - distance;
        for (std::size_t i = 0; i < length; ++i) output[out + i] = output[from + i];
        out += length;
    }
    return static_cast<std::ptrdiff_t>(out);
}
