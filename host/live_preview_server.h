#pragma once
// The loopback camera preview: an HTTP/1.0 server on 127.0.0.1 at a port the
// system chooses. "GET /camera/<percent-encoded id>" answers with an endless
// multipart/x-mixed-replace stream of JPEG pictures of that camera; anything
// else gets no answer at all and the socket is left open until the peer goes.
//
// Threads. One socket thread waits in poll() on the listener, the
// connections and a wake descriptor: it only accepts, reads requests and
// flushes pending output. Everything else runs on the serial queue
// "orvane-rpc.livepreview": the connection table, request parsing, capture
// sessions, the frame delegate and JPEG encoding. Sends never block: a client
// that hasn't taken the previous picture yet skips the next one, so one slow
// client never holds up the others, the queue or a recording.
//
// Each connection gets its own capture session, as a host would expect of
// separate viewers; the capture backend shares the device between them, and
// pictures that are the same frame of one camera are encoded once.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "platform/dispatch_queue.h"

namespace ov::host {

class LivePreviewServer : public std::enable_shared_from_this<LivePreviewServer> {
public:
    static constexpr const char* mjpegHttpHeader =
        "HTTP/1.0 200 OK\r\nConnection: close\r\nContent-Type: multipart/x-mixed-replace; boundary=orvane\r\n\r\n";
    static constexpr const char* mjpegBoundary = "\r\n--orvane\r\nContent-Type: image/jpeg\r\n\r\n";
    // Connections beyond this are closed at once (browsers open extra ones
    // that stay silent and open by design).
    static constexpr size_t maximumConnections = 64;

    // Listening when it returns; throws a PlatformError when no socket can be
    // bound on the loopback address.
    static std::shared_ptr<LivePreviewServer> make();
    ~LivePreviewServer();

    // The port while the listener is ready.
    std::optional<uint16_t> portNumber() const;
    // "http://127.0.0.1:<port>", or none (logged) without a port.
    std::optional<std::string> baseUrl() const;
    // The camera's preview address under `baseUrl`: the id percent-encoded as
    // one path component ("/" included).
    static std::string previewURL(const std::string& baseUrl, const std::string& cameraID);
    // Strict percent-decoding: a bad escape or a result that isn't UTF-8 fails.
    static std::optional<std::string> removingPercentEncoding(const std::string& text);
    // The camera id of a request's text, or none.
    static std::optional<std::string> cameraIDOfRequest(const std::string& text);

    // The serial queue of all preview work.
    static const std::shared_ptr<platform::DispatchQueue>& queue();

    // Open previews (connections whose socket is ready); for tests and logs.
    size_t connectionCount() const;
    // Stops listening and ends every connection (tests; the process's own
    // server lives as long as the process).
    void shutdown();

    struct Connection;
    class LivePreview;

private:
    LivePreviewServer() = default;
    void listen();
    void run();
    void wake() const;

    struct State;
    std::shared_ptr<State> state_;
    std::thread thread_;
};

}  // namespace ov::host
