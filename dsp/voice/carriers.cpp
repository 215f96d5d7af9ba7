// Places the generated carrier file in read-only data, one symbol per array.
// The arrays follow each other in the file, each padded to 8 floats, so each
// starts 32-byte aligned.
#include "dsp/voice/carriers.h"

#ifndef QOR_CARRIER_FILE
#error "QOR_CARRIER_FILE must name the generated carrier file"
#endif

#if defined(_WIN32)
#define QOR_CARRIER_SECTION ".section .rdata,\"dr\"\n"
#define QOR_CARRIER_SYMBOL(name) ".globl " name "\n.balign 32\n" name ":\n"
#define QOR_CARRIER_END(name)
#else
#define QOR_CARRIER_SECTION ".section .rodata\n"
#define QOR_CARRIER_SYMBOL(name) \
  ".globl " name "\n.hidden " name "\n.type " name ", @object\n.balign 32\n" name ":\n"
#define QOR_CARRIER_END(name) ".size " name ", . - " name "\n"
#endif

#define QOR_STR2(x) #x
#define QOR_STR(x) QOR_STR2(x)

// One carrier: `offset` and `bytes` are byte counts into the file.
#define QOR_CARRIER(name, offset, bytes)                                               \
  QOR_CARRIER_SYMBOL(name) ".incbin \"" QOR_CARRIER_FILE "\", " QOR_STR(offset) ", " \
      QOR_STR(bytes) "\n" QOR_CARRIER_END(name)

namespace {
constexpr uint32_t paddedBytes(uint32_t n) { return (n + 7) / 8 * 32; }
// The offsets below are literal because the assembler needs them so.
static_assert(paddedBytes(qor::kCarrierToneLength) == 176416);
static_assert(176416 + paddedBytes(qor::kCarrier7Length) == 387136);
static_assert(387136 + paddedBytes(qor::kCarrier8Length) == 2279328);
static_assert(2279328 + paddedBytes(qor::kCarrier9Length) == 3584032);
static_assert(3584032 + paddedBytes(qor::kCarrier10Length) == 5446336);
static_assert(5446336 + paddedBytes(qor::kCarrier11Length) == 7285376);
static_assert(qor::kCarrier7Length * 4 == 210692 && qor::kCarrier8Length * 4 == 1892188 &&
              qor::kCarrier9Length * 4 == 1304680 && qor::kCarrier10Length * 4 == 1862284 &&
              qor::kCarrier11Length * 4 == 1839020 && qor::kCarrier12Length * 4 == 1308596);
}  // namespace

asm(QOR_CARRIER_SECTION
    QOR_CARRIER("qorCarrierTone", 0, 176400)
    QOR_CARRIER("qorCarrier7", 176416, 210692)
    QOR_CARRIER("qorCarrier8", 387136, 1892188)
    QOR_CARRIER("qorCarrier9", 2279328, 1304680)
    QOR_CARRIER("qorCarrier10", 3584032, 1862284)
    QOR_CARRIER("qorCarrier11", 5446336, 1839020)
    QOR_CARRIER("qorCarrier12", 7285376, 1308596)
    ".text\n");
