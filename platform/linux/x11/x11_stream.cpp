#include "platform/linux/x11/x11_stream.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <xcb/composite.h>
#include <xcb/damage.h>
#include <xcb/render.h>
#include <xcb/xfixes.h>

#include <libyuv/scale_argb.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <map>
#include <set>
#include <thread>

#include <fmt/format.h>

#include "platform/cg_rect_dictionary.h"
#include "platform/cm_clock.h"
#include "platform/linux/x11/x11_connection.h"
#include "platform/linux/x11/x11_content.h"
#include "platform/linux/x11/x11_image.h"
#include "platform/os_log.h"
#include "platform/sc_stream.h"
#include "platform/sc_stream_error.h"

namespace ov::platform::x11 {
namespace {

OSLog& log() {
    static OSLog instance(OSLog::defaultSubsystem, "X11ScreenCapture");
    return instance;
}

constexpr int64_t kMinimumIntervalNanoseconds = 1'000'000'000 / 60;  // the 60 Hz ceiling
// How long one tick may wait for the server before it gives the tick up.
constexpr double kTickTimeLimitSeconds = 5.0;
// How long composed captures wait for windows to repaint what redirection exposed.
constexpr auto kRepaintWait = std::chrono::milliseconds(150);

struct Rect {
    int32_t x = 0, y = 0, width = 0, height = 0;
    bool empty() const { return width <= 0 || height <= 0; }
    friend bool operator==(const Rect&, const Rect&) = default;
};

Rect intersect(const Rect& a, const Rect& b) {
    const int32_t x0 = std::max(a.x, b.x), y0 = std::max(a.y, b.y);
    const int32_t x1 = std::min(a.x + a.width, b.x + b.width), y1 = std::min(a.y + a.height, b.y + b.height);
    return {x0, y0, std::max(0, x1 - x0), std::max(0, y1 - y0)};
}

CGRect toCG(const Rect& r) { return {{double(r.x), double(r.y)}, {double(r.width), double(r.height)}}; }

// Rendering formats of the visuals, asked once per stream.
struct PictFormats {
    std::map<xcb_visualid_t, xcb_render_pictformat_t> byVisual;
    xcb_render_pictformat_t forVisual(xcb_visualid_t visual) const {
        auto it = byVisual.find(visual);
        return it == byVisual.end() ? 0 : it->second;
    }
};

PictFormats readPictFormats(const X11Connection& connection, Deadline deadline) {
    PictFormats formats;
    auto reply = connection.wait<xcb_render_query_pict_formats_reply_t>(
        xcb_render_query_pict_formats(connection.get()).sequence, deadline);
    if (!reply) return formats;
    for (auto screen = xcb_render_query_pict_formats_screens_iterator(reply.get()); screen.rem;
         xcb_render_pictscreen_next(&screen))
        for (auto depth = xcb_render_pictscreen_depths_iterator(screen.data); depth.rem; xcb_render_pictdepth_next(&depth))
            for (auto visual = xcb_render_pictdepth_visuals_iterator(depth.data); visual.rem;
                 xcb_render_pictvisual_next(&visual))
                formats.byVisual[visual.data->visual] = visual.data->format;
    return formats;
}

struct CursorImage {
    int32_t x = 0, y = 0;  // pointer position on the root
    uint16_t width = 0, height = 0, xhot = 0, yhot = 0;
    uint32_t serial = 0;
    std::vector<uint32_t> pixels;  // premultiplied ARGB
};

// Blends a premultiplied ARGB cursor into a BGRA picture whose top-left is
// (originX, originY) on the root.
void blendCursor(const CursorImage& cursor, CVPixelBuffer& picture, int32_t originX, int32_t originY) {
    const int32_t left = cursor.x - cursor.xhot - originX, top = cursor.y - cursor.yhot - originY;
    for (int32_t row = 0; row < cursor.height; ++row) {
        const int32_t y = top + row;
        if (y < 0 || y >= int32_t(picture.height())) continue;
        auto* out = reinterpret_cast<uint32_t*>(picture.baseAddress() + size_t(y) * picture.bytesPerRow());
        for (int32_t col = 0; col < cursor.width; ++col) {
            const int32_t x = left + col;
            if (x < 0 || x >= int32_t(picture.width())) continue;
            const uint32_t src = cursor.pixels[size_t(row) * cursor.width + col];
            const uint32_t alpha = src >> 24;
            if (alpha == 0) continue;
            const uint32_t dst = out[x];
            uint32_t result = 0xFF000000u;
            for (int shift = 0; shift < 24; shift += 8) {
                const uint32_t s = (src >> shift) & 0xFF, d = (dst >> shift) & 0xFF;
                result |= std::min<uint32_t>(255, s + (d * (255 - alpha) + 127) / 255) << shift;
            }
            out[x] = result;
        }
    }
}

class X11ScreenProducer final : public ScreenCaptureProducer {
public:
    X11ScreenProducer(std::shared_ptr<X11Connection> connection, SCContentFilter filter,
                      SCStreamConfiguration configuration, ScreenCaptureSink sink)
        : connection_(std::move(connection)),
          filter_(std::move(filter)),
          configuration_(std::move(configuration)),
          sink_(std::move(sink)),
          grabber_(connection_) {}

