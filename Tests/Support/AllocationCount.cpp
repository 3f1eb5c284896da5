#include "TestSupport/AllocationCount.hpp"

#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t allocations = 0;
thread_local std::size_t allocatedBytes = 0;

void* allocate(std::size_t size, std::size_t alignment) {
  ++allocations;
  allocatedBytes += size;
  if (size == 0) size = 1;
  void* const memory =
      alignment <= __STDCPP_DEFAULT_NEW_ALIGNMENT__
          ? std::malloc(size)
          : std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

std::size_t stillow::test::allocationsOfThisThread() noexcept { return allocations; }
std::size_t stillow::test::allocatedBytesOfThisThread() noexcept { return allocatedBytes; }

// All forms, because sanitizers bring their own, which would not meet with these.
void* operator new(std::size_t size) { return allocate(size, 1); }
void* operator new(std::size_t size, std::align_val_t alignment) {
  return allocate(size, static_cast<std::size_t>(alignment));
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }
void* operator new[](std::size_t size) { return allocate(size, 1); }
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return allocate(size, static_cast<std::size_t>(alignment));
}
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }
