#include "files/storage_fault.h"

#include <atomic>

namespace kelconf {

namespace {
std::atomic<bool> fault_noted{false};
} // namespace

void noteStorageFault() noexcept {
    fault_noted.store(true, std::memory_order_relaxed);
}

bool storageFaultNoted() noexcept {
    return fault_noted.load(std::memory_order_relaxed);
}

void clearStorageFault() noexcept {
    fault_noted.store(false, std::memory_order_relaxed);
}

} // namespace kelconf