    ~X11ScreenProducer() override {
        stop();
        if (timerFd_ >= 0) ::close(timerFd_);
        if (wakeFd_ >= 0) ::close(wakeFd_);
    }

    // Everything that can make a start fail happens here, on the caller's thread.
    void prepare() {
        const auto deadline = deadlineIn(kTickTimeLimitSeconds);
        const auto& ext = connection_->extensions();
        if (!ext.damage || !ext.xfixes || !ext.render || !ext.composite)
            throw SCStreamError(SCStreamError::failedToStart, "The X server lacks an extension that screen capture needs.",
                                ext.describe());
        timerFd_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
        wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (timerFd_ < 0 || wakeFd_ < 0)
            throw SCStreamError(SCStreamError::failedToStart, "Can't create the capture timer.");
        xcb_connection_t* c = connection_->get();
        formats_ = readPictFormats(*connection_, deadline);
        rootDamage_ = xcb_generate_id(c);
        xcb_damage_create(c, rootDamage_, connection_->root(), XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY);
        xcb_xfixes_select_cursor_input(c, connection_->root(), XCB_XFIXES_CURSOR_NOTIFY_MASK_DISPLAY_CURSOR);
        resolve(filter_, deadline);
        if (needsRedirection(filter_)) redirect(deadline);
        connection_->sync(deadline);
    }

    void start() { thread_ = std::thread([this] { run(); }); }

    void stop() override {
        std::lock_guard control(stopMutex_);
        if (!thread_.joinable()) return;
        stopping_ = true;
        if (std::this_thread::get_id() == thread_.get_id()) {
            // Stopped from our own sink: the loop ends when the call returns.
            thread_.detach();
            return;
        }
        const uint64_t one = 1;
        [[maybe_unused]] auto written = ::write(wakeFd_, &one, sizeof one);
        connection_->cancel();
        {
            // A thread stuck inside xcb is freed by shutting the socket down.
            std::unique_lock lock(exitMutex_);
            if (!exitChanged_.wait_for(lock, std::chrono::seconds(1), [&] { return exited_; }))
                connection_->shutdownSocket();
        }
        thread_.join();
        if (dropped_ > 0) log().info(fmt::format("Screen stream stopped; {} frames could not be captured.", dropped_));
    }

    std::shared_ptr<const CMClock> synchronizationClock() const override { return CMClock::hostTimeClock(); }

    void updateContentFilter(const SCContentFilter& filter) override {
        std::lock_guard lock(mutex_);
        pendingFilter_ = filter;
        wake();
    }
    void updateConfiguration(const SCStreamConfiguration& configuration) override {
        std::lock_guard lock(mutex_);
        pendingConfiguration_ = configuration;
        wake();
    }

private:
    enum class Mode { root, composed, window };

    void wake() {
        const uint64_t one = 1;
        [[maybe_unused]] auto written = ::write(wakeFd_, &one, sizeof one);
    }

    static bool needsRedirection(const SCContentFilter& filter) {
        return filter.kind() != SCContentFilter::Kind::displayExcludingApplications &&
               filter.kind() != SCContentFilter::Kind::displayExcludingWindows;
    }

