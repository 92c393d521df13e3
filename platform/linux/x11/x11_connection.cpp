#include "platform/linux/x11/x11_connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <xcb/composite.h>
#include <xcb/damage.h>
#include <xcb/randr.h>
#include <xcb/render.h>
#include <xcb/res.h>
#include <xcb/shm.h>
#include <xcb/xcbext.h>
#include <xcb/xfixes.h>

#include <algorithm>
#include <condition_variable>
#include <thread>

#include <fmt/format.h>

namespace ov::platform::x11 {

std::string X11Extensions::describe() const {
    return fmt::format("MIT-SHM {}{}, DAMAGE {}, XFIXES {}, RandR {}, Composite {}, RENDER {}, X-Resource {}",
                       shm ? "yes" : "no", shmFd ? " (fd)" : "", damage ? "yes" : "no", xfixes ? "yes" : "no",
                       randr ? "yes" : "no", composite ? "yes" : "no", render ? "yes" : "no", res ? "yes" : "no");
}

namespace {

// The outcome of one connection attempt, shared with its thread: an attempt
// that outlives its caller's time limit cleans up after itself.
struct Attempt {
    std::mutex mutex;
    std::condition_variable changed;
    bool done = false;
    bool abandoned = false;
    xcb_connection_t* connection = nullptr;
    int screen = 0;
};

}  // namespace

std::shared_ptr<X11Connection> X11Connection::open(const std::string& display, double timeLimitSeconds) {
    std::string name = display;
    if (name.empty()) {
        const char* env = std::getenv("DISPLAY");
        if (!env || !*env) throw X11Error(X11Error::noDisplay, "No X display: $DISPLAY is not set.");
        name = env;
    }
    auto attempt = std::make_shared<Attempt>();
    std::thread([attempt, name] {
        int screen = 0;
        xcb_connection_t* c = xcb_connect(name.c_str(), &screen);
        std::lock_guard lock(attempt->mutex);
        if (attempt->abandoned) {
            xcb_disconnect(c);
            return;
        }
        attempt->connection = c;
        attempt->screen = screen;
        attempt->done = true;
        attempt->changed.notify_all();
    }).detach();

    std::unique_lock lock(attempt->mutex);
    if (!attempt->changed.wait_until(lock, deadlineIn(timeLimitSeconds), [&] { return attempt->done; })) {
        attempt->abandoned = true;
        throw X11Error(X11Error::timedOut,
                       fmt::format("The X server of display \"{}\" did not accept a connection in time.", name));
    }
    xcb_connection_t* c = attempt->connection;
    if (xcb_connection_has_error(c)) {
        xcb_disconnect(c);
        throw X11Error(X11Error::noDisplay, fmt::format("Can't open X display \"{}\" ($DISPLAY).", name));
    }
    std::shared_ptr<X11Connection> connection(new X11Connection(c, attempt->screen, name));
    connection->checkExtensions();
    return connection;
}

X11Connection::X11Connection(xcb_connection_t* connection, int screenNumber, std::string displayName)
    : connection_(connection), displayName_(std::move(displayName)) {
    auto it = xcb_setup_roots_iterator(xcb_get_setup(connection_));
    for (int i = 0; i < screenNumber && it.rem; ++i) xcb_screen_next(&it);
    screen_ = it.data;
    if (!screen_) {
        xcb_disconnect(connection_);
        throw X11Error(X11Error::noDisplay, "The X display has no such screen.");
    }
}

X11Connection::~X11Connection() { xcb_disconnect(connection_); }

void X11Connection::shutdownSocket() {
    cancelled_ = true;
    ::shutdown(xcb_get_file_descriptor(connection_), SHUT_RDWR);
}

void* X11Connection::waitRaw(unsigned int sequence, Deadline deadline) const {
    xcb_flush(connection_);
    for (;;) {
        void* reply = nullptr;
        xcb_generic_error_t* error = nullptr;
        if (xcb_poll_for_reply(connection_, sequence, &reply, &error)) {
            if (error) {
                std::free(error);
                return nullptr;
            }
            if (!reply && hasError()) break;
            return reply;
        }
        if (hasError()) break;
        if (cancelled_) {
            xcb_discard_reply(connection_, sequence);
            throw X11Error(X11Error::cancelled, "The wait for the X server was cancelled.");
        }
        const auto now = Clock::now();
        if (now >= deadline) {
            xcb_discard_reply(connection_, sequence);
            throw X11Error(X11Error::timedOut, "The X server did not answer in time.");
        }
        // Short slices: another thread may read our reply off the socket.
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count();
        pollfd fd{xcb_get_file_descriptor(connection_), POLLIN, 0};
        ::poll(&fd, 1, static_cast<int>(std::clamp<long long>(left, 1, 10)));
    }
    throw X11Error(X11Error::connectionLost, "The connection to the X server was lost.");
}

void X11Connection::sync(Deadline deadline) const {
    auto cookie = xcb_get_input_focus(connection_);
    wait<xcb_get_input_focus_reply_t>(cookie.sequence, deadline);
    if (hasError()) throw X11Error(X11Error::connectionLost, "The connection to the X server was lost.");
}

bool X11Connection::check(xcb_void_cookie_t cookie, Deadline deadline) const {
    // After a round trip the error (if any) is already here, so the check
    // below does not block.
    sync(deadline);
    xcb_generic_error_t* error = xcb_request_check(connection_, cookie);
    if (!error) return true;
    std::free(error);
    return false;
}

xcb_atom_t X11Connection::atom(const std::string& name, Deadline deadline, bool onlyIfExists) const {
    {
        std::lock_guard lock(atomMutex_);
        if (auto it = atoms_.find(name); it != atoms_.end()) return it->second;
    }
    auto cookie = xcb_intern_atom(connection_, onlyIfExists, name.size(), name.c_str());
    auto reply = wait<xcb_intern_atom_reply_t>(cookie.sequence, deadline);
    const xcb_atom_t value = reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
    if (value != XCB_ATOM_NONE) {
        std::lock_guard lock(atomMutex_);
        atoms_[name] = value;
    }
    return value;
}

std::string X11Connection::atomName(xcb_atom_t atom, Deadline deadline) const {
    auto reply = wait<xcb_get_atom_name_reply_t>(xcb_get_atom_name(connection_, atom).sequence, deadline);
    if (!reply) return {};
    return std::string(xcb_get_atom_name_name(reply.get()), xcb_get_atom_name_name_length(reply.get()));
}

void X11Connection::checkExtensions() {
    const auto deadline = deadlineIn(5);
    auto present = [&](xcb_extension_t* ext) {
        const auto* data = xcb_get_extension_data(connection_, ext);
        return data && data->present ? data : nullptr;
    };
    // Prefetch, then ask every version at once.
    for (auto* ext : {&xcb_shm_id, &xcb_damage_id, &xcb_xfixes_id, &xcb_randr_id, &xcb_composite_id, &xcb_render_id,
                      &xcb_res_id})
        xcb_prefetch_extension_data(connection_, ext);
    const auto* shm = present(&xcb_shm_id);
    const auto* damage = present(&xcb_damage_id);
    const auto* xfixes = present(&xcb_xfixes_id);
    const auto* randr = present(&xcb_randr_id);
    const auto* composite = present(&xcb_composite_id);
    const auto* render = present(&xcb_render_id);
    const auto* res = present(&xcb_res_id);
    auto shmCookie = shm ? xcb_shm_query_version(connection_) : xcb_shm_query_version_cookie_t{0};
    auto damageCookie = damage ? xcb_damage_query_version(connection_, 1, 1) : xcb_damage_query_version_cookie_t{0};
    auto xfixesCookie = xfixes ? xcb_xfixes_query_version(connection_, 5, 0) : xcb_xfixes_query_version_cookie_t{0};
    auto randrCookie = randr ? xcb_randr_query_version(connection_, 1, 6) : xcb_randr_query_version_cookie_t{0};
    auto compositeCookie =
        composite ? xcb_composite_query_version(connection_, 0, 4) : xcb_composite_query_version_cookie_t{0};
    auto renderCookie = render ? xcb_render_query_version(connection_, 0, 11) : xcb_render_query_version_cookie_t{0};
    auto resCookie = res ? xcb_res_query_version(connection_, 1, 2) : xcb_res_query_version_cookie_t{0};
    auto atLeast = [](uint32_t major, uint32_t minor, uint32_t wantMajor, uint32_t wantMinor) {
        return major > wantMajor || (major == wantMajor && minor >= wantMinor);
    };
    if (shm) {
        auto r = wait<xcb_shm_query_version_reply_t>(shmCookie.sequence, deadline);
        extensions_.shm = r != nullptr;
        extensions_.shmFd = r && atLeast(r->major_version, r->minor_version, 1, 2);
    }
    if (damage) {
        auto r = wait<xcb_damage_query_version_reply_t>(damageCookie.sequence, deadline);
        extensions_.damage = r && atLeast(r->major_version, r->minor_version, 1, 1);
        extensions_.damageEventBase = damage->first_event;
    }
    if (xfixes) {
        auto r = wait<xcb_xfixes_query_version_reply_t>(xfixesCookie.sequence, deadline);
        extensions_.xfixes = r && r->major_version >= 2;
        extensions_.xfixesEventBase = xfixes->first_event;
    }
    if (randr) {
        auto r = wait<xcb_randr_query_version_reply_t>(randrCookie.sequence, deadline);
        extensions_.randr = r && atLeast(r->major_version, r->minor_version, 1, 5);
    }
    if (composite) {
        auto r = wait<xcb_composite_query_version_reply_t>(compositeCookie.sequence, deadline);
        extensions_.composite = r && atLeast(r->major_version, r->minor_version, 0, 2);
    }
    if (render) {
        auto r = wait<xcb_render_query_version_reply_t>(renderCookie.sequence, deadline);
        extensions_.render = r && atLeast(r->major_version, r->minor_version, 0, 11);
    }
    if (res) {
        auto r = wait<xcb_res_query_version_reply_t>(resCookie.sequence, deadline);
        extensions_.res = r && atLeast(r->server_major, r->server_minor, 1, 2);
    }
}

}  // namespace ov::platform::x11
