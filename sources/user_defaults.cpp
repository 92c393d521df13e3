#include "sources/user_defaults.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "foundation/ov_error.h"
#include "platform/file_handle.h"
#include "platform/file_manager.h"

namespace ov {

UserDefaults::UserDefaults(std::filesystem::path file) : file_(std::move(file)) {}

std::filesystem::path UserDefaults::standardPath() {
    if (const char* explicitPath = std::getenv("ORVANE_USER_DEFAULTS"); explicitPath && *explicitPath)
        return explicitPath;
    std::filesystem::path config;
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg && xdg[0] == '/')
        config = xdg;
    else if (const char* home = std::getenv("HOME"); home && *home)
        config = std::filesystem::path(home) / ".config";
    else
        config = "/tmp";
    return config / "orvane" / "user-defaults.json";
}

UserDefaults& UserDefaults::standard() {
    // Chosen once: the environment of a running process does not move its store.
    static UserDefaults defaults(standardPath());
    return defaults;
}

nlohmann::json UserDefaults::readAll() const {
    std::ifstream in(file_);
    if (!in) return nlohmann::json::object();
    std::stringstream text;
    text << in.rdbuf();
    auto parsed = nlohmann::json::parse(text.str(), nullptr, false);
    if (parsed.is_discarded() || !parsed.is_object()) {
        logger_.warning("User defaults are unreadable; they read as empty.",
                        [&] { return LogMetadata{{"path", file_.string()}}; });
        return nlohmann::json::object();
    }
    return parsed;
}

void UserDefaults::writeAll(const nlohmann::json& all) {
    try {
        std::filesystem::create_directories(file_.parent_path());
        auto staging = file_;
        staging += ".writing-" + std::to_string(::getpid());
        std::error_code ignored;
        std::filesystem::remove(staging, ignored);
        auto out = platform::FileHandle::createNew(staging);
        out.write(all.dump(2) + "\n");
        out.synchronize();
        out.close();
        platform::FileManager::replaceItemAt(file_, staging);
    } catch (const OVError&) {
        throw;
    } catch (const std::exception& e) {
        throw OVError(OVError::Code::fileOperationFailed,
                      "Could not write user defaults at " + file_.string() + ": " + e.what());
    }
}

std::optional<nlohmann::json> UserDefaults::object(const std::string& key) const {
    std::lock_guard lock(mutex_);
    const auto all = readAll();
    const auto it = all.find(key);
    if (it == all.end()) return std::nullopt;
    return *it;
}

bool UserDefaults::boolForKey(const std::string& key) const {
    const auto value = object(key);
    return value && value->is_boolean() && value->get<bool>();
}

void UserDefaults::setObject(const nlohmann::json& value, const std::string& key) {
    std::lock_guard lock(mutex_);
    auto all = readAll();
    all[key] = value;
    writeAll(all);
}

void UserDefaults::removeObject(const std::string& key) {
    std::lock_guard lock(mutex_);
    auto all = readAll();
    if (all.erase(key) == 0) return;
    writeAll(all);
}

}  // namespace ov
