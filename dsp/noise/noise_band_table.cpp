#include "dsp/noise/noise_band_table.h"

namespace qor {

namespace {

// Band centres in bins: 700 (10^(((k + 1) melMax / 33) / 2595) - 1) 1024 / 44100
// with melMax = 2595 log10(1 + 22050 / 700), evaluated in double. Kept as
// literals so that the table is built at compile time.
constexpr double kCentres[NoiseBandTable::kBands] = {
    1.8083734696352147, 3.817941783174601,  6.051089346214306,  8.532690994046233,
    11.290389070271683, 14.354901332447852, 17.76036311450131,  21.54470755722557,
    25.750088142217006, 30.423348235817727, 35.61654287327416,  41.38751859521966,
    47.80055779522854,  54.92709475577326,  62.84651134844579,  71.64702126167913,
    81.42665260530326,  92.29433983708293,  104.37113717411005, 117.79156700513497,
    132.70511832368342, 149.27791187287443, 167.69455054984107, 188.16017568124803,
    210.9027520745784,  236.17560729817583, 264.2602534748613,  295.46952302083434,
    330.15105325858366, 368.6911587186011,  411.5191342631335,  459.11203696408535,
};

constexpr int32_t ceilOf(double x) {
  const auto i = static_cast<int32_t>(x);
  return static_cast<double>(i) < x ? i + 1 : i;
}

constexpr NoiseBandTable buildTable() {
  NoiseBandTable t{};
  constexpr int32_t last = NoiseBandTable::kBands - 1;
  for (int32_t k = 0; k <= last; ++k) {
    t.first[k] = k == 0 ? 0 : ceilOf(kCentres[k - 1]);
    t.last[k] = k == last ? 511 : static_cast<int32_t>(kCentres[k + 1]);  // floor: positive
    for (int32_t j = t.first[k]; j <= t.last[k]; ++j) {
      const double x = j;
      double w;
      if (x <= kCentres[k]) {
        // The lowest band is flat below its centre.
        w = k == 0 ? 1.0 : (x - kCentres[k - 1]) / (kCentres[k] - kCentres[k - 1]);
      } else {
        // The highest band is flat from its centre up.
        w = k == last ? 1.0 : (kCentres[k + 1] - x) / (kCentres[k + 1] - kCentres[k]);
      }
      t.weights[k][j - t.first[k]] = static_cast<float>(w);
    }
  }
  return t;
}

constexpr NoiseBandTable kTable = buildTable();

static_assert(kTable.first[31] == 412 && kTable.last[30] == 459);
static_assert(kTable.last[31] - kTable.first[31] + 1 <= NoiseBandTable::kMaxWeights);

}  // namespace

const NoiseBandTable& noiseBandTable() { return kTable; }

}  // namespace qor
