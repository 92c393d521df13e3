// The loopback camera preview served to real clients: raw sockets byte for
// byte, ffmpeg's multipart reader, and headless Chromium, on synthetic cameras.
#include "host/live_preview_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "platform/capture_platform.h"
#include "platform/jpeg_codec.h"
#include "platform/os_log.h"
#include "platform/synthetic/synthetic_capture_platform.h"
#include "platform/synthetic/synthetic_pattern.h"
#include "support/media_probe.h"
#include "support/temp_directory.h"

namespace ov::host {
namespace {

using namespace std::chrono_literals;
using platform::CapturePlatform;
using platform::SyntheticCapturePlatform;
using platform::SyntheticDevice;
using platform::SyntheticWorld;
using testing::TempDirectory;

const std::string kHead = std::string(LivePreviewServer::mjpegHttpHeader) + LivePreviewServer::mjpegBoundary;
const std::string kOddID = "cam one/\xC3\xBC";  // a blank, a slash and "ü"

class Client {
public:
    explicit Client(uint16_t port) {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    ~Client() { close(); }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }
    bool connected() const { return connected_; }
    void send(const std::string& text) { ASSERT_EQ(::send(fd_, text.data(), text.size(), MSG_NOSIGNAL), ssize_t(text.size())); }
    // Whatever arrives within `duration`.
    std::string readFor(std::chrono::milliseconds duration) {
        std::string data;
        const auto until = std::chrono::steady_clock::now() + duration;
        char buffer[65536];
        while (std::chrono::steady_clock::now() < until) {
            pollfd p{fd_, POLLIN, 0};
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
            if (::poll(&p, 1, int(std::max<int64_t>(1, left.count()))) <= 0) continue;
            const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
            if (n <= 0) break;
            data.append(buffer, size_t(n));
        }
        return data;
    }
    // Open: nothing to read and no end of stream.
    bool isOpen() {
        char byte;
        const ssize_t n = ::recv(fd_, &byte, 1, MSG_DONTWAIT | MSG_PEEK);
        return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }

private:
    int fd_ = -1;
    bool connected_ = false;
};

// The JPEG parts of a stream after its header and first boundary.
std::vector<std::string> pictures(const std::string& stream) {
    std::vector<std::string> parts;
    if (stream.rfind(kHead, 0) != 0) return parts;
    size_t at = kHead.size();
    for (;;) {
        const size_t next = stream.find(LivePreviewServer::mjpegBoundary, at);
        if (next == std::string::npos) break;
        parts.push_back(stream.substr(at, next - at));
        at = next + std::strlen(LivePreviewServer::mjpegBoundary);
    }
    return parts;
}

struct Decoded {
    size_t width = 0, height = 0;
    std::optional<uint32_t> counter;
};
Decoded decode(const std::string& jpeg) {
    platform::JPEGDecoder decoder;
    auto picture = decoder.decode(reinterpret_cast<const uint8_t*>(jpeg.data()), jpeg.size());
    if (!picture) return {};
    return {picture->width(), picture->height(), platform::SyntheticPattern::readFrameCounter(*picture)};
}

std::string urlPath(const std::string& url) { return url.substr(url.find("/camera/")); }

class LivePreviewServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        auto world = SyntheticWorld::makeDefault();
        auto odd = SyntheticDevice::make(SyntheticDevice::Kind::camera, kOddID);
        odd.formats = {platform::SyntheticVideoFormat{640, 360, 30}};
        world.devices.push_back(odd);
        platform = std::make_shared<SyntheticCapturePlatform>(world);
        installed = std::make_unique<CapturePlatform::ScopedOverride>(platform);
        server = LivePreviewServer::make();
        ASSERT_TRUE(server->portNumber());
        port = *server->portNumber();
        camera = platform->devices().front()->uniqueID();
        for (const auto& device : platform->devices())
            if (device->hasMediaType(platform::AVMediaType::video) && device->uniqueID() != kOddID) camera = device->uniqueID();
    }
    void TearDown() override {
        server->shutdown();
        server.reset();
        installed.reset();
    }
    std::string url(const std::string& id) { return LivePreviewServer::previewURL(*server->baseUrl(), id); }
    std::string request(const std::string& id, const std::string& version = "1.0") {
        return "GET " + urlPath(url(id)) + " HTTP/" + version + "\r\nHost: 127.0.0.1\r\n\r\n";
    }
    size_t producers(const std::string& id) { return platform->syntheticDevice(id)->runningProducerCount(); }
    bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
        const auto until = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < until) {
            if (condition()) return true;
            std::this_thread::sleep_for(10ms);
        }
        return condition();
    }

    std::shared_ptr<SyntheticCapturePlatform> platform;
    std::unique_ptr<CapturePlatform::ScopedOverride> installed;
    std::shared_ptr<LivePreviewServer> server;
    uint16_t port = 0;
    std::string camera;
};

