#include "platform/linux/x11/x11_content.h"

#include <unistd.h>
#include <xcb/randr.h>
#include <xcb/res.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <unordered_map>

namespace ov::platform::x11 {

CGDirectDisplayID displayIDForMonitorName(const std::string& name) {
    uint32_t hash = 2166136261u;
    for (unsigned char ch : name) {
        hash ^= ch;
        hash *= 16777619u;
    }
    return hash == 0 ? 1 : hash;
}

namespace {
std::atomic<uint64_t> contentReads{0};
}  // namespace

uint64_t x11ContentReadCount() { return contentReads.load(); }

std::vector<X11Monitor> readMonitors(const X11Connection& connection, Deadline deadline) {
    ++contentReads;
    xcb_connection_t* c = connection.get();
    const xcb_window_t root = connection.root();
    if (!connection.extensions().randr) {
        const auto& s = connection.screen();
        X11Monitor monitor;
        monitor.displayID = displayIDForMonitorName("screen");
        monitor.name = "screen";
        monitor.width = s.width_in_pixels;
        monitor.height = s.height_in_pixels;
        monitor.primary = true;
        return {monitor};
    }
    auto monitorsCookie = xcb_randr_get_monitors(c, root, 1);
    auto resourcesCookie = xcb_randr_get_screen_resources_current(c, root);
    auto monitors = connection.wait<xcb_randr_get_monitors_reply_t>(monitorsCookie.sequence, deadline);
    auto resources = connection.wait<xcb_randr_get_screen_resources_current_reply_t>(resourcesCookie.sequence, deadline);
    if (!monitors) throw X11Error(X11Error::requestFailed, "The X server did not list its monitors.");

    struct Pending {
        X11Monitor monitor;
        xcb_get_atom_name_cookie_t name;
        std::optional<xcb_randr_get_output_info_cookie_t> output;
        std::optional<xcb_randr_get_output_property_cookie_t> edid;
    };
    const xcb_atom_t edidAtom = connection.atom("EDID", deadline, true);
    const xcb_randr_output_t* screenOutputs =
        resources ? xcb_randr_get_screen_resources_current_outputs(resources.get()) : nullptr;
    const int screenOutputCount = resources ? xcb_randr_get_screen_resources_current_outputs_length(resources.get()) : 0;
    std::vector<Pending> pending;
    const xcb_timestamp_t timestamp = resources ? resources->config_timestamp : XCB_CURRENT_TIME;
    for (auto it = xcb_randr_get_monitors_monitors_iterator(monitors.get()); it.rem; xcb_randr_monitor_info_next(&it)) {
        const auto* info = it.data;
        Pending p;
        p.monitor.x = info->x;
        p.monitor.y = info->y;
        p.monitor.width = info->width;
        p.monitor.height = info->height;
        p.monitor.primary = info->primary;
        p.name = xcb_get_atom_name(c, info->name);
        if (xcb_randr_monitor_info_outputs_length(info) > 0) {
            const xcb_randr_output_t output = xcb_randr_monitor_info_outputs(info)[0];
            p.output = xcb_randr_get_output_info(c, output, timestamp);
            if (edidAtom != XCB_ATOM_NONE)
                p.edid = xcb_randr_get_output_property(c, output, edidAtom, XCB_ATOM_ANY, 0, 256, 0, 0);
            for (int o = 0; o < screenOutputCount; ++o)
                if (screenOutputs[o] == output) p.monitor.outputIndex = uint32_t(o);
        }
        pending.push_back(std::move(p));
    }
    std::vector<std::pair<size_t, xcb_randr_get_crtc_info_cookie_t>> crtcs;
    for (size_t i = 0; i < pending.size(); ++i) {
        auto& p = pending[i];
        if (auto name = connection.wait<xcb_get_atom_name_reply_t>(p.name.sequence, deadline))
            p.monitor.name.assign(xcb_get_atom_name_name(name.get()), xcb_get_atom_name_name_length(name.get()));
        p.monitor.displayID = displayIDForMonitorName(p.monitor.name);
        if (p.edid) {
            auto edid = connection.wait<xcb_randr_get_output_property_reply_t>(p.edid->sequence, deadline);
            if (edid && edid->format == 8) {
                const uint8_t* bytes = xcb_randr_get_output_property_data(edid.get());
                p.monitor.edid.assign(bytes, bytes + xcb_randr_get_output_property_data_length(edid.get()));
            }
        }
        if (p.output) {
            auto output = connection.wait<xcb_randr_get_output_info_reply_t>(p.output->sequence, deadline);
            if (output) {
                p.monitor.outputName.assign(reinterpret_cast<const char*>(xcb_randr_get_output_info_name(output.get())),
                                            xcb_randr_get_output_info_name_length(output.get()));
                p.monitor.millimetreWidth = output->mm_width;
                p.monitor.millimetreHeight = output->mm_height;
            }
            if (output && output->crtc != XCB_NONE)
                crtcs.emplace_back(i, xcb_randr_get_crtc_info(c, output->crtc, timestamp));
        }
    }
    for (auto& [index, cookie] : crtcs) {
        auto crtc = connection.wait<xcb_randr_get_crtc_info_reply_t>(cookie.sequence, deadline);
        if (crtc) {
            switch (crtc->rotation & 0x0F) {
                case XCB_RANDR_ROTATION_ROTATE_90: pending[index].monitor.rotation = 90; break;
                case XCB_RANDR_ROTATION_ROTATE_180: pending[index].monitor.rotation = 180; break;
                case XCB_RANDR_ROTATION_ROTATE_270: pending[index].monitor.rotation = 270; break;
                default: break;
            }
        }
        if (!crtc || !resources || crtc->mode == XCB_NONE) continue;
        const auto* modes = xcb_randr_get_screen_resources_current_modes(resources.get());
        const int count = xcb_randr_get_screen_resources_current_modes_length(resources.get());
        for (int m = 0; m < count; ++m) {
            if (modes[m].id != crtc->mode) continue;
            const double dots = double(modes[m].htotal) * double(modes[m].vtotal);
            if (dots > 0 && modes[m].dot_clock > 0) pending[index].monitor.refreshRate = modes[m].dot_clock / dots;
        }
    }
    std::vector<X11Monitor> result;
    for (auto& p : pending) result.push_back(std::move(p.monitor));
    return result;
}

namespace {

std::string propertyString(const xcb_get_property_reply_t* reply) {
    if (!reply || reply->format != 8) return {};
    return std::string(static_cast<const char*>(xcb_get_property_value(reply)), xcb_get_property_value_length(reply));
}

std::vector<uint32_t> propertyCards(const xcb_get_property_reply_t* reply) {
    if (!reply || reply->format != 32) return {};
    const auto* values = static_cast<const uint32_t*>(xcb_get_property_value(reply));
    return {values, values + xcb_get_property_value_length(reply) / 4};
}

std::string latin1ToUtf8(const std::string& text) {
    std::string out;
    for (unsigned char ch : text) {
        if (ch < 0x80) {
            out += static_cast<char>(ch);
        } else {
            out += static_cast<char>(0xC0 | (ch >> 6));
            out += static_cast<char>(0x80 | (ch & 0x3F));
        }
    }
    return out;
}

std::string hostName() {
    char name[256] = {};
    ::gethostname(name, sizeof name - 1);
    return name;
}

// The atoms that describe windows, interned once per connection.
struct Atoms {
    xcb_atom_t clientList, netWmName, utf8String, wmClass, windowType, state, pid, clientMachine, wmName;
    std::map<std::string, xcb_atom_t> byName;
    Atoms(const X11Connection& connection, Deadline deadline) {
        static const char* names[] = {"_NET_CLIENT_LIST", "_NET_WM_NAME", "UTF8_STRING", "_NET_WM_WINDOW_TYPE",
                                      "_NET_WM_STATE", "_NET_WM_PID", "WM_CLIENT_MACHINE",
                                      "_NET_WM_WINDOW_TYPE_DESKTOP", "_NET_WM_WINDOW_TYPE_DOCK",
                                      "_NET_WM_WINDOW_TYPE_UTILITY", "_NET_WM_WINDOW_TYPE_TOOLBAR",
                                      "_NET_WM_WINDOW_TYPE_MENU", "_NET_WM_WINDOW_TYPE_SPLASH",
                                      "_NET_WM_WINDOW_TYPE_DIALOG", "_NET_WM_WINDOW_TYPE_NOTIFICATION",
                                      "_NET_WM_WINDOW_TYPE_DROPDOWN_MENU", "_NET_WM_WINDOW_TYPE_POPUP_MENU",
                                      "_NET_WM_WINDOW_TYPE_COMBO", "_NET_WM_WINDOW_TYPE_TOOLTIP",
                                      "_NET_WM_WINDOW_TYPE_DND", "_NET_WM_WINDOW_TYPE_NORMAL", "_NET_WM_STATE_ABOVE",
                                      "_NET_WM_STATE_MODAL", "_NET_WM_STATE_HIDDEN"};
        // Interned together: one round trip for all of them.
        std::vector<std::pair<std::string, xcb_intern_atom_cookie_t>> cookies;
        for (const char* n : names) cookies.emplace_back(n, xcb_intern_atom(connection.get(), 0, std::strlen(n), n));
        for (auto& [n, cookie] : cookies) {
            auto reply = connection.wait<xcb_intern_atom_reply_t>(cookie.sequence, deadline);
            byName[n] = reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
        }
        clientList = byName["_NET_CLIENT_LIST"];
        netWmName = byName["_NET_WM_NAME"];
        utf8String = byName["UTF8_STRING"];
        wmClass = XCB_ATOM_WM_CLASS;
        wmName = XCB_ATOM_WM_NAME;
        windowType = byName["_NET_WM_WINDOW_TYPE"];
        state = byName["_NET_WM_STATE"];
        pid = byName["_NET_WM_PID"];
        clientMachine = byName["WM_CLIENT_MACHINE"];
    }
    xcb_atom_t operator[](const std::string& name) const { return byName.at(name); }
};

int32_t levelFor(const Atoms& atoms, const std::vector<uint32_t>& types, const std::vector<uint32_t>& states,
                 bool overrideRedirect) {
    auto has = [&](const std::vector<uint32_t>& list, const char* name) {
        return std::find(list.begin(), list.end(), atoms[name]) != list.end();
    };
    // The first type the window names that we know decides, as EWMH orders them by preference.
    for (uint32_t type : types) {
        auto is = [&](const char* name) { return type == atoms[name]; };
        if (is("_NET_WM_WINDOW_TYPE_DESKTOP")) return level::desktop;
        if (is("_NET_WM_WINDOW_TYPE_DOCK")) return level::dock;
        if (is("_NET_WM_WINDOW_TYPE_UTILITY")) return level::utility;
        if (is("_NET_WM_WINDOW_TYPE_TOOLBAR") || is("_NET_WM_WINDOW_TYPE_MENU")) return level::tornOffMenu;
        if (is("_NET_WM_WINDOW_TYPE_SPLASH")) return level::floating;
        if (is("_NET_WM_WINDOW_TYPE_NOTIFICATION")) return level::statusBar;
        if (is("_NET_WM_WINDOW_TYPE_DROPDOWN_MENU") || is("_NET_WM_WINDOW_TYPE_POPUP_MENU") ||
            is("_NET_WM_WINDOW_TYPE_COMBO"))
            return level::popUpMenu;
        if (is("_NET_WM_WINDOW_TYPE_TOOLTIP")) return level::help;
        if (is("_NET_WM_WINDOW_TYPE_DND")) return level::dragging;
        if (is("_NET_WM_WINDOW_TYPE_DIALOG"))
            return has(states, "_NET_WM_STATE_MODAL") ? level::modalPanel
                   : has(states, "_NET_WM_STATE_ABOVE") ? level::floating
                                                        : level::normal;
        if (is("_NET_WM_WINDOW_TYPE_NORMAL")) return has(states, "_NET_WM_STATE_ABOVE") ? level::floating : level::normal;
    }
    if (overrideRedirect) return level::popUpMenu;
    return has(states, "_NET_WM_STATE_ABOVE") ? level::floating : level::normal;
}

}  // namespace

std::optional<int32_t> windowProcessID(const X11Connection& connection, xcb_window_t window, Deadline deadline) {
    if (!connection.extensions().res) return std::nullopt;
    xcb_res_client_id_spec_t spec{window, XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID};
    auto reply = connection.wait<xcb_res_query_client_ids_reply_t>(
        xcb_res_query_client_ids(connection.get(), 1, &spec).sequence, deadline);
    if (!reply) return std::nullopt;
    for (auto it = xcb_res_query_client_ids_ids_iterator(reply.get()); it.rem; xcb_res_client_id_value_next(&it)) {
        if (!(it.data->spec.mask & XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID)) continue;
        if (xcb_res_client_id_value_value_length(it.data) < 1) continue;
        return static_cast<int32_t>(xcb_res_client_id_value_value(it.data)[0]);
    }
    return std::nullopt;
}

std::vector<X11Window> readWindows(const X11Connection& connection, Deadline deadline) {
    ++contentReads;
    xcb_connection_t* c = connection.get();
    const xcb_window_t root = connection.root();
    const Atoms atoms(connection, deadline);

    auto treeCookie = xcb_query_tree(c, root);
    auto listCookie = xcb_get_property(c, 0, root, atoms.clientList, XCB_ATOM_WINDOW, 0, 65536);
    auto tree = connection.wait<xcb_query_tree_reply_t>(treeCookie.sequence, deadline);
    auto list = connection.wait<xcb_get_property_reply_t>(listCookie.sequence, deadline);
    if (!tree) throw X11Error(X11Error::requestFailed, "The X server did not list the root's windows.");
    const xcb_window_t* childrenBegin = xcb_query_tree_children(tree.get());
    // Root children bottom to top: the server's stacking order.
    std::vector<xcb_window_t> children(childrenBegin, childrenBegin + xcb_query_tree_children_length(tree.get()));
    const bool managed = list && list->type == XCB_ATOM_WINDOW;
    std::vector<xcb_window_t> clients;
    for (uint32_t w : propertyCards(list.get())) clients.push_back(w);

    // client -> frame: walk up from each client, one level per round of requests.
    std::unordered_map<xcb_window_t, xcb_window_t> frameOf;
    std::set<xcb_window_t> rootChildren(children.begin(), children.end());
    if (managed) {
        std::vector<std::pair<xcb_window_t, xcb_window_t>> walking;  // (client, current)
        for (auto w : clients) {
            if (rootChildren.count(w)) frameOf[w] = w;
            else walking.emplace_back(w, w);
        }
        for (int depth = 0; depth < 8 && !walking.empty(); ++depth) {
            std::vector<xcb_query_tree_cookie_t> cookies;
            for (auto& [client, current] : walking) cookies.push_back(xcb_query_tree(c, current));
            std::vector<std::pair<xcb_window_t, xcb_window_t>> next;
            for (size_t i = 0; i < walking.size(); ++i) {
                auto reply = connection.wait<xcb_query_tree_reply_t>(cookies[i].sequence, deadline);
                if (!reply) continue;  // gone meanwhile
                if (reply->parent == root || reply->parent == XCB_NONE) frameOf[walking[i].first] = walking[i].second;
                else next.emplace_back(walking[i].first, reply->parent);
            }
            walking = std::move(next);
        }
    }

    // Entries in front-to-back order: (client, frame).
    std::unordered_map<xcb_window_t, xcb_window_t> clientOfFrame;
    for (auto& [client, frame] : frameOf) clientOfFrame[frame] = client;
    struct Entry {
        xcb_window_t client, frame;
        xcb_get_window_attributes_cookie_t clientAttributes, frameAttributes;
        xcb_get_geometry_cookie_t geometry;
        xcb_get_property_cookie_t netName, name, wmClass, type, state, pid, machine;
        xcb_res_query_client_ids_cookie_t res;
        bool hasRes = false;
    };
    std::vector<Entry> entries;
    for (auto it = children.rbegin(); it != children.rend(); ++it) {
        auto found = clientOfFrame.find(*it);
        entries.push_back({found != clientOfFrame.end() ? found->second : *it, *it, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}});
        if (found != clientOfFrame.end()) clientOfFrame.erase(found);
    }
    const bool haveRes = connection.extensions().res;
    for (auto& e : entries) {
        e.clientAttributes = xcb_get_window_attributes(c, e.client);
        e.frameAttributes = xcb_get_window_attributes(c, e.frame);
        e.geometry = xcb_get_geometry(c, e.frame);
        e.netName = xcb_get_property(c, 0, e.client, atoms.netWmName, atoms.utf8String, 0, 4096);
        e.name = xcb_get_property(c, 0, e.client, atoms.wmName, XCB_ATOM_ANY, 0, 4096);
        e.wmClass = xcb_get_property(c, 0, e.client, atoms.wmClass, XCB_ATOM_STRING, 0, 4096);
        e.type = xcb_get_property(c, 0, e.client, atoms.windowType, XCB_ATOM_ATOM, 0, 64);
        e.state = xcb_get_property(c, 0, e.client, atoms.state, XCB_ATOM_ATOM, 0, 64);
        e.pid = xcb_get_property(c, 0, e.client, atoms.pid, XCB_ATOM_CARDINAL, 0, 1);
        e.machine = xcb_get_property(c, 0, e.client, atoms.clientMachine, XCB_ATOM_ANY, 0, 1024);
        if (haveRes) {
            xcb_res_client_id_spec_t spec{e.client, XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID};
            e.res = xcb_res_query_client_ids(c, 1, &spec);
            e.hasRes = true;
        }
    }
    const std::string host = hostName();
    std::vector<X11Window> windows;
    for (auto& e : entries) {
        auto clientAttributes = connection.wait<xcb_get_window_attributes_reply_t>(e.clientAttributes.sequence, deadline);
        auto frameAttributes = connection.wait<xcb_get_window_attributes_reply_t>(e.frameAttributes.sequence, deadline);
        auto geometry = connection.wait<xcb_get_geometry_reply_t>(e.geometry.sequence, deadline);
        auto netName = connection.wait<xcb_get_property_reply_t>(e.netName.sequence, deadline);
        auto name = connection.wait<xcb_get_property_reply_t>(e.name.sequence, deadline);
        auto wmClass = connection.wait<xcb_get_property_reply_t>(e.wmClass.sequence, deadline);
        auto type = connection.wait<xcb_get_property_reply_t>(e.type.sequence, deadline);
        auto state = connection.wait<xcb_get_property_reply_t>(e.state.sequence, deadline);
        auto pid = connection.wait<xcb_get_property_reply_t>(e.pid.sequence, deadline);
        auto machine = connection.wait<xcb_get_property_reply_t>(e.machine.sequence, deadline);
        Reply<xcb_res_query_client_ids_reply_t> res;
        if (e.hasRes) res = connection.wait<xcb_res_query_client_ids_reply_t>(e.res.sequence, deadline);
        if (!clientAttributes || !frameAttributes || !geometry) continue;  // went away meanwhile

        const bool isClient = e.client != e.frame || (managed && std::find(clients.begin(), clients.end(), e.client) != clients.end());
        const bool overrideRedirect = frameAttributes->override_redirect;
        const bool viewable = clientAttributes->map_state == XCB_MAP_STATE_VIEWABLE &&
                              frameAttributes->map_state == XCB_MAP_STATE_VIEWABLE;
        if (managed) {
            // The window manager's own windows are no one's content; popups are, while shown.
            if (!isClient && !(overrideRedirect && viewable)) continue;
        } else {
            if (frameAttributes->map_state == XCB_MAP_STATE_UNMAPPED ||
                frameAttributes->_class != XCB_WINDOW_CLASS_INPUT_OUTPUT)
                continue;
        }
        X11Window window;
        window.client = e.client;
        window.frame = e.frame;
        window.x = geometry->x;
        window.y = geometry->y;
        window.width = geometry->width + 2 * geometry->border_width;
        window.height = geometry->height + 2 * geometry->border_width;
        window.onScreen = viewable;
        window.overrideRedirect = overrideRedirect;
        window.visual = frameAttributes->visual;
        window.depth = geometry->depth;
        if (netName && netName->value_len > 0) window.title = propertyString(netName.get());
        else if (name && name->type != XCB_NONE) {
            window.title = name->type == atoms.utf8String ? propertyString(name.get()) : latin1ToUtf8(propertyString(name.get()));
        }
        const std::string classes = propertyString(wmClass.get());
        if (auto zero = classes.find('\0'); zero != std::string::npos) {
            window.wmClass = classes.substr(zero + 1);
            if (auto end = window.wmClass.find('\0'); end != std::string::npos) window.wmClass.resize(end);
        }
        const auto types = propertyCards(type.get());
        const auto states = propertyCards(state.get());
        window.layer = levelFor(atoms, types, states, overrideRedirect);
        window.desktop = window.layer == level::desktop;
        if (res) {
            for (auto it = xcb_res_query_client_ids_ids_iterator(res.get()); it.rem; xcb_res_client_id_value_next(&it)) {
                if ((it.data->spec.mask & XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID) &&
                    xcb_res_client_id_value_value_length(it.data) >= 1) {
                    window.pid = static_cast<int32_t>(xcb_res_client_id_value_value(it.data)[0]);
                    break;
                }
            }
        }
        if (!window.pid) {
            // _NET_WM_PID means something only for clients of this machine.
            std::string clientMachine = propertyString(machine.get());
            if (auto end = clientMachine.find('\0'); end != std::string::npos) clientMachine.resize(end);
            const auto values = propertyCards(pid.get());
            if (!values.empty() && values[0] > 0 && clientMachine == host) window.pid = static_cast<int32_t>(values[0]);
        }
        windows.push_back(std::move(window));
    }
    return windows;
}

