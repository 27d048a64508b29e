// Stand-in for the calls of qLibc that the system uses, under the library's names and with its C
// linkage, for hosts where the library is not installed. Where it is installed this directory is
// not on the include path and the library itself is linked (qlibc.cmake). Include it through
// qlibc/use_qlibc.h.
//
// Memory handed out is malloc memory: the caller releases it with free.
#pragma once

#include <sys/types.h>

#include <cstddef>

extern "C" {

// The library's headers do not compile without <stdio.h> before them: nor does this one.
using qlibc_stream = FILE;

// MD5 of `nbytes` bytes of a file from `offset`, both in bytes; nbytes 0 means up to the end of
// the file. Writes the 16 raw bytes of the digest to `retbuf`. False with errno set when the
// file cannot be opened or read to the end of the range (EINVAL when it ends before).
bool qhashmd5_file(const char* filepath, off_t offset, ssize_t nbytes, void* retbuf);

// A new text with the base64 form (RFC 4648, with padding) of `size` bytes; NULL when memory is
// short.
char* qbase64_encode(const void* bin, size_t size);

// Decodes base64 text in place, passing over every character outside the alphabet, ends the
// result with a NUL and returns its length in bytes. Bits that fill no byte are dropped.
size_t qbase64_decode(char* str);

// Option of qqueue: each operation is atomic.
inline constexpr int QQUEUE_THREADSAFE = 0x01;

// A first-in first-out queue of records. Each member function takes the queue first.
struct qqueue_s {
    // Appends a copy of `size` bytes; false with errno set when data is NULL or size is 0
    // (EINVAL) or memory is short (ENOMEM).
    bool (*push)(qqueue_s* queue, const void* data, size_t size);
    // Takes out the oldest record and hands it to the caller; its length goes to `size` unless
    // that is NULL. NULL with errno ENOENT when the queue is empty.
    void* (*pop)(qqueue_s* queue, size_t* size);
    // Number of records.
    size_t (*size)(qqueue_s* queue);
    // Releases the queue with what it holds; no other thread may use it any more.
    void (*free)(qqueue_s* queue);
};

using qqueue_t = qqueue_s;

// A new empty queue; NULL with errno ENOMEM when memory is short.
qqueue_t* qqueue(int options);
}
