// Playlist: the text that lists what a window holds (RFC 8216, 4; its second edition, 4.4).
#pragma once

#include <cstdint>
#include <string>

#include "media_relay/hls/Window.h"

namespace relay {

/// Names of what a playlist lists, and their paths from where it stands.
std::string initName(uint64_t number);
std::string segmentName(uint64_t number);
std::string partName(uint64_t number, size_t part);

/// Of a window that is ready. What it lists stands in the folder `folder` beside it.
std::string makePlaylist(const Window& window, const std::string& folder);

}  // namespace relay
