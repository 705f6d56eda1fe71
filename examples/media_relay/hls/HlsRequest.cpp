// HlsRequest: names and numbers.

#include "media_relay/hls/HlsRequest.h"

#include <algorithm>

namespace relay {

namespace {

constexpr char FOLDER[] = "/hls/";
constexpr size_t FOLDER_SIZE = sizeof FOLDER - 1;
constexpr size_t MOST_DIGITS = 15;  // far beyond any number that is counted to

/// Takes the digits at the front of `text`. False if there are none, or too many.
bool takeNumber(std::string& text, uint64_t& number) {
    const size_t size = std::min(text.find_first_not_of("0123456789"), text.size());
    if (size == 0 || size > MOST_DIGITS) {
        return false;
    }
    number = std::stoull(text.substr(0, size));
    text.erase(0, size);
    return true;
}

bool takeWord(std::string& text, const std::string& word) {
    if (text.compare(0, word.size(), word) != 0) {
        return false;
    }
    text.erase(0, word.size());
    return true;
}

bool parseFile(std::string file, HlsRequest& request) {
    if (takeWord(file, "init")) {
        request.kind = HlsRequest::Kind::INIT;
        return takeNumber(file, request.number) && file == ".mp4";
    }
    request.kind = HlsRequest::Kind::SEGMENT;
    if (!takeNumber(file, request.number) || !takeWord(file, ".")) {
        return false;
    }
    if (takeNumber(file, request.part)) {
        request.kind = HlsRequest::Kind::PART;
        return file == ".m4s";
    }
    return file == "m4s";
}

bool parsePath(const std::string& path, HlsRequest& request) {
    const std::string rest = path.substr(FOLDER_SIZE);
    const std::string ending = ".m3u8";
    const size_t slash = rest.find('/');
    if (slash != std::string::npos) {
        request.stream = rest.substr(0, slash);
        return slash > 0 && parseFile(rest.substr(slash + 1), request);
    }
    request.kind = HlsRequest::Kind::PLAYLIST;
    const size_t size = rest.size() - std::min(ending.size(), rest.size());
    request.stream = rest.substr(0, size);
    return size > 0 && rest.compare(size, ending.size(), ending) == 0;
}

/// The number of one argument; each is there once at most.
bool takeArgument(std::string argument, const std::string& name, bool& is_there, uint64_t& number) {
    if (!takeWord(argument, name + "=")) {
        return true;
    }
    const bool again = is_there;
    is_there = true;
    return !again && takeNumber(argument, number) && argument.empty();
}

bool parseArguments(const std::string& query, HlsRequest& request) {
    for (size_t at = 0; at < query.size();) {
        const size_t end = std::min(query.find('&', at), query.size());
        const std::string argument = query.substr(at, end - at);
        if (!takeArgument(argument, "_HLS_msn", request.blocks, request.number) ||
            !takeArgument(argument, "_HLS_part", request.withPart, request.part)) {
            return false;
        }
        at = end + 1;
    }
    return request.blocks || !request.withPart;
}

}  // namespace

bool isHlsPath(const std::string& path) {
    return path.compare(0, FOLDER_SIZE, FOLDER) == 0;
}

int parseHls(const std::string& path, const std::string& query, HlsRequest& request) {
    request = HlsRequest();
    if (!isHlsPath(path) || !parsePath(path, request)) {
        return 404;
    }
    const bool sound = request.kind != HlsRequest::Kind::PLAYLIST || parseArguments(query, request);
    return sound ? 200 : 400;
}

}  // namespace relay
