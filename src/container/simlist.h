// simlist: the ordered list under every list of the system.
//
// A doubly linked list of untyped element pointers, addressed by position (0 is the first
// element). Each list has attributes (callbacks) that let it compare, find, copy, hash and
// serialise its elements, and a small pool of spare element records, so that lists that are
// filled and cleared for each request allocate few of them.
//
// Ownership. The caller owns the list object; the list owns what the object points to. With
// copy_data clear the list stores the caller's pointer and never frees it. With copy_data set
// it stores a copy of as many bytes as the meter returns and frees the copy on removal; the
// copy is shallow: what the copied record points to stays the caller's to free.
//
// Access by position. An index beside the links (PositionIndex) gives every position its
// element record in constant time. The operations that change the list keep it current;
// a reader never touches it. So any number of threads may call simlist_get_at and
// simlist_size on a list that nobody changes, without a lock.
//
// Results: 0 (or the value named) on success, -1 on failure, NULL where a pointer is returned.
// A failed call leaves the list unchanged. While an iteration is active, insertion, removal,
// clearing and sorting fail. Nothing is logged. No operation locks.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kelconf {

struct PositionIndex;

struct simlist_element {
    void* data;
    simlist_element* next;
    simlist_element* prev;
};

// 0 when equal, otherwise a sign that orders a and b.
using simlist_comparator = std::int32_t (*)(const void* a, const void* b);
// Nonzero when the element matches the indicator.
using simlist_seeker = std::int32_t (*)(const void* element, const void* indicator);
// Size of the element's content in bytes.
using simlist_meter = std::size_t (*)(const void* element);
using simlist_hash_computer = std::uint32_t (*)(const void* element);
// A newly allocated (malloc) byte buffer; sets its length in bytes.
using simlist_serializer = void* (*)(const void* element, std::uint32_t* length);
// Newly allocated (malloc) element data; sets the length of the content consumed.
using simlist_unserializer = void* (*)(const void* buffer, std::uint32_t* length);

inline constexpr std::uint32_t kSimlistSpares = 5;
// Ranges of at most this many elements are sorted by selection.
inline constexpr std::uint32_t kSimlistSelectionSort = 24;

struct simlist {
    simlist_element* head;   // sentinel at position -1
    simlist_element* tail;   // sentinel at position count
    simlist_element* middle; // element at position (count - 1) / 2, NULL while empty
    std::uint32_t count;

    simlist_element** spares; // stack of kSimlistSpares records kept for reuse
    std::uint32_t spare_count;

    std::int32_t iterator_active;
    std::uint32_t iterator_position; // elements handed out by the running iteration
    simlist_element* iterator_cursor;

    simlist_comparator comparator;
    simlist_seeker seeker;
    simlist_meter meter;
    std::int32_t copy_data;
    simlist_hash_computer hash_computer;
    simlist_serializer serializer;
    simlist_unserializer unserializer;

    PositionIndex* index; // position -> element record, current after every change
};

// ---- Life ------------------------------------------------------------------------------

// Makes `list` empty, with all attributes cleared. -1 for a NULL list or when memory is short
// (the list must then not be used).
std::int32_t simlist_init(simlist* list);
// Removes every element, then frees all that the list holds. Initialise it again before reuse.
void simlist_destroy(simlist* list);
// Removes every element; the attributes and the spare records stay.
std::int32_t simlist_clear(simlist* list);

// ---- Attributes: -1 for a NULL list -------------------------------------------------------

std::int32_t simlist_attributes_comparator(simlist* list, simlist_comparator comparator);
std::int32_t simlist_attributes_seeker(simlist* list, simlist_seeker seeker);
// Also -1, with the attributes unchanged, when the copy flag is set and the meter is NULL.
std::int32_t simlist_attributes_copy(simlist* list, simlist_meter meter, std::int32_t copy_flag);
std::int32_t simlist_attributes_hash_computer(simlist* list, simlist_hash_computer computer);
std::int32_t simlist_attributes_serializer(simlist* list, simlist_serializer serializer);
std::int32_t simlist_attributes_unserializer(simlist* list, simlist_unserializer unserializer);

// ---- Elements by position -------------------------------------------------------------------

std::uint32_t simlist_size(const simlist* list);
std::int32_t simlist_empty(const simlist* list); // 1 or 0
// The element's data, which stays in the list; with copy_data set that is the stored copy,
// which may be changed in place. NULL outside the list; the sentinels' data is NULL too.
void* simlist_get_at(const simlist* list, std::uint32_t position);
// 1 on success. The new element takes `position`; position count appends.
std::int32_t simlist_insert_at(simlist* list, const void* data, std::uint32_t position);
std::int32_t simlist_append(simlist* list, const void* data);
std::int32_t simlist_prepend(simlist* list, const void* data);
std::int32_t simlist_delete_at(simlist* list, std::uint32_t position);
// Removes positions start to end inclusive.
std::int32_t simlist_delete_range(simlist* list, std::uint32_t start, std::uint32_t end);
// Removes the element and hands its data to the caller, who owns it also with copy_data set
// (release it with free).
void* simlist_extract_at(simlist* list, std::uint32_t position);
void* simlist_fetch(simlist* list); // simlist_extract_at(list, 0)

// ---- Elements by content --------------------------------------------------------------------

// Largest and smallest by the comparator; NULL without one or when empty.
void* simlist_get_max(const simlist* list);
void* simlist_get_min(const simlist* list);
// Position of the first element equal to data (comparator, else pointer identity), or -1.
std::int32_t simlist_locate(const simlist* list, const void* data);
std::int32_t simlist_delete(simlist* list, const void* data);
void* simlist_seek(const simlist* list, const void* indicator);
std::int32_t simlist_contains(const simlist* list, const void* data); // 1 or 0
// Initialises `destination` with the elements of `first`, then of `second`, sharing their data.
std::int32_t simlist_concat(const simlist* first, const simlist* second, simlist* destination);

// Stores a hash of the elements in their order; equal lists have equal hashes. -1 without a hash
// computer.
std::int32_t simlist_hash(const simlist* list, std::uint32_t* hash);

// Sorts so that no element goes after its successor: a goes after b when
// comparator(a, b) * (-direction) > 0. Not stable. O(n log n) comparisons and O(log n) stack
// whatever the input; only data pointers move, the records stay linked as they are.
std::int32_t simlist_sort(simlist* list, std::int32_t direction);

// ---- Iteration: one at a time for a list ------------------------------------------------------

std::int32_t simlist_iterator_start(simlist* list);         // 1; 0 when one is active already
void* simlist_iterator_next(simlist* list);                 // NULL when none is active
std::int32_t simlist_iterator_hasnext(const simlist* list); // 1 or 0
std::int32_t simlist_iterator_stop(simlist* list);          // 1; 0 when none is active

} // namespace kelconf
