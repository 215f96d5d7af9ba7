#include "qor_process/audio_file.h"

#include <sndfile.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <unistd.h>

namespace qor::tools {

namespace {

int containerFor(const std::string& path) {
  std::string ext = std::filesystem::path(path).extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
  if (ext == ".wav") return SF_FORMAT_WAV;
  if (ext == ".flac") return SF_FORMAT_FLAC;
  if (ext == ".aif" || ext == ".aiff") return SF_FORMAT_AIFF;
  if (ext == ".caf") return SF_FORMAT_CAF;
  if (ext == ".ogg") return SF_FORMAT_OGG;
  return 0;
}

}  // namespace

bool readAudioFile(const std::string& path, AudioData& audio, std::string& error) {
  SF_INFO info{};
  SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
  if (f == nullptr) {
    error = "cannot read '" + path + "': " + sf_strerror(nullptr);
    return false;
  }
  if (info.channels < 1 || info.channels > 2) {
    sf_close(f);
    error = "'" + path + "' has " + std::to_string(info.channels) + " channels; mono or stereo only";
    return false;
  }
  std::vector<float> interleaved(static_cast<size_t>(info.frames) * info.channels);
  const sf_count_t got = sf_readf_float(f, interleaved.data(), info.frames);
  sf_close(f);
  if (got != info.frames) {
    error = "'" + path + "' ends early (read " + std::to_string(got) + " of " + std::to_string(info.frames) +
            " frames)";
    return false;
  }
  audio.rate = static_cast<uint32_t>(info.samplerate);
  audio.format = info.format;
  audio.channels.assign(info.channels, std::vector<float>(static_cast<size_t>(info.frames)));
  for (sf_count_t i = 0; i < info.frames; ++i) {
    for (int c = 0; c < info.channels; ++c) audio.channels[c][i] = interleaved[i * info.channels + c];
  }
  return true;
}

bool writeAudioFile(const std::string& path, const AudioData& audio, int sourceFormat, std::string& error) {
  const int container = containerFor(path);
  if (container == 0) {
    error = "cannot tell the format of '" + path + "' from its extension (use .wav, .flac, .aiff, .caf or .ogg)";
    return false;
  }
  SF_INFO info{};
  info.samplerate = static_cast<int>(audio.rate);
  info.channels = static_cast<int>(audio.channels.size());
  info.format = container | (sourceFormat & SF_FORMAT_SUBMASK);
  if (!sf_format_check(&info)) info.format = container | SF_FORMAT_PCM_24;
  if (!sf_format_check(&info)) info.format = container | SF_FORMAT_VORBIS;
  if (!sf_format_check(&info)) {
    error = "cannot write " + std::to_string(info.channels) + "-channel audio at " + std::to_string(audio.rate) +
            " Hz to '" + path + "'";
    return false;
  }

  const std::filesystem::path target(path);
  // A hidden sibling, renamed into place only when complete.
  std::filesystem::path temporaryPath = target;
  std::string hidden(1, '.');
  hidden += target.filename().string();
  temporaryPath.replace_filename(hidden);
  temporaryPath += ".partial-" + std::to_string(getpid());
  const std::string temporary = temporaryPath.string();
  SNDFILE* f = sf_open(temporary.c_str(), SFM_WRITE, &info);
  if (f == nullptr) {
    error = "cannot write '" + path + "': " + sf_strerror(nullptr);
    return false;
  }
  sf_command(f, SFC_SET_CLIPPING, nullptr, SF_TRUE);
  const size_t frames = audio.frames();
  std::vector<float> interleaved(frames * audio.channels.size());
  for (size_t i = 0; i < frames; ++i) {
    for (size_t c = 0; c < audio.channels.size(); ++c) interleaved[i * audio.channels.size() + c] = audio.channels[c][i];
  }
  const sf_count_t written = sf_writef_float(f, interleaved.data(), static_cast<sf_count_t>(frames));
  const int closed = sf_close(f);
  std::error_code ec;
  if (written != static_cast<sf_count_t>(frames) || closed != 0) {
    std::filesystem::remove(temporary, ec);
    error = "writing '" + path + "' failed";
    return false;
  }
  std::filesystem::rename(temporary, target, ec);
  if (ec) {
    std::filesystem::remove(temporary, ec);
    error = "cannot move the result into '" + path + "'";
    return false;
  }
  return true;
}

}  // namespace qor::tools
