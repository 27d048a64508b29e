#include "container/counted_new.h"

#include <cstdlib>
#include <new>

namespace kelconf {

namespace {

int allocations = 0;
int failing_allocation = 0;

void* allocate(std::size_t size) noexcept {
    ++allocations;
    return allocations == failing_allocation ? nullptr : std::malloc(size);
}

} // namespace

void countNew(int failing) {
    allocations = 0;
    failing_allocation = failing;
}

int stopCountingNew() {
    failing_allocation = 0;
    return allocations;
}

} // namespace kelconf

// The nothrow forms are what the list uses; all forms are replaced, so that each delete fits.
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return kelconf::allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return kelconf::allocate(size);
}
void* operator new(std::size_t size) {
    void* memory = std::malloc(size);
    if (memory == nullptr) {
        std::abort();
    }
    return memory;
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
