// QXDecoderAllocator.h - memory hooks of the resumable decoders (implode,
// unshrink, PBZX), in zlib's style.
//
// alloc returns items * size bytes suitably aligned for any object, or null
// when it refuses; free releases what alloc returned. opaque is handed to both
// unchanged. A decoder given null hooks uses malloc and free.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void* (*QXAllocFunction)(void* opaque, size_t items, size_t size);
typedef void (*QXFreeFunction)(void* opaque, void* address);

#ifdef __cplusplus
}
#endif
