// The process's ZeroMQ context.
#pragma once

namespace kelconf {

// Every bus socket is created in it. Null until initBusContext; written before the service's
// threads start and after they have ended.
extern void* context;

// Makes the context and readies libxml2 for use by several threads. False when it cannot be made.
bool initBusContext();

// Ends the brokers and whoever else waits on a socket of the context.
void shutdownBusContext();

// Waits until every socket is closed and their lingering messages are out, then frees it.
void closeBusContext();

} // namespace kelconf
