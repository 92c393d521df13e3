#include "platform/os_log.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace ov::platform {
namespace {

constexpr const char* kJournalSocket = "/run/systemd/journal/socket";

int thresholdFromEnvironment() {
    const char* value = std::getenv("ORVANE_OS_LOG");
    if (!value) return static_cast<int>(OSLog::Type::info);
    std::string_view v(value);
    if (v == "debug") return 0;
    if (v == "info") return 1;
    if (v == "default") return 2;
    if (v == "error") return 3;
    if (v == "off") return 5;
    return static_cast<int>(OSLog::Type::info);
}

int threshold() {
    static const int t = thresholdFromEnvironment();
    return t;
}

std::atomic<int> gRedirectFd{-1};

// syslog priorities of the journal for each of our types.
int journalPriority(OSLog::Type type) {
    switch (type) {
        case OSLog::Type::debug: return 7;
        case OSLog::Type::info: return 6;
        case OSLog::Type::defaultType: return 5;
        case OSLog::Type::error: return 3;
        case OSLog::Type::fault: return 2;
    }
    return 5;
}

const char* typeName(OSLog::Type type) {
    switch (type) {
        case OSLog::Type::debug: return "debug";
        case OSLog::Type::info: return "info";
        case OSLog::Type::defaultType: return "default";
        case OSLog::Type::error: return "error";
        case OSLog::Type::fault: return "fault";
    }
    return "default";
}

// Appends one field in the journal's native datagram form. Values with a newline
// take the binary form: name, newline, 64-bit little-endian length, bytes.
void appendField(std::string& out, std::string_view name, std::string_view value) {
    out.append(name);
    if (value.find('\n') == std::string_view::npos) {
        out.push_back('=');
        out.append(value);
    } else {
        out.push_back('\n');
        uint64_t n = value.size();
        for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>((n >> (8 * i)) & 0xff));
        out.append(value);
    }
    out.push_back('\n');
}

class Sink {
public:
    Sink() {
        const char* target = std::getenv("ORVANE_OS_LOG_TARGET");
        if (target && std::string_view(target) == "stderr") return;
        if (access(kJournalSocket, W_OK) != 0) return;
        int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd < 0) return;
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, kJournalSocket, sizeof(addr.sun_path) - 1);
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
            close(fd);
            return;
        }
        journalFd_ = fd;
    }

    void write(OSLog::Type type, const std::string& subsystem, const std::string& category,
               std::string_view message) {
        const int redirect = gRedirectFd.load();
        if (journalFd_ >= 0 && redirect < 0) {
            std::string datagram;
            datagram.reserve(message.size() + 128);
            appendField(datagram, "MESSAGE", fmt::format("[{}] {}", category, message));
            appendField(datagram, "PRIORITY", std::to_string(journalPriority(type)));
            appendField(datagram, "SYSLOG_IDENTIFIER", "orvane-rpc");
            appendField(datagram, "ORVANE_SUBSYSTEM", subsystem);
            appendField(datagram, "ORVANE_CATEGORY", category);
            if (::send(journalFd_, datagram.data(), datagram.size(), MSG_NOSIGNAL) >= 0) return;
            // A journal that refuses the line (too large, gone) falls back to stderr.
        }
        std::string line = fmt::format("orvane-rpc[{}] {} {}:{} {}\n", getpid(), typeName(type), subsystem,
                                       category, message);
        const int fd = redirect >= 0 ? redirect : STDERR_FILENO;
        // One write per line keeps lines of several threads whole.
        ssize_t ignored = ::write(fd, line.data(), line.size());
        (void)ignored;
    }

private:
    int journalFd_ = -1;
};

Sink& sink() {
    static Sink* s = new Sink();  // never destroyed: logging may happen at exit
    return *s;
}

}  // namespace

OSLog::OSLog(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

bool OSLog::isEnabled(Type type) { return static_cast<int>(type) >= threshold(); }

void OSLog::log(Type type, std::string_view message) const {
    if (!isEnabled(type)) return;
    sink().write(type, subsystem_, category_, message);
}

void OSLog::redirectForTesting(int fd) { gRedirectFd.store(fd); }

}  // namespace ov::platform
