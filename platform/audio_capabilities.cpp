#include "platform/audio_capabilities.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sstream>

namespace ov::platform {

namespace {

constexpr const char* kDefaultPulsePort = "4713";
constexpr int kConnectTimeoutMs = 250;

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

bool connectUnix(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) return false;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) return false;
    // A listening server accepts at once; a stale socket file refuses.
    return ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

bool connectTcp(const std::string& host, const std::string& port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) return false;
    bool connected = false;
    for (addrinfo* a = found; a && !connected; a = a->ai_next) {
        FileDescriptor fd(::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a->ai_protocol));
        if (fd.get() < 0) continue;
        if (::connect(fd.get(), a->ai_addr, a->ai_addrlen) == 0) {
            connected = true;
            break;
        }
        if (errno != EINPROGRESS) continue;
        // Bounded wait: a capability check must not hang on an unreachable host.
        pollfd p{fd.get(), POLLOUT, 0};
        if (::poll(&p, 1, kConnectTimeoutMs) == 1) {
            int error = 0;
            socklen_t length = sizeof(error);
            connected = ::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
        }
    }
    ::freeaddrinfo(found);
    return connected;
}

bool connectTo(const std::string& address) {
    if (address.rfind("unix:", 0) == 0) return connectUnix(address.substr(5));
    if (address.rfind("tcp:", 0) == 0) {
        const std::string rest = address.substr(4);
        const auto colon = rest.rfind(':');
        if (colon == std::string::npos) return connectTcp(rest, kDefaultPulsePort);
        return connectTcp(rest.substr(0, colon), rest.substr(colon + 1));
    }
    return false;
}

// One PULSE_SERVER entry in our two forms. "{machine-id}" prefixes name the
// machine an entry is meant for; we accept the entry either way, since a
// server that is not ours simply refuses.
std::string normalise(std::string entry) {
    if (!entry.empty() && entry.front() == '{') {
        const auto end = entry.find('}');
        entry = end == std::string::npos ? std::string() : entry.substr(end + 1);
    }
    if (entry.empty()) return {};
    if (entry.front() == '/') return "unix:" + entry;
    if (entry.rfind("unix:", 0) == 0 || entry.rfind("tcp:", 0) == 0) return entry;
    if (entry.rfind("tcp4:", 0) == 0 || entry.rfind("tcp6:", 0) == 0) return "tcp:" + entry.substr(5);
    return "tcp:" + entry;  // a bare host name
}

}  // namespace

std::vector<std::string> pulseServerAddresses() {
    std::vector<std::string> addresses;
    if (const char* server = std::getenv("PULSE_SERVER"); server && *server) {
        std::istringstream entries(server);
        std::string entry;
        while (entries >> entry)
            if (auto address = normalise(entry); !address.empty()) addresses.push_back(address);
        return addresses;
    }
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime)
        addresses.push_back(std::string("unix:") + runtime + "/pulse/native");
    else
        addresses.push_back("unix:/run/user/" + std::to_string(::getuid()) + "/pulse/native");
    addresses.push_back("unix:/var/run/pulse/native");
    return addresses;
}

bool isPerApplicationAudioCaptureAvailable() {
    for (const auto& address : pulseServerAddresses())
        if (connectTo(address)) return true;
    return false;
}

}  // namespace ov::platform
