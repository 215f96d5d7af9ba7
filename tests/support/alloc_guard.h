// Real-time guard: counts heap allocations made by the current thread while
// a NoAllocationScope is alive, and fails the test if there were any.
//
//   { qor::test::NoAllocationScope guard; qorXProcess(inst, ch); }
//
// or EXPECT_NO_ALLOCATION(qorXProcess(inst, ch));
#pragma once

#include <cstddef>

namespace qor::test {

// Allocations counted on this thread since counting began.
size_t allocationCount();

class NoAllocationScope {
 public:
  NoAllocationScope();
  ~NoAllocationScope();
  NoAllocationScope(const NoAllocationScope&) = delete;
  NoAllocationScope& operator=(const NoAllocationScope&) = delete;

  size_t count() const;

 private:
  size_t start_;
  bool outer_;
};

}  // namespace qor::test

#define EXPECT_NO_ALLOCATION(statement)          \
  do {                                           \
    ::qor::test::NoAllocationScope qorGuard_;    \
    statement;                                   \
  } while (0)
