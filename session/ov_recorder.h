#pragma once
// OVRecorder: the library's public face, one object per recording. It holds the
// schema and the settings, gives each call a trace identifier, logs the
// outcome, and leaves all real work to its Conductor.
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "output/ov_logger.h"
#include "session/conductor.h"
#include "session/ov_bundle_info.h"
#include "session/ov_recorder_types.h"

namespace ov {

class OVRecorder : public OVRecorderTypes {
public:
    using AbortHandler = std::function<void(const AbortReason&)>;

    // Without settings the defaults apply; without a handler an abort is
    // logged as a warning and nothing else happens.
    OVRecorder(std::vector<SchemaItem> items, std::optional<std::filesystem::path> outputDirectory = std::nullopt,
               std::optional<Settings> settings = std::nullopt, AbortHandler onAbort = nullptr,
               std::shared_ptr<OVLogger> ovLogger = OVLogger::shared());
    ~OVRecorder();
    OVRecorder(const OVRecorder&) = delete;
    OVRecorder& operator=(const OVRecorder&) = delete;

    // Any thread may call any operation; the conductor serialises them.
    void setAbortHandler(AbortHandler handler);
    void setAbortHander(AbortHandler handler) { setAbortHandler(std::move(handler)); }
    OVBundleInfo prepare();
    void start();
    void pause();
    void resume();
    Result stop();
    // Stops a recording that has begun and not yet ended (prepare under way or
    // done, recording, paused, stopping, aborting) and waits for its end; does
    // nothing otherwise. Failures are logged, never thrown. Whoever drops a
    // recording calls this first, so that its files and description are whole.
    void stopIfActive(const char* why);

    const std::string& id() const { return id_; }
    const Schema& schema() const { return schema_; }
    const Settings& settings() const { return settings_; }
    const std::filesystem::path& bundleURL() const { return conductor_->bundleURL(); }
    // "OVRecorder: <n> recorder items".
    std::string debugDescription() const;

    // What keeps the user's preferred sources as a recording starts (when
    // the settings' updatesUserPreferred is true). Installed by the discovery
    // folder, which the session can't include.
    using UserPreferredUpdater = std::function<void(const Schema& schema)>;
    static void setUserPreferredUpdater(UserPreferredUpdater updater);

private:
    template <class F>
    auto logged(const char* failurePrefix, F&& call) -> decltype(call());

    std::string id_;
    Schema schema_;
    Logger logger_;
    Settings settings_;
    std::shared_ptr<Conductor> conductor_;
};

}  // namespace ov
