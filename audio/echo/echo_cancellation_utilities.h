#pragma once
// Stateless helpers on mono float signals for echo cancellation: the bulk
// delay between a microphone and the system's output, shifting a signal by a
// delay, and reading and writing mono audio files for the pass after the
// recording.
//
// A delay is a signed sample count: positive when the reference's content
// shows up that much later in the microphone, negative when the microphone leads.
#include <cstddef>
#include <filesystem>
#include <vector>

namespace ov::EchoCancellationUtilities {

// The lag of the largest |cross-correlation| within ±200 ms (both ends
// included), ties going to the positive side; 0 without an FFT plan. Inputs
// longer than blockwiseThresholdSeconds go through the block-wise form, whose
// memory does not grow with the length.
int findBulkDelay(const std::vector<float>& mic, const std::vector<float>& reference, double sampleRate);

inline constexpr double blockwiseThresholdSeconds = 10.0;

// The two forms, for tests and benchmarks: one FFT over both signals whole,
// and an exact correlation over the same lags in blocks of 2^16 samples.
int findBulkDelayWholeFFT(const std::vector<float>& mic, const std::vector<float>& reference, double sampleRate);
int findBulkDelayBlockwise(const std::vector<float>& mic, const std::vector<float>& reference, double sampleRate);

// `targetLength` samples of `signal` moved `delay` samples later (earlier when
// negative), silence where it has nothing.
std::vector<float> applyDelay(const std::vector<float>& signal, long delay, size_t targetLength);

// The file's first audio stream decoded and mixed to mono float at the rate.
// Throws the decoder's errors (PlatformError, domain "Orvane.FFmpeg") or OVError.
std::vector<float> readAudioFileAsMono(const std::filesystem::path& url, double targetSampleRate);

// An M4A file of mono AAC at the rate, written as fast as the encoder goes.
// Throws OVError or the writer's error.
void writeMonoAudioFile(const std::vector<float>& samples, const std::filesystem::path& url, double sampleRate);

}  // namespace ov::EchoCancellationUtilities
