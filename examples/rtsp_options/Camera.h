// Camera: what a client is told of a camera that is not there.
#pragma once

#include <string>

#include "rtsp_options/Answer.h"
#include "rtsp_options/Request.h"

namespace rtsp {

/// `ip` is our address as the client sees it, and `session` a number of its own.
Answer answerTo(const Request& request, const std::string& ip, unsigned session);

}  // namespace rtsp
