// ViewerModel: a media buffer with one viewer, the plain way: what each rule for late viewers comes to.
#pragma once

#include "common/ViewerScene.h"

namespace Bench {

enum class LateRule {
    NONE,    // frames go out until they are too old for their level
    STRICT,  // no frame is begun above the limit; what is late waits for a key frame
    AHEAD,   // what is late steps ahead to the newest key frame, if there is one
};

struct ViewerPolicy {
    LateRule rule = LateRule::NONE;
    bool keep = false;    // frames wait by time, and not by ticks
    bool layers = false;  // frames that can be left out go first
    bool follow = true;   // sound follows the picture
};

// A sender's filter.
class ViewerFilter {
public:
    virtual ~ViewerFilter() = default;
    // Whether the frame is sent; otherwise its channel waits for a key frame.
    virtual bool sends(const StreamFrame& frame, std::int64_t age_us) = 0;
    // The viewer has missed pictures.
    virtual void missed() = 0;
};

struct ViewerResult {
    ViewerFigures figures;
    std::vector<FrameArrival> arrivals;
};

ViewerResult modelViewer(const ViewerScene& scene, const ViewerPolicy& policy,
                         ViewerFilter* filter = nullptr);

}  // namespace Bench
