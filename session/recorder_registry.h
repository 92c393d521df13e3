#pragma once
// Where the recorder folders (audio/, video/, ...) tell the session which
// recorders an item kind makes. The session never includes them: each folder
// registers its factories from a static object of its own, and the library is
// linked whole so that those objects are always part of the program.

#include <functional>
#include <memory>
#include <typeindex>
#include <vector>

#include "session/recorder.h"
#include "session/schema_items.h"

namespace ov {

struct RecorderAssemblyContext;

class RecorderRegistry {
public:
    using Factory = std::function<std::vector<std::shared_ptr<Recorder>>(const InternalSchemaItem& item,
                                                                         const RecorderAssemblyContext& context)>;

    static RecorderRegistry& shared();

    // Registers the factory of one item type; a second registration replaces
    // the first (tests use it to stand in for a folder's recorders).
    template <class Item>
    bool add(std::function<std::vector<std::shared_ptr<Recorder>>(const Item& item,
                                                                  const RecorderAssemblyContext& context)>
                 factory) {
        set(std::type_index(typeid(Item)), [factory = std::move(factory)](const InternalSchemaItem& item,
                                                                          const RecorderAssemblyContext& context) {
            return factory(std::get<Item>(item), context);
        });
        return true;
    }

    // The factory for the item's kind, or null when no folder made one.
    Factory factoryFor(const InternalSchemaItem& item) const;

private:
    void set(std::type_index type, Factory factory);
    struct State;
    std::shared_ptr<State> state_;
    RecorderRegistry();
};

}  // namespace ov
