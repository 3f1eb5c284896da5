#include "TestSupport/AllocationCount.hpp"

#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t allocations = 0;
thread_local std::size_t allocatedBytes = 0;

constexpr std::size_t plain = __STDCPP_DEFAULT_NEW_ALIGNMENT__;

void* allocateOrNull(std::size_t size, std::size_t alignment) noexcept {
  ++allocations;
  allocatedBytes += size;
  if (size == 0) size = 1;
  if (alignment <= plain) return std::malloc(size);
  return std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
}

void* allocate(std::size_t size, std::size_t alignment) {
  void* const memory = allocateOrNull(size, alignment);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

constexpr std::size_t value(std::align_val_t alignment) {
  return static_cast<std::size_t>(alignment);
}

}  // namespace

std::size_t stillow::test::allocationsOfThisThread() noexcept { return allocations; }
std::size_t stillow::test::allocatedBytesOfThisThread() noexcept { return allocatedBytes; }

// All forms, because sanitizers bring their own, which would not meet with these.
void* operator new(std::size_t size) { return allocate(size, plain); }
void* operator new[](std::size_t size) { return allocate(size, plain); }
void* operator new(std::size_t size, std::align_val_t a) { return allocate(size, value(a)); }
void* operator new[](std::size_t size, std::align_val_t a) { return allocate(size, value(a)); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocateOrNull(size, plain);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return allocateOrNull(size, plain);
}
void* operator new(std::size_t size, std::align_val_t a, const std::nothrow_t&) noexcept {
  return allocateOrNull(size, value(a));
}
void* operator new[](std::size_t size, std::align_val_t a, const std::nothrow_t&) noexcept {
  return allocateOrNull(size, value(a));
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
  std::free(memory);
}