TEST(LivePreviewURLs, IdsArePercentEncodedAsOnePathComponentAndDecodedStrictly) {
    EXPECT_EQ(LivePreviewServer::previewURL("http://127.0.0.1:8080", kOddID),
              "http://127.0.0.1:8080/camera/cam%20one%2F%C3%BC");
    EXPECT_EQ(LivePreviewServer::cameraIDOfRequest("GET /camera/cam%20one%2F%C3%BC HTTP/1.1\r\n\r\n"), kOddID);
    EXPECT_EQ(LivePreviewServer::cameraIDOfRequest("GET /camera/a HTTP/1.0\r\nX: GET /camera/b HTTP/1.0\r\n\r\n"), "a");
    EXPECT_EQ(LivePreviewServer::cameraIDOfRequest("POST /camera/a HTTP/1.0\r\n\r\n"), std::nullopt);
    EXPECT_EQ(LivePreviewServer::cameraIDOfRequest("GET /other/a HTTP/1.0\r\n\r\n"), std::nullopt);
    // The id stays on the request line.
    EXPECT_EQ(LivePreviewServer::cameraIDOfRequest("GET /camera/\r\n HTTP/1.0\r\n\r\n"), std::nullopt);
    EXPECT_EQ(LivePreviewServer::removingPercentEncoding("%zz"), std::nullopt);
    EXPECT_EQ(LivePreviewServer::removingPercentEncoding("a%2"), std::nullopt);
    EXPECT_EQ(LivePreviewServer::removingPercentEncoding("%FF"), std::nullopt);
    EXPECT_EQ(LivePreviewServer::removingPercentEncoding("%C0%AF"), std::nullopt) << "overlong";
    EXPECT_EQ(LivePreviewServer::removingPercentEncoding("%E2%82%AC+x"), "\xE2\x82\xAC+x");
}

TEST_F(LivePreviewServerTest, TheListenerIsBoundToTheLoopbackAddressOnly) {
    std::ifstream tcp("/proc/net/tcp");
    std::string line;
    const std::string local = fmt::format("0100007F:{:04X}", port);
    bool found = false;
    while (std::getline(tcp, line)) {
        std::istringstream fields(line);
        std::string slot, address, remote, state;
        fields >> slot >> address >> remote >> state;
        if (address.ends_with(fmt::format(":{:04X}", port)) && state == "0A") {  // listening
            EXPECT_EQ(address, local);
            found = true;
        }
    }
    EXPECT_TRUE(found) << "no listening socket on port " << port;
    EXPECT_EQ(*server->baseUrl(), fmt::format("http://127.0.0.1:{}", port));
}

