#include "TestSupport/AllocationCount.hpp"

#include <cstdlib>
#include <new>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define STILLOW_HAS_ALLOCATION_HOOKS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define STILLOW_HAS_ALLOCATION_HOOKS 1
#endif
#endif
#ifndef STILLOW_HAS_ALLOCATION_HOOKS
#define STILLOW_HAS_ALLOCATION_HOOKS 0
#endif

#if STILLOW_HAS_ALLOCATION_HOOKS
// Not every compiler ships the sanitizer's header that has this.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void*,
                                                                  std::size_t),
                                                         void (*)(const volatile void*));
#endif

namespace {

thread_local std::size_t allocations = 0;
thread_local std::size_t allocatedBytes = 0;

void count(std::size_t size) noexcept {
  ++allocations;
  allocatedBytes += size;
}

#if STILLOW_HAS_ALLOCATION_HOOKS

// A sanitizer has an operator new of its own and tells whoever asks. It counts malloc as well.
const int installed = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, std::size_t size) { count(size); }, [](const volatile void*) {});

#else

constexpr std::size_t plain = __STDCPP_DEFAULT_NEW_ALIGNMENT__;

void* allocateOrNull(std::size_t size, std::size_t alignment) noexcept {
  count(size);
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

#endif

}  // namespace

std::size_t stillow::test::allocationsOfThisThread() noexcept { return allocations; }
std::size_t stillow::test::allocatedBytesOfThisThread() noexcept { return allocatedBytes; }

#if !STILLOW_HAS_ALLOCATION_HOOKS

// All forms, so that what one of them gave is not freed by another library's.
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

#endif
