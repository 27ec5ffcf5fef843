#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/temp-file.h"
#include "tarn.h"

namespace tarn {
namespace {

const std::string kConfig = TARN_VOICE_ACTIVITY_DIR "/voice-activity.conf";
const std::string kNetwork = TARN_VOICE_ACTIVITY ".onnx";

struct Outcome {
  int status;
  std::string text;
};

// What a shell command prints on both its streams, and how it ends.
Outcome RunCommand(const std::string& command) {
  Outcome outcome;
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe)) {
    outcome.text += static_cast<char>(c);
  }
  outcome.status = WEXITSTATUS(pclose(pipe));
  return outcome;
}

std::string VoiceActivity(const std::string& arguments) {
  return TARN_EMULATOR " " TARN_VOICE_ACTIVITY " " + arguments;
}

// Writes what is found in the clips to the file.
void FindSpeech(const std::string& options, const TempFile& result) {
  const std::string clips = " " TARN_VOICE_ACTIVITY_DIR "/clips/*";
  const Outcome outcome =
      RunCommand(VoiceActivity(options + " --json " + kConfig + " " + kNetwork +
                               clips + " >" + result.path()));
  ASSERT_EQ(outcome.status, 0) << outcome.text;
}

Outcome RunTool(const std::string& command) {
  return RunCommand(TARN_PYTHON " " TARN_TOOLS "/" + command);
}

TEST(VoiceActivityTest, FindsTheSpeechInTheClips) {
  const TempFile result("");
  FindSpeech("", result);
  const Outcome score =
      RunTool("score-voice-activity.py --at-least 0.9 " + result.path() +
              " " TARN_VOICE_ACTIVITY_DIR "/truth.json");
  EXPECT_EQ(score.status, 0) << score.text;
  const TempFile shared_threads("");
  FindSpeech("--threads 2 --streams 30", shared_threads);
  const Outcome difference =
      RunTool("compare-voice-activity.py " + result.path() + " " +
              shared_threads.path());
  EXPECT_EQ(difference.status, 0) << difference.text;
}

TEST(VoiceActivityTest, SaysWhatIsWrongWithItsInput) {
  const std::string clip =
      TARN_VOICE_ACTIVITY_DIR "/clips/german-clean-8k.flac";
  const TempFile text("no audio, no network");
  const std::string add = TARN_TEST_MODELS "/accumulator-single";
  const struct {
    std::string arguments;
    std::string sentence;
  } kCases[] = {
      {kConfig + " " + kNetwork + " /missing.wav",
       "File does not exist: /missing.wav"},
      {"--streams 1 " + kConfig + " " + kNetwork + " " + clip + " " + clip,
       "there are fewer streams than files"},
      {"/missing.conf " + kNetwork + " " + clip,
       "File does not exist: /missing.conf"},
      {kConfig + " " + kNetwork + " " + text.path(),
       "cannot read audio file " + text.path()},
      {kConfig + " " + text.path() + " " + clip, "voice-activity: "},
      {kConfig + " " + add + ".onnx " + clip, "is mismatched."},
      {add + ".conf " + add + ".onnx " + clip,
       "does not describe a model for voice activity"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.arguments);
    const Outcome outcome = RunCommand(VoiceActivity(c.arguments));
    EXPECT_NE(outcome.status, 0);
    EXPECT_THAT(outcome.text, testing::HasSubstr(c.sentence));
  }
}

// Noise that a tone comes and goes in, another one for every stream.
std::vector<float> Signal(unsigned int seed, size_t size) {
  std::minstd_rand random(seed + 1);
  std::normal_distribution<float> noise(0, 0.01F);
  std::vector<float> samples(size);
  for (size_t i = 0; i < size; ++i) {
    const float time = static_cast<float>(i) / 16000;
    const float tone =
        std::sin(6.28F * (150 + 5 * static_cast<float>(seed)) * time);
    const bool is_on = std::sin(4 * time + static_cast<float>(seed)) > 0;
    samples[i] = noise(random) + (is_on ? 0.3F * tone : 0);
  }
  return samples;
}

std::vector<float> Probabilities(Model& model,
                                 const std::vector<float>& audio) {
  const std::unique_ptr<Proxy> stream(model.NewProxy());
  const std::vector<int> shape = stream->GetInputShape("audio");
  const size_t chunk = static_cast<size_t>(shape[0]);
  std::vector<float> probabilities;
  for (size_t begin = 0; begin + chunk <= audio.size(); begin += chunk) {
    Tensor input = stream->CreateInput("audio", shape);
    std::copy_n(&audio[begin], chunk, input.Data<float>());
    stream->SetInput("audio", input);
    if (!stream->Inference()) return {};
    const Tensor& output = stream->GetOutput("probability");
    probabilities.insert(probabilities.end(), output.Data<float>(),
                         output.Data<float>() + output.GetElementNum());
  }
  return probabilities;
}

class BatchSizes : public InferenceObserver {
 public:
  void OnEvent(Event event, const std::vector<BaseProxy*>& proxies) override {
    if (event == TAKEN && proxies.size() > largest) largest = proxies.size();
  }
  std::atomic<size_t> largest{0};
};

// How far apart the engine's results are in batches of different sizes.
#ifdef __aarch64__
constexpr float kRounding = 1e-6F;
#else
constexpr float kRounding = 0;
#endif

TEST(VoiceActivityTest, GivesEachOf64BatchedStreamsWhatItGetsAlone) {
  constexpr size_t kStreams = 64;
  constexpr size_t kSamples = 48000;
  ModelOptions options(kConfig, /*scrambled=*/false);
  const auto new_model = [&options] {
    return std::unique_ptr<Model>(
        NewModel(options, "onnx", "cpu", kNetwork, "", ""));
  };
  const std::unique_ptr<Model> batched = new_model();
  BatchSizes sizes;
  SetObserver(batched.get(), &sizes);
  std::vector<std::vector<float>> together(kStreams);
  std::vector<std::thread> threads;
  for (unsigned int i = 0; i < kStreams; ++i) {
    threads.emplace_back(
        [&, i] { together[i] = Probabilities(*batched, Signal(i, kSamples)); });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_GT(sizes.largest, 1U);
  options.infer_interval = 0;  // One stream at a time has nobody to wait for.
  const std::unique_ptr<Model> alone = new_model();
  for (unsigned int i = 0; i < kStreams; ++i) {
    EXPECT_THAT(together[i],
                testing::Pointwise(testing::FloatNear(kRounding),
                                   Probabilities(*alone, Signal(i, kSamples))))
        << i;
    EXPECT_EQ(together[i].size(), kSamples / 160);
  }
}

}  // namespace
}  // namespace tarn
