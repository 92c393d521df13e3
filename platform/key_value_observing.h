#pragma once
// Change observation of a platform object's properties, the way the capture
// code watches a device's "isSuspended" or "activeFormat", or a discovery
// session's "devices".
//
// An observer is a callback taking the key that changed. It runs on the
// thread that made the change, after the change is visible, and without the
// object's locks held, so it may read the object again. Observing ends when
// the returned KeyValueObservation is destroyed or invalidated; after that the
// callback is never entered again (a call in progress on another thread is
// waited for, unless the observation is ended from inside its own callback).

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ov::platform {

class KeyValueObservable;

class KeyValueObservation {
public:
    KeyValueObservation() = default;
    KeyValueObservation(KeyValueObservation&&) noexcept = default;
    KeyValueObservation& operator=(KeyValueObservation&& other) noexcept {
        if (this != &other) {
            invalidate();
            entry_ = std::move(other.entry_);
        }
        return *this;
    }
    ~KeyValueObservation() { invalidate(); }

    void invalidate();
    bool isValid() const { return entry_ != nullptr; }

private:
    friend class KeyValueObservable;
    struct Entry {
        std::function<void(const std::string&)> callback;
        std::vector<std::string> keys;  // empty: every key
        // Held while the callback runs; recursive, so that a callback may end
        // its own observation or cause a nested change.
        std::recursive_mutex callMutex;
        bool active = true;
    };
    explicit KeyValueObservation(std::shared_ptr<Entry> entry) : entry_(std::move(entry)) {}
    std::shared_ptr<Entry> entry_;
};

// The observer list that an observable object embeds.
class KeyValueObservable {
public:
    // Observes the given keys, or every key when the list is empty.
    KeyValueObservation observe(std::vector<std::string> keys, std::function<void(const std::string& key)> callback);
    // Tells the observers of `key`; call after the change, with no lock held.
    void notify(const std::string& key) const;

private:
    mutable std::mutex mutex_;
    mutable std::vector<std::weak_ptr<KeyValueObservation::Entry>> entries_;
};

}  // namespace ov::platform
