#pragma once
// One connection to an X server through xcb, with the extensions that screen
// capture needs checked once, interned atoms cached, and replies awaited with
// a time limit: an X server that stops answering (a client holding a server
// grab, a frozen server) must never hang a caller for good.
//
// Threads: xcb connections may be used from several threads at once; the atom
// cache has its own lock. Waits poll the socket in short slices, so a waiter
// also notices a cancel flag within a few milliseconds.

#include <xcb/xcb.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "foundation/platform_error.h"

namespace ov::platform::x11 {

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

inline Deadline deadlineIn(double seconds) {
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// Errors of the X11 layer.
class X11Error : public PlatformError {
public:
    static constexpr const char* errorDomain = "Orvane.X11";
    enum Code : int64_t {
        noDisplay = 1,         // $DISPLAY unset or no server there
        connectionLost = 2,    // the server closed the connection
        timedOut = 3,          // no answer within the time limit
        missingExtension = 4,  // the server lacks an extension or version
        cancelled = 5,         // the waiter was told to give up
        requestFailed = 6,     // the server answered with an error
    };
    X11Error(int64_t code, std::string message) : PlatformError(errorDomain, code, std::move(message)) {}
};

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};
template <class T>
using Reply = std::unique_ptr<T, FreeDeleter>;

// Versions of the extensions found (0.0 when absent) and their event bases.
struct X11Extensions {
    bool shm = false, shmFd = false;  // MIT-SHM, and its fd passing (1.2)
    bool damage = false;              // DAMAGE >= 1.1
    bool xfixes = false;              // XFIXES >= 2 (cursor images and notifications)
    bool randr = false;               // RandR >= 1.5 (monitors)
    bool composite = false;           // Composite >= 0.2 (NameWindowPixmap)
    bool render = false;              // RENDER >= 0.11
    bool res = false;                 // X-Resource >= 1.2 (client pids)
    uint8_t damageEventBase = 0;
    uint8_t xfixesEventBase = 0;
    std::string describe() const;
};

class X11Connection {
public:
    // Connects to `display` (empty: $DISPLAY) within the time limit, screen 0
    // of it when the name names none. Throws X11Error noDisplay / timedOut.
    // The connect itself runs on a thread of its own, because a server under
    // a grab keeps even the connection setup waiting.
    static std::shared_ptr<X11Connection> open(const std::string& display, double timeLimitSeconds);
    ~X11Connection();
    X11Connection(const X11Connection&) = delete;
    X11Connection& operator=(const X11Connection&) = delete;

    xcb_connection_t* get() const { return connection_; }
    const xcb_screen_t& screen() const { return *screen_; }
    xcb_window_t root() const { return screen_->root; }
    const X11Extensions& extensions() const { return extensions_; }
    const std::string& displayName() const { return displayName_; }
    bool hasError() const { return xcb_connection_has_error(connection_) != 0; }

    // Wakes every wait on this connection with X11Error cancelled.
    void cancel() { cancelled_ = true; }
    // Makes a thread blocked inside xcb return (the socket is shut down).
    void shutdownSocket();

    // The reply of a request with a reply, or null when the server answered
    // with an error (BadWindow for a window that just went). Throws X11Error
    // on a lost connection, a cancel or the deadline.
    template <class R>
    Reply<R> wait(unsigned int sequence, Deadline deadline) const {
        return Reply<R>(static_cast<R*>(waitRaw(sequence, deadline)));
    }
    // Waits until every request sent so far was handled (one round trip).
    void sync(Deadline deadline) const;
    // Whether a checked request without a reply succeeded.
    bool check(xcb_void_cookie_t cookie, Deadline deadline) const;

    // Interned atom (cached; `onlyIfExists` gives XCB_ATOM_NONE for unknown names).
    xcb_atom_t atom(const std::string& name, Deadline deadline, bool onlyIfExists = false) const;
    std::string atomName(xcb_atom_t atom, Deadline deadline) const;

private:
    X11Connection(xcb_connection_t* connection, int screenNumber, std::string displayName);
    void* waitRaw(unsigned int sequence, Deadline deadline) const;
    void checkExtensions();

    xcb_connection_t* connection_ = nullptr;
    const xcb_screen_t* screen_ = nullptr;
    std::string displayName_;
    X11Extensions extensions_;
    std::atomic<bool> cancelled_{false};
    mutable std::mutex atomMutex_;
    mutable std::unordered_map<std::string, xcb_atom_t> atoms_;
};

}  // namespace ov::platform::x11
