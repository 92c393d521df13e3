#pragma once
// A private X server for one test or fixture: `Xvfb -noreset` on a free
// display number (chosen by the server through -displayfd), optionally with
// openbox as window manager, and test client windows from orvane-test-helper.
// $DISPLAY points at it while it lives; everything it started is killed by pid
// and reaped when it goes.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.h"

namespace ov::testing {

// How long a server, window manager or client may take to come up. Generous:
// a loaded two-core machine starts them in seconds, and only a failure waits it out.
inline constexpr std::chrono::milliseconds kStartLimit{30000};

class XvfbServer {
public:
    explicit XvfbServer(bool withWindowManager = false, std::string size = "1920x1080x24")
        : size_(std::move(size)), withWindowManager_(withWindowManager) {
        if (const char* old = std::getenv("DISPLAY")) oldDisplay_ = old;
        try {
            start(std::nullopt);
        } catch (...) {
            // No destructor runs for a constructor that throws: leave nothing running.
            stop();
            if (oldDisplay_) ::setenv("DISPLAY", oldDisplay_->c_str(), 1);
            else ::unsetenv("DISPLAY");
            throw;
        }
    }
    ~XvfbServer() {
        stop();
        if (oldDisplay_) ::setenv("DISPLAY", oldDisplay_->c_str(), 1);
        else ::unsetenv("DISPLAY");
    }
    XvfbServer(const XvfbServer&) = delete;
    XvfbServer& operator=(const XvfbServer&) = delete;

    // ":N".
    const std::string& display() const { return display_; }
    pid_t serverPid() const { return server_; }

    // Kills the server (and window manager) and starts it again on the same number.
    void restart() {
        const int number = std::stoi(display_.substr(1));
        stop();
        start(number);
    }

    // Kills the server alone, abruptly (what a crash looks like to clients).
    void killServer() { reap(server_, SIGKILL); }

    // Runs a shell command with DISPLAY set; its exit status.
    int run(const std::string& command) const {
        return std::system(("DISPLAY=" + display_ + " " + command + " >/dev/null 2>&1").c_str());
    }
    // Its standard output.
    std::string output(const std::string& command) const {
        std::string result;
        if (FILE* pipe = ::popen(("DISPLAY=" + display_ + " " + command + " 2>/dev/null").c_str(), "r")) {
            char buffer[4096];
            size_t n;
            while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) result.append(buffer, n);
            ::pclose(pipe);
        }
        return result;
    }

    void stop() {
        reap(windowManager_, SIGTERM);
        reap(server_, SIGTERM);
    }

private:
    static void reap(pid_t& pid, int signal) {
        if (pid <= 0) return;
        ::kill(pid, signal);
        for (int i = 0; i < 200; ++i) {
            if (::waitpid(pid, nullptr, WNOHANG) == pid) {
                pid = -1;
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        pid = -1;
    }

    static pid_t spawn(const std::vector<std::string>& argv, const std::string& display, int keepFd = -1) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            if (!display.empty()) ::setenv("DISPLAY", display.c_str(), 1);
            const int null = ::open("/dev/null", O_RDWR);
            ::dup2(null, 0), ::dup2(null, 1), ::dup2(null, 2);
            for (int fd = 3; fd < 1024; ++fd)
                if (fd != keepFd) ::close(fd);
            std::vector<char*> args;
            for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
            args.push_back(nullptr);
            ::execvp(args[0], args.data());
            ::_exit(127);
        }
        return pid;
    }

