// The vocal changer's built-in carrier signals: constant mono arrays at full
// scale, looped by the carrier processor. The data is synthesised at build
// time (tools/carrier_gen) and embedded read-only in the library.
#pragma once

#include <cstdint>

extern "C" {
extern const float qorCarrierTone[];
extern const float qorCarrier7[];
extern const float qorCarrier8[];
extern const float qorCarrier9[];
extern const float qorCarrier10[];
extern const float qorCarrier11[];
extern const float qorCarrier12[];
}

namespace qor {

struct CarrierData {
  const float* samples;  // null: no carrier (white noise is used instead)
  uint32_t length;
};

constexpr uint32_t kCarrierToneLength = 44100;  // periodic, 65 cycles
constexpr uint32_t kCarrier7Length = 52673;     // metallic ring
constexpr uint32_t kCarrier8Length = 473047;    // buzzy chord
constexpr uint32_t kCarrier9Length = 326170;    // machine hum
constexpr uint32_t kCarrier10Length = 465571;   // vowel drone
constexpr uint32_t kCarrier11Length = 459755;   // low growl
constexpr uint32_t kCarrier12Length = 327149;   // bright buzz

inline const CarrierData CarrierTone{qorCarrierTone, kCarrierToneLength};
inline const CarrierData Carrier7{qorCarrier7, kCarrier7Length};
inline const CarrierData Carrier8{qorCarrier8, kCarrier8Length};
inline const CarrierData Carrier9{qorCarrier9, kCarrier9Length};
inline const CarrierData Carrier10{qorCarrier10, kCarrier10Length};
inline const CarrierData Carrier11{qorCarrier11, kCarrier11Length};
inline const CarrierData Carrier12{qorCarrier12, kCarrier12Length};

}  // namespace qor
