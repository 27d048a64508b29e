// Announces changes of parameters on the event endpoint (endpoints::kEvent).
//
// Each event is one single-part message, an EVENT_ACTION document. Any thread may publish: the
// event lock makes building and sending one step, so events come out whole and in the order in
// which their calls took the lock. A subscriber that is absent, or too slow, misses events.
#pragma once

#include "container/simlist.h"

#include <cstdint>

namespace kelconf {

// The publisher's socket; null until initEventSocket. Used by the operations below only.
extern void* eventSock;

// Binds the publisher in `context` (bus/bus_context.h), once, before any SET is applied. Logs
// the outcome; a failed bind ends the process with status 0.
void initEventSocket();

// Announces one change. The texts stay the caller's; prev_value may be null. Result of
// releasing the event lock.
std::int32_t sendEvent(const char* name, const char* value, const char* prev_value);

// Announces the ChangeRecords (bus/bus_xml.h) of a list in one event and releases their texts;
// the list with its records stays, for the caller to destroy.
std::int32_t sendMultipleEvent(simlist* changes);

// Closes the publisher at the end of the service; what was published gets `linger_ms`
// milliseconds to reach the subscribers. Later events are lost.
void closeEventSocket(int linger_ms);

} // namespace kelconf