TEST_F(LivePreviewServerTest, ARawClientGetsTheHeaderThenPicturesOfTheCameraInOrder) {
    Client client(port);
    ASSERT_TRUE(client.connected());
    client.send(request(camera, "1.1"));
    const auto stream = client.readFor(1500ms);
    ASSERT_EQ(stream.substr(0, kHead.size()), kHead) << "an HTTP/1.0 answer whatever the request's version";
    auto parts = pictures(stream);
    ASSERT_GE(parts.size(), 10u);
    std::vector<uint32_t> counters;
    for (const auto& part : parts) {
        const auto picture = decode(part);
        EXPECT_EQ(picture.width, 1280u);
        EXPECT_EQ(picture.height, 720u);
        ASSERT_TRUE(picture.counter) << "unreadable frame counter";
        counters.push_back(*picture.counter);
    }
    for (size_t i = 1; i < counters.size(); ++i) EXPECT_GT(counters[i], counters[i - 1]);
    // The camera's own rate: 30 frames a second of its clock.
    const double span = double(counters.back() - counters.front());
    EXPECT_NEAR(span / double(parts.size() - 1), 1.0, 0.6) << "frames mostly consecutive";
}

TEST_F(LivePreviewServerTest, ARequestSplitOverThreeWritesIsPutTogether) {
    Client client(port);
    const auto text = request(camera);
    client.send(text.substr(0, 7));
    std::this_thread::sleep_for(100ms);
    client.send(text.substr(7, 10));
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(client.readFor(100ms).empty()) << "nothing before the empty line";
    client.send(text.substr(17));
    const auto stream = client.readFor(800ms);
    EXPECT_EQ(stream.substr(0, kHead.size()), kHead);
    EXPECT_GE(pictures(stream).size(), 2u);
}

TEST_F(LivePreviewServerTest, AnIdWithABlankASlashAndNonASCIITextStreams) {
    Client client(port);
    client.send(request(kOddID));
    const auto parts = pictures(client.readFor(800ms));
    ASSERT_GE(parts.size(), 2u);
    EXPECT_EQ(decode(parts.back()).width, 640u);
}

TEST_F(LivePreviewServerTest, BadRequestsGetNothingAndStayOpenAndAnUnknownCameraOnlyTheHeader) {
    std::vector<std::unique_ptr<Client>> clients;
    for (const std::string& text : {std::string("POST ") + urlPath(url(camera)) + " HTTP/1.0\r\n\r\n",
                                    std::string("GET /other/") + camera + " HTTP/1.0\r\n\r\n",
                                    std::string("GET /camera/%zz HTTP/1.0\r\n\r\n"),
                                    std::string("GET /camera/%FF%FE HTTP/1.0\r\n\r\n")}) {
        clients.push_back(std::make_unique<Client>(port));
        clients.back()->send(text);
    }
    Client unknown(port);
    unknown.send(request("no-such-camera"));
    std::this_thread::sleep_for(1s);
    for (auto& client : clients) {
        EXPECT_TRUE(client->readFor(10ms).empty());
        EXPECT_TRUE(client->isOpen());
    }
    EXPECT_EQ(unknown.readFor(300ms), kHead);
    EXPECT_TRUE(unknown.isOpen());
}

