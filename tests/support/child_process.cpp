#include "support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

extern char** environ;

namespace ov::testing {

ChildProcess::ChildProcess(const std::string& path, const std::vector<std::string>& args,
                           const std::map<std::string, std::string>& env) {
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) || pipe2(out, O_CLOEXEC) || pipe2(err, O_CLOEXEC))
        throw std::runtime_error("pipe failed");
    signal(SIGPIPE, SIG_IGN);
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        for (const auto& [k, v] : env) setenv(k.c_str(), v.c_str(), 1);
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(path.c_str()));
        for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(path.c_str(), argv.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    stdin_ = in[1];
    stdout_ = out[0];
    stderr_ = err[0];
    fcntl(stdout_, F_SETFL, O_NONBLOCK);
    fcntl(stderr_, F_SETFL, O_NONBLOCK);
}

ChildProcess::~ChildProcess() {
    if (running()) {
        kill(SIGKILL);
        waitForExit(Duration(5000));
    }
    for (int fd : {stdin_, stdout_, stderr_})
        if (fd >= 0) close(fd);
}

void ChildProcess::write(const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(stdin_, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw std::runtime_error("write to child failed");
        done += static_cast<size_t>(n);
    }
}

void ChildProcess::closeStdin() {
    if (stdin_ >= 0) close(stdin_);
    stdin_ = -1;
}

std::optional<std::string> ChildProcess::readLine(Duration timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto nl = outBuffer_.find('\n');
        if (nl != std::string::npos) {
            std::string line = outBuffer_.substr(0, nl);
            outBuffer_.erase(0, nl + 1);
            return line;
        }
        if (outClosed_) return std::nullopt;
        const auto left = std::chrono::duration_cast<Duration>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return std::nullopt;
        pollfd p{stdout_, POLLIN, 0};
        int r = poll(&p, 1, static_cast<int>(left.count()));
        if (r <= 0) continue;
        char buf[65536];
        ssize_t n = read(stdout_, buf, sizeof buf);
        if (n > 0)
            outBuffer_.append(buf, static_cast<size_t>(n));
        else if (n == 0)
            outClosed_ = true;
    }
}

std::optional<nlohmann::json> ChildProcess::readJSON(Duration timeout) {
    auto line = readLine(timeout);
    if (!line) return std::nullopt;
    return nlohmann::json::parse(*line);
}

std::vector<std::string> ChildProcess::readLinesFor(Duration window) {
    std::vector<std::string> lines;
    const auto deadline = std::chrono::steady_clock::now() + window;
    for (;;) {
        const auto left = std::chrono::duration_cast<Duration>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        auto line = readLine(left);
        if (!line) break;
        lines.push_back(*line);
    }
    return lines;
}

void ChildProcess::drainStderr() {
    char buf[65536];
    for (;;) {
        ssize_t n = read(stderr_, buf, sizeof buf);
        if (n <= 0) break;
        errBuffer_.append(buf, static_cast<size_t>(n));
    }
}

std::string ChildProcess::stderrText() {
    drainStderr();
    return errBuffer_;
}

bool ChildProcess::running() {
    if (exitStatus_ || pid_ <= 0) return false;
    int status = 0;
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
        exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return false;
    }
    return true;
}

std::optional<int> ChildProcess::waitForExit(Duration timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (running()) {
        if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        usleep(5000);
    }
    return exitStatus_;
}

void ChildProcess::kill(int signal) {
    if (pid_ > 0 && !exitStatus_) ::kill(pid_, signal);
}

nlohmann::json request(const std::string& id, const std::string& procedure, const nlohmann::json& fields) {
    nlohmann::json j = {{"hvrpc", 1}, {"id", id}, {"procedure", procedure}};
    if (fields.is_object())
        for (auto it = fields.begin(); it != fields.end(); ++it) j[it.key()] = it.value();
    return j;
}

}  // namespace ov::testing
