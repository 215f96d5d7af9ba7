#include "qor_process/options.h"

#include <cerrno>
#include <cstdlib>

#include "qor_process/presets.h"

namespace qor::tools {

namespace {

bool takeValue(const std::vector<std::string>& args, size_t& i, const std::string& name, std::string& value,
               std::string& error) {
  const std::string& arg = args[i];
  const std::string prefix = name + "=";
  if (arg.rfind(prefix, 0) == 0) {
    value = arg.substr(prefix.size());
    return true;
  }
  if (i + 1 >= args.size()) {
    error = name + " needs a value";
    return false;
  }
  value = args[++i];
  return true;
}

bool isOption(const std::string& arg, const std::string& name) {
  return arg == name || arg.rfind(name + "=", 0) == 0;
}

}  // namespace

bool parseOptions(const std::vector<std::string>& args, Options& options, std::string& error) {
  std::vector<std::string> files;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    std::string value;
    if (arg == "-h" || arg == "--help") {
      options.help = true;
    } else if (arg == "--list") {
      options.list = true;
    } else if (arg == "--meters") {
      options.meters = true;
    } else if (arg == "--keep-latency") {
      options.keepLatency = true;
    } else if (arg == "-q" || arg == "--quiet") {
      options.quiet = true;
    } else if (isOption(arg, "--set")) {
      if (!takeValue(args, i, "--set", value, error)) return false;
      options.settings.push_back(value);
    } else if (isOption(arg, "--preset")) {
      if (!takeValue(args, i, "--preset", value, error)) return false;
      if (findPreset(value) == nullptr) {
        error = "unknown preset '" + value + "' (see qor-process --help)";
        return false;
      }
      options.preset = value;
    } else if (isOption(arg, "--block")) {
      if (!takeValue(args, i, "--block", value, error)) return false;
      char* end = nullptr;
      errno = 0;
      const long n = std::strtol(value.c_str(), &end, 10);
      if (value.empty() || *end != '\0' || errno != 0 || n < 1 || n > 8092) {
        error = "--block: '" + value + "' is not a block size of 1 .. 8092 frames";
        return false;
      }
      options.blockFrames = static_cast<uint32_t>(n);
    } else if (arg.size() > 1 && arg[0] == '-') {
      error = "unknown option '" + arg + "' (see qor-process --help)";
      return false;
    } else {
      files.push_back(arg);
    }
  }
  if (options.help || options.list) return true;
  if (files.size() != 2) {
    error = files.size() < 2 ? "expected INPUT and OUTPUT files (see qor-process --help)"
                             : "too many file arguments: '" + files[2] + "'";
    return false;
  }
  options.input = files[0];
  options.output = files[1];
  return true;
}

std::string usage() {
  std::string u =
      "usage: qor-process [options] INPUT OUTPUT\n"
      "\n"
      "Runs an audio file through the Calvera 2 voice chain the way the microphone\n"
      "capture path does, and writes the stereo result. INPUT is mono or stereo at\n"
      "22050 .. 192000 Hz; OUTPUT's extension picks its format (wav, flac, aiff, caf, ogg).\n"
      "The output lines up with the input: the chain's latency is removed.\n"
      "\n"
      "options:\n"
      "  --preset NAME       start from a named set of settings (default: defaults)\n"
      "  --set FIELD=VALUE   set one field of the chain's parameters, e.g.\n"
      "                      --set reverb.enable=1 --set reverb.mix=0.3 (repeatable)\n"
      "  --list              print every field with its type, default and valid range\n"
      "  --meters            print the chain's 31 meters at the end\n"
      "  --block N           host block of N frames (default: 10 ms)\n"
      "  --keep-latency      keep the chain's latency at the start of the output\n"
      "  -q, --quiet         no progress bar\n"
      "  -h, --help          this text\n"
      "\n"
      "presets:\n";
  for (const Preset& p : presets()) u += "  " + std::string(p.name) + std::string(12 - std::string(p.name).size(), ' ') + p.description + "\n";
  return u;
}

}  // namespace qor::tools
