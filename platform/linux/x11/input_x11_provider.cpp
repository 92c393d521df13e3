#include "platform/linux/x11/input_x11_provider.h"

#include <pthread.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include <xcb/record.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>
// xkb.h names a field "explicit", which C++ reserves.
#define explicit explicit_
#include <xcb/xkb.h>
#undef explicit
#include <xkbcommon/xkbcommon-x11.h>
#include <xkbcommon/xkbcommon.h>

#include "foundation/ov_error.h"
#include "platform/cm_clock.h"
#include "platform/linux/linux_capture_platform.h"
#include "platform/linux/x11/input_keyboard.h"
#include "platform/linux/x11/input_mapping.h"
#include "platform/os_log.h"

namespace ov::platform::x11 {
namespace {

OSLog& log() {
    static OSLog instance(OSLog::defaultSubsystem, "X11Input");
    return instance;
}

xcb_connection_t* connectOrNull(std::string& why) {
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display) {
        why = "DISPLAY is not set";
        return nullptr;
    }
    xcb_connection_t* c = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(c)) {
        why = std::string("Cannot connect to the X server at ") + display;
        xcb_disconnect(c);
        return nullptr;
    }
    return c;
}

xcb_screen_t* firstScreen(xcb_connection_t* c) { return xcb_setup_roots_iterator(xcb_get_setup(c)).data; }

// The server's time now, through one property change on a window of our own.
std::optional<uint32_t> serverTimeNow(xcb_connection_t* c) {
    xcb_screen_t* screen = firstScreen(c);
    const xcb_window_t window = xcb_generate_id(c);
    const uint32_t values[] = {XCB_EVENT_MASK_PROPERTY_CHANGE};
    xcb_create_window(c, 0, window, screen->root, 0, 0, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT,
                      XCB_CW_EVENT_MASK, values);
    xcb_change_property(c, XCB_PROP_MODE_APPEND, window, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8, 0, nullptr);
    xcb_flush(c);
    std::optional<uint32_t> time;
    while (xcb_generic_event_t* event = xcb_wait_for_event(c)) {
        const bool isProperty = (event->response_type & 0x7F) == XCB_PROPERTY_NOTIFY;
        if (isProperty) time = reinterpret_cast<xcb_property_notify_event_t*>(event)->time;
        std::free(event);
        if (isProperty) break;
    }
    xcb_destroy_window(c, window);
    xcb_flush(c);
    return time;
}

std::vector<uint8_t> pointerMapping(xcb_connection_t* c) {
    std::vector<uint8_t> map;
    if (auto* reply = xcb_get_pointer_mapping_reply(c, xcb_get_pointer_mapping(c), nullptr)) {
        const uint8_t* data = xcb_get_pointer_mapping_map(reply);
        map.assign(data, data + xcb_get_pointer_mapping_map_length(reply));
        std::free(reply);
    }
    return map;
}

// RECORD's reply categories.
constexpr uint8_t kCategoryFromServer = 0;
constexpr uint8_t kCategoryEndOfData = 5;

// Core device events as RECORD delivers them: 32-byte wire events.
struct WireDeviceEvent {
    uint8_t type;
    uint8_t detail;
    uint16_t sequence;
    uint32_t time;
    uint32_t root, event, child;
    int16_t rootX, rootY, eventX, eventY;
    uint16_t state;
    uint8_t sameScreen, pad;
};
static_assert(sizeof(WireDeviceEvent) == 32);

class RecordFeed final : public InputFeed {
public:
    RecordFeed(CGEventMask mask, InputFeedSink sink) : mask_(mask), sink_(std::move(sink)) {
        wantsKeys_ = CGEventMaskContains(mask, CGEventType::keyDown) || CGEventMaskContains(mask, CGEventType::keyUp) ||
                     CGEventMaskContains(mask, CGEventType::flagsChanged);
        wantsPointer_ = (mask & ~CGEventMaskFromTypes({CGEventType::keyDown, CGEventType::keyUp,
                                                       CGEventType::flagsChanged})) != 0;
        std::string why;
        control_ = connectOrNull(why);
        if (!control_) throw CGEventTapError(why);
        data_ = connectOrNull(why);
        if (!data_) {
            xcb_disconnect(control_);
            throw CGEventTapError(why);
        }
        try {
            setUp();
        } catch (...) {
            xcb_disconnect(data_);
            xcb_disconnect(control_);
            throw;
        }
        thread_ = std::thread([this] { run(); });
    }

    ~RecordFeed() override { stop(); }