TEST_F(LivePreviewServerTest, EachClientHasItsOwnCaptureWhichEndsWithIt) {
    TempDirectory logs;
    const int logFd = ::open((logs / "os.log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    platform::OSLog::redirectForTesting(logFd);
    {
        Client first(port), second(port);
        first.send(request(camera));
        second.send(request(camera));
        EXPECT_GE(pictures(first.readFor(600ms)).size(), 2u);
        EXPECT_GE(pictures(second.readFor(300ms)).size(), 2u);
        EXPECT_EQ(producers(camera), 2u);
        EXPECT_EQ(server->connectionCount(), 2u);
        first.close();
        EXPECT_TRUE(waitUntil([&] { return producers(camera) == 1; }, 1s));
        EXPECT_GE(pictures(kHead + second.readFor(300ms).substr(0)).size(), 0u);
    }
    EXPECT_TRUE(waitUntil([&] { return producers(camera) == 0; }, 1s));
    platform::OSLog::redirectForTesting(-1);
    ::close(logFd);
    const auto text = testing::readFile(logs / "os.log");
    EXPECT_NE(text.find("Stopped capture session."), std::string::npos) << text;
    EXPECT_NE(text.find("Deinit for LivePreview "), std::string::npos);
}

TEST_F(LivePreviewServerTest, FfmpegReadsConsecutiveFramesOfTheStream) {
    TempDirectory dir;
    const int frames = 10;
    const auto command = fmt::format(
        "timeout 20 ffmpeg -v error -f mpjpeg -i '{}' -frames:v {} -pix_fmt gray -f rawvideo '{}' 2>&1",
        url(camera), frames, (dir / "frames.gray").string());
    const auto errors = testing::commandOutput(command);
    EXPECT_EQ(errors, "");
    const auto bytes = testing::readFile(dir / "frames.gray");
    ASSERT_EQ(bytes.size(), size_t(1280 * 720 * frames));
    std::vector<uint32_t> counters;
    for (int i = 0; i < frames; ++i) {
        auto picture = platform::CVPixelBuffer::make(1280, 720, platform::kCVPixelFormatType_420YpCbCr8BiPlanarFullRange);
        for (size_t row = 0; row < 720; ++row)
            std::memcpy(picture->baseAddressOfPlane(0) + row * picture->bytesPerRowOfPlane(0),
                        bytes.data() + size_t(i) * 1280 * 720 + row * 1280, 1280);
        const auto counter = platform::SyntheticPattern::readFrameCounter(*picture);
        ASSERT_TRUE(counter) << "frame " << i;
        counters.push_back(*counter);
    }
    int consecutive = 0;
    for (size_t i = 1; i < counters.size(); ++i) {
        EXPECT_GT(counters[i], counters[i - 1]);
        consecutive += counters[i] == counters[i - 1] + 1;
    }
    // A loaded machine may make the reader skip a frame now and then.
    EXPECT_GE(consecutive, frames / 2) << fmt::format("{}", fmt::join(counters, " "));
}

std::filesystem::path artifactDirectory() {
    const char* configured = std::getenv("ORVANE_TEST_ARTIFACTS");
    auto directory = configured ? std::filesystem::path(configured)
                                : std::filesystem::temp_directory_path() / "orvane-test-artifacts";
    std::filesystem::create_directories(directory);
    return directory;
}

TEST_F(LivePreviewServerTest, ChromiumShowsTheStreamInAnImageAndAnUnknownCameraNever) {
    if (testing::commandOutput("command -v chromium").empty()) GTEST_SKIP() << "chromium is not installed";
    TempDirectory dir;
    const std::string flags = "--headless --no-sandbox --disable-gpu --no-first-run --user-data-dir='" +
                              (dir / "profile").string() + "' --timeout=3000";
    auto page = [&](const std::string& source) {
        return "<!doctype html><html><body><img id='preview' src='" + source +
               "'><script>const i = document.getElementById('preview');"
               "i.onload = () => document.body.setAttribute('data-state', i.naturalWidth + ' ' + i.complete);"
               "</script></body></html>";
    };
    testing::writeFile(dir / "live.html", page(url(camera)));
    testing::writeFile(dir / "unknown.html", page(url("no-such-camera")));
    const auto live = testing::commandOutput("timeout 30 chromium " + flags + " --dump-dom 'file://" +
                                             (dir / "live.html").string() + "' 2>/dev/null");
    if (live.empty()) GTEST_SKIP() << "chromium can't run here";
    EXPECT_NE(live.find("data-state=\"1280 true\""), std::string::npos) << live;

    const auto unknown = testing::commandOutput("timeout 30 chromium " + flags + " --dump-dom 'file://" +
                                                (dir / "unknown.html").string() + "' 2>/dev/null");
    EXPECT_EQ(unknown.find("data-state=\""), std::string::npos) << unknown;
    EXPECT_NE(unknown.find("<img id=\"preview\""), std::string::npos) << unknown;

    const auto screenshot = artifactDirectory() / "live-preview.png";
    std::filesystem::remove(screenshot);
    testing::commandOutput("timeout 30 chromium " + flags + " --window-size=1280,720 --screenshot='" +
                           screenshot.string() + "' 'file://" + (dir / "live.html").string() + "' >/dev/null 2>&1");
    EXPECT_TRUE(std::filesystem::exists(screenshot)) << "the screenshot is kept as an artifact";
}

}  // namespace
}  // namespace ov::host
