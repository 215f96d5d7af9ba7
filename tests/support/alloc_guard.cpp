#include "support/alloc_guard.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

// Where the C allocator is interposed below, it does the counting for new too.
#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__)
#define QOR_COUNT_C_ALLOCATIONS 1
#else
#define QOR_COUNT_C_ALLOCATIONS 0
#endif

namespace {

thread_local bool t_counting = false;
thread_local size_t t_count = 0;

void note() {
  if (t_counting) ++t_count;
}

void noteNew() {
  if (!QOR_COUNT_C_ALLOCATIONS) note();
}

void* allocate(size_t n) {
  noteNew();
  if (void* p = std::malloc(n == 0 ? 1 : n)) return p;
  throw std::bad_alloc();
}

void* allocateAligned(size_t n, std::align_val_t a) {
  note();
  const size_t align = static_cast<size_t>(a);
  const size_t rounded = (n + align - 1) / align * align;
#ifdef _WIN32
  if (void* p = _aligned_malloc(rounded == 0 ? align : rounded, align)) return p;
#else
  if (void* p = std::aligned_alloc(align, rounded == 0 ? align : rounded)) return p;
#endif
  throw std::bad_alloc();
}

void releaseAligned(void* p) {
#ifdef _WIN32
  _aligned_free(p);
#else
  std::free(p);
#endif
}

}  // namespace

// Every form of global new goes through the counter.
void* operator new(size_t n) { return allocate(n); }
void* operator new[](size_t n) { return allocate(n); }
void* operator new(size_t n, const std::nothrow_t&) noexcept {
  noteNew();
  return std::malloc(n == 0 ? 1 : n);
}
void* operator new[](size_t n, const std::nothrow_t&) noexcept {
  noteNew();
  return std::malloc(n == 0 ? 1 : n);
}
void* operator new(size_t n, std::align_val_t a) { return allocateAligned(n, a); }
void* operator new[](size_t n, std::align_val_t a) { return allocateAligned(n, a); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { releaseAligned(p); }
void operator delete[](void* p, std::align_val_t) noexcept { releaseAligned(p); }
void operator delete(void* p, size_t, std::align_val_t) noexcept { releaseAligned(p); }
void operator delete[](void* p, size_t, std::align_val_t) noexcept { releaseAligned(p); }

// C allocations too, where the C library lets a program interpose them and no
// sanitizer has already done so.
#if QOR_COUNT_C_ALLOCATIONS
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* malloc(size_t n) {
  note();
  return __libc_malloc(n);
}
void* calloc(size_t n, size_t m) {
  note();
  return __libc_calloc(n, m);
}
void* realloc(void* p, size_t n) {
  note();
  return __libc_realloc(p, n);
}
}
#endif

namespace qor::test {

size_t allocationCount() { return t_count; }

NoAllocationScope::NoAllocationScope() : start_(t_count), outer_(!t_counting) {
  t_counting = true;
}

NoAllocationScope::~NoAllocationScope() {
  const size_t made = count();
  if (outer_) t_counting = false;
  if (made != 0) ADD_FAILURE() << made << " heap allocation(s) on the audio path";
}

size_t NoAllocationScope::count() const { return t_count - start_; }

}  // namespace qor::test
