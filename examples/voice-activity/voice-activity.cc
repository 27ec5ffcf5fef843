// Finds the speech in audio files: every file is a stream of its own, and all
// streams run at once through one model, which computes them in batches.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "audio-file.h"
#include "tarn/tarn.h"

namespace {

constexpr size_t kSamplesPerFrame = 160;
constexpr size_t kLookAhead = 20;  // Frames that the network runs ahead.
// Of the probability, and in frames: what counts as speech.
constexpr float kOnset = 0.5F;
constexpr float kOffset = 0.35F;
constexpr int kShortestSpeech = 10;
constexpr int kShortestPause = 20;
constexpr double kHop = static_cast<double>(kSamplesPerFrame) / kSampleRate;

struct Stream {
  AudioFile audio;
  std::vector<float> probabilities;  // One per frame.
  bool failed = false;
};

// The frames of a stretch of speech.
struct Segment {
  std::vector<float>::const_iterator begin;
  std::vector<float>::const_iterator end;
};

// Counts how many requests the model computes together.
class BatchCounter : public tarn::InferenceObserver {
 public:
  void OnEvent(Event event,
               const std::vector<tarn::BaseProxy*>& proxies) override {
    if (event != TAKEN) return;
    batches_ += 1;
    requests_ += static_cast<double>(proxies.size());
  }
  double Mean() const { return requests_ / batches_; }

