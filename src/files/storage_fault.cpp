#include "files/storage_fault.h"

#include <atomic>
#include <cerrno>

namespace kelconf {

namespace {
std::atomic<bool> fault_noted{false};
} // namespace

bool isStorageError(int error) noexcept {
    switch (error) {
    case EIO:
    case ENOMEM:
    case EMFILE:
    case ENFILE:
    case EBADMSG: // a checksum of the file system, or of the flash below it
    case EUCLEAN: // damage that the file system has found
    case ENODEV:
    case ESTALE:
        return true;
    default:
        return false;
    }
}

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
