#include "session/recorder_registry.h"

#include <map>
#include <mutex>

namespace ov {

struct RecorderRegistry::State {
    mutable std::mutex mutex;
    // Per item type: (order, registration number) → factory.
    std::map<std::type_index, std::map<std::pair<int, int>, Factory>> factories;
    int registrations = 0;
};

RecorderRegistry::RecorderRegistry() : state_(std::make_shared<State>()) {}

RecorderRegistry& RecorderRegistry::shared() {
    // Built on first use, so registrations from static objects of any
    // translation unit find it constructed.
    static RecorderRegistry registry;
    return registry;
}

void RecorderRegistry::append(std::type_index type, int order, Factory factory) {
    std::lock_guard lock(state_->mutex);
    state_->factories[type][{order, state_->registrations++}] = std::move(factory);
}

RecorderRegistry::Factory RecorderRegistry::factoryFor(const InternalSchemaItem& item) const {
    const std::type_index type = std::visit([](const auto& i) { return std::type_index(typeid(i)); }, item);
    std::lock_guard lock(state_->mutex);
    const auto it = state_->factories.find(type);
    if (it == state_->factories.end() || it->second.empty()) return {};
    std::vector<Factory> all;
    for (const auto& [key, factory] : it->second) all.push_back(factory);
    if (all.size() == 1) return all.front();
    return [all = std::move(all)](const InternalSchemaItem& item, const RecorderAssemblyContext& context) {
        std::vector<std::shared_ptr<Recorder>> recorders;
        for (const auto& factory : all) {
            auto some = factory(item, context);
            recorders.insert(recorders.end(), some.begin(), some.end());
        }
        return recorders;
    };
}

}  // namespace ov
