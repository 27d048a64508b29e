// The three locks of the configuration service.
//
// Plain mutexes, ready before any thread runs and never destroyed. Not recursive: an operation
// never takes a lock that its caller may hold.
//
//   get-all lock    request handling: the reading loops hold it from parsing to clearing, the
//                   SET loop while a request is applied
//   parameter lock  the values of ParamList, and a write-back pass as a whole
//   event lock      the publisher's socket and the building of event documents
//
// Nesting, outermost first: get-all lock, parameter lock, backup_mutex (files/backup.h), event
// lock. Nothing else is locked while the event lock is held. file_mutex (service/item_queue.h)
// is never held together with another lock.
//
// Each operation gives the result of the pthread call, 0 on success. The thread that took a
// lock releases it.
#pragma once

#include <cstdint>

namespace kelconf {

std::int32_t enterCriticalSection(); // parameter lock
std::int32_t leaveCriticalSection();
std::int32_t enterGetAllCriticalSection();
std::int32_t leaveGetAllCriticalSection();
std::int32_t enterEventCriticalSection();
std::int32_t leaveEventCriticalSection();

// Holds the lock that Enter takes until the end of the block.
template <std::int32_t (*Enter)(), std::int32_t (*Leave)()>
class [[nodiscard]] Section {
  public:
    Section() { Enter(); }
    ~Section() { Leave(); }
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;
    Section(Section&&) = delete;
    Section& operator=(Section&&) = delete;
};

using CriticalSection = Section<enterCriticalSection, leaveCriticalSection>;
using GetAllCriticalSection = Section<enterGetAllCriticalSection, leaveGetAllCriticalSection>;

} // namespace kelconf