    void stop() override {
        std::unique_lock lock(mutex_);
        if (stopped_) return;
        stopping_ = true;
        xcb_record_disable_context(control_, context_);
        xcb_flush(control_);
        // The server answers with end of data; a server that doesn't within a
        // second is cut off, which ends the blocking read too.
        if (!ended_.wait_for(lock, std::chrono::seconds(1), [this] { return finished_; }))
            ::shutdown(xcb_get_file_descriptor(data_), SHUT_RDWR);
        lock.unlock();
        if (thread_.joinable()) thread_.join();
        lock.lock();
        xcb_record_free_context(control_, context_);
        xcb_flush(control_);
        xcb_disconnect(data_);
        xcb_disconnect(control_);
        keys_.reset();
        if (xkbContext_) xkb_context_unref(xkbContext_);
        stopped_ = true;
    }

private:
    void setUp() {
        const xcb_query_extension_reply_t* record = xcb_get_extension_data(control_, &xcb_record_id);
        if (!record || !record->present) throw CGEventTapError("The X server has no RECORD extension");
        auto* version = xcb_record_query_version_reply(control_, xcb_record_query_version(control_, 1, 13), nullptr);
        if (!version) throw CGEventTapError("The X server's RECORD extension does not answer");
        std::free(version);

        const uint64_t hostNow = hostTimeNanosecondsNow();
        const auto serverNow = serverTimeNow(control_);
        if (!serverNow) throw CGEventTapError("The X server's time could not be read");
        timeMapper_.emplace(*serverNow, hostNow);
        if (!timeMapper_->isSameClock())
            log().info("The X server runs on another clock than this process; event times are mapped by their smallest delay.");

        mapping_ = PointerMapping(pointerMapping(control_));

        if (wantsKeys_) {
            if (!xkb_x11_setup_xkb_extension(control_, XKB_X11_MIN_MAJOR_XKB_VERSION, XKB_X11_MIN_MINOR_XKB_VERSION,
                                             XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS, nullptr, nullptr, &xkbEvent_,
                                             nullptr))
                throw CGEventTapError("The X server has no XKB extension");
            xkbContext_ = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
            device_ = xkb_x11_get_core_keyboard_device_id(control_);
            if (!xkbContext_ || device_ < 0) throw CGEventTapError("The core keyboard could not be found");
            xkb_keymap* keymap = xkb_x11_keymap_new_from_device(xkbContext_, control_, device_, XKB_KEYMAP_COMPILE_NO_FLAGS);
            if (!keymap) throw CGEventTapError("The keymap could not be read");
            keys_ = std::make_unique<XkbKeyProcessor>(keymap);
            xkb_keymap_unref(keymap);
            const uint16_t events = XCB_XKB_EVENT_TYPE_NEW_KEYBOARD_NOTIFY | XCB_XKB_EVENT_TYPE_MAP_NOTIFY;
            xcb_xkb_select_events(control_, static_cast<xcb_xkb_device_spec_t>(device_), events, 0, events, 0xFF, 0xFF,
                                  nullptr);
        }

        context_ = xcb_generate_id(control_);
        xcb_record_range_t range{};
        range.device_events.first = wantsKeys_ ? XCB_KEY_PRESS : XCB_BUTTON_PRESS;
        range.device_events.last = wantsPointer_ ? XCB_MOTION_NOTIFY : XCB_KEY_RELEASE;
        const xcb_record_client_spec_t clients = XCB_RECORD_CS_ALL_CLIENTS;
        auto* error = xcb_request_check(control_, xcb_record_create_context_checked(control_, context_, 0, 1, 1, &clients, &range));
        if (error) {
            std::free(error);
            throw CGEventTapError("The RECORD context could not be created");
        }
        cookie_ = xcb_record_enable_context(data_, context_);
        xcb_flush(data_);
    }

    // Keymap and pointer-mapping changes arrive on the control connection.
    void drainControlEvents() {
        while (xcb_generic_event_t* event = xcb_poll_for_event(control_)) {
            const uint8_t type = event->response_type & 0x7F;
            if (type == XCB_MAPPING_NOTIFY) {
                const auto* notify = reinterpret_cast<xcb_mapping_notify_event_t*>(event);
                if (notify->request == XCB_MAPPING_POINTER) mapping_ = PointerMapping(pointerMapping(control_));
            } else if (keys_ && type == xkbEvent_) {
                const uint8_t xkbType = reinterpret_cast<const uint8_t*>(event)[1];
                if (xkbType == XCB_XKB_NEW_KEYBOARD_NOTIFY || xkbType == XCB_XKB_MAP_NOTIFY) {
                    if (xkb_keymap* keymap = xkb_x11_keymap_new_from_device(xkbContext_, control_, device_,
                                                                            XKB_KEYMAP_COMPILE_NO_FLAGS)) {
                        keys_->setKeymap(keymap);
                        xkb_keymap_unref(keymap);
                    }
                }
            }
            std::free(event);
        }
    }

