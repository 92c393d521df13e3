#pragma once
// A child process with pipes on its standard input, output and error, read with
// time-outs, as a host talks to orvane-rpc. Killed and reaped on destruction.

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace ov::testing {

class ChildProcess {
public:
    using Duration = std::chrono::milliseconds;

    // Starts `path args...` with extra environment entries.
    ChildProcess(const std::string& path, const std::vector<std::string>& args = {},
                 const std::map<std::string, std::string>& env = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }

    void write(const std::string& bytes);
    void writeLine(const std::string& line) { write(line + "\n"); }
    void writeJSON(const nlohmann::json& message) { writeLine(message.dump()); }
    void closeStdin();

    // The next line of standard output, or none when the time-out passes or the
    // output ends.
    std::optional<std::string> readLine(Duration timeout = Duration(10000));
    std::optional<nlohmann::json> readJSON(Duration timeout = Duration(10000));
    // Everything that arrives on standard output until the time-out.
    std::vector<std::string> readLinesFor(Duration window);

    // Standard error so far (drained without blocking).
    std::string stderrText();

    bool running();
    // Waits for the exit; the exit status, or none on time-out.
    std::optional<int> waitForExit(Duration timeout = Duration(10000));
    void kill(int signal = 9);

private:
    void drainStderr();
    pid_t pid_ = -1;
    int stdin_ = -1, stdout_ = -1, stderr_ = -1;
    std::string outBuffer_, errBuffer_;
    bool outClosed_ = false;
    std::optional<int> exitStatus_;
};

// Builds a request line.
nlohmann::json request(const std::string& id, const std::string& procedure, const nlohmann::json& fields = {});

}  // namespace ov::testing