    void start(std::optional<int> number) {
        int fds[2];
        if (::pipe(fds) != 0) throw std::runtime_error("pipe");
        std::vector<std::string> argv{"Xvfb"};
        if (number) argv.push_back(":" + std::to_string(*number));
        argv.insert(argv.end(), {"-displayfd", std::to_string(fds[1]), "-screen", "0", size_, "-nolisten", "tcp",
                                 "-noreset"});
        server_ = spawn(argv, {}, fds[1]);
        ::close(fds[1]);
        std::string text;
        char buffer[32];
        const auto deadline = std::chrono::steady_clock::now() + kStartLimit;
        ::fcntl(fds[0], F_SETFL, O_NONBLOCK);
        while (text.find('\n') == std::string::npos && std::chrono::steady_clock::now() < deadline) {
            const ssize_t n = ::read(fds[0], buffer, sizeof buffer);
            if (n > 0) text.append(buffer, size_t(n));
            else if (n == 0) break;
            else std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        ::close(fds[0]);
        if (text.find('\n') == std::string::npos) {
            stop();
            throw std::runtime_error("Xvfb did not start");
        }
        display_ = ":" + std::to_string(std::stoi(text));
        ::setenv("DISPLAY", display_.c_str(), 1);
        if (withWindowManager_) startWindowManager();
    }

    // openbox, waited for until it announces itself on the root.
    void startWindowManager() {
        windowManager_ = spawn({"openbox", "--sm-disable"}, display_);
        xcb_connection_t* c = xcb_connect(display_.c_str(), nullptr);
        const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
        const char name[] = "_NET_SUPPORTING_WM_CHECK";
        auto* atom = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, sizeof name - 1, name), nullptr);
        const auto deadline = std::chrono::steady_clock::now() + kStartLimit;
        bool up = false;
        while (!up && std::chrono::steady_clock::now() < deadline) {
            auto* reply = xcb_get_property_reply(
                c, xcb_get_property(c, 0, root, atom ? atom->atom : xcb_atom_t(XCB_ATOM_NONE), XCB_ATOM_WINDOW, 0, 1), nullptr);
            up = reply && reply->value_len > 0;
            std::free(reply);
            if (!up) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        std::free(atom);
        // openbox announces itself before it has loaded its theme and fonts; on a
        // fresh machine that can take seconds, and windows mapped meanwhile stay
        // unmanaged and unexposed. A window it has reparented proves it is managing.
        if (up) up = windowManagerManages(c, root);
        xcb_disconnect(c);
        if (!up) throw std::runtime_error("openbox did not start");
    }

    // A window mapped while openbox is between its scan of existing windows and
    // taking over map requests is never managed: each probe gets a second, then
    // a fresh window tries again.
    static bool windowManagerManages(xcb_connection_t* c, xcb_window_t root) {
        const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
        const auto deadline = std::chrono::steady_clock::now() + kStartLimit;
        while (std::chrono::steady_clock::now() < deadline) {
            const xcb_window_t probe = xcb_generate_id(c);
            xcb_create_window(c, XCB_COPY_FROM_PARENT, probe, root, 0, 0, 10, 10, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                              screen->root_visual, 0, nullptr);
            xcb_map_window(c, probe);
            xcb_flush(c);
            const auto probeEnd = std::min(deadline, std::chrono::steady_clock::now() + std::chrono::seconds(1));
            bool managed = false;
            while (!managed && std::chrono::steady_clock::now() < probeEnd) {
                auto* tree = xcb_query_tree_reply(c, xcb_query_tree(c, probe), nullptr);
                managed = tree && tree->parent != root;
                std::free(tree);
                if (!managed) std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            xcb_destroy_window(c, probe);
            std::free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
            if (managed) return true;
        }
        return false;
    }

    std::string size_;
    bool withWindowManager_;
    std::optional<std::string> oldDisplay_;
    std::string display_;
    pid_t server_ = -1;
    pid_t windowManager_ = -1;
};

// Windows of one orvane-test-helper process ("x11-window" mode); killed on destruction.
class HelperWindows {
public:
    struct Spec {
        int x, y, width, height;
        uint32_t color;
        std::string title;
    };
    HelperWindows(const XvfbServer& server, const std::vector<Spec>& windows, double rate = 0,
                  std::vector<std::string> options = {}) {
        std::vector<std::string> args{"x11-window"};
        if (rate > 0) args.insert(args.end(), {"--rate", std::to_string(rate)});
        args.insert(args.end(), options.begin(), options.end());
        for (const auto& w : windows) {
            char color[8];
            std::snprintf(color, sizeof color, "%06x", w.color);
            args.push_back(std::to_string(w.x) + "," + std::to_string(w.y) + "," + std::to_string(w.width) + "," +
                           std::to_string(w.height) + "," + color + "," + w.title);
        }
        process_ = std::make_unique<ChildProcess>(ORVANE_TEST_HELPER_PATH, args,
                                                  std::map<std::string, std::string>{{"DISPLAY", server.display()}});
        auto line = process_->readLine(kStartLimit);
        if (!line || line->rfind("ready", 0) != 0) throw std::runtime_error("the helper windows did not come up");
        std::istringstream in(line->substr(5));
        uint32_t id;
        while (in >> id) ids_.push_back(id);
    }
    pid_t pid() const { return process_->pid(); }
    const std::vector<uint32_t>& ids() const { return ids_; }
    uint32_t id(size_t i = 0) const { return ids_.at(i); }
    ChildProcess& process() { return *process_; }
    void kill() { process_->kill(); process_->waitForExit(); }

private:
    std::unique_ptr<ChildProcess> process_;
    std::vector<uint32_t> ids_;
};

}  // namespace ov::testing