    void handle(const WireDeviceEvent& wire, uint64_t receipt) {
        CGEvent event;
        const uint8_t type = wire.type & 0x7F;
        if (type == XCB_KEY_PRESS || type == XCB_KEY_RELEASE) {
            if (!keys_) return;
            auto key = keys_->process(wire.detail, type == XCB_KEY_PRESS, wire.state);
            if (!key) return;
            event = std::move(*key);
        } else if (type == XCB_BUTTON_PRESS || type == XCB_BUTTON_RELEASE) {
            const uint8_t logical = mapping_.logical(wire.detail);
            const bool press = type == XCB_BUTTON_PRESS;
            if (press)
                held_.insert(logical);
            else
                held_.erase(logical);
            const auto button = buttonEvent(logical, press);
            if (!button) return;
            event.type = button->type;
            event.buttonNumber = button->buttonNumber;
            event.flags = flagsFromCoreState(wire.state);
        } else if (type == XCB_MOTION_NOTIFY) {
            std::set<uint8_t> held = held_;
            // The state's button mask is logical and covers presses from
            // before the feed started.
            for (uint8_t b = 1; b <= 3; ++b)
                if (wire.state & (0x100u << (b - 1))) held.insert(b);
            event.type = motionType(held);
            event.flags = flagsFromCoreState(wire.state);
        } else {
            return;
        }
        if (!CGEventMaskContains(mask_, event.type)) return;
        event.location = CGPoint{static_cast<double>(wire.rootX), static_cast<double>(wire.rootY)};
        event.timestamp = timeMapper_->hostNanoseconds(wire.time, receipt);
        if (sink_.event) sink_.event(event);
    }

    void run() {
        pthread_setname_np(pthread_self(), "CGEventTapQueue");
        std::exception_ptr failure;
        for (;;) {
            xcb_generic_error_t* error = nullptr;
            auto* reply = xcb_record_enable_context_reply(data_, cookie_, &error);
            if (!reply) {
                std::free(error);
                if (!stopping_) {
                    const int code = xcb_connection_has_error(data_);
                    failure = std::make_exception_ptr(PlatformError(
                        "Orvane.X11Input", code ? code : 1, "The connection to the X server was lost.",
                        "The RECORD data connection ended (xcb error " + std::to_string(code) + ")"));
                }
                break;
            }
            const uint64_t receipt = hostTimeNanosecondsNow();
            const uint8_t category = reply->category;
            if (category == kCategoryFromServer) {
                drainControlEvents();
                const uint8_t* data = xcb_record_enable_context_data(reply);
                const int length = xcb_record_enable_context_data_length(reply);
                for (int offset = 0; offset + 32 <= length; offset += 32) {
                    WireDeviceEvent wire;
                    std::memcpy(&wire, data + offset, sizeof wire);
                    handle(wire, receipt);
                }
            }
            std::free(reply);
            if (category == kCategoryEndOfData) break;
        }
        {
            std::lock_guard lock(mutex_);
            finished_ = true;
        }
        ended_.notify_all();
        if (sink_.ended) sink_.ended(failure);
    }

    CGEventMask mask_;
    InputFeedSink sink_;
    bool wantsKeys_ = false;
    bool wantsPointer_ = false;
    xcb_connection_t* control_ = nullptr;
    xcb_connection_t* data_ = nullptr;
    xcb_record_context_t context_ = 0;
    xcb_record_enable_context_cookie_t cookie_{};
    std::optional<ServerTimeMapper> timeMapper_;
    PointerMapping mapping_;
    std::set<uint8_t> held_;
    uint8_t xkbEvent_ = 0;
    xkb_context* xkbContext_ = nullptr;
    int32_t device_ = -1;
    std::unique_ptr<XkbKeyProcessor> keys_;

    std::mutex mutex_;
    std::condition_variable ended_;
    std::atomic<bool> stopping_{false};
    bool finished_ = false;
    bool stopped_ = false;
    std::thread thread_;
};

}  // namespace

