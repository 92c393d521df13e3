#include "platform/linux/linux_permissions.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace ov::platform::linux_permissions {

bool isSandboxed() {
    if (std::getenv("FLATPAK_ID") || std::getenv("SNAP")) return true;
    std::error_code ignored;
    return std::filesystem::exists("/.flatpak-info", ignored);
}

AVAuthorizationStatus cameraAuthorization(const DeviceAccessCheck& check) {
    if (check.sandboxed && check.sandboxed()) return AVAuthorizationStatus::restricted;
    const auto canOpen = check.canOpen ? check.canOpen : [](const std::filesystem::path& node) {
        return ::access(node.c_str(), R_OK | W_OK) == 0;
    };
    bool anyNode = false;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(check.deviceDirectory, error)) {
        const auto name = entry.path().filename().string();
        if (name.rfind("video", 0) != 0 || name.size() == 5) continue;
        if (name.find_first_not_of("0123456789", 5) != std::string::npos) continue;
        anyNode = true;
        if (canOpen(entry.path())) return AVAuthorizationStatus::authorized;
    }
    return anyNode ? AVAuthorizationStatus::denied : AVAuthorizationStatus::authorized;
}

namespace {

bool connectUnix(const std::string& path, bool abstract) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const size_t offset = abstract ? 1 : 0;
    if (path.size() + offset >= sizeof(address.sun_path)) return false;
    std::memcpy(address.sun_path + offset, path.data(), path.size());
    const socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + offset + path.size() + (abstract ? 0 : 1));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    const bool connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0;
    ::close(fd);
    return connected;
}

}  // namespace

bool xDisplayAccepts() {
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display) return false;
    const std::string name = display;
    // Local displays only (":N" or "unix:N"); a remote X server is reached
    // through xcb by the screen backend itself.
    const auto colon = name.rfind(':');
    if (colon == std::string::npos) return false;
    const std::string host = name.substr(0, colon);
    if (!host.empty() && host != "unix") return true;  // not ours to probe cheaply: let xcb decide
    std::string number = name.substr(colon + 1);
    number = number.substr(0, number.find('.'));
    if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos) return false;
    const std::string path = "/tmp/.X11-unix/X" + number;
    return connectUnix(path, true) || connectUnix(path, false);
}

}  // namespace ov::platform::linux_permissions
