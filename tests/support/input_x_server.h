#pragma once
// A private X server for the input backend's tests: Xvfb on a free display
// number, openbox on it, the DMZ-White cursor theme; DISPLAY points at it for
// the test process while the object lives. Everything started is killed and
// reaped when it goes. Absent when Xvfb or openbox isn't installed.

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace ov::testing {

class InputXServer {
public:
    static std::unique_ptr<InputXServer> start() {
        if (!std::filesystem::exists("/usr/bin/Xvfb") || !std::filesystem::exists("/usr/bin/openbox")) return nullptr;
        auto server = std::unique_ptr<InputXServer>(new InputXServer);
        for (int display = 170 + (getpid() % 60); display < 260; ++display) {
            if (std::filesystem::exists("/tmp/.X11-unix/X" + std::to_string(display)) ||
                std::filesystem::exists("/tmp/.X" + std::to_string(display) + "-lock"))
                continue;
            server->display_ = ":" + std::to_string(display);
            server->xvfb_ = spawn({"/usr/bin/Xvfb", server->display_, "-screen", "0", "1280x800x24", "-nolisten", "tcp"}, {});
            const auto socket = "/tmp/.X11-unix/X" + std::to_string(display);
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
            while (!std::filesystem::exists(socket) && std::chrono::steady_clock::now() < deadline) {
                if (waitpid(server->xvfb_, nullptr, WNOHANG) == server->xvfb_) {
                    server->xvfb_ = -1;
                    break;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            if (server->xvfb_ > 0 && std::filesystem::exists(socket)) break;
            server->stopChild(server->xvfb_);
        }
        if (server->xvfb_ <= 0) return nullptr;
        const char* previous = std::getenv("DISPLAY");
        if (previous) server->previousDisplay_ = previous;
        setenv("DISPLAY", server->display_.c_str(), 1);
        setenv("XCURSOR_THEME", "DMZ-White", 1);
        server->openbox_ = spawn({"/usr/bin/openbox"}, {});
        // openbox is ready once it owns the window manager selection.
        server->run({"/bin/sh", "-c", "for i in $(seq 100); do xprop -root _NET_SUPPORTING_WM_CHECK 2>/dev/null | grep -q window && exit 0; sleep 0.05; done"});
        return server;
    }

    ~InputXServer() {
        for (auto pid : extra_) stopChild(pid);
        stopChild(openbox_);
        stopChild(xvfb_);
        if (previousDisplay_) setenv("DISPLAY", previousDisplay_->c_str(), 1); else unsetenv("DISPLAY");
    }

    const std::string& display() const { return display_; }

    // Runs a command to its end; its exit status.
    int run(const std::vector<std::string>& argv) {
        const pid_t pid = spawn(argv, {});
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // Starts a program that lives until the server goes (xterm).
    pid_t launch(const std::vector<std::string>& argv) {
        const pid_t pid = spawn(argv, {});
        extra_.push_back(pid);
        return pid;
    }

private:
    InputXServer() = default;

    static pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>&) {
        const pid_t pid = fork();
        if (pid == 0) {
            setpgid(0, 0);
            const int null = ::open("/dev/null", O_RDWR);
            dup2(null, 0);
            dup2(null, 1);
            dup2(null, 2);
            std::vector<char*> args;
            for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
            args.push_back(nullptr);
            execvp(args[0], args.data());
            _exit(127);
        }
        return pid;
    }
    static void stopChild(pid_t& pid) {
        if (pid <= 0) return;
        ::kill(-pid, SIGKILL);
        ::kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }

    std::string display_;
    std::optional<std::string> previousDisplay_;
    pid_t xvfb_ = -1;
    pid_t openbox_ = -1;
    std::vector<pid_t> extra_;
};

}  // namespace ov::testing
