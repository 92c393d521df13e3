// "x11-window": an X11 client for screen tests. Maps one or more windows of a
// solid colour, each with a 200×200 block of the inverse colour that moves at
// N Hz (0: still), repaints on Expose, and prints "ready <id>..." once all are
// drawn. Optionally holds a server grab for a while ("grabbed" / "released").
//
//   orvane-test-helper x11-window [--rate N] [--no-pid] [--grab SECONDS]
//                                 X,Y,W,H,RRGGBB,Title [X,Y,W,H,RRGGBB,Title ...]
#include <poll.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "helpers/helper_modes.h"

namespace {

struct Spec {
    int x = 0, y = 0, width = 100, height = 100;
    uint32_t color = 0xffffff;
    std::string title;
};

struct Window {
    Spec spec;
    xcb_window_t id = 0;
    xcb_gcontext_t background = 0, block = 0;
    bool exposed = false;
};

xcb_atom_t intern(xcb_connection_t* c, const char* name) {
    auto* reply = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, std::strlen(name), name), nullptr);
    const xcb_atom_t atom = reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
    std::free(reply);
    return atom;
}

void draw(xcb_connection_t* c, const Window& w, uint64_t frame) {
    const xcb_rectangle_t all{0, 0, uint16_t(w.spec.width), uint16_t(w.spec.height)};
    xcb_poly_fill_rectangle(c, w.id, w.background, 1, &all);
    const int span = std::max(1, w.spec.width - 200);
    const xcb_rectangle_t block{int16_t((frame * 7) % span), int16_t(std::max(0, w.spec.height / 2 - 100)), 200, 200};
    xcb_poly_fill_rectangle(c, w.id, w.block, 1, &block);
}

int run(const std::vector<std::string>& args) {
    double rate = 0, grabSeconds = 0;
    bool setPid = true;
    std::vector<Spec> specs;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--rate" && i + 1 < args.size()) rate = std::stod(args[++i]);
        else if (args[i] == "--grab" && i + 1 < args.size()) grabSeconds = std::stod(args[++i]);
        else if (args[i] == "--no-pid") setPid = false;
        else {
            Spec s;
            std::stringstream in(args[i]);
            std::string field;
            std::vector<std::string> fields;
            while (std::getline(in, field, ',')) fields.push_back(field);
            if (fields.size() < 5) return 2;
            s.x = std::stoi(fields[0]), s.y = std::stoi(fields[1]);
            s.width = std::stoi(fields[2]), s.height = std::stoi(fields[3]);
            s.color = uint32_t(std::stoul(fields[4], nullptr, 16));
            s.title = fields.size() > 5 ? fields[5] : "helper";
            specs.push_back(s);
        }
    }
    xcb_connection_t* c = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(c)) return 3;
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
    const xcb_atom_t netName = intern(c, "_NET_WM_NAME"), utf8 = intern(c, "UTF8_STRING"),
                     netPid = intern(c, "_NET_WM_PID"), machine = intern(c, "WM_CLIENT_MACHINE");
    char host[256] = {};
    ::gethostname(host, sizeof host - 1);

    std::vector<Window> windows;
    for (const auto& spec : specs) {
        Window w;
        w.spec = spec;
        w.id = xcb_generate_id(c);
        const uint32_t values[] = {spec.color, XCB_EVENT_MASK_EXPOSURE | XCB_EVENT_MASK_STRUCTURE_NOTIFY};
        xcb_create_window(c, XCB_COPY_FROM_PARENT, w.id, screen->root, int16_t(spec.x), int16_t(spec.y),
                          uint16_t(spec.width), uint16_t(spec.height), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                          screen->root_visual, XCB_CW_BACK_PIXEL | XCB_CW_EVENT_MASK, values);
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, w.id, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8, spec.title.size(),
                            spec.title.data());
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, w.id, netName, utf8, 8, spec.title.size(), spec.title.data());
        static const char wmClass[] = "orvane-helper\0OrvaneHelper";
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, w.id, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 8, sizeof wmClass,
                            wmClass);
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, w.id, machine, XCB_ATOM_STRING, 8, std::strlen(host), host);
        if (setPid) {
            const uint32_t pid = uint32_t(::getpid());
            xcb_change_property(c, XCB_PROP_MODE_REPLACE, w.id, netPid, XCB_ATOM_CARDINAL, 32, 1, &pid);
        }
        // Program-specified position and size, so that the window manager keeps them.
        uint32_t hints[18] = {};
        hints[0] = 1 | 2 | 4 | 8;
        hints[1] = uint32_t(spec.x), hints[2] = uint32_t(spec.y), hints[3] = uint32_t(spec.width),
        hints[4] = uint32_t(spec.height);
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, w.id, XCB_ATOM_WM_NORMAL_HINTS, XCB_ATOM_WM_SIZE_HINTS, 32, 18,
                            hints);
        w.background = xcb_generate_id(c);
        const uint32_t bg[] = {spec.color};
        xcb_create_gc(c, w.background, w.id, XCB_GC_FOREGROUND, bg);
        w.block = xcb_generate_id(c);
        const uint32_t fg[] = {~spec.color & 0xffffff};
        xcb_create_gc(c, w.block, w.id, XCB_GC_FOREGROUND, fg);
        xcb_map_window(c, w.id);
        windows.push_back(w);
    }
    xcb_flush(c);

    bool ready = false;
    uint64_t frame = 0;
    const auto period = rate > 0 ? std::chrono::nanoseconds(int64_t(1e9 / rate)) : std::chrono::nanoseconds(0);
    auto next = std::chrono::steady_clock::now();
    for (;;) {
        while (xcb_generic_event_t* event = xcb_poll_for_event(c)) {
            if ((event->response_type & 0x7f) == XCB_EXPOSE) {
                auto* expose = reinterpret_cast<xcb_expose_event_t*>(event);
                for (auto& w : windows)
                    if (w.id == expose->window) {
                        w.exposed = true;
                        draw(c, w, frame);
                    }
            }
            std::free(event);
        }
        if (xcb_connection_has_error(c)) return 0;
        if (!ready && std::all_of(windows.begin(), windows.end(), [](const Window& w) { return w.exposed; })) {

            std::free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
            ready = true;
            std::string line = "ready";
            for (const auto& w : windows) line += " " + std::to_string(w.id);
            std::printf("%s\n", line.c_str());
            std::fflush(stdout);
            if (grabSeconds > 0) {
                xcb_grab_server(c);
                std::free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
                std::printf("grabbed\n");
                std::fflush(stdout);
                std::this_thread::sleep_for(std::chrono::duration<double>(grabSeconds));
                xcb_ungrab_server(c);
                std::free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
                std::printf("released\n");
                std::fflush(stdout);
            }
        }
        int timeout = 100;
        if (ready && rate > 0) {
            const auto now = std::chrono::steady_clock::now();
            if (now >= next) {
                ++frame;
                for (const auto& w : windows) draw(c, w, frame);
                next += period;
                if (next < now) next = now + period;
            }
            timeout = int(std::chrono::duration_cast<std::chrono::milliseconds>(next - std::chrono::steady_clock::now()).count());
            timeout = std::max(0, timeout);
        }
        xcb_flush(c);
        pollfd fd{xcb_get_file_descriptor(c), POLLIN, 0};
        ::poll(&fd, 1, timeout);
    }
}

ov::testing::HelperMode x11WindowMode("x11-window", run);

}  // namespace
