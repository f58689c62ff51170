// Aligned blocks from malloc: the address that malloc gave stands right before the block.
#include "context/vsqmem.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace vsq {
namespace {

constexpr std::size_t reserve = sizeof(void*) + blockAlignment; // 36 bytes on 32-bit builds

// The first boundary that leaves a pointer's room in front of it.
char* firstBoundary(char* raw) {
    const auto address = reinterpret_cast<std::uintptr_t>(raw);
    const std::uintptr_t boundary = (address + reserve - 1) & ~(std::uintptr_t{blockAlignment} - 1);
    return raw + (boundary - address);
}

} // namespace

void* allocAligned(std::ptrdiff_t count, std::size_t elementSize) {
    constexpr std::size_t largest = PTRDIFF_MAX;
    if (count < 0 ||
        (elementSize != 0 && static_cast<std::size_t>(count) > (largest - reserve) / elementSize))
        return nullptr;
    char* raw =
        static_cast<char*>(std::malloc(static_cast<std::size_t>(count) * elementSize + reserve));
    if (raw == nullptr) return nullptr;
    char* block = firstBoundary(raw);
    std::memcpy(block - sizeof raw, &raw, sizeof raw);
    return block;
}

void freeAligned(void* block) {
    if (block == nullptr) return;
    void* raw;
    std::memcpy(&raw, static_cast<char*>(block) - sizeof raw, sizeof raw);
    std::free(raw);
}

} // namespace vsq
