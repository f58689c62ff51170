#include "support/alloc_faults.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

// mingw's thread-local variables are allocated at first use, through the very functions that are
// wrapped here; so on Windows the counters are the process's, and tests that use them there run no
// second thread meanwhile.
#ifdef _WIN32
#define PER_THREAD constinit
#else
#define PER_THREAD constinit thread_local
#endif

namespace support::alloc {
namespace {

PER_THREAD int countdown = 0;    // allocations until the one that fails; 0: none fails
PER_THREAD bool failsOn = false; // whether those behind it fail too
PER_THREAD bool hasFailed = false;
PER_THREAD bool armed = false;
PER_THREAD long seen = 0;
PER_THREAD long asked = 0;
PER_THREAD long live = 0;
constinit std::atomic<long> liveInProcess = 0;

// The two counts that are always kept.
void count(long blocks) {
    live += blocks;
    liveInProcess.fetch_add(blocks, std::memory_order_relaxed);
}

bool refuse(std::size_t size) {
    if (!armed) return false;
    ++seen;
    asked += static_cast<long>(size);
    if (countdown == 0) return failsOn && hasFailed;
    if (--countdown != 0) return false;
    hasFailed = true;
    return true;
}

} // namespace

void disarm() {
    armed = false;
}

void arm(int failAt) {
    countdown = failAt;
    failsOn = false;
    hasFailed = false;
    seen = asked = 0;
    armed = true;
}

void armFrom(int failFrom) {
    // a normal exit may allocate
    [[maybe_unused]] static const int registered = std::atexit(disarm);
    arm(failFrom);
    failsOn = true;
}

bool failed() {
    return hasFailed;
}
long allocations() {
    return seen;
}
long bytes() {
    return asked;
}
long liveBlocks() {
    return live;
}
long liveBlocksOfProcess() {
    return liveInProcess;
}

} // namespace support::alloc

using namespace support::alloc;

extern "C" {

void* __real_malloc(std::size_t);
void* __real_calloc(std::size_t, std::size_t);
void* __real_realloc(void*, std::size_t);
void __real_free(void*);

void* __wrap_malloc(std::size_t size) {
    if (refuse(size)) return nullptr;
    void* block = __real_malloc(size);
    count(block != nullptr);
    return block;
}

void* __wrap_calloc(std::size_t number, std::size_t size) {
    if (refuse(number * size)) return nullptr;
    void* block = __real_calloc(number, size);
    count(block != nullptr);
    return block;
}

void* __wrap_realloc(void* block, std::size_t size) {
    if (refuse(size)) return nullptr;
    void* grown = __real_realloc(block, size);
    count(block == nullptr && grown != nullptr);
    return grown;
}

void __wrap_free(void* block) {
    count(-(block != nullptr));
    __real_free(block);
}
}

#ifdef _WIN32
// The C++ library is linked statically there, so that the tests' own containers would be counted,
// and refused, with what the library under test allocates. Elsewhere they reach the allocators
// through a shared library, unwrapped.
void* operator new(std::size_t size) {
    void* block = __real_malloc(size != 0 ? size : 1);
    if (block == nullptr) std::abort();
    return block;
}
void operator delete(void* block) noexcept {
    __real_free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    __real_free(block);
}
#endif
