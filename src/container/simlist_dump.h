// Writing a list to a file and reading it back.
//
// The file: a header of 30 bytes, the contents, a trailer of 4 bytes.
//   bytes  0-1  version, always 1         18-21 number of elements
//          2-9  time of writing, us       22-25 size of an element; 0: sizes differ
//               since the epoch           26-29 hash of the list; 0 without a hash computer
//        10-13  a random mark
//        14-17  bytes of content
// all big-endian. The contents are the elements back to back, in the list's order; where sizes
// differ each is preceded by its length as 4 bytes in the machine's own byte order. The bytes
// of content count the elements without these prefixes. The trailer repeats the mark. The
// header is written last, so what an interrupted dump leaves behind is no dump (version 0).
//
// An element is written as its serializer's bytes when there is a serializer, otherwise as the
// bytes that the meter counts.
//
// Results: 0, or -1 with errno set. A file read is never trusted: counts and lengths are held
// against each other and against what the file really has before memory is taken for them.
#pragma once

#include "container/simlist.h"

#include <cstddef>
#include <cstdint>

namespace kelconf {

struct simlist_dump_info {
    std::uint16_t version;
    std::uint64_t timestamp; // microseconds since the epoch
    std::uint32_t mark;
    std::uint32_t content_length; // bytes, without length prefixes
    std::uint32_t count;
    std::uint32_t element_size; // bytes; 0 when elements differ in size
    std::uint32_t hash;
    std::int32_t consistent; // 1 when the trailer equals the mark, else 0
};

// Writes the list to a file (made with mode 0644, emptied first) or from the start of an open,
// seekable descriptor, of which a longer old content is cut off. `length`, unless NULL, receives
// the bytes of content. -1 with errno ENOTTY when neither a meter nor a serializer is set,
// EINVAL for an element that is NULL or cannot be serialised, EOVERFLOW beyond 4 GiB of content,
// or as the failed call left it.
std::int32_t simlist_dump_file(const simlist* list, const char* path, std::size_t* length);
std::int32_t simlist_dump_filedescriptor(const simlist* list, int descriptor, std::size_t* length);

// Appends the elements of a dump to an initialised list: the unserializer's results, or the raw
// bytes as malloc memory. With copy_data set the list takes over these very elements; otherwise
// they are the caller's to free. `length`, unless NULL, receives the bytes of content.
// On -1 the list is as before (elements made until then are freed, but not what an unserializer
// let them point to), with errno
//  - EILSEQ for a version other than 1,
//  - EPROTO when bytes follow the trailer, and for contents that contradict the header (the sum
//    of the sizes is not the content length, or the trailer is not the mark), for an element
//    that the unserializer refuses and for raw bytes that the list's meter counts otherwise,
//  - ENODATA when the file ends too early, EBUSY while an iteration is active, ENOMEM, or as the
//    failed read left it.
std::int32_t simlist_restore_file(simlist* list, const char* path, std::size_t* length);
std::int32_t simlist_restore_filedescriptor(simlist* list, int descriptor, std::size_t* length);

// Reads the header of a dump and looks at its trailer. -1 with errno EILSEQ for a version above
// 1, ENODATA when the file ends too early, or as the failed read or seek left it.
std::int32_t simlist_dump_getinfo_file(const char* path, simlist_dump_info* info);
std::int32_t simlist_dump_getinfo_filedescriptor(int descriptor, simlist_dump_info* info);

} // namespace kelconf
