#include "audio-file.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include <sndfile.hh>

namespace {

// Doubles the sampling rate; a windowed sinc gives every second sample.
std::vector<float> Upsample(const std::vector<float>& samples) {
  constexpr int kTaps = 16;  // To either side.
  const double pi = std::acos(-1.0);
  const int count = static_cast<int>(samples.size());
  std::vector<float> doubled;
  doubled.reserve(samples.size() * 2);
  for (int i = 0; i < count; ++i) {
    double between = 0;
    for (int k = std::max(1 - kTaps, -i); k <= std::min(kTaps, count - 1 - i);
         ++k) {
      const double x = pi * (k - 0.5);
      const double window = 0.5 + 0.5 * std::cos(x / kTaps);
      const int neighbour = i + k;
      between +=
          samples[static_cast<size_t>(neighbour)] * std::sin(x) / x * window;
    }
    doubled.push_back(samples[static_cast<size_t>(i)]);
    doubled.push_back(static_cast<float>(between));
  }
  return doubled;
}

}  // namespace

AudioFile ReadAudioFile(const std::string& path) {
  SndfileHandle file(path);
  const auto check = [&] {
    if (file.error() == SF_ERR_NO_ERROR) return;
    throw std::runtime_error("cannot read audio file " + path + ": " +
                             file.strError());
  };
  check();
  AudioFile audio;
  audio.path = path;
  audio.sample_rate = file.samplerate();
  if (audio.sample_rate != kSampleRate && audio.sample_rate != 8000) {
    throw std::runtime_error("audio file " + path + " has " +
                             std::to_string(audio.sample_rate) +
                             " Hz: resample it to 8000 or 16000 Hz first");
  }
  std::vector<float> frame(static_cast<size_t>(file.channels()));
  while (file.readf(frame.data(), 1) == 1) {
    float sum = 0;
    for (float sample : frame) sum += std::isfinite(sample) ? sample : 0;
    audio.samples.push_back(sum / static_cast<float>(frame.size()));
  }
  check();
  audio.duration =
      static_cast<double>(audio.samples.size()) / audio.sample_rate;
  if (audio.sample_rate == 8000) audio.samples = Upsample(audio.samples);
  return audio;
}
