#include "host/live_preview_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <regex>
#include <vector>

#include <fmt/format.h>

#include "foundation/platform_error.h"
#include "platform/av_capture_output.h"
#include "platform/av_capture_session.h"
#include "platform/jpeg_codec.h"
#include "platform/os_log.h"

namespace ov::host {

using namespace ov::platform;

namespace {

constexpr size_t kReadChunk = 1000;
constexpr size_t kMaximumRequest = 64 * 1024;
constexpr size_t kEncodedCacheSize = 8;

const OSLog& log() {
    static const OSLog instance(OSLog::defaultSubsystem, "LivePreviewServer");
    return instance;
}

std::string makeUUID() {
    static std::mutex mutex;
    static std::mt19937_64 random{std::random_device{}()};
    std::lock_guard lock(mutex);
    const uint64_t a = random(), b = random();
    return fmt::format("{:08X}-{:04X}-4{:03X}-{:04X}-{:012X}", uint32_t(a >> 32), uint16_t(a >> 16), uint16_t(a) & 0xFFF,
                       uint16_t(0x8000 | (uint16_t(b >> 48) & 0x3FFF)), b & 0xFFFFFFFFFFFFull);
}

bool isValidUTF8(const std::string& text) {
    size_t i = 0;
    while (i < text.size()) {
        const auto c = uint8_t(text[i]);
        size_t extra;
        uint32_t code;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            extra = 1, code = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            extra = 2, code = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            extra = 3, code = c & 0x07;
        } else {
            return false;
        }
        if (i + extra >= text.size()) return false;
        for (size_t k = 1; k <= extra; ++k) {
            const auto d = uint8_t(text[i + k]);
            if ((d & 0xC0) != 0x80) return false;
            code = code << 6 | (d & 0x3F);
        }
        // Overlong forms, surrogates and code points beyond Unicode.
        static constexpr uint32_t smallest[] = {0, 0x80, 0x800, 0x10000};
        if (code < smallest[extra] || (code >= 0xD800 && code <= 0xDFFF) || code > 0x10FFFF) return false;
        i += extra + 1;
    }
    return true;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

// ---- A socket, shared by the socket thread (reads, flushes, closes) and the
// queue (sends).

struct LivePreviewServer::Connection {
    int fd = -1;
    std::string uuid;
    // Socket thread only.
    std::string request;
    bool reading = true;

    std::mutex mutex;
    std::string pending;
    bool closed = false;

    // Writes what it can without blocking; false when the peer is gone.
    bool flushLocked() {
        while (!pending.empty()) {
            const ssize_t n = ::send(fd, pending.data(), pending.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n > 0) {
                pending.erase(0, size_t(n));
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
            return false;
        }
        return true;
    }

    // Queues bytes for the peer. A picture is skipped while anything sent
    // before it is still on its way: this client is slow, and waiting for it
    // would hold up everyone on the queue.
    // Returns whether output is left for the socket thread.
    bool send(std::string_view bytes, bool isPicture, bool* skipped = nullptr) {
        std::lock_guard lock(mutex);
        if (closed) return false;
        if (isPicture && !pending.empty()) {
            if (skipped) *skipped = true;
            return false;
        }
        pending.append(bytes);
        flushLocked();
        return !pending.empty();
    }
};

struct LivePreviewServer::State {
    int listener = -1;
    int wakeFd = -1;
    std::atomic<int> port{0};
    std::atomic<bool> stopping{false};

    // The socket thread's connections.
    std::vector<std::shared_ptr<Connection>> sockets;

    // Queue only.
    std::map<std::string, std::shared_ptr<LivePreview>> previews;
    std::atomic<size_t> previewCount{0};
    struct Encoded {
        std::weak_ptr<const CVPixelBuffer> picture;
        const CVPixelBuffer* key = nullptr;
        std::shared_ptr<const std::string> part;
    };
    std::vector<Encoded> encoded;
    std::unique_ptr<JPEGEncoder> encoder;

    void wake() const {
        const uint64_t one = 1;
        if (wakeFd >= 0) [[maybe_unused]] auto n = ::write(wakeFd, &one, sizeof one);
    }