    void redirect(Deadline deadline) {
        if (redirected_) return;
        xcb_composite_redirect_subwindows(connection_->get(), connection_->root(), XCB_COMPOSITE_REDIRECT_AUTOMATIC);
        connection_->sync(deadline);
        redirected_ = true;
        redirectedAt_ = Clock::now();
    }

    // Finds what the filter shows now; throws SCStreamError noCaptureSource when it's gone.
    void resolve(const SCContentFilter& filter, Deadline deadline) {
        if (filter.kind() == SCContentFilter::Kind::desktopIndependentWindow) {
            mode_ = Mode::window;
            windowClient_ = filter.window().windowID;
            refreshWindows(deadline);
            if (!findWindow())
                throw SCStreamError(SCStreamError::noCaptureSource, "The window to capture is not available.",
                                    fmt::format("No top-level X11 window {}", windowClient_));
            // The rate of the display the window is on.
            refreshMonitors(deadline);
            monitorRefresh_ = monitors_.empty() ? 0 : monitors_.front().refreshRate;
            return;
        }
        refreshMonitors(deadline);
        const auto id = filter.displayValue().displayID;
        auto it = std::find_if(monitors_.begin(), monitors_.end(), [&](const auto& m) { return m.displayID == id; });
        if (it == monitors_.end())
            throw SCStreamError(SCStreamError::noCaptureSource, "The display to capture is not available.",
                                fmt::format("No X11 monitor with id {}", id));
        displayID_ = id;
        monitorRefresh_ = it->refreshRate;
        mode_ = needsRedirection(filter) ? Mode::composed : Mode::root;
    }

    void refreshMonitors(Deadline deadline) {
        monitors_ = readMonitors(*connection_, deadline);
        monitorsReadAt_ = Clock::now();
    }
    void refreshWindows(Deadline deadline) { windows_ = readWindows(*connection_, deadline); }

    const X11Window* findWindow() const {
        for (const auto& w : windows_)
            if (w.client == windowClient_) return &w;
        return nullptr;
    }

    // Whether a filter keeps a top-level window in its picture.
    bool keeps(const SCContentFilter& filter, const X11Window& w) const {
        auto listed = [&](const std::vector<SCWindow>& list) {
            return std::any_of(list.begin(), list.end(), [&](const auto& s) { return s.windowID == w.client; });
        };
        auto ownedByListed = [&] {
            if (!w.pid) return false;
            const auto& apps = filter.applications();
            return std::any_of(apps.begin(), apps.end(), [&](const auto& a) { return a.processID == *w.pid; });
        };
        switch (filter.kind()) {
            case SCContentFilter::Kind::displayExcludingWindows: return !listed(filter.windows());
            case SCContentFilter::Kind::displayIncludingWindows: return listed(filter.windows());
            case SCContentFilter::Kind::displayExcludingApplications: return !ownedByListed() || listed(filter.windows());
            case SCContentFilter::Kind::displayIncludingApplications: return ownedByListed() && !listed(filter.windows());
            case SCContentFilter::Kind::desktopIndependentWindow: return w.client == windowClient_;
        }
        return false;
    }

    int64_t intervalNanoseconds(const SCStreamConfiguration& configuration) const {
        int64_t interval = 0;
        const CMTime& minimum = configuration.minimumFrameInterval;
        if (minimum.isNumeric() && minimum.value > 0)
            interval = std::llround(minimum.seconds() * 1e9);
        else if (monitorRefresh_ > 0)
            interval = std::llround(1e9 / monitorRefresh_);
        return std::max(interval, kMinimumIntervalNanoseconds);
    }

    void armTimer(int64_t deadlineNanoseconds) {
        itimerspec spec{};
        spec.it_value.tv_sec = deadlineNanoseconds / 1'000'000'000;
        spec.it_value.tv_nsec = deadlineNanoseconds % 1'000'000'000;
        ::timerfd_settime(timerFd_, TFD_TIMER_ABSTIME, &spec, nullptr);
    }

