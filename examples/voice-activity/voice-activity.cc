// Finds the speech in audio files: every file is a stream of its own, and all
// streams run at once through one model, which computes them in batches. Each
// stream has its own thread, or a few threads share them.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
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

// Sends a file through the model chunk by chunk, with silence behind its end
// until the network has told about its last frame.
class Stream {
 public:
  Stream(tarn::Model& model, const AudioFile& audio)
      : proxy_(model.NewProxy()),
        shape_(proxy_->GetInputShape("audio")),
        audio_(&audio),
        frames_((audio.samples.size() + kSamplesPerFrame - 1) /
                kSamplesPerFrame) {}

  const AudioFile& audio() const { return *audio_; }
  tarn::Proxy* proxy() const { return proxy_.get(); }
  bool failed() const { return failed_; }
  bool IsOver() const {
    return failed_ || probabilities_.size() >= kLookAhead + frames_;
  }

  // Prepares the next request.
  void Fill() {
    tarn::Tensor chunk = proxy_->CreateInput("audio", shape_);
    const std::vector<float>& samples = audio_->samples;
    const size_t size = chunk.GetElementNum();
    const size_t begin = std::min(position_, samples.size());
    const size_t count = std::min(size, samples.size() - begin);
    float* const rest =
        std::copy_n(samples.data() + begin, count, chunk.Data<float>());
    std::fill_n(rest, size - count, 0.0F);
    position_ += size;
    proxy_->SetInput("audio", chunk);
  }

  // Takes its result.
  void Read() {
    failed_ = !proxy_->HasOutput("probability");
    if (failed_) return;  // The log says why.
    const tarn::Tensor& output = proxy_->GetOutput("probability");
    probabilities_.insert(probabilities_.end(), output.Data<float>(),
                          output.Data<float>() + output.GetElementNum());
  }

  // One per frame, when the stream is over.
  std::vector<float> Probabilities() const {
    const auto first = probabilities_.begin() + kLookAhead;
    return {first, first + static_cast<std::ptrdiff_t>(frames_)};
  }

 private:
  std::unique_ptr<tarn::Proxy> proxy_;
  std::vector<int> shape_;
  const AudioFile* audio_;
  size_t frames_;
  size_t position_ = 0;  // In samples.
  std::vector<float> probabilities_;
  bool failed_ = false;
};

// Runs some streams in this thread, a chunk of each at a time.
void RunTogether(std::vector<Stream*> streams) {
  while (true) {
    streams.erase(
        std::remove_if(streams.begin(), streams.end(),
                       [](const Stream* stream) { return stream->IsOver(); }),
        streams.end());
    if (streams.empty()) return;
    std::vector<tarn::Proxy*> proxies;
    for (Stream* stream : streams) {
      stream->Fill();
      proxies.push_back(stream->proxy());
    }
    tarn::Inference(proxies);
    for (Stream* stream : streams) stream->Read();
  }
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
  const AudioFile& audio = stream.audio();
  const std::vector<float> probabilities = stream.Probabilities();
  const auto first = probabilities.begin();
  nlohmann::json segments = nlohmann::json::array();
  for (const Segment& segment : FindSegments(probabilities)) {
    const double end = static_cast<double>(segment.end - first) * kHop;
    const double sum = std::accumulate(segment.begin, segment.end, 0.0);
    segments.push_back(
        {{"start", static_cast<double>(segment.begin - first) * kHop},
         {"end", std::min(end, audio.duration)},
         {"probability",
          sum / static_cast<double>(segment.end - segment.begin)}});
  }
  return {{"path", audio.path},         {"sample_rate", audio.sample_rate},
          {"duration", audio.duration}, {"hop", kHop},
          {"segments", segments},       {"probabilities", probabilities}};
}

// Lets that many threads share the streams. Returns the seconds it took.
double RunStreams(std::vector<Stream>& streams, size_t thread_num) {
  std::vector<std::vector<Stream*>> groups(
      std::min(thread_num, streams.size()));
  for (size_t i = 0; i < streams.size(); ++i) {
    groups[i % groups.size()].push_back(&streams[i]);
  }
  const auto begin = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  for (const auto& group : groups) threads.emplace_back(RunTogether, group);
  for (std::thread& thread : threads) thread.join();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin)
      .count();
}

// Runs so many streams, each of one of the files, which take turns.
nlohmann::json Run(tarn::Model& model, const std::vector<AudioFile>& files,
                   size_t stream_num, size_t thread_num) {
  BatchCounter counter;
  tarn::SetObserver(&model, &counter);
  std::vector<Stream> streams;
  for (size_t i = 0; i < stream_num; ++i) {
    streams.emplace_back(model, files[i % files.size()]);
  }
  const double seconds = RunStreams(streams, thread_num);
  tarn::SetObserver(&model, nullptr);
  nlohmann::json report = {{"mean_batch_size", counter.Mean()}};
  double duration = 0;
  for (const Stream& stream : streams) {
    const AudioFile& audio = stream.audio();
    if (stream.failed()) throw std::runtime_error(audio.path + ": failed");
    duration += audio.duration;
    const bool is_first = report["files"].size() < files.size();
    if (is_first) report["files"].push_back(Describe(stream));
  }
  report["real_time_factor"] = seconds / duration;
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
  size_t thread_num = 0;
  size_t stream_num = 0;
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
  app.add_option("--threads", thread_num,
                 "Threads that share the streams (default: one for each)")
      ->check(CLI::PositiveNumber);
  app.add_option("--streams", stream_num,
                 "Streams, which take the files in turns (default: one each)")
      ->check(CLI::PositiveNumber);
  app.add_flag("--json", json, "Print JSON, with every frame's probability");
  CLI11_PARSE(app, argc, argv);
  try {
    std::vector<AudioFile> files;
    for (const std::string& path : paths) {
      files.push_back(ReadAudioFile(path));
    }
    if (stream_num == 0) stream_num = files.size();
    if (stream_num < files.size()) {
      throw std::runtime_error("there are fewer streams than files");
    }
    if (thread_num == 0) thread_num = stream_num;
    const auto model = LoadModel(config, network);
    const nlohmann::json report = Run(*model, files, stream_num, thread_num);
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
