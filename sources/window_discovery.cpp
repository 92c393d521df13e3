#include "sources/window_discovery.h"

#include <algorithm>

namespace ov {

using Level = OVWindow::Level;

// The platform's published window level constants.
const Level Level::baseWindow{INT32_MIN};
const Level Level::minimumWindow{INT32_MIN + 1};
const Level Level::desktopWindow{INT32_MIN + 25};
const Level Level::backstopMenu{-20};
const Level Level::normal{0};
const Level Level::floating{3};
const Level Level::tornOffMenu{3};
const Level Level::modalPanel{8};
const Level Level::utilityWindow{19};
const Level Level::desktopIconWindow{INT32_MIN + 45};
const Level Level::mainMenu{24};
const Level Level::statusBar{25};
const Level Level::popUpMenu{101};
const Level Level::overlayWindow{102};
const Level Level::helpWindow{200};
const Level Level::draggingWindow{500};
const Level Level::screenSaverWindow{1000};
const Level Level::screenSaver{1000};
const Level Level::assistiveTechHighWindow{1500};
const Level Level::cursorWindow{INT32_MAX - 17};
const Level Level::maximumWindow{INT32_MAX - 16};
const Level Level::submenu{3};

namespace {
template <class T>
bool assign(std::mutex& mutex, T& field, const T& value) {
    std::lock_guard lock(mutex);
    if (field == value) return false;
    field = value;
    return true;
}
}  // namespace

std::optional<std::string> OVWindow::title() const {
    std::lock_guard lock(fieldMutex_);
    return title_;
}
platform::CGRect OVWindow::frame() const {
    std::lock_guard lock(fieldMutex_);
    return frame_;
}
Level OVWindow::level() const {
    std::lock_guard lock(fieldMutex_);
    return level_;
}
std::optional<int32_t> OVWindow::applicationProcessID() const {
    std::lock_guard lock(fieldMutex_);
    return applicationProcessID_;
}
std::optional<std::string> OVWindow::applicationName() const {
    std::lock_guard lock(fieldMutex_);
    return applicationName_;
}
bool OVWindow::insideVisibleFrame() const {
    std::lock_guard lock(fieldMutex_);
    return insideVisibleFrame_;
}
OVWindow::Availability OVWindow::availability() const {
    std::lock_guard lock(fieldMutex_);
    return availability_;
}

bool OVWindow::setTitle(const std::optional<std::string>& value) { return assign(fieldMutex_, title_, value); }
bool OVWindow::setFrame(const platform::CGRect& value) {
    std::lock_guard lock(fieldMutex_);
    if (platform::CGRectEqualToRect(frame_, value)) return false;
    frame_ = value;
    return true;
}
bool OVWindow::setLevel(Level value) { return assign(fieldMutex_, level_, value); }
bool OVWindow::setApplicationProcessID(std::optional<int32_t> value) {
    return assign(fieldMutex_, applicationProcessID_, value);
}
bool OVWindow::setApplicationName(const std::optional<std::string>& value) {
    return assign(fieldMutex_, applicationName_, value);
}
bool OVWindow::setInsideVisibleFrame(bool value) { return assign(fieldMutex_, insideVisibleFrame_, value); }
bool OVWindow::setAvailability(Availability value) { return assign(fieldMutex_, availability_, value); }

std::vector<std::shared_ptr<OVWindow>> OVWindow::windows(FilterOptions options) {
    auto list = filtered(WindowDiscovery::shared()->current(), options);
    Logger("OVWindow").trace([&] { return "Reporting " + std::to_string(list.size()) + " windows."; });
    return list;
}

std::shared_ptr<DiscoverySubject<std::shared_ptr<OVWindow>>::Subscription> OVWindow::updates() {
    return WindowDiscovery::shared()->updates();
}

std::vector<std::shared_ptr<OVWindow>> filtered(const std::vector<std::shared_ptr<OVWindow>>& windows,
                                                OVWindow::FilterOptions options) {
    std::vector<std::shared_ptr<OVWindow>> out;
    for (const auto& window : windows) {
        const bool available = window->availability() == WindowAvailability::available;
        if (options == OVWindow::FilterOptions::allOnScreen) {
            if (available) out.push_back(window);
            continue;
        }
        const auto applicationName = window->applicationName();
        if (!window->applicationProcessID() || !applicationName) continue;
        if (window->title() == std::optional<std::string>("StatusIndicator") && *applicationName == "Window Server")
            continue;
        if (window->level() != Level::normal) continue;
        if (!available) continue;
        out.push_back(window);
    }
    return out;
}

// ---- WindowDiscovery

std::shared_ptr<WindowDiscovery> WindowDiscovery::make() {
    std::shared_ptr<WindowDiscovery> discovery(new WindowDiscovery());
    discovery->logger_.debug("Starting with inital windows");
    discovery->update();
    return discovery;
}

std::shared_ptr<WindowDiscovery> WindowDiscovery::shared() {
    static auto discovery = make();
    return discovery;
}

void WindowDiscovery::update() {
    auto windows = CGInterop::Window::getWindows(platform::CGWindowListOption::all);
    {
        std::lock_guard lock(lastReadMutex_);
        lastRead_ = windows;
    }
    updateWindows(windows);
}

void WindowDiscovery::poll() {
    auto windows = CGInterop::Window::getWindows(platform::CGWindowListOption::all);
    {
        // A quiet desktop costs the read and this comparison, nothing more.
        std::lock_guard lock(lastReadMutex_);
        if (lastRead_ && *lastRead_ == windows) return;
        lastRead_ = windows;
    }
    onMain([windows = std::move(windows)](auto& discovery) {
        static_cast<WindowDiscovery&>(discovery).updateWindows(windows);
    });
}

void WindowDiscovery::updateWindows(const std::vector<CGInterop::Window>& wins) {
    DiscoveryNoticeList<OVWindow> notices;
    {
        std::lock_guard lock(mutex_);
        logger_.debug("Update windows", [&] {
            std::string text = "[";
            for (const auto& w : wins) {
                if (text.size() > 1) text += ", ";
                text += std::to_string(w.number) + ":" + w.name.value_or("");
            }
            return LogMetadata{{"wins", text + "]"}};
        });
        bool changed = false;
        for (const auto& w : wins) {
            if (all_.count(w.number)) continue;
            all_[w.number] = std::make_shared<OVWindow>(
                w.number, w.isOnscreen.value_or(false) ? WindowAvailability::available : WindowAvailability::notOnScreen);
            changed = true;
        }
        for (auto& [id, window] : all_) {
            const auto found = std::find_if(wins.begin(), wins.end(), [&, id = id](const auto& w) { return w.number == id; });
            if (found != wins.end()) {
                if (window->setTitle(found->name)) notices.add(window, "title");
                if (window->setFrame(found->bounds)) notices.add(window, "frame");
                if (window->setLevel(Level{found->layer})) notices.add(window, "level");
                if (window->setApplicationProcessID(found->ownerPID)) notices.add(window, "applicationProcessID");
                std::optional<std::string> owner = found->ownerName;
                if (owner && owner->empty()) owner.reset();
                if (window->setApplicationName(owner)) notices.add(window, "applicationName");
                const auto availability =
                    found->isOnscreen.value_or(false) ? WindowAvailability::available : WindowAvailability::notOnScreen;
                if (window->setAvailability(availability)) notices.add(window, "availability");
            } else {
                if (window->setInsideVisibleFrame(false)) notices.add(window, "insideVisibleFrame");
                if (window->setAvailability(WindowAvailability::closed)) notices.add(window, "availability");
            }
        }
        changed = changed || !notices.empty();
        const auto published = current();
        bool sameOrder = published.size() == wins.size();
        for (size_t i = 0; sameOrder && i < wins.size(); ++i) sameOrder = published[i]->id == wins[i].number;
        if (!changed && sameOrder) {
            // Nothing to publish.
        } else {
            std::vector<std::shared_ptr<OVWindow>> list;
            for (const auto& w : wins) list.push_back(all_.at(w.number));
            const size_t count = list.size();
            publish(std::move(list));
            logger_.debug([&] { return "Updating " + std::to_string(count) + " windows"; });
        }
    }
    notices.tell();
}

}  // namespace ov
