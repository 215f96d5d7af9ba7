// qor-process: runs audio files through the voice chain.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "qor_process/audio_file.h"
#include "qor_process/chain_runner.h"
#include "qor_process/meter_table.h"
#include "qor_process/options.h"
#include "qor_process/parameter_fields.h"
#include "qor_process/presets.h"

using namespace qor::tools;

namespace {

int fail(const std::string& message) {
  std::fprintf(stderr, "qor-process: %s\n", message.c_str());
  return 2;
}

void printFieldList() {
  QorCalvera2_API_V1::QorCalvera2Parameters defaults{};
  QorCalvera2_API_V1::qorCalvera2GetDefaultParameters(&defaults);
  std::printf("%-46s %-7s %9s  %-18s %s\n", "field", "type", "default", "valid range", "meaning");
  for (const ParameterField& f : parameterFields()) {
    char range[48];
    std::snprintf(range, sizeof range, "%g .. %g", f.min, f.max);
    std::printf("%-46s %-7s %9s  %-18s %s\n", f.path, typeName(f.type), formatParameterField(defaults, f).c_str(),
                range, f.meaning);
  }
}

// A bar on a terminal only; redrawn when the percentage changes.
class ProgressBar {
 public:
  explicit ProgressBar(bool show) : show_(show) {}
  void operator()(double done) {
    if (!show_) return;
    const int percent = static_cast<int>(done * 100.0);
    if (percent == last_) return;
    last_ = percent;
    const int filled = percent * 40 / 100;
    std::fprintf(stderr, "\r[%s%s] %3d%%", std::string(filled, '#').c_str(), std::string(40 - filled, ' ').c_str(),
                 percent);
    if (percent == 100) std::fprintf(stderr, "\n");
    std::fflush(stderr);
  }

 private:
  bool show_;
  int last_ = -1;
};

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::string error;
  if (!parseOptions(std::vector<std::string>(argv + 1, argv + argc), options, error)) return fail(error);
  if (options.help) {
    std::fputs(usage().c_str(), stdout);
    return 0;
  }
  if (options.list) {
    printFieldList();
    return 0;
  }

  QorCalvera2_API_V1::QorCalvera2Parameters parameters{};
  if (!presetParameters(*findPreset(options.preset), parameters, error)) return fail(error);
  for (const std::string& setting : options.settings) {
    if (!applySetting(parameters, setting, error)) return fail(error);
  }

  AudioData input;
  if (!readAudioFile(options.input, input, error)) return fail(error);

  RunSettings settings;
  settings.blockFrames = options.blockFrames;
  settings.compensateLatency = !options.keepLatency;
  // Worth a bar only where a person waits: a terminal and more than a few seconds of audio.
  ProgressBar bar(!options.quiet && isatty(fileno(stderr)) && input.frames() > 10u * input.rate);
  settings.progress = [&bar](double done) { bar(done); };

  RunResult result;
  if (!runChain(parameters, input, settings, result, error)) return fail(error);
  if (!writeAudioFile(options.output, result.output, input.format, error)) return fail(error);

  if (options.meters) std::fputs(formatMeterTable(result.meters).c_str(), stdout);
  return 0;
}
