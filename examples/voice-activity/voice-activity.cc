// Finds the speech in audio files: every file is a stream of its own, and all
// streams run at once through one model, which computes them in batches.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <sndfile.hh>

#include "tarn.h"

namespace {

constexpr int kSampleRate = 16000;  // Of the model's input.
constexpr float kThreshold = 0.5f;  // Speech from this probability on.

struct Segment {
  double start;  // In seconds.
  double end;
  double probability;  // Mean over its frames.
};

struct Stream {
  std::string path;
  int sample_rate = 0;
  double duration = 0;               // In seconds.
  std::vector<float> samples;        // At kSampleRate.
  std::vector<float> probabilities;  // One per frame.
  std::string error;                 // Empty when all went well.
};

// Counts what the model computes together.
class BatchCounter : public tarn::InferenceObserver {
 public:
  void OnEvent(Event event,
               const std::vector<tarn::BaseProxy*>& proxies) override {
    if (event != TAKEN) return;
    ++batches_;
    requests_ += proxies.size();
  }
  double MeanBatchSize() const {
    return batches_ == 0 ? 0 : static_cast<double>(requests_) / batches_;
  }

 private:
  std::atomic<int> batches_{0};
  std::atomic<size_t> requests_{0};
};

// Doubles the sampling rate: a windowed sinc fills in every second sample.
std::vector<float> Upsample(const std::vector<float>& samples) {
  constexpr int kTaps = 16;  // To either side.
  const double pi = std::acos(-1.0);
  const int count = static_cast<int>(samples.size());
  std::vector<float> doubled(samples.size() * 2);
  for (int i = 0; i < count; ++i) {
    double between = 0;
    for (int k = std::max(-i, 1 - kTaps); k <= std::min(kTaps, count - 1 - i);
         ++k) {
      const double x = pi * (k - 0.5);
      const double window = 0.5 + 0.5 * std::cos(x / kTaps);
      between += samples[i + k] * std::sin(x) / x * window;
    }
    doubled[2 * i] = samples[i];
    doubled[2 * i + 1] = static_cast<float>(between);
  }
  return doubled;
}

// Reads a file of 8 or 16 kHz in any format that libsndfile knows; channels are
// averaged.
Stream ReadAudio(const std::string& path) {
  SndfileHandle file(path);
  if (file.error() != SF_ERR_NO_ERROR) {
    throw std::runtime_error("cannot read audio file " + path + ": " +
                             file.strError());
  }
  if (file.samplerate() != kSampleRate && 2 * file.samplerate() != kSampleRate) {
    throw std::runtime_error(path + " has " + std::to_string(file.samplerate()) +
                             " Hz, expected 8000 or 16000: resample it first");
  }
  Stream stream;
  stream.path = path;
  stream.sample_rate = file.samplerate();
  std::vector<float> frame(static_cast<size_t>(file.channels()));
  while (file.readf(frame.data(), 1) == 1) {
    float sum = 0;
    for (float sample : frame) sum += std::isfinite(sample) ? sample : 0;
    stream.samples.push_back(sum / static_cast<float>(frame.size()));
  }
  stream.duration =
      static_cast<double>(stream.samples.size()) / stream.sample_rate;
  if (stream.sample_rate != kSampleRate) {
    stream.samples = Upsample(stream.samples);
  }
  return stream;
}

// Sends the stream through the model, chunk by chunk; the last chunk is filled
// up with silence.
void RunStream(tarn::Proxy& proxy, Stream& stream) {
  const std::vector<int> shape = proxy.GetInputShape("audio");
  const size_t chunk = static_cast<size_t>(shape[0]);
  for (size_t begin = 0; begin < stream.samples.size(); begin += chunk) {
    tarn::Tensor audio = proxy.CreateInput("audio", shape);
    audio.Zeros();
    std::copy_n(stream.samples.begin() + static_cast<std::ptrdiff_t>(begin),
                std::min(chunk, stream.samples.size() - begin),
                audio.Data<float>());
    proxy.SetInput("audio", audio);
    if (!proxy.Inference()) {
      stream.error = "inference failed";
      return;
    }
    const tarn::Tensor& output = proxy.GetOutput("probability");
    const float* probabilities = output.Data<float>();
    stream.probabilities.insert(stream.probabilities.end(), probabilities,
                                probabilities + output.GetElementNum());
  }
}

// Runs of frames that reach the threshold.
std::vector<Segment> FindSegments(const Stream& stream, double hop) {
  std::vector<Segment> segments;
  double sum = 0;
  bool in_speech = false;
  for (size_t i = 0; i < stream.probabilities.size(); ++i) {
    const double start = static_cast<double>(i) * hop;
    const double end = std::min(start + hop, stream.duration);
    const float probability = stream.probabilities[i];
    const bool is_speech = probability >= kThreshold && start < end;
    if (is_speech && !in_speech) {
      segments.push_back({start, end, 0});
      sum = 0;
    }
    if (is_speech) {
      sum += probability;
      Segment& segment = segments.back();
      segment.end = end;
      segment.probability = sum * hop / (i * hop + hop - segment.start);
    }
    in_speech = is_speech;
  }
  return segments;
}

}  // namespace
