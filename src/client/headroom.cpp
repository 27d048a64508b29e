#include "client/headroom.h"

#include "base/fd.h"

#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstddef>
#include <vector>

namespace kelconf {

namespace {

// Each socket has a descriptor to wake it; a connection is a socket of requests, both ends of the
// pair that hears of it, and the connection itself. A context has two threads, each with a
// descriptor to wake it and one to wait at, and a descriptor of its own.
constexpr std::size_t kConnectionDescriptors = 4;
constexpr std::size_t kContextDescriptors = 5;
constexpr std::size_t kConnectionMemory = 512UL * 1024; // bytes; queues and buffers take half of it
constexpr std::size_t kContextMemory = 1024UL * 1024;   // bytes, the table of sockets among them

bool descriptors(std::size_t count) {
    std::vector<Fd> taken;
    taken.reserve(count);
    while (taken.size() < count) {
        taken.emplace_back(::open("/", O_PATH | O_CLOEXEC));
        if (!taken.back()) {
            return false;
        }
    }
    return true;
}

bool memory(std::size_t bytes) {
    void* room = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return room != MAP_FAILED && munmap(room, bytes) == 0;
}

void* waitForEnd(void* end) {
    while (sem_wait(static_cast<sem_t*>(end)) != 0) {
    }
    return nullptr;
}

// Runs `body` while `count` more threads exist.
template <typename Body>
bool besideThreads(unsigned count, Body body) {
    if (count == 0) {
        return body();
    }
    sem_t end;
    sem_init(&end, 0, 0);
    pthread_t thread{};
    const int error = pthread_create(&thread, nullptr, waitForEnd, &end);
    const bool all = error == 0 && besideThreads(count - 1, body);
    if (error == 0) {
        sem_post(&end);
        pthread_join(thread, nullptr);
    } else {
        errno = error;
    }
    sem_destroy(&end);
    return all;
}

} // namespace

bool roomForContext() {
    return besideThreads(2, [] {
        return memory(kContextMemory) && descriptors(kContextDescriptors + kConnectionDescriptors);
    });
}

bool roomForConnection() {
    return memory(kConnectionMemory) && descriptors(kConnectionDescriptors);
}

} // namespace kelconf
