// HlsRequest: what a client of HTTP live streaming asks for, by path and arguments.
#pragma once

#include <cstdint>
#include <string>

namespace relay {

/// "/hls/NAME.m3u8", "/hls/NAME/12.m4s", "/hls/NAME/12.3.m4s" or "/hls/NAME/init12.mp4".
struct HlsRequest {
    enum class Kind { PLAYLIST, INIT, SEGMENT, PART };

    Kind kind = Kind::PLAYLIST;
    std::string stream;   // its name
    uint64_t number = 0;  // of the segment; of a playlist the one that it is to list, if `blocks`
    uint64_t part = 0;    // of the part; of a playlist as well, if `withPart`
    bool blocks = false;  // the playlist is to be answered only when it lists that
    bool withPart = false;
};

/// Whether the path belongs here.
bool isHlsPath(const std::string& path);

/// 200: `request` holds it; 404 for a path that is none of those, 400 for arguments that make no sense.
/// Arguments of other names are passed over.
int parseHls(const std::string& path, const std::string& query, HlsRequest& request);

}  // namespace relay
