// For what stands between a program and its libraries: functions of the same name, in the program
// itself or in a library that is preloaded.
#pragma once

#include <dlfcn.h>
#include <sys/types.h>

// The library's own function of this name, looked up once.
#define REAL(name)                                                                                 \
    ([] {                                                                                          \
        static const auto real = reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name));     \
        return real;                                                                               \
    }())

// The names with "64" are the same functions: off_t has 64 bits.
static_assert(sizeof(off_t) == 8);
#define SAME_AS(name) __attribute__((alias(name)))
