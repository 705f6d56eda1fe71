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

struct ViewerResult {
    ViewerFigures figures;
    std::vector<FrameArrival> arrivals;
};

ViewerResult modelViewer(const ViewerScene& scene, const ViewerPolicy& policy);

}  // namespace Bench
