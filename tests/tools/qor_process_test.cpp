// qor-process: its options, settings, presets, error paths, and that it
// gives exactly what calling the chain directly gives.
#include <gtest/gtest.h>

#include <sndfile.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "qor_process/audio_file.h"
#include "qor_process/chain_runner.h"
#include "qor_process/meter_table.h"
#include "qor_process/options.h"
#include "qor_process/parameter_fields.h"
#include "qor_process/presets.h"
#include "support/audio_buffers.h"
#include "support/signals.h"

namespace {

using namespace qor::tools;
using namespace QorCalvera2_API_V1;
namespace fs = std::filesystem;

QorCalvera2Parameters defaults() {
  QorCalvera2Parameters p{};
  EXPECT_EQ(qorCalvera2GetDefaultParameters(&p), QorCalvera2Result::Success);
  return p;
}

// Field by field: a byte comparison would also compare padding.
bool sameRecord(const QorCalvera2Parameters& a, const QorCalvera2Parameters& b) {
  for (const ParameterField& f : parameterFields()) {
    if (formatParameterField(a, f) != formatParameterField(b, f)) return false;
  }
  return true;
}

TEST(QorProcessOptions, EveryOptionIsParsed) {
  Options o;
  std::string error;
  ASSERT_TRUE(parseOptions({"--preset", "cave", "--set", "reverb.mix=0.2", "--set=delay.mix=0.1", "--block=256",
                            "--meters", "--keep-latency", "-q", "in.wav", "out.wav"},
                           o, error))
      << error;
  EXPECT_EQ(o.preset, "cave");
  EXPECT_EQ(o.settings, (std::vector<std::string>{"reverb.mix=0.2", "delay.mix=0.1"}));
  EXPECT_EQ(o.blockFrames, 256u);
  EXPECT_TRUE(o.meters);
  EXPECT_TRUE(o.keepLatency);
  EXPECT_TRUE(o.quiet);
  EXPECT_EQ(o.input, "in.wav");
  EXPECT_EQ(o.output, "out.wav");
  Options l;
  EXPECT_TRUE(parseOptions({"--list"}, l, error));
  EXPECT_TRUE(l.list);
  Options h;
  EXPECT_TRUE(parseOptions({"-h"}, h, error));
  EXPECT_TRUE(h.help);
  EXPECT_NE(usage().find("--preset"), std::string::npos);
  EXPECT_NE(usage().find("broadcast"), std::string::npos);
}

TEST(QorProcessOptions, MalformedCommandLinesAreNamed) {
  struct Case {
    std::vector<std::string> args;
    const char* mention;
  };
  for (const Case& c : {Case{{"--bogus", "a", "b"}, "--bogus"}, Case{{"--set"}, "needs a value"},
                        Case{{"--preset", "nope", "a", "b"}, "nope"}, Case{{"--block", "0", "a", "b"}, "--block"},
                        Case{{"--block", "12x", "a", "b"}, "12x"}, Case{{"--block", "9000", "a", "b"}, "9000"},
                        Case{{"a"}, "INPUT and OUTPUT"}, Case{{"a", "b", "c"}, "'c'"}}) {
    Options o;
    std::string error;
    EXPECT_FALSE(parseOptions(c.args, o, error)) << c.mention;
    EXPECT_NE(error.find(c.mention), std::string::npos) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << "one line: " << error;
  }
}

TEST(QorProcessFields, DefaultsLieInsideTheListedRangesAndRoundTrip) {
  const QorCalvera2Parameters p = defaults();
  EXPECT_GT(parameterFields().size(), 100u);
  for (const ParameterField& f : parameterFields()) {
    const double v = std::stod(formatParameterField(p, f));
    EXPECT_GE(v, f.min) << f.path;
    EXPECT_LE(v, f.max) << f.path;
    // Setting the maximum writes exactly that field.
    QorCalvera2Parameters q = p;
    std::string error;
    std::ostringstream max;
    max << f.max;
    ASSERT_TRUE(setParameterField(q, f, max.str(), error)) << f.path << ": " << error;
    EXPECT_EQ(static_cast<float>(std::stod(formatParameterField(q, f))), static_cast<float>(f.max)) << f.path;
    for (const ParameterField& other : parameterFields()) {
      if (&other != &f && other.offset != f.offset) {
        ASSERT_EQ(formatParameterField(q, other), formatParameterField(p, other)) << f.path << " touched " << other.path;
      }
    }
  }
  // The chain itself accepts every field at both ends of its listed range.
  for (const ParameterField& f : parameterFields()) {
    for (double v : {f.min, f.max}) {
      QorCalvera2Parameters q = p;
      std::string error;
      std::ostringstream text;
      text << v;
      ASSERT_TRUE(setParameterField(q, f, text.str(), error)) << error;
      QorCalvera2Config c{48000, 480, 2, 48000, 480, 2, q, 0};
      size_t size = 0;
      EXPECT_EQ(qorCalvera2GetInstanceSize(&c, &size), QorCalvera2Result::Success) << f.path << "=" << v;
    }
  }
}

TEST(QorProcessFields, SettingsAreCheckedBeforeTheyReachTheChain) {
  QorCalvera2Parameters p = defaults();
  std::string error;
  EXPECT_TRUE(applySetting(p, "reverb.mix=0.25", error));
  EXPECT_EQ(p.reverb.mix, 0.25f);
  EXPECT_TRUE(applySetting(p, "vocalChanger.voice1Type = 7", error));
  EXPECT_EQ(p.vocalChanger.voice1Type, 7);
  EXPECT_TRUE(applySetting(p, "reverb.enable=on", error));
  EXPECT_EQ(p.reverb.enable, 1);
  EXPECT_TRUE(applySetting(p, "delay.enable=false", error));
  EXPECT_EQ(p.delay.enable, 0);
  EXPECT_TRUE(applySetting(p, "outputGain=-3.5", error));
  EXPECT_EQ(p.outputGain, -3.5f);

  struct Bad {
    const char* setting;
    const char* mention;
  };
  for (const Bad& b : {Bad{"reverb.mixx=1", "unknown field 'reverb.mixx'"}, Bad{"reverb.mix", "FIELD=VALUE"},
                       Bad{"reverb.mix=loud", "not a number"}, Bad{"reverb.mix=1.5", "out of range 0 .. 1"},
                       Bad{"vocalChanger.voice1Type=2.5", "whole number"}, Bad{"reverb.enable=2", "not a flag"},
                       Bad{"outputGain=nan", "not a number"}, Bad{"highPassFilter.order=3", "out of range"}}) {
    QorCalvera2Parameters q = p;
    EXPECT_FALSE(applySetting(q, b.setting, error)) << b.setting;
    EXPECT_NE(error.find(b.mention), std::string::npos) << error;
    EXPECT_TRUE(sameRecord(q, p)) << "a refused setting changes nothing";
  }
}

TEST(QorProcessPresets, EveryPresetIsAValidChainRecord) {
  for (const Preset& preset : presets()) {
    QorCalvera2Parameters p{};
    std::string error;
    ASSERT_TRUE(presetParameters(preset, p, error)) << error;
    QorCalvera2Config c{48000, 480, 2, 48000, 480, 2, p, 0};
    size_t size = 0;
    EXPECT_EQ(qorCalvera2GetInstanceSize(&c, &size), QorCalvera2Result::Success) << preset.name;
  }
  QorCalvera2Parameters d{};
  std::string error;
  ASSERT_TRUE(presetParameters(*findPreset("defaults"), d, error));
  const QorCalvera2Parameters chain = defaults();
  EXPECT_TRUE(sameRecord(d, chain));
  EXPECT_EQ(findPreset("nope"), nullptr);
}

// Runs the chain the plain way: host blocks of 10 ms, latency removed.
std::vector<std::vector<float>> direct(const QorCalvera2Parameters& p, const std::vector<float>& x, uint32_t rate) {
  const uint32_t block = rate / 100;
  QorCalvera2Config c{rate, block, 1, rate, block, 2, p, 1};
  size_t size = 0;
  EXPECT_EQ(qorCalvera2GetInstanceSize(&c, &size), QorCalvera2Result::Success);
  qor::test::InstanceMemory mem(size);
  auto* inst = mem.as<QorCalvera2Inst>();
  EXPECT_EQ(qorCalvera2Init(inst, &c), QorCalvera2Result::Success);
  int latency = 0;
  qorCalvera2GetCurrentLatency(inst, &latency);
  qor::test::ChannelBuffers io(2, block);
  std::vector<std::vector<float>> out(2);
  for (size_t start = 0; start < x.size() + latency; start += block) {
    for (uint32_t i = 0; i < block; ++i) {
      io[0][i] = start + i < x.size() ? x[start + i] : 0.0f;
      io[1][i] = 0.0f;
    }
    EXPECT_EQ(qorCalvera2Process(inst, io.data()), QorCalvera2Result::Success);
    io.appendTo(out);
  }
  for (auto& ch : out) {
    ch.erase(ch.begin(), ch.begin() + latency);
    ch.resize(x.size());
  }
  qorCalvera2Release(inst);
  return out;
}

TEST(QorProcessRun, OutputEqualsCallingTheChainDirectly) {
  for (uint32_t rate : {48000u, 44100u}) {
    AudioData in;
    in.rate = rate;
    in.channels = {qor::test::whiteNoise(rate * 2 + 123, 3, 0.3)};
    QorCalvera2Parameters p{};
    std::string error;
    ASSERT_TRUE(presetParameters(*findPreset("broadcast"), p, error));
    RunResult r;
    double lastProgress = 0.0;
    RunSettings s;
    s.progress = [&](double d) {
      EXPECT_GE(d, lastProgress);
      lastProgress = d;
    };
    ASSERT_TRUE(runChain(p, in, s, r, error)) << error;
    EXPECT_EQ(lastProgress, 1.0);
    const auto expected = direct(p, in.channels[0], rate);
    ASSERT_EQ(r.output.channels.size(), 2u);
    ASSERT_EQ(r.output.frames(), in.frames());
    for (uint32_t c = 0; c < 2; ++c) {
      for (size_t i = 0; i < in.frames(); ++i) ASSERT_EQ(r.output.channels[c][i], expected[c][i]) << rate << " " << i;
    }
    ASSERT_EQ(r.meters.size(), 31u);
    const std::string table = formatMeterTable(r.meters);
    EXPECT_NE(table.find("input_metering"), std::string::npos);
    EXPECT_NE(table.find("hard_limiter_gain_metering"), std::string::npos);
    EXPECT_NE(table.find("output_metering"), std::string::npos);
  }
}

// ---- the program itself ----

class QorProcessProgram : public ::testing::Test {
 protected:
  void SetUp() override {
    dir = fs::temp_directory_path() / ("qor-process-test-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
                                       "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir);
    fs::create_directories(dir);
    AudioData a;
    a.rate = 48000;
    a.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    a.channels = {qor::test::sine(440.0, 48000.0, 24000, 0.3)};
    std::string error;
    ASSERT_TRUE(writeAudioFile((dir / "in.wav").string(), a, a.format, error)) << error;
  }
  void TearDown() override { fs::remove_all(dir); }

  // Exit code, with stdout and stderr captured.
  int run(const std::string& args) {
    const std::string cmd = std::string(QOR_PROCESS_PATH) + " " + args + " >" + (dir / "stdout").string() + " 2>" +
                            (dir / "stderr").string();
    const int status = std::system(cmd.c_str());
    out = slurp(dir / "stdout");
    err = slurp(dir / "stderr");
    return WEXITSTATUS(status);
  }
  static std::string slurp(const fs::path& p) {
    std::ifstream f(p);
    return std::string(std::istreambuf_iterator<char>(f), {});
  }
  std::string path(const char* name) const { return (dir / name).string(); }

  fs::path dir;
  std::string out, err;
};

TEST_F(QorProcessProgram, ProcessesAFileAndPrintsTheMeters) {
  ASSERT_EQ(run("--preset robot --set ringModulator.frequency=90 --meters " + path("in.wav") + " " + path("out.wav")), 0)
      << err;
  AudioData result;
  std::string error;
  ASSERT_TRUE(readAudioFile(path("out.wav"), result, error)) << error;
  EXPECT_EQ(result.channels.size(), 2u);
  EXPECT_EQ(result.frames(), 24000u);
  EXPECT_EQ(result.rate, 48000u);
  EXPECT_GT(qor::test::rms(result.channels[0]), 0.01);
  EXPECT_NE(out.find("output_metering"), std::string::npos);
  EXPECT_TRUE(err.empty()) << "no progress bar off a terminal: " << err;
}

TEST_F(QorProcessProgram, ListsFieldsAndHelps) {
  ASSERT_EQ(run("--list"), 0);
  EXPECT_NE(out.find("reverb.mix"), std::string::npos);
  EXPECT_NE(out.find("vocalChanger.voice1Type"), std::string::npos);
  EXPECT_NE(out.find("0 .. 14"), std::string::npos);
  ASSERT_EQ(run("--help"), 0);
  EXPECT_NE(out.find("usage: qor-process"), std::string::npos);
}

TEST_F(QorProcessProgram, ErrorsAreOneLineAndLeaveNoOutput) {
  struct Case {
    std::string args;
    const char* mention;
  };
  std::ofstream(path("text.wav")) << "not audio";
  for (const Case& c : {Case{"--set reverb.mix=7 IN OUT", "reverb.mix"}, Case{"--set nothing=1 IN OUT", "nothing"},
                        Case{"MISSING OUT", "missing.wav"}, Case{"TEXT OUT", "text.wav"},
                        Case{"IN " + path("out.xyz"), "extension"}, Case{"--preset x IN OUT", "'x'"},
                        Case{"IN " + path("no/such/dir/out.wav"), "out.wav"}}) {
    std::string args = c.args;
    auto replace = [&](const std::string& from, const std::string& to) {
      for (size_t at; (at = args.find(from)) != std::string::npos;) args.replace(at, from.size(), to);
    };
    replace("MISSING", path("missing.wav"));
    replace("TEXT", path("text.wav"));
    replace("IN", path("in.wav"));
    replace("OUT", path("out.wav"));
    EXPECT_NE(run(args), 0) << args;
    EXPECT_NE(err.find(c.mention), std::string::npos) << args << " -> " << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    EXPECT_FALSE(fs::exists(path("out.wav"))) << "no partial output for " << args;
    for (const auto& entry : fs::directory_iterator(dir)) {
      EXPECT_EQ(entry.path().filename().string().find(".partial"), std::string::npos) << entry.path();
    }
  }
  // A sample rate the chain cannot take.
  AudioData slow;
  slow.rate = 16000;
  slow.channels = {std::vector<float>(1600, 0.0f)};
  std::string error;
  ASSERT_TRUE(writeAudioFile(path("slow.wav"), slow, SF_FORMAT_PCM_16, error));
  EXPECT_NE(run(path("slow.wav") + " " + path("out.wav")), 0);
  EXPECT_NE(err.find("16000 Hz"), std::string::npos) << err;
  EXPECT_FALSE(fs::exists(path("out.wav")));
}

}  // namespace
