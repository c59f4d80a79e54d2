// Counting replacements of the global allocation functions, so a test or a
// benchmark can prove that a write path allocates nothing. Linked into a program,
// they also catch the shared library's allocations. Memory comes from malloc.
#include "counting_new.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<unsigned long long> allocations{0};

void* counted(std::size_t size, std::size_t align = 0) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (size == 0) size = 1;
    // aligned_alloc wants a size that is a multiple of the alignment.
    void* memory = align == 0 ? std::malloc(size) : std::aligned_alloc(align, (size + align - 1) / align * align);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void* countedOrNull(std::size_t size) noexcept {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

unsigned long long avpool::testing::allocationCount() { return allocations.load(std::memory_order_relaxed); }

void* operator new(std::size_t size) { return counted(size); }
void* operator new[](std::size_t size) { return counted(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return countedOrNull(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return countedOrNull(size); }
void* operator new(std::size_t size, std::align_val_t a) { return counted(size, static_cast<std::size_t>(a)); }
void* operator new[](std::size_t size, std::align_val_t a) { return counted(size, static_cast<std::size_t>(a)); }

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }

bool avpool::testing::allocationsAreCounted() {
    void* (*volatile allocate)(std::size_t) = &::operator new;
    unsigned long long start = allocationCount();
    ::operator delete(allocate(8));
    return allocationCount() == start + 1;
}
