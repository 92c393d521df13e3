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

    // The process's registry, which the recorder folders fill.
    static RecorderRegistry& shared();
    // An empty registry (tests).
    RecorderRegistry();

    // Registers a factory of one item type. An item kind may have factories
    // from several folders (a display item makes the screen recorder and,
    // when asked, the input recorders): they run in ascending `order`, then
    // in registration order, and their recorders are concatenated.
    template <class Item>
    bool add(std::function<std::vector<std::shared_ptr<Recorder>>(const Item& item,
                                                                  const RecorderAssemblyContext& context)>
                 factory,
             int order = 0) {
        append(std::type_index(typeid(Item)), order,
               [factory = std::move(factory)](const InternalSchemaItem& item, const RecorderAssemblyContext& context) {
                   return factory(std::get<Item>(item), context);
               });
        return true;
    }

    // One factory that runs every registered factory of the item's kind, or
    // null when no folder registered one.
    Factory factoryFor(const InternalSchemaItem& item) const;

private:
    void append(std::type_index type, int order, Factory factory);
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace ov
