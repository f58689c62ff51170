#include "support/alloc_faults.h"

#include <cstddef>

namespace support::alloc {
namespace {

thread_local int countdown = 0; // allocations until the one that fails; 0: none fails
thread_local bool hasFailed = false;
thread_local bool armed = false;
thread_local long seen = 0;
thread_local long live = 0;

bool refuse() {
    if (!armed)
        return false;
    ++seen;
    if (countdown == 0 || --countdown != 0)
        return false;
    hasFailed = true;
    return true;
}

} // namespace

void arm(int failAt) {
    countdown = failAt;
    hasFailed = false;
    seen = 0;
    armed = true;
}

void disarm() { armed = false; }
bool failed() { return hasFailed; }
long allocations() { return seen; }
long liveBlocks() { return live; }

} // namespace support::alloc

using namespace support::alloc;

extern "C" {

void* __real_malloc(std::size_t);
void* __real_calloc(std::size_t, std::size_t);
void* __real_realloc(void*, std::size_t);
void __real_free(void*);

void* __wrap_malloc(std::size_t size) {
    if (refuse())
        return nullptr;
    void* block = __real_malloc(size);
    live += block != nullptr;
    return block;
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
    if (refuse())
        return nullptr;
    void* block = __real_calloc(count, size);
    live += block != nullptr;
    return block;
}

void* __wrap_realloc(void* block, std::size_t size) {
    if (refuse())
        return nullptr;
    void* grown = __real_realloc(block, size);
    live += block == nullptr && grown != nullptr;
    return grown;
}

void __wrap_free(void* block) {
    live -= block != nullptr;
    __real_free(block);
}
}
