#pragma once
// The contract of internal recorders: each captures one source into the bundle.
// The conductor calls prepare() once and, unless the recording ends while only
// prepared, finish() once; all recorders of a recording run each step at once.

#include <string>
#include <vector>

#include "session/ov_bundle_info.h"

namespace ov {

class Recorder {
public:
    virtual ~Recorder() = default;

    // Every recorder made from one item has that item's id.
    virtual std::string id() const = 0;
    // Starts capture; returns the assets that the recorder expects to produce.
    // When it returns, the source runs and its samples are judged against the
    // timeline, so nothing before the first interval is recorded.
    virtual std::vector<OVBundleInfo::FileAsset> prepare() = 0;
    // Ends capture and closes the files; returns the assets that exist now.
    virtual std::vector<OVBundleInfo::FileAsset> finish() = 0;
};

// A recorder whose content filter is built again once every recorder of the
// recording is prepared (screen recorders: the windows to leave out may have
// appeared while the others prepared). The conductor finds them by this
// interface, since it doesn't know the recorder folders.
class FilterUpdatingRecorder {
public:
    virtual ~FilterUpdatingRecorder() = default;
    virtual void updateFilter() = 0;
};

}  // namespace ov
