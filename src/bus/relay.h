// The relay of a broker: whole messages both ways between two sockets.
//
// A message waits at the front while the back has nobody to take it. That wait costs nothing:
// libzmq's own proxy polls the front meanwhile, where the message is ready, and spins.
#pragma once

namespace kelconf {

// Relays messages with all their parts, in their order, from `front` (ROUTER) to `back` (DEALER)
// and back until the context is shut down. A reply to a peer that has gone, or does not take what
// it is sent, is dropped, as a ROUTER does.
void relayMessages(void* front, void* back);

} // namespace kelconf
