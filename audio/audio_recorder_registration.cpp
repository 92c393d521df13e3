// The audio folder's recorders, made known to the session's assembly.
#include "audio/microphone_recorders.h"
#include "session/recorder_assembly.h"
#include "session/recorder_registry.h"

namespace ov {
namespace {

const bool microphoneFileRegistered = RecorderRegistry::shared().add<MicrophoneFileSchemaItem>(
    [](const MicrophoneFileSchemaItem& item, const RecorderAssemblyContext& context) {
        return makeMicrophoneRecorders(item, outputDescription(item.outputOptions, context.bundleURL,
                                                               fallbackFilename(InternalSchemaItem(item))),
                                       context);
    });

const bool microphoneStreamRegistered = RecorderRegistry::shared().add<MicrophoneStreamSchemaItem>(
    [](const MicrophoneStreamSchemaItem& item, const RecorderAssemblyContext& context) {
        return makeMicrophoneRecorders(item, context);
    });

}  // namespace
}  // namespace ov