    // Waits for the timer or a wake; false when stopping.
    bool sleep() {
        pollfd fds[2] = {{timerFd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
        for (;;) {
            if (stopping_) return false;
            const int n = ::poll(fds, 2, -1);
            if (n < 0 && errno == EINTR) continue;
            uint64_t value;
            if (fds[1].revents & POLLIN) [[maybe_unused]] auto r = ::read(wakeFd_, &value, sizeof value);
            if (stopping_) return false;
            if (fds[0].revents & POLLIN) {
                [[maybe_unused]] auto r = ::read(timerFd_, &value, sizeof value);
                return true;
            }
        }
    }

    void fail(std::exception_ptr error) {
        if (failed_.exchange(true) || stopping_) return;
        if (sink_.failed) sink_.failed(std::move(error));
    }

    void run() {
        try {
            loop();
        } catch (const X11Error& e) {
            if (e.code() == X11Error::cancelled || stopping_) {
                // stop() asked for it
            } else {
                log().error(std::string("Screen stream lost its X server: ") + e.what());
                fail(std::make_exception_ptr(SCStreamError(SCStreamError::systemStoppedStream,
                                                           "The stream was stopped by the system.", e.what())));
            }
        } catch (const SCStreamError& e) {
            fail(std::current_exception());
        } catch (const std::exception& e) {
            log().error(std::string("Screen stream failed: ") + e.what());
            fail(std::make_exception_ptr(SCStreamError(SCStreamError::systemStoppedStream,
                                                       "The stream was stopped by the system.", e.what())));
        }
        std::lock_guard lock(exitMutex_);
        exited_ = true;
        exitChanged_.notify_all();
    }

    void loop() {
        if (redirected_) std::this_thread::sleep_until(redirectedAt_ + kRepaintWait);
        SCStreamConfiguration configuration;
        {
            std::lock_guard lock(mutex_);
            configuration = configuration_;
        }
        int64_t interval = intervalNanoseconds(configuration);
        int64_t start = static_cast<int64_t>(hostTimeNanosecondsNow());
        uint64_t n = 0;
        bool first = true;
        armTimer(start);
        while (sleep()) {
            const int64_t now = static_cast<int64_t>(hostTimeNanosecondsNow());
            {
                std::lock_guard lock(mutex_);
                if (pendingConfiguration_) {
                    configuration_ = *pendingConfiguration_;
                    pendingConfiguration_.reset();
                    configuration = configuration_;
                    forceFrame_ = true;
                }
                if (pendingFilter_) {
                    filter_ = *pendingFilter_;
                    pendingFilter_.reset();
                    resolve(filter_, deadlineIn(kTickTimeLimitSeconds));
                    if (needsRedirection(filter_)) redirect(deadlineIn(kTickTimeLimitSeconds));
                    forceFrame_ = true;
                }
            }
            const int64_t wanted = intervalNanoseconds(configuration);
            if (wanted != interval) {
                interval = wanted;
                start = now;
                n = 0;
            }
            if (now < start + int64_t(n) * interval) {
                // Woken early (a filter or configuration change): keep the schedule.
                armTimer(start + int64_t(n) * interval);
                continue;
            }
            try {
                tick(now, interval, configuration, first || forceFrame_);
                first = false;
                forceFrame_ = false;
            } catch (const X11Error& e) {
                if (e.code() != X11Error::timedOut) throw;
                ++dropped_;  // the server was busy (a grab): try again at the next deadline
            }
            // The next deadline after now: missed ones are skipped, never caught up.
            const int64_t after = static_cast<int64_t>(hostTimeNanosecondsNow());
            n = uint64_t((after - start) / interval) + 1;
            armTimer(start + int64_t(n) * interval);
        }
    }

    // Drains the events; whether anything on screen changed.
    bool drainEvents() {
        bool changed = false;
        const auto& ext = connection_->extensions();
        while (xcb_generic_event_t* event = xcb_poll_for_event(connection_->get())) {
            const uint8_t type = event->response_type & 0x7f;
            if (type == ext.damageEventBase + XCB_DAMAGE_NOTIFY) changed = true;
            else if (type == ext.xfixesEventBase + XCB_XFIXES_CURSOR_NOTIFY) cursorShapeChanged_ = true;
            std::free(event);
        }
        if (connection_->hasError()) throw X11Error(X11Error::connectionLost, "The connection to the X server was lost.");
        return changed;
    }

    void sendIdle(int64_t now, int64_t interval) {
        CMSampleBuffer::Contents contents;
        contents.numSamples = 1;
        contents.timing = {{CMTime(interval, 1'000'000'000), CMTime(now, 1'000'000'000), kCMTimeInvalid}};
        contents.sampleAttachments = {CMAttachmentDictionary{
            {SCStreamFrameInfoStatus, static_cast<int>(SCFrameStatus::idle)}, {SCStreamFrameInfoDisplayTime, now}}};
        deliver(CMSampleBuffer::create(std::move(contents)));
    }

    void deliver(const CMSampleBuffer& sample) {
        if (stopping_ || failed_) return;
        sink_.output(SCStreamOutputType::screen, sample);
    }

    // Keeps one DAMAGE object per composed window, so that drawing hidden
    // behind other windows still counts as a change.
    void trackWindowDamage(const std::vector<const X11Window*>& drawn) {
        xcb_connection_t* c = connection_->get();
        std::set<xcb_window_t> present;
        for (const auto* w : drawn) {
            present.insert(w->frame);
            if (!windowDamage_.count(w->frame)) {
                const uint32_t damage = xcb_generate_id(c);
                xcb_damage_create(c, damage, w->frame, XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY);
                windowDamage_[w->frame] = damage;
            }
        }
        for (auto it = windowDamage_.begin(); it != windowDamage_.end();) {
            if (present.count(it->first)) {
                ++it;
                continue;
            }
            xcb_damage_destroy(c, it->second);
            it = windowDamage_.erase(it);
        }
    }

    void tick(int64_t now, int64_t interval, const SCStreamConfiguration& configuration, bool force) {
        const auto deadline = deadlineIn(kTickTimeLimitSeconds);
        xcb_connection_t* c = connection_->get();
        bool changed = drainEvents() || force;

        // Where the picture comes from, in root pixels.
        Rect area;
        std::vector<const X11Window*> drawn;  // bottom to top
        const X11Window* window = nullptr;
        if (mode_ == Mode::window) {
            refreshWindows(deadline);
            window = findWindow();
            if (!window)
                throw SCStreamError(SCStreamError::noCaptureSource, "The captured window is no longer available.",
                                    fmt::format("X11 window {} is gone", windowClient_));
            if (!window->onScreen) {  // minimised or on another desktop
                trackWindowDamage({});
                sendIdle(now, interval);
                return;
            }
            area = {window->x, window->y, window->width, window->height};
            if (!(area == lastArea_)) changed = true;
            drawn.push_back(window);
        } else {
            if (Clock::now() - monitorsReadAt_ > std::chrono::milliseconds(500)) refreshMonitors(deadline);
            auto it = std::find_if(monitors_.begin(), monitors_.end(), [&](const auto& m) { return m.displayID == displayID_; });
            if (it == monitors_.end())
                throw SCStreamError(SCStreamError::noCaptureSource, "The captured display is no longer available.",
                                    fmt::format("X11 monitor {} is gone", displayID_));
            area = {it->x, it->y, it->width, it->height};
            if (!(area == lastArea_)) changed = true;
            if (mode_ == Mode::root && needsCompositionNow(area, deadline)) {
                redirect(deadline);
                mode_ = Mode::composed;
                changed = true;
            }
            if (mode_ == Mode::composed) {
                refreshWindows(deadline);
                for (auto w = windows_.rbegin(); w != windows_.rend(); ++w)
                    if (w->onScreen && keeps(filter_, *w) &&
                        !intersect(area, {w->x, w->y, w->width, w->height}).empty())
                        drawn.push_back(&*w);
                // A window coming, going or moving changes the picture without damage of its own.
                std::vector<Rect> layout;
                for (const auto* w : drawn) layout.push_back({w->x, w->y, w->width, w->height});
                if (layout != lastLayout_) changed = true;
                lastLayout_ = std::move(layout);
            }
        }
        if (mode_ != Mode::root) trackWindowDamage(drawn);

        // The crop, in the source's own coordinates.
        Rect shown = {0, 0, area.width, area.height};
        if (configuration.sourceRect && configuration.sourceRect->size.width > 0 && configuration.sourceRect->size.height > 0) {
            const auto& r = *configuration.sourceRect;
            Rect crop{int32_t(std::lround(r.origin.x)), int32_t(std::lround(r.origin.y)), int32_t(std::lround(r.size.width)),
                      int32_t(std::lround(r.size.height))};
            crop = intersect(crop, shown);
            if (!crop.empty()) shown = crop;
        }
        const Rect global{area.x + shown.x, area.y + shown.y, shown.width, shown.height};

        // The pointer: its move or new shape over the shown area is a change.
        if (configuration.showsCursor) {
            auto reply = connection_->wait<xcb_xfixes_get_cursor_image_reply_t>(xcb_xfixes_get_cursor_image(c).sequence,
                                                                                 deadline);
            if (reply) {
                CursorImage next;
                next.x = reply->x;
                next.y = reply->y;
                next.width = reply->width;
                next.height = reply->height;
                next.xhot = reply->xhot;
                next.yhot = reply->yhot;
                next.serial = reply->cursor_serial;
                const uint32_t* pixels = xcb_xfixes_get_cursor_image_cursor_image(reply.get());
                next.pixels.assign(pixels, pixels + size_t(next.width) * next.height);
                auto over = [&](const CursorImage& cur) {
                    return !cur.pixels.empty() &&
                           !intersect(global, {cur.x - cur.xhot, cur.y - cur.yhot, cur.width, cur.height}).empty();
                };
                const bool moved = next.x != cursor_.x || next.y != cursor_.y || next.serial != cursor_.serial ||
                                   cursorShapeChanged_;
                if (moved && (over(next) || over(cursor_))) changed = true;
                cursor_ = std::move(next);
                cursorShapeChanged_ = false;
            }
        } else if (hadCursor_) {
            changed = true;  // the last picture showed it
        }
        hadCursor_ = configuration.showsCursor;
        lastArea_ = area;

        if (!changed) {
            sendIdle(now, interval);
            return;
        }

        // Drawing from here on counts for the next tick.
        xcb_damage_subtract(c, rootDamage_, XCB_NONE, XCB_NONE);
        for (const auto& [frame, damage] : windowDamage_) xcb_damage_subtract(c, damage, XCB_NONE, XCB_NONE);

        const uint8_t* pixels = nullptr;
        xcb_pixmap_t composed = XCB_NONE;
        if (mode_ == Mode::root) {
            pixels = grabber_.grab(connection_->root(), int16_t(global.x), int16_t(global.y), uint16_t(global.width),
                                   uint16_t(global.height), deadline);
        } else if (mode_ == Mode::window) {
            composed = xcb_generate_id(c);
            xcb_composite_name_window_pixmap(c, window->frame, composed);
            pixels = grabber_.grab(composed, int16_t(shown.x), int16_t(shown.y), uint16_t(shown.width),
                                   uint16_t(shown.height), deadline);
        } else {
            composed = compose(area, drawn);
            pixels = grabber_.grab(composed, int16_t(shown.x), int16_t(shown.y), uint16_t(shown.width),
                                   uint16_t(shown.height), deadline);
        }
        if (composed != XCB_NONE) xcb_free_pixmap(c, composed);
        if (!pixels) {
            // The window went between the listing and the grab, or left the screen: no picture this time.
            forceFrame_ = true;
            sendIdle(now, interval);
            return;
        }
        sendPicture(pixels, shown, global, now, interval, configuration);
    }

    // Whether a window that the filter hides lies on the display now (the
    // root grab would show it).
    bool needsCompositionNow(const Rect& area, Deadline deadline) {
        if (filter_.windows().empty() && filter_.applications().empty()) return false;
        refreshWindows(deadline);
        return std::any_of(windows_.begin(), windows_.end(), [&](const auto& w) {
            return w.onScreen && !keeps(filter_, w) && !intersect(area, {w.x, w.y, w.width, w.height}).empty();
        });
    }

    // The kept windows' pixmaps over black, bottom to top, in an offscreen
    // pixmap of the area's size. (The root's own picture can't serve as the
    // background: it still holds the redirected windows.)
    xcb_pixmap_t compose(const Rect& area, const std::vector<const X11Window*>& drawn) {
        xcb_connection_t* c = connection_->get();
        const auto& screen = connection_->screen();
        const xcb_pixmap_t target = xcb_generate_id(c);
        xcb_create_pixmap(c, screen.root_depth, target, connection_->root(), uint16_t(area.width), uint16_t(area.height));
        const xcb_render_picture_t targetPicture = xcb_generate_id(c);
        xcb_render_create_picture(c, targetPicture, target, formats_.forVisual(screen.root_visual), 0, nullptr);
        const xcb_render_color_t black{0, 0, 0, 0xffff};
        const xcb_rectangle_t all{0, 0, uint16_t(area.width), uint16_t(area.height)};
        xcb_render_fill_rectangles(c, XCB_RENDER_PICT_OP_SRC, targetPicture, black, 1, &all);
        for (const auto* w : drawn) {
            const xcb_render_pictformat_t format = formats_.forVisual(w->visual);
            if (!format) continue;
            const xcb_pixmap_t pixmap = xcb_generate_id(c);
            xcb_composite_name_window_pixmap(c, w->frame, pixmap);
            const xcb_render_picture_t picture = xcb_generate_id(c);
            xcb_render_create_picture(c, picture, pixmap, format, 0, nullptr);
            xcb_render_composite(c, XCB_RENDER_PICT_OP_OVER, picture, XCB_NONE, targetPicture, 0, 0, 0, 0,
                                 int16_t(w->x - area.x), int16_t(w->y - area.y), uint16_t(w->width), uint16_t(w->height));
            xcb_render_free_picture(c, picture);
            xcb_free_pixmap(c, pixmap);
        }
        xcb_render_free_picture(c, targetPicture);
        return target;
    }

    void sendPicture(const uint8_t* pixels, const Rect& shown, const Rect& global, int64_t now, int64_t interval,
                     const SCStreamConfiguration& configuration) {
        const size_t sourceWidth = size_t(shown.width), sourceHeight = size_t(shown.height);
        const size_t width = configuration.width > 0 ? size_t(configuration.width) : sourceWidth;
        const size_t height = configuration.height > 0 ? size_t(configuration.height) : sourceHeight;
        auto picture = pool_.take(width, height);
        if (!picture) {
            ++dropped_;
            sendIdle(now, interval);
            return;
        }
        Rect content{0, 0, int32_t(width), int32_t(height)};
        if (width == sourceWidth && height == sourceHeight) {
            copyOpaque(pixels, sourceWidth * 4, sourceWidth, sourceHeight, *picture);
            if (configuration.showsCursor) blendCursor(cursor_, *picture, global.x, global.y);
        } else {
            // Scaled to fit, aspect kept, black around it.
            if (!scratch_ || scratch_->width() != sourceWidth || scratch_->height() != sourceHeight)
                scratch_ = CVPixelBuffer::make(sourceWidth, sourceHeight, kCVPixelFormatType_32BGRA);
            copyOpaque(pixels, sourceWidth * 4, sourceWidth, sourceHeight, *scratch_);
            if (configuration.showsCursor) blendCursor(cursor_, *scratch_, global.x, global.y);
            if (configuration.scalesToFit) {
                const double scale = std::min(double(width) / sourceWidth, double(height) / sourceHeight);
                content.width = std::max<int32_t>(1, int32_t(std::lround(sourceWidth * scale)));
                content.height = std::max<int32_t>(1, int32_t(std::lround(sourceHeight * scale)));
                content.x = (int32_t(width) - content.width) / 2;
                content.y = (int32_t(height) - content.height) / 2;
            }
            for (size_t row = 0; row < height; ++row) {
                auto* out = reinterpret_cast<uint32_t*>(picture->baseAddress() + row * picture->bytesPerRow());
                std::fill(out, out + width, 0xFF000000u);
            }
            uint8_t* origin = picture->baseAddress() + size_t(content.y) * picture->bytesPerRow() + size_t(content.x) * 4;
            libyuv::ARGBScale(scratch_->baseAddress(), int(scratch_->bytesPerRow()), int(sourceWidth), int(sourceHeight),
                              origin, int(picture->bytesPerRow()), content.width, content.height, libyuv::kFilterBilinear);
        }

        // Stamped when the picture is ready, not at the tick: on a busy machine
        // the grab and copy can take long, and the time must stay close to the
        // time of delivery (never after it).
        now = std::max(now, static_cast<int64_t>(hostTimeNanosecondsNow()));
        CMSampleBuffer::Contents contents;
        contents.numSamples = 1;
        contents.timing = {{CMTime(interval, 1'000'000'000), CMTime(now, 1'000'000'000), kCMTimeInvalid}};
        contents.formatDescription = CMFormatDescription::makeForImageBuffer(*picture);
        contents.imageBuffer = std::move(picture);
        contents.sampleAttachments = {CMAttachmentDictionary{
            {SCStreamFrameInfoStatus, static_cast<int>(SCFrameStatus::complete)},
            {SCStreamFrameInfoDisplayTime, now},
            {SCStreamFrameInfoScreenRect, CGRectCreateDictionaryRepresentation(toCG(global))},
            {SCStreamFrameInfoContentRect, CGRectCreateDictionaryRepresentation(toCG(content))},
            {SCStreamFrameInfoScaleFactor, 1.0}}};
        deliver(CMSampleBuffer::create(std::move(contents)));
    }

    std::shared_ptr<X11Connection> connection_;
    // Filter and configuration: the thread's copies, and what callers ask for next.
    std::mutex mutex_;
    SCContentFilter filter_;
    SCStreamConfiguration configuration_;
    std::optional<SCContentFilter> pendingFilter_;
    std::optional<SCStreamConfiguration> pendingConfiguration_;
    ScreenCaptureSink sink_;

    std::thread thread_;
    std::mutex stopMutex_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> failed_{false};
    std::mutex exitMutex_;
    std::condition_variable exitChanged_;
    bool exited_ = false;
    int timerFd_ = -1;
    int wakeFd_ = -1;

    // The capture thread's own state.
    Mode mode_ = Mode::root;
    CGDirectDisplayID displayID_ = 0;
    xcb_window_t windowClient_ = 0;
    double monitorRefresh_ = 0;
    std::vector<X11Monitor> monitors_;
    Clock::time_point monitorsReadAt_;
    std::vector<X11Window> windows_;
    PictFormats formats_;
    uint32_t rootDamage_ = 0;
    std::map<xcb_window_t, uint32_t> windowDamage_;
    bool redirected_ = false;
    Clock::time_point redirectedAt_;
    bool forceFrame_ = false;
    bool cursorShapeChanged_ = false;
    bool hadCursor_ = false;
    CursorImage cursor_;
    Rect lastArea_;
    std::vector<Rect> lastLayout_;
    X11ImageGrabber grabber_;
    PixelBufferPool pool_;
    std::shared_ptr<CVPixelBuffer> scratch_;
    uint64_t dropped_ = 0;
};

}  // namespace

std::unique_ptr<ScreenCaptureProducer> startX11ScreenCapture(const std::string& display, const SCContentFilter& filter,
                                                             const SCStreamConfiguration& configuration,
                                                             ScreenCaptureSink sink) {
    if (configuration.capturesAudio)
        throw SCStreamError(SCStreamError::failedToStart,
                            "System audio capture through a screen stream is not available on X11 yet.");
    std::shared_ptr<X11Connection> connection;
    try {
        connection = X11Connection::open(display, 3.0);
    } catch (const X11Error& e) {
        throw SCStreamError(SCStreamError::failedToStart,
                            "Can't connect to the X server named by $DISPLAY.", e.what());
    }
    auto producer = std::make_unique<X11ScreenProducer>(std::move(connection), filter, configuration, std::move(sink));
    try {
        producer->prepare();
    } catch (const X11Error& e) {
        throw SCStreamError(SCStreamError::failedToStart, "The X server did not set up the capture.", e.what());
    }
    producer->start();
    return producer;
}

}  // namespace ov::platform::x11
