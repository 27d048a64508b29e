#include "bus/service_locks.h"

#include <pthread.h>

namespace kelconf {

namespace {

pthread_mutex_t parameter_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t get_all_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t event_lock = PTHREAD_MUTEX_INITIALIZER;

} // namespace

std::int32_t enterCriticalSection() {
    return pthread_mutex_lock(&parameter_lock);
}

std::int32_t leaveCriticalSection() {
    return pthread_mutex_unlock(&parameter_lock);
}

std::int32_t enterGetAllCriticalSection() {
    return pthread_mutex_lock(&get_all_lock);
}

std::int32_t leaveGetAllCriticalSection() {
    return pthread_mutex_unlock(&get_all_lock);
}

std::int32_t enterEventCriticalSection() {
    return pthread_mutex_lock(&event_lock);
}

std::int32_t leaveEventCriticalSection() {
    return pthread_mutex_unlock(&event_lock);
}

} // namespace kelconf