 private:
  double batches_ = 0;  // Only the inference thread counts.
  double requests_ = 0;
};

// Makes the model and sees to it that it is one for voice activity.
std::unique_ptr<tarn::Model> LoadModel(const std::string& config,
                                       const std::string& network) {
  const tarn::ModelOptions options(config, /*scrambled=*/false);
  std::unique_ptr<tarn::Model> model(
      tarn::NewModel(options, "onnx", "cpu", network, "", ""));
  const std::unique_ptr<tarn::Proxy> proxy(model->NewProxy());
  if (proxy->GetInputName(0) != "audio" ||
      proxy->GetOutputName(0) != "probability" || proxy->GetInputNum() != 1 ||
      proxy->GetInputShape(0).size() != 1 ||
      proxy->GetInputDataType(0) != tarn::Tensor::FLOAT32 ||
      proxy->GetOutputDataType(0) != tarn::Tensor::FLOAT32) {
    throw std::runtime_error(config +
                             " does not describe a model for voice "
                             "activity: expected FLOAT32 input audio and "
                             "output probability");
  }
  return model;
}

// Sends a stream through the model chunk by chunk, with silence behind its end
// until the network has told about its last frame.
void RunStream(tarn::Proxy& proxy, Stream& stream) {
  const std::vector<int> shape = proxy.GetInputShape("audio");
  const size_t chunk = static_cast<size_t>(shape[0]);
  const size_t frames =
      (stream.audio.samples.size() + kSamplesPerFrame - 1) / kSamplesPerFrame;
  std::vector<float>& probabilities = stream.probabilities;
  stream.audio.samples.resize((frames + kLookAhead) * kSamplesPerFrame + chunk);
  for (size_t begin = 0; probabilities.size() < frames + kLookAhead;
       begin += chunk) {
    tarn::Tensor audio = proxy.CreateInput("audio", shape);
    std::copy_n(&stream.audio.samples[begin], chunk, audio.Data<float>());
    proxy.SetInput("audio", audio);
    stream.failed = !proxy.Inference();
    if (stream.failed) return;  // The log says why.
    const tarn::Tensor& output = proxy.GetOutput("probability");
    probabilities.insert(probabilities.end(), output.Data<float>(),
                         output.Data<float>() + output.GetElementNum());
  }
  probabilities.erase(probabilities.begin(),
                      probabilities.begin() + kLookAhead);
  probabilities.resize(frames);
}

// Speech begins at kOnset and lasts down to kOffset. What is too short for
// speech is left out, pauses that are too short are bridged.
std::vector<Segment> FindSegments(const std::vector<float>& probabilities) {
  std::vector<Segment> segments;
  const auto first = probabilities.begin();
  const auto last = probabilities.end();
  for (auto end = first; end != last;) {
    const auto begin =
        std::find_if(end, last, [](float p) { return p >= kOnset; });
    end = std::find_if(begin, last, [](float p) { return p < kOffset; });
    if (end - begin < kShortestSpeech) continue;
    if (!segments.empty() && begin - segments.back().end < kShortestPause) {
      segments.back().end = end;
    } else {
      segments.push_back({begin, end});
    }
  }
  return segments;
}

nlohmann::json Describe(const Stream& stream) {
  const auto first = stream.probabilities.begin();
  nlohmann::json segments = nlohmann::json::array();
  for (const Segment& segment : FindSegments(stream.probabilities)) {
    const double end = static_cast<double>(segment.end - first) * kHop;
    const double sum = std::accumulate(segment.begin, segment.end, 0.0);
    segments.push_back(
        {{"start", static_cast<double>(segment.begin - first) * kHop},
         {"end", std::min(end, stream.audio.duration)},
         {"probability",
          sum / static_cast<double>(segment.end - segment.begin)}});
  }
  return {{"path", stream.audio.path},
          {"sample_rate", stream.audio.sample_rate},
          {"duration", stream.audio.duration},
          {"hop", kHop},
          {"segments", segments},
          {"probabilities", stream.probabilities}};
}

nlohmann::json RunStreams(tarn::Model& model, std::vector<Stream>& streams) {
  BatchCounter counter;
  tarn::SetObserver(&model, &counter);
  const auto begin = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  for (Stream& stream : streams) {
    threads.emplace_back([&model, &stream] {
      const std::unique_ptr<tarn::Proxy> proxy(model.NewProxy());
      RunStream(*proxy, stream);
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::chrono::duration<double> took =
      std::chrono::steady_clock::now() - begin;
  tarn::SetObserver(&model, nullptr);
  nlohmann::json report = {{"mean_batch_size", counter.Mean()}};
  double duration = 0;
  for (const Stream& stream : streams) {
    if (stream.failed) throw std::runtime_error(stream.audio.path + ": failed");
    report["files"].push_back(Describe(stream));
    duration += stream.audio.duration;
  }
  report["real_time_factor"] = took.count() / duration;
  return report;
}

void Print(const nlohmann::json& report) {
  for (const auto& file : report["files"]) {
    std::printf("%s  %.2f s\n", file["path"].get<std::string>().c_str(),
                file["duration"].get<double>());
    for (const auto& segment : file["segments"]) {
      std::printf("  %7.2f - %7.2f s   mean probability %.3f\n",
                  segment["start"].get<double>(), segment["end"].get<double>(),
                  segment["probability"].get<double>());
    }
  }
  std::printf("real-time factor %.5f, mean batch size %.1f\n",
              report["real_time_factor"].get<double>(),
              report["mean_batch_size"].get<double>());
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // A fatal line must not get lost.
  tarn::SetLogLevel(tarn::ERROR);
  CLI::App app("Finds the speech in audio files.");
  std::string config;
  std::string network;
  std::vector<std::string> paths;
  bool json = false;
  app.add_option("config", config, "Configuration file of the model")
      ->required()
      ->check(CLI::ExistingFile);
  app.add_option("model", network, "ONNX file")
      ->required()
      ->check(CLI::ExistingFile);
  app.add_option("audio", paths, "Audio files of 8 or 16 kHz")
      ->required()
      ->check(CLI::ExistingFile);
  app.add_flag("--json", json, "Print JSON, with every frame's probability");
  CLI11_PARSE(app, argc, argv);
  try {
    std::vector<Stream> streams;
    for (const std::string& path : paths) {
      streams.push_back({ReadAudioFile(path), {}, false});
    }
    const auto model = LoadModel(config, network);
    const nlohmann::json report = RunStreams(*model, streams);
    if (json) {
      std::cout << report.dump(1) << "\n";
    } else {
      Print(report);
    }
  } catch (const std::exception& error) {
    std::cerr << "voice-activity: " << error.what() << "\n";
    return 1;
  }
  return 0;
}
