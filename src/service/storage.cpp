#include "service/storage.h"

namespace kelconf {

namespace {
Storage connected{}; // set once, before the threads
} // namespace

void useStorage(const Storage& storage) {
    connected = storage;
}

const Storage& storage() {
    return connected;
}

} // namespace kelconf
