// The probe replaces the allocator and pthread_mutex_lock/trylock of the test executable. The
// replacements forward to the C library and count a call only while a scope is open; when no scope is
// open their cost is one relaxed load.

#include "support/rt_probe.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <new>
#include <pthread.h>
#include <time.h>

namespace rtprobe {

namespace {

std::atomic<bool> scopeOpen{false};
// Read by every replacement; set last when a scope opens, cleared first when it closes.
std::atomic<bool> armed{false};
std::atomic<pthread_t> owner{};
std::atomic<int64_t> allocationCount{0};
std::atomic<int64_t> ownerAllocationCount{0};
std::atomic<int64_t> lockCount{0};

// Locks per mutex address. The allowed address is only named when the test asks, so every address
// gets its own count; the table is fixed because the replacements must not allocate. A lock that finds
// the table full is in lockCount only, and so counts as "other": the probe may report a lock too many,
// never one too few.
struct LockSlot {
    std::atomic<const void*> mutex{nullptr};
    std::atomic<int64_t> count{0};
};
constexpr int lockSlotCount = 64;
constinit LockSlot lockSlots[lockSlotCount];

int64_t locksOn(const void* mutex) {
    if (mutex == nullptr) return 0;
    for (const LockSlot& slot : lockSlots) {
        if (slot.mutex.load(std::memory_order_relaxed) == mutex)
            return slot.count.load(std::memory_order_relaxed);
    }
    return 0;
}

}  // namespace

#ifdef VANTRELL_RTPROBE_DISABLED
bool available() {
    return false;
}
#else
bool available() {
    return true;
}
#endif

Scope::Scope() {
    if (scopeOpen.exchange(true)) {
        std::fputs("rtprobe: only one scope may be open at a time\n", stderr);
        std::abort();
    }
    allocationCount.store(0);
    ownerAllocationCount.store(0);
    lockCount.store(0);
    for (LockSlot& slot : lockSlots) {
        slot.mutex.store(nullptr);
        slot.count.store(0);
    }
    owner.store(pthread_self());
    armed.store(true);
}

Scope::~Scope() {
    armed.store(false);
    scopeOpen.store(false);
}

int64_t Scope::allocations() const {
    return allocationCount.load(std::memory_order_relaxed);
}

int64_t Scope::threadAllocations() const {
    return ownerAllocationCount.load(std::memory_order_relaxed);
}

int64_t Scope::locksOtherThan(const void* allowed) const {
    return locks() - locksOn(allowed);
}

int64_t Scope::locks() const {
    return lockCount.load(std::memory_order_relaxed);
}

}  // namespace rtprobe

#ifndef VANTRELL_RTPROBE_DISABLED

// glibc's own allocator under its internal names: forwarding there needs no symbol lookup, so an
// allocation made while dlsym runs cannot recurse into the probe.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace rtprobe {

