#pragma once
// A private PulseAudio server for one test: its own runtime directory, a null
// sink, and a microphone ("testmic") fed from a pipe that the test writes PCM
// into. PULSE_SERVER points the process at it while it lives; the daemon is
// killed and reaped when it goes.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_directory.h"

namespace ov::testing {

class PulseDaemon {
public:
    static constexpr const char* microphone = "testmic";
    static constexpr const char* microphoneDescription = "TestMicrophone";

    // rate and channels of the pipe microphone (float32le samples).
    explicit PulseDaemon(int rate = 48000, int channels = 1) : rate_(rate), channels_(channels) {
        std::filesystem::create_directories(dir_ / "run");
        std::ofstream(dir_ / "default.pa")
            << "load-module module-native-protocol-unix socket=" << socket().string() << " auth-anonymous=1\n"
            << "load-module module-null-sink sink_name=testsink\n"
            << "load-module module-pipe-source source_name=" << microphone << " file=" << fifo().string()
            << " format=float32le rate=" << rate << " channels=" << channels
            << " source_properties=device.description=" << microphoneDescription << "\n";
        pid_ = ::fork();
        if (pid_ == 0) {
            const std::string home = dir_.path().string(), run = (dir_ / "run").string();
            ::setenv("HOME", home.c_str(), 1);
            ::setenv("XDG_RUNTIME_DIR", run.c_str(), 1);
            ::setenv("PULSE_RUNTIME_PATH", run.c_str(), 1);
            ::setenv("PULSE_STATE_PATH", (home + "/state").c_str(), 1);
            const int null = ::open("/dev/null", O_RDWR);
            ::dup2(null, 0), ::dup2(null, 1), ::dup2(null, 2);
            const std::string script = (dir_ / "default.pa").string();
            ::execlp("pulseaudio", "pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--disable-shm=yes",
                     "--use-pid-file=no", "--system=no", "-F", script.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        const std::string server = "unix:" + socket().string();
        ::setenv("PULSE_SERVER", server.c_str(), 1);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!std::filesystem::exists(socket()) || !std::filesystem::exists(fifo())) {
            if (std::chrono::steady_clock::now() > deadline) {
                stop();
                throw std::runtime_error("the private PulseAudio daemon did not start");
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    ~PulseDaemon() { stop(); }
    PulseDaemon(const PulseDaemon&) = delete;
    PulseDaemon& operator=(const PulseDaemon&) = delete;

    std::filesystem::path socket() const { return dir_ / "run" / "native"; }
    std::filesystem::path fifo() const { return dir_ / "mic.fifo"; }
    int rate() const { return rate_; }
    int channels() const { return channels_; }

    // Runs pactl against this server; its exit status.
    int pactl(const std::string& arguments) const {
        return std::system(("PULSE_SERVER=unix:" + socket().string() + " pactl " + arguments + " >/dev/null 2>&1").c_str());
    }

    // Stops and resumes the daemon's process: a server that doesn't answer.
    void freeze() const { ::kill(pid_, SIGSTOP); }
    void thaw() const { ::kill(pid_, SIGCONT); }

    void stop() {
        if (pid_ > 0) {
            ::kill(pid_, SIGCONT);
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
        ::unsetenv("PULSE_SERVER");
    }

private:
    TempDirectory dir_;
    int rate_, channels_;
    pid_t pid_ = -1;
};

// Writes a sine tone into the daemon's pipe microphone in real time (10 ms
// writes paced on the monotonic clock) until stopped. stall() keeps the pipe
// open but writes nothing, which the pipe source answers with no samples at
// all: a source that stops delivering.
class PipeFeeder {
public:
    PipeFeeder(const PulseDaemon& daemon, double frequency = 440, double level = 0.3)
        : ignoreBrokenPipe_((::signal(SIGPIPE, SIG_IGN), true)),
          thread_([this, fifo = daemon.fifo(), rate = daemon.rate(), channels = daemon.channels(), frequency, level] {
              const int fd = ::open(fifo.c_str(), O_WRONLY);
              // A source nobody records from stops reading: never block on it.
              ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
              std::vector<float> chunk(size_t(rate / 100) * size_t(channels));
              int64_t n = 0;
              const auto begin = std::chrono::steady_clock::now();
              for (int64_t k = 0; running_; ++k) {
                  std::this_thread::sleep_until(begin + std::chrono::milliseconds(10 * k));
                  if (stalled_) continue;
                  for (size_t i = 0; i < chunk.size(); i += size_t(channels), ++n)
                      for (int c = 0; c < channels; ++c)
                          chunk[i + size_t(c)] = float(level * std::sin(2 * M_PI * frequency * double(n) / rate));
                  if (::write(fd, chunk.data(), chunk.size() * sizeof(float)) < 0 && errno != EAGAIN) break;
              }
              ::close(fd);
          }) {}
    ~PipeFeeder() { stop(); }
    void stall() { stalled_ = true; }
    void stop() {
        running_ = false;
        if (thread_.joinable()) thread_.join();
    }

private:
    bool ignoreBrokenPipe_;  // a killed daemon must not take the test with it
    std::atomic<bool> running_{true};
    std::atomic<bool> stalled_{false};
    std::thread thread_;
};

}  // namespace ov::testing
