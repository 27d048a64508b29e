// The endpoints of the bus: request loops and brokers, each on a thread of its own.
//
// A loop opens its REP endpoint (bus/endpoints.h) in `context` (bus/bus_context.h) and answers one
// request after another under the get-all lock (docs/bus.md describes what it answers). Every
// request gets one reply, the empty and the malformed one too; of a request in several parts the
// first counts. A loop returns when the context is shut down or the loops are stopped; a socket
// that fails is opened anew, once a second at most.
//
// A message of more than kMaxMessageBytes closes its sender's connection; one of more than
// kMaxRequestBytes (bus/bus_xml.h) is answered as one that does not parse.
#pragma once

#include <cstdint>

namespace kelconf {

inline constexpr std::int64_t kMaxMessageBytes = 64LL * 1024 * 1024;

void initGetSock();
void initSetSock();
void initGetAllSock();
void initGetGroupSock();

// Relay between a front and a back end until the context is shut down; then 0. A failed bind ends
// the process with status 0.
std::int32_t initGetSyncSock();
std::int32_t initSetSyncSock();

// Ends the request loops: none takes a further request, the ones being answered are answered.
// Returns when all loops that were started have closed their sockets. The brokers run on.
void stopRequestLoops();

// Lets loops be started again after stopRequestLoops.
void allowRequestLoops();

// Waits until so many loops and brokers have opened their endpoints, whether or not those of the
// loops could be bound.
void awaitRequestLoops(std::int32_t count);

} // namespace kelconf