namespace {

void countAllocation() {
    if (!armed.load(std::memory_order_relaxed)) return;
    allocationCount.fetch_add(1, std::memory_order_relaxed);
    if (pthread_equal(pthread_self(), owner.load(std::memory_order_relaxed))) {
        ownerAllocationCount.fetch_add(1, std::memory_order_relaxed);
    }
}

void countLock(const void* mutex) {
    if (!armed.load(std::memory_order_relaxed)) return;
    lockCount.fetch_add(1, std::memory_order_relaxed);
    for (LockSlot& slot : lockSlots) {
        const void* holder = nullptr;
        if (slot.mutex.compare_exchange_strong(holder, mutex, std::memory_order_relaxed) || holder == mutex) {
            slot.count.fetch_add(1, std::memory_order_relaxed);
            return;
        }
    }
}

constexpr bool isPowerOfTwo(std::size_t value) {
    return value != 0 && (value & (value - 1)) == 0;
}

void* allocate(std::size_t size, std::size_t alignment) {
    countAllocation();
    for (;;) {
        void* block =
            alignment > alignof(std::max_align_t) ? __libc_memalign(alignment, size) : __libc_malloc(size);
        if (block) return block;
        const std::new_handler handler = std::get_new_handler();
        if (!handler) throw std::bad_alloc();
        handler();
    }
}

void* allocateOrNull(std::size_t size, std::size_t alignment) noexcept {
    try {
        return allocate(size, alignment);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

constexpr std::size_t plain = alignof(std::max_align_t);

using LockFunction = int (*)(pthread_mutex_t*);
constinit std::atomic<LockFunction> realLock{nullptr};
constinit std::atomic<LockFunction> realTrylock{nullptr};
constinit std::atomic<bool> resolving{false};

// Used while dlsym runs, should it lock a mutex through the public name itself, and if the lookup
// fails. pthread_mutex_timedlock is not replaced and locks any kind of mutex the same way.
int bootstrapLock(pthread_mutex_t* mutex) {
    for (;;) {
        timespec until{};
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_sec += 3600;
        const int result = pthread_mutex_timedlock(mutex, &until);
        if (result != ETIMEDOUT) return result;
    }
}

// A deadline in the past: the mutex is taken when it is free, and never waited for.
int bootstrapTrylock(pthread_mutex_t* mutex) {
    constexpr timespec past{};
    const int result = pthread_mutex_timedlock(mutex, &past);
    return result == ETIMEDOUT ? EBUSY : result;
}

LockFunction resolve(std::atomic<LockFunction>& slot, const char* name, LockFunction bootstrap) {
    if (const LockFunction known = slot.load(std::memory_order_acquire)) return known;
    if (resolving.exchange(true, std::memory_order_acquire)) return bootstrap;
    const auto found = reinterpret_cast<LockFunction>(dlsym(RTLD_NEXT, name));
    const LockFunction chosen = found ? found : bootstrap;
    slot.store(chosen, std::memory_order_release);
    resolving.store(false, std::memory_order_release);
    return chosen;
}

LockFunction lockFunction() {
    return resolve(realLock, "pthread_mutex_lock", &bootstrapLock);
}
LockFunction trylockFunction() {
    return resolve(realTrylock, "pthread_mutex_trylock", &bootstrapTrylock);
}

// Before main, while the process has one thread, so that no test pays for the lookup.
[[gnu::constructor]] void resolveEarly() {
    lockFunction();
    trylockFunction();
}

}  // namespace

}  // namespace rtprobe

using rtprobe::allocate;
using rtprobe::allocateOrNull;
using rtprobe::plain;

void* operator new(std::size_t size) {
    return allocate(size, plain);
}
void* operator new[](std::size_t size) {
    return allocate(size, plain);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocateOrNull(size, plain);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocateOrNull(size, plain);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return allocateOrNull(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return allocateOrNull(size, static_cast<std::size_t>(alignment));
}

void operator delete(void* block) noexcept {
    __libc_free(block);
}
void operator delete[](void* block) noexcept {
    __libc_free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    __libc_free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    __libc_free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    __libc_free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    __libc_free(block);
}
void operator delete(void* block, std::align_val_t) noexcept {
    __libc_free(block);
}
void operator delete[](void* block, std::align_val_t) noexcept {
    __libc_free(block);
}
void operator delete(void* block, std::size_t, std::align_val_t) noexcept {
    __libc_free(block);
}
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept {
    __libc_free(block);
}
void operator delete(void* block, std::align_val_t, const std::nothrow_t&) noexcept {
    __libc_free(block);
}
void operator delete[](void* block, std::align_val_t, const std::nothrow_t&) noexcept {
    __libc_free(block);
}

extern "C" {

void* malloc(std::size_t size) noexcept {
    rtprobe::countAllocation();
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    rtprobe::countAllocation();
    return __libc_calloc(count, size);
}

// realloc to size 0 frees the block; it is no allocation.
void* realloc(void* block, std::size_t size) noexcept {
    if (size != 0) rtprobe::countAllocation();
    return __libc_realloc(block, size);
}

void free(void* block) noexcept {
    __libc_free(block);
}

void* memalign(std::size_t alignment, std::size_t size) noexcept {
    rtprobe::countAllocation();
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    if (!rtprobe::isPowerOfTwo(alignment)) {
        errno = EINVAL;
        return nullptr;
    }
    rtprobe::countAllocation();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** result, std::size_t alignment, std::size_t size) noexcept {
    if (!rtprobe::isPowerOfTwo(alignment) || alignment % sizeof(void*) != 0) return EINVAL;
    rtprobe::countAllocation();
    void* block = __libc_memalign(alignment, size);
    if (!block) return ENOMEM;
    *result = block;
    return 0;
}

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    rtprobe::countLock(mutex);
    return rtprobe::lockFunction()(mutex);
}

int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
    rtprobe::countLock(mutex);
    return rtprobe::trylockFunction()(mutex);
}

}  // extern "C"

#endif  // VANTRELL_RTPROBE_DISABLED