namespace {

std::string processName(int32_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(in, name);
    return name;
}

// The desktop file whose name matches the window class, the way launchers pair them.
std::string desktopFileID(const std::string& wmClass) {
    if (wmClass.empty()) return {};
    std::vector<std::filesystem::path> dirs;
    const char* home = std::getenv("XDG_DATA_HOME");
    if (home && *home) dirs.emplace_back(home);
    else if (const char* h = std::getenv("HOME")) dirs.emplace_back(std::filesystem::path(h) / ".local/share");
    const char* data = std::getenv("XDG_DATA_DIRS");
    std::string list = data && *data ? data : "/usr/local/share:/usr/share";
    for (size_t start = 0; start <= list.size();) {
        const size_t end = std::min(list.find(':', start), list.size());
        if (end > start) dirs.emplace_back(list.substr(start, end - start));
        start = end + 1;
    }
    std::string lower = wmClass;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char ch) { return std::tolower(ch); });
    std::error_code ec;
    for (const auto& dir : dirs)
        for (const auto& candidate : {wmClass, lower})
            if (std::filesystem::exists(dir / "applications" / (candidate + ".desktop"), ec)) return candidate;
    return {};
}

}  // namespace

SCShareableContent makeShareableContent(const std::vector<X11Monitor>& monitors, const std::vector<X11Window>& windows,
                                        bool excludingDesktopWindows, bool onScreenWindowsOnly) {
    std::vector<SCDisplay> displays;
    for (const auto& m : monitors)
        displays.push_back({m.displayID, {{double(m.x), double(m.y)}, {double(m.width), double(m.height)}}, m.width, m.height});
    std::vector<SCWindow> scWindows;
    std::vector<SCRunningApplication> applications;
    std::map<int32_t, size_t> applicationIndex;
    for (const auto& w : windows) {
        std::optional<SCRunningApplication> owner;
        if (w.pid) {
            auto it = applicationIndex.find(*w.pid);
            if (it == applicationIndex.end()) {
                SCRunningApplication app{*w.pid, desktopFileID(w.wmClass), w.wmClass.empty() ? processName(*w.pid) : w.wmClass};
                it = applicationIndex.emplace(*w.pid, applications.size()).first;
                applications.push_back(std::move(app));
            }
            owner = applications[it->second];
        }
        if (excludingDesktopWindows && w.desktop) continue;
        if (onScreenWindowsOnly && !w.onScreen) continue;
        SCWindow window;
        window.windowID = w.client;
        window.frame = {{double(w.x), double(w.y)}, {double(w.width), double(w.height)}};
        window.title = w.title;
        window.owningApplication = owner;
        window.windowLayer = w.layer;
        window.isOnScreen = w.onScreen;
        scWindows.push_back(std::move(window));
    }
    return SCShareableContent(std::move(displays), std::move(scWindows), std::move(applications));
}

}  // namespace ov::platform::x11
