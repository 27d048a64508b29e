// Applies the SET request in SetAnswerList (service/request_lists.h) to the live parameters.
//
// Each returns 1 when every named parameter exists, else 0; the known ones are applied either way,
// in order. A change of an ordinary parameter is queued for the write-back, in the same holding of
// the parameter lock that replaces its value; a realtime parameter counts as changed by every SET
// and is announced at once. The lock is held over the whole request, at whose end its changes are
// published together (service/published_values.h); events follow when it is released. An ordinary
// parameter that has the value already is passed over.
//
// A value that contains paths::kFileStorage names a stored file. When such a value gives way to one
// that does not, the file is deleted; never anything outside that directory.
//
// The SET loop calls them, with the get-all lock held.
#pragma once

#include <cstdint>

namespace kelconf {

// Wakes the write-back task when an ordinary parameter changed.
std::uint8_t setValueForSetAnswerList();
// Ends with a write-back pass (service/write_back.h) in the calling thread, in any case.
std::uint8_t setDirectValueForSetAnswerList();
// Queues and stores nothing; every change is announced at once.
std::uint8_t setValueForSetAnswerListNoDBStore();

} // namespace kelconf
