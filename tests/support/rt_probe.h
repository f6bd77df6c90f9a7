#pragma once
// Real-time probe for tests: counts heap allocations and system mutex locks, on every thread, while a
// probe scope is open. It replaces operator new/delete, malloc and friends, and pthread_mutex_lock in the
// test executable. Sanitizer builds bring their own allocator and interceptors, so there the probe is
// unavailable and tests that rely on it skip.

#include <cstdint>

namespace rtprobe {

bool available();

// Counts while alive. Only one scope at a time.
class Scope {
public:
    Scope();
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

    // Allocations (new, malloc, calloc, realloc, aligned forms) made by any thread since the scope opened.
    int64_t allocations() const;
    // Allocations made by the thread that opened the scope.
    int64_t threadAllocations() const;
    // pthread_mutex_lock/trylock calls on any mutex whose address is not `allowed`, on any thread.
    int64_t locksOtherThan(const void* allowed) const;
    // All pthread_mutex_lock/trylock calls.
    int64_t locks() const;
};

}  // namespace rtprobe