namespace {

class XFixesCursorSource final : public CursorSource {
public:
    XFixesCursorSource() {
        std::string why;
        c_ = connectOrNull(why);
        if (!c_) throw PlatformError("Orvane.X11Input", 1, "The X server can't be reached.", why);
        const xcb_query_extension_reply_t* xfixes = xcb_get_extension_data(c_, &xcb_xfixes_id);
        auto* version = xfixes && xfixes->present
                            ? xcb_xfixes_query_version_reply(c_, xcb_xfixes_query_version(c_, 5, 0), nullptr)
                            : nullptr;
        if (!version) {
            xcb_disconnect(c_);
            throw PlatformError("Orvane.X11Input", 2, "The X server can't show its cursor.",
                                "The X server has no XFIXES extension");
        }
        std::free(version);
        root_ = firstScreen(c_)->root;
        xcb_xfixes_select_cursor_input(c_, root_, XCB_XFIXES_CURSOR_NOTIFY_MASK_DISPLAY_CURSOR);
        xcb_flush(c_);
        xfixesEvent_ = xfixes->first_event;
    }
    ~XFixesCursorSource() override { xcb_disconnect(c_); }

    std::optional<PointerState> pointer() override {
        std::lock_guard lock(mutex_);
        auto* reply = xcb_query_pointer_reply(c_, xcb_query_pointer(c_, root_), nullptr);
        if (!reply) return std::nullopt;
        PointerState state{{static_cast<double>(reply->root_x), static_cast<double>(reply->root_y)},
                           flagsFromCoreState(reply->mask)};
        std::free(reply);
        return state;
    }

    std::optional<NSCursor> currentSystemCursor() override {
        std::lock_guard lock(mutex_);
        if (xcb_connection_has_error(c_)) return std::nullopt;
        while (xcb_generic_event_t* event = xcb_poll_for_event(c_)) {
            if ((event->response_type & 0x7F) == xfixesEvent_ + XCB_XFIXES_CURSOR_NOTIFY) stale_ = true;
            std::free(event);
        }
        if (!stale_ && cached_) return cached_;
        // Read only when the shown cursor changed; a failed read (animated
        // theme cursors answer BadAccess) is tried again at the next tick.
        auto* reply = xcb_xfixes_get_cursor_image_and_name_reply(c_, xcb_xfixes_get_cursor_image_and_name(c_), nullptr);
        if (!reply) {
            NSCursor failed;
            failed.serial = ++failedSerial_ | (uint64_t{1} << 63);
            cached_.reset();
            return failed;
        }
        NSCursor cursor;
        cursor.hotSpot = CGPoint{static_cast<double>(reply->xhot), static_cast<double>(reply->yhot)};
        cursor.size = CGSize{static_cast<double>(reply->width), static_cast<double>(reply->height)};
        cursor.serial = reply->cursor_serial;
        const int nameLength = xcb_xfixes_get_cursor_image_and_name_name_length(reply);
        if (nameLength > 0) cursor.name = std::string(xcb_xfixes_get_cursor_image_and_name_name(reply), nameLength);
        const uint32_t* pixels = xcb_xfixes_get_cursor_image_and_name_cursor_image(reply);
        const int count = xcb_xfixes_get_cursor_image_and_name_cursor_image_length(reply);
        std::string image;
        const auto put = [&image](uint32_t v) {
            for (int i = 0; i < 4; ++i) image += static_cast<char>((v >> (8 * i)) & 0xFF);
        };
        put(reply->width);
        put(reply->height);
        for (int i = 0; i < count; ++i) put(pixels[i]);
        cursor.image = std::move(image);
        std::free(reply);
        cached_ = cursor;
        stale_ = false;
        return cursor;
    }

    // RandR gives no rate under Xvfb; the display link then ticks at 60.
    double refreshRate(CGPoint) override { return 0; }

private:
    std::mutex mutex_;
    xcb_connection_t* c_ = nullptr;
    xcb_window_t root_ = 0;
    uint8_t xfixesEvent_ = 0;
    bool stale_ = true;
    std::optional<NSCursor> cached_;
    uint64_t failedSerial_ = 0;
};

const bool registered = LinuxCapturePlatform::registerInputProbe(
    "x11", []() -> std::shared_ptr<InputCaptureProvider> { return std::make_shared<X11InputProvider>(); });

}  // namespace

X11InputProvider::X11InputProvider() {
    const char* session = std::getenv("XDG_SESSION_TYPE");
    if (session && std::string(session) == "wayland")
        throw OVError(OVError::Code::inputRecordingUnavailable, std::string("Input events need an X11 session"),
                      std::string("Input events need an X11 session"));
}

std::unique_ptr<InputFeed> X11InputProvider::startFeed(CGEventMask mask, InputFeedSink sink) {
    return std::make_unique<RecordFeed>(mask, std::move(sink));
}

std::shared_ptr<CursorSource> X11InputProvider::makeCursorSource() { return std::make_shared<XFixesCursorSource>(); }

}  // namespace ov::platform::x11
