#include "platform/key_value_observing.h"

#include <algorithm>

namespace ov::platform {

void KeyValueObservation::invalidate() {
    if (!entry_) return;
    auto entry = std::move(entry_);
    entry_.reset();
    std::lock_guard lock(entry->callMutex);
    entry->active = false;
}

KeyValueObservation KeyValueObservable::observe(std::vector<std::string> keys,
                                                std::function<void(const std::string&)> callback) {
    auto entry = std::make_shared<KeyValueObservation::Entry>();
    entry->callback = std::move(callback);
    entry->keys = std::move(keys);
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [](const auto& weak) { return weak.expired(); });
    entries_.push_back(entry);
    return KeyValueObservation(entry);
}

void KeyValueObservable::notify(const std::string& key) const {
    std::vector<std::shared_ptr<KeyValueObservation::Entry>> targets;
    {
        std::lock_guard lock(mutex_);
        for (const auto& weak : entries_)
            if (auto entry = weak.lock()) targets.push_back(std::move(entry));
    }
    for (const auto& entry : targets) {
        if (!entry->keys.empty() && std::find(entry->keys.begin(), entry->keys.end(), key) == entry->keys.end())
            continue;
        std::lock_guard lock(entry->callMutex);
        if (!entry->active) continue;
        entry->callback(key);
    }
}

}  // namespace ov::platform
