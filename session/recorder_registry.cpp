#include "session/recorder_registry.h"

#include <map>
#include <mutex>

namespace ov {

struct RecorderRegistry::State {
    mutable std::mutex mutex;
    std::map<std::type_index, Factory> factories;
};

RecorderRegistry::RecorderRegistry() : state_(std::make_shared<State>()) {}

RecorderRegistry& RecorderRegistry::shared() {
    // Built on first use, so registrations from static objects of any
    // translation unit find it constructed.
    static RecorderRegistry registry;
    return registry;
}

void RecorderRegistry::set(std::type_index type, Factory factory) {
    std::lock_guard lock(state_->mutex);
    state_->factories[type] = std::move(factory);
}

RecorderRegistry::Factory RecorderRegistry::factoryFor(const InternalSchemaItem& item) const {
    const std::type_index type = std::visit([](const auto& i) { return std::type_index(typeid(i)); }, item);
    std::lock_guard lock(state_->mutex);
    const auto it = state_->factories.find(type);
    return it == state_->factories.end() ? Factory{} : it->second;
}

}  // namespace ov
