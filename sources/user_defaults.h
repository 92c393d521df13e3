#pragma once
// UserDefaults: the process's small persistent key-value store (preferred
// sources, requested-once marks). One JSON object in a file:
//
//   $ORVANE_USER_DEFAULTS, else $XDG_CONFIG_HOME/orvane/user-defaults.json,
//   else ~/.config/orvane/user-defaults.json
//
// Every write replaces the whole file in one atomic step (a reader sees the old
// version or the new one), so a crash never leaves it torn. Reads go to the file
// each time: two processes that share it see each other's writes. A file that
// can't be read or parsed reads as empty and is replaced on the next write.

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "output/ov_logger.h"

namespace ov {

class UserDefaults {
public:
    explicit UserDefaults(std::filesystem::path file);
    // The store at the path the environment names.
    static UserDefaults& standard();
    static std::filesystem::path standardPath();

    std::optional<nlohmann::json> object(const std::string& key) const;
    bool boolForKey(const std::string& key) const;
    // Writes the whole store with `key` set. Fails with OVError fileOperationFailed.
    void setObject(const nlohmann::json& value, const std::string& key);
    void removeObject(const std::string& key);

    const std::filesystem::path& path() const { return file_; }

private:
    nlohmann::json readAll() const;
    void writeAll(const nlohmann::json& all);

    std::filesystem::path file_;
    mutable std::mutex mutex_;
    Logger logger_{"UserDefaults"};
};

}  // namespace ov
