#ifndef EXAMPLES_VOICE_ACTIVITY_AUDIO_FILE_H_
#define EXAMPLES_VOICE_ACTIVITY_AUDIO_FILE_H_

#include <string>
#include <vector>

constexpr int kSampleRate = 16000;

struct AudioFile {
  std::string path;
  int sample_rate = 0;         // Of the file.
  double duration = 0;         // In seconds.
  std::vector<float> samples;  // At kSampleRate, in -1..1.
};

// Reads a file of 8 or 16 kHz in any format that libsndfile knows; channels are
// averaged. Throws std::runtime_error with a sentence for any other file.
AudioFile ReadAudioFile(const std::string& path);

#endif  // EXAMPLES_VOICE_ACTIVITY_AUDIO_FILE_H_
