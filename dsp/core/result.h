// Result codes shared by every effect family.
//
// Each family declares its own `QorXResult` enumeration (underlying type
// int32_t) whose first enumerators are QOR_COMMON_RESULTS, so the same failure
// has the same value in every family. A failed parameter check i returns
// -1005000 - i; families name those they document.
#pragma once

#include <cstdint>

#define QOR_COMMON_RESULTS                                                      \
  Success = 0,                                                                  \
  ErrorMisaligned = -1001000,           /* instance or channel not 32-byte aligned */ \
  ErrorMisalignedReserved1 = -1001001,  /* never raised */                      \
  ErrorMisalignedReserved2 = -1001002,  /* never raised */                      \
  ErrorNotZeroed = -1001003,            /* chain: instance block not zero-filled */ \
  ErrorNotInitialised = -1002000,                                               \
  ErrorAlreadyInitialised = -1002001,                                           \
  ErrorProcessing = -1002002,           /* processing failure or unknown error */ \
  ErrorReserved = -1002003,             /* never raised */                      \
  ErrorInstanceSizeMismatch = -1002004, /* chain: Init used another size */     \
  ErrorNullPointer = -1003000,                                                  \
  ErrorSampleRate = -1003001,                                                   \
  ErrorBlockSize = -1003002,                                                    \
  ErrorInputChannels = -1003003,                                                \
  ErrorOutputChannels = -1003004,                                               \
  ErrorMeteringDisabled = -1003005,                                             \
  ErrorOutOfRange = -1003006,           /* level meter parameter; chain metering off */ \
  ErrorFamily0 = -1004000,              /* reserved family codes */             \
  ErrorFamily1 = -1004001,                                                      \
  ErrorFamily2 = -1004002,                                                      \
  ErrorParameter = -1005000             /* first parameter check; check i is -1005000 - i */

namespace qor {

// The same codes as plain integers for the implementation.
enum Code : int32_t { QOR_COMMON_RESULTS };

// Code of the i-th parameter check (counted from 0 in validation order).
constexpr int32_t parameterError(int32_t i) { return ErrorParameter - i; }

}  // namespace qor