    // The picture and the next boundary, as one part; the same frame of a
    // camera seen by several previews is encoded once.
    std::shared_ptr<const std::string> part(const std::shared_ptr<const CVPixelBuffer>& picture) {
        for (const auto& entry : encoded)
            if (entry.key == picture.get() && entry.picture.lock() == picture) return entry.part;
        if (!encoder) encoder = std::make_unique<JPEGEncoder>(80);
        std::vector<uint8_t> jpeg;
        if (!encoder->encode(*picture, jpeg)) {
            log().error("JPEG encoding failed: " + encoder->lastError());
            return nullptr;
        }
        auto bytes = std::make_shared<std::string>(reinterpret_cast<const char*>(jpeg.data()), jpeg.size());
        bytes->append(mjpegBoundary);
        if (encoded.size() >= kEncodedCacheSize) encoded.erase(encoded.begin());
        encoded.push_back({picture, picture.get(), bytes});
        return bytes;
    }
};

// ---- One connection's preview: its request, session and pictures. Lives on
// the queue from the socket's ready state until it ends.

class LivePreviewServer::LivePreview final : public AVCaptureVideoDataOutputSampleBufferDelegate,
                                             public std::enable_shared_from_this<LivePreview> {
public:
    LivePreview(std::string id, std::shared_ptr<Connection> connection, std::weak_ptr<State> state)
        : id_(std::move(id)),
          connection_(std::move(connection)),
          state_(std::move(state)),
          captureSession_(AVCaptureSession::make()),
          videoOutput_(AVCaptureVideoDataOutput::make()) {}

    ~LivePreview() override {
        log().info("Deinit for LivePreview " + id_);
        if (captureSession_->isRunning()) {
            captureSession_->stopRunning();
            log().notice("Stopped capture session.");
        }
    }

    void received(const std::string& data, bool overflowed) {
        const bool ascii = std::all_of(data.begin(), data.end(), [](char c) { return uint8_t(c) < 0x80; });
        if (!ascii || overflowed) {
            log().error(fmt::format("Request header is invalid string: {} bytes", data.size()));
            return;
        }
        log().notice("Request header received.");
        log().info("Request header: " + data);
        auto cameraID = cameraIDOfRequest(data);
        if (!cameraID) {
            log().notice("Invalid camera preview request.");
            return;
        }
        startStreaming(*cameraID);
    }

    void captureOutput(AVCaptureOutput&, const CMSampleBuffer& sampleBuffer, AVCaptureConnection&) override {
        const auto& picture = sampleBuffer.imageBuffer();
        if (!picture) return;
        auto state = state_.lock();
        if (!state) return;
        auto part = state->part(picture);
        if (!part) return;
        if (connection_->send(*part, true)) state->wake();
    }

private:
    void startStreaming(const std::string& cameraID) {
        log().notice("Starting preview stream for camera " + cameraID);
        std::string head = mjpegHttpHeader;
        head += mjpegBoundary;
        if (connection_->send(head, false))
            if (auto state = state_.lock()) state->wake();
        auto device = AVCaptureDevice::device(cameraID);
        if (!device) {
            log().error(fmt::format("AVCaptureDevice for id {} not found.", cameraID));
            return;
        }
        std::shared_ptr<AVCaptureDeviceInput> input;
        try {
            input = AVCaptureDeviceInput::make(device);
        } catch (const std::exception&) {
            log().error(fmt::format("Failed to create AVCaptureDeviceInput for camera with id {}.", cameraID));
            return;
        }
        if (!captureSession_->canAddInput(input)) {
            log().error("Can't add videoInput to session, preview won't start.");
            return;
        }
        captureSession_->addInput(input);
        videoOutput_->setSampleBufferDelegate(weak_from_this(), queue());
        if (!captureSession_->canAddOutput(videoOutput_)) {
            log().error("Can't add videoOutput to session, preview won't start.");
            return;
        }
        captureSession_->addOutput(videoOutput_);
        captureSession_->startRunning();
        log().notice("Started preview stream for camera " + cameraID);
    }

    std::string id_;
    std::shared_ptr<Connection> connection_;
    std::weak_ptr<State> state_;
    std::shared_ptr<AVCaptureSession> captureSession_;
    std::shared_ptr<AVCaptureVideoDataOutput> videoOutput_;
};

// ---- The server.

const std::shared_ptr<DispatchQueue>& LivePreviewServer::queue() {
    static const auto instance = std::make_shared<DispatchQueue>("orvane-rpc.livepreview");
    return instance;
}

std::shared_ptr<LivePreviewServer> LivePreviewServer::make() {
    std::shared_ptr<LivePreviewServer> server(new LivePreviewServer());
    server->state_ = std::make_shared<State>();
    server->listen();
    server->thread_ = std::thread([server = server.get()] { server->run(); });
    return server;
}

LivePreviewServer::~LivePreviewServer() { shutdown(); }

void LivePreviewServer::listen() {
    auto fail = [&](const char* call) {
        const int error = errno;
        if (state_->listener >= 0) ::close(state_->listener);
        state_->listener = -1;
        throw PlatformError("NSPOSIXErrorDomain", error, fmt::format("The preview listener can't start: {}", std::strerror(error)),
                            fmt::format("{} on 127.0.0.1: {}", call, std::strerror(error)));
    };
    state_->listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (state_->listener < 0) fail("socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    if (::bind(state_->listener, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) fail("bind");
    if (::listen(state_->listener, 16) < 0) fail("listen");
    socklen_t length = sizeof address;
    if (::getsockname(state_->listener, reinterpret_cast<sockaddr*>(&address), &length) < 0) fail("getsockname");
    state_->wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (state_->wakeFd < 0) fail("eventfd");
    const uint16_t port = ntohs(address.sin_port);
    log().info(fmt::format("Listener ready at port {}", port));
    state_->port = port;
}

std::optional<uint16_t> LivePreviewServer::portNumber() const {
    const int port = state_->port.load();
    if (port <= 0) return std::nullopt;
    return uint16_t(port);
}

std::optional<std::string> LivePreviewServer::baseUrl() const {
    const auto port = portNumber();
    if (!port) {
        log().error("URL not available. Port number: none");
        return std::nullopt;
    }
    return fmt::format("http://127.0.0.1:{}", *port);
}

std::string LivePreviewServer::previewURL(const std::string& baseUrl, const std::string& cameraID) {
    static const std::string kept = "-._~!$&'()*+,;=:@";
    std::string url = baseUrl + "/camera/";
    for (const char c : cameraID) {
        const auto byte = uint8_t(c);
        if (std::isalnum(byte) && byte < 0x80)
            url += c;
        else if (kept.find(c) != std::string::npos)
            url += c;
        else
            url += fmt::format("%{:02X}", byte);
    }
    return url;
}

std::optional<std::string> LivePreviewServer::removingPercentEncoding(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (i + 2 >= text.size()) return std::nullopt;
        const int high = hexDigit(text[i + 1]), low = hexDigit(text[i + 2]);
        if (high < 0 || low < 0) return std::nullopt;
        out += char(high << 4 | low);
        i += 2;
    }
    if (!isValidUTF8(out)) return std::nullopt;
    return out;
}

std::optional<std::string> LivePreviewServer::cameraIDOfRequest(const std::string& text) {
    // ECMAScript's "." stops at line ends: the match stays on the request line.
    static const std::regex pattern("GET /camera/(.+) HTTP/");
    std::smatch match;
    if (!std::regex_search(text, match, pattern)) return std::nullopt;
    return removingPercentEncoding(match[1].str());
}

size_t LivePreviewServer::connectionCount() const { return state_->previewCount.load(); }

void LivePreviewServer::wake() const { state_->wake(); }

void LivePreviewServer::shutdown() {
    if (!state_ || state_->stopping.exchange(true)) return;
    state_->wake();
    if (thread_.joinable()) thread_.join();
    auto state = state_;
    queue()->sync([state] {
        state->previews.clear();
        state->previewCount = 0;
    });
    for (auto& connection : state_->sockets) {
        std::lock_guard lock(connection->mutex);
        if (!connection->closed) ::close(connection->fd);
        connection->closed = true;
    }
    state_->sockets.clear();
    if (state_->listener >= 0) ::close(state_->listener);
    if (state_->wakeFd >= 0) ::close(state_->wakeFd);
    state_->listener = state_->wakeFd = -1;
    state_->port = 0;
}

void LivePreviewServer::run() {
    pthread_setname_np(pthread_self(), "LivePreview");
    auto state = state_;
    auto end = [&](const std::shared_ptr<Connection>& connection) {
        {
            std::lock_guard lock(connection->mutex);
            if (!connection->closed) ::close(connection->fd);
            connection->closed = true;
        }
        std::erase(state->sockets, connection);
        queue()->async([state, uuid = connection->uuid] {
            log().notice(fmt::format("Connection {} updated state to cancelled", uuid));
            if (state->previews.erase(uuid)) state->previewCount = state->previews.size();
        });
    };
    std::vector<pollfd> fds;
    while (!state->stopping) {
        fds.clear();
        fds.push_back({state->wakeFd, POLLIN, 0});
        fds.push_back({state->listener, POLLIN, 0});
        for (const auto& connection : state->sockets) {
            short events = POLLRDHUP;
            if (connection->reading) events |= POLLIN;
            {
                std::lock_guard lock(connection->mutex);
                if (!connection->pending.empty()) events |= POLLOUT;
            }
            fds.push_back({connection->fd, events, 0});
        }
        if (::poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) continue;
            log().notice(fmt::format("Listener updated to state failed({})", std::strerror(errno)));
            state->port = 0;
            return;
        }
        if (fds[0].revents) {
            uint64_t value;
            [[maybe_unused]] auto n = ::read(state->wakeFd, &value, sizeof value);
        }
        // Connections first: the list is changed by accepting below.
        auto sockets = state->sockets;
        for (size_t i = 0; i < sockets.size(); ++i) {
            const auto& connection = sockets[i];
            const short revents = fds[i + 2].revents;
            if (!revents) continue;
            if (revents & POLLOUT) {
                bool alive;
                {
                    std::lock_guard lock(connection->mutex);
                    alive = connection->flushLocked();
                }
                if (!alive) {
                    end(connection);
                    continue;
                }
            }
            if ((revents & POLLIN) && connection->reading) {
                char buffer[kReadChunk];
                const ssize_t n = ::recv(connection->fd, buffer, sizeof buffer, 0);
                if (n == 0) {  // the peer closed
                    end(connection);
                    continue;
                }
                if (n < 0) {
                    if (errno != EAGAIN && errno != EINTR) {
                        log().error(fmt::format("Connection receive failed: {}", std::strerror(errno)));
                        connection->reading = false;
                    }
                } else {
                    connection->request.append(buffer, size_t(n));
                    const bool complete = connection->request.find("\r\n\r\n") != std::string::npos;
                    const bool overflowed = !complete && connection->request.size() > kMaximumRequest;
                    if (complete || overflowed) {
                        connection->reading = false;
                        queue()->async([state, uuid = connection->uuid, data = std::move(connection->request),
                                        overflowed] {
                            auto it = state->previews.find(uuid);
                            if (it != state->previews.end()) it->second->received(data, overflowed);
                        });
                        connection->request.clear();
                    }
                }
            }
            // Hang-ups only now, so that a request sent just before closing is read first.
            if ((revents & (POLLRDHUP | POLLHUP | POLLERR)) && !((revents & POLLIN) && connection->reading)) {
                end(connection);
                continue;
            }
        }
        if (fds[1].revents & POLLIN) {
            for (;;) {
                const int fd = ::accept4(state->listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
                if (fd < 0) break;
                if (state->sockets.size() >= maximumConnections) {
                    log().error(fmt::format("Connection limit of {} reached, closing a new connection.",
                                            maximumConnections));
                    ::close(fd);
                    continue;
                }
                auto connection = std::make_shared<Connection>();
                connection->fd = fd;
                connection->uuid = makeUUID();
                state->sockets.push_back(connection);
                std::weak_ptr<State> weakState = state;
                queue()->async([state, connection, weakState] {
                    log().notice(fmt::format("Connection {} updated state to ready", connection->uuid));
                    state->previews[connection->uuid] =
                        std::make_shared<LivePreview>(connection->uuid, connection, weakState);
                    state->previewCount = state->previews.size();
                });
            }
        }
    }
}

}  // namespace ov::host
