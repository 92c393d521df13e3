#include "platform/audio_capabilities.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace ov::platform {
namespace {

// Sets an environment variable for the life of the object.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const std::optional<std::string>& value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        if (value)
            ::setenv(name, value->c_str(), 1);
        else
            ::unsetenv(name);
    }
    ~ScopedEnv() {
        if (old_)
            ::setenv(name_, old_->c_str(), 1);
        else
            ::unsetenv(name_);
    }

private:
    const char* name_;
    std::optional<std::string> old_;
};

// A unix socket that listens like a sound server's, without speaking its protocol.
class Listener {
public:
    explicit Listener(std::string path) : path_(std::move(path)) {
        std::filesystem::remove(path_);
        fd_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path_.c_str(), sizeof(address.sun_path) - 1);
        ok_ = fd_ >= 0 && ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
              ::listen(fd_, 4) == 0;
    }
    ~Listener() {
        if (fd_ >= 0) ::close(fd_);
        std::filesystem::remove(path_);
    }
    bool ok() const { return ok_; }
    void close() {
        ::close(fd_);
        fd_ = -1;
    }

private:
    std::string path_;
    int fd_ = -1;
    bool ok_ = false;
};

TEST(PerApplicationAudio, AvailableOnlyWhileAServerAcceptsConnections) {
    const std::string path = "/tmp/orvane-pulse-test-" + std::to_string(::getpid());
    Listener server(path);
    ASSERT_TRUE(server.ok());
    {
        ScopedEnv env("PULSE_SERVER", "unix:" + path);
        EXPECT_TRUE(isPerApplicationAudioCaptureAvailable());
    }
    {
        ScopedEnv env("PULSE_SERVER", "/nonexistent/pulse/native " + path);
        EXPECT_TRUE(isPerApplicationAudioCaptureAvailable()) << "later addresses are tried too";
    }
    server.close();
    {
        // The socket file stays behind a server that is gone: that is no server.
        ScopedEnv env("PULSE_SERVER", "unix:" + path);
        EXPECT_FALSE(isPerApplicationAudioCaptureAvailable());
    }
}

TEST(PerApplicationAudio, ServerAddresses) {
    {
        ScopedEnv env("PULSE_SERVER", "{abc}unix:/run/p/native tcp4:host:4000 /x/native media-box");
        EXPECT_EQ(pulseServerAddresses(),
                  (std::vector<std::string>{"unix:/run/p/native", "tcp:host:4000", "unix:/x/native", "tcp:media-box"}));
    }
    ScopedEnv noServer("PULSE_SERVER", std::nullopt);
    {
        ScopedEnv runtime("XDG_RUNTIME_DIR", "/run/user/1234");
        EXPECT_EQ(pulseServerAddresses(),
                  (std::vector<std::string>{"unix:/run/user/1234/pulse/native", "unix:/var/run/pulse/native"}));
    }
    {
        ScopedEnv runtime("XDG_RUNTIME_DIR", std::nullopt);
        EXPECT_EQ(pulseServerAddresses().front(), "unix:/run/user/" + std::to_string(::getuid()) + "/pulse/native");
    }
}

}  // namespace
}  // namespace ov::platform
