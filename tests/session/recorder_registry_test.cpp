// The registry through which recorder folders tell assembly what an item makes.
#include "session/recorder_registry.h"

#include <gtest/gtest.h>

#include "session/recorder_assembly.h"

namespace ov {
namespace {

class NamedRecorder final : public Recorder {
public:
    explicit NamedRecorder(std::string id) : id_(std::move(id)) {}
    std::string id() const override { return id_; }
    std::vector<OVBundleInfo::FileAsset> prepare() override { return {}; }
    std::vector<OVBundleInfo::FileAsset> finish() override { return {}; }

private:
    std::string id_;
};

std::vector<std::string> ids(const std::vector<std::shared_ptr<Recorder>>& recorders) {
    std::vector<std::string> out;
    for (const auto& r : recorders) out.push_back(r->id());
    return out;
}

TEST(RecorderRegistry, FactoriesOfOneKindRunInOrderAndConcatenate) {
    RecorderRegistry registry;
    const auto make = [](std::string name) {
        return std::function<std::vector<std::shared_ptr<Recorder>>(const DisplaySchemaItem&,
                                                                    const RecorderAssemblyContext&)>(
            [name](const DisplaySchemaItem& item, const RecorderAssemblyContext&) {
                return std::vector<std::shared_ptr<Recorder>>{std::make_shared<NamedRecorder>(name + ":" + item.id)};
            });
    };
    registry.add<DisplaySchemaItem>(make("input"), 10);
    registry.add<DisplaySchemaItem>(make("screen"));
    registry.add<DisplaySchemaItem>(make("cursor"), 10);

    DisplaySchemaItem display;
    display.id = "d1";
    const auto factory = registry.factoryFor(InternalSchemaItem(display));
    ASSERT_TRUE(factory);
    EXPECT_EQ(ids(factory(InternalSchemaItem(display), RecorderAssemblyContext{})),
              (std::vector<std::string>{"screen:d1", "input:d1", "cursor:d1"}));
}

TEST(RecorderRegistry, AKindNobodyRegisteredHasNoFactory) {
    RecorderRegistry registry;
    registry.add<DisplaySchemaItem>(
        [](const DisplaySchemaItem&, const RecorderAssemblyContext&) { return std::vector<std::shared_ptr<Recorder>>{}; });
    EXPECT_FALSE(registry.factoryFor(InternalSchemaItem(WebcamSchemaItem{})));
}

}  // namespace
}  // namespace ov
