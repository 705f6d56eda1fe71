// Camera: a description, or a refusal.
#include "rtsp_options/Camera.h"

#include <algorithm>
#include <iterator>

#include <Reticor/StrParser.h>

namespace rtsp {

using Orvex::Reticor::CStrParser;

namespace {

/// What there would be to see, from a camera at `ip`.
std::string describe(const std::string& ip, unsigned session) {
    CStrParser sdp(
        "v=0\r\n"
        "o=- 1 1 IN IP4 0.0.0.0\r\n"
        "s=Door\r\n"
        "c=IN IP4 0.0.0.0\r\n"
        "t=0 0\r\n"
        "a=control:*\r\n"
        "a=range:npt=now-\r\n"
        "m=video 0 RTP/AVP 96\r\n"
        "b=AS:4096\r\n"
        "a=rtpmap:96 H264/90000\r\n"
        "a=fmtp:96 packetization-mode=1;profile-level-id=42E01F\r\n"
        "a=framerate:25\r\n"
        "a=control:trackID=0\r\n");
    const bool six = ip.find(':') != std::string::npos;
    sdp.LocateString("o=- ");
    sdp.ConsumeUntilDigit();
    sdp.ReplaceUint32(session);  // the cursor stays on its first digit
    while (sdp.LocateString("IP4 ") != -1) {
        sdp.ReplaceLength(3, six ? "IP6" : "IP4");  // the cursor goes on after it
        sdp.Expect(' ');
        sdp.ReplaceIpAddr(ip.c_str());
    }
    return {sdp.GetString(), static_cast<size_t>(sdp.GetStringLen())};
}

/// What RTSP knows and we do not do.
bool isKnown(const std::string& method) {
    static const char* const kMethods[] = {"SETUP",  "PLAY",          "PAUSE",         "TEARDOWN", "ANNOUNCE",
                                           "RECORD", "GET_PARAMETER", "SET_PARAMETER", "REDIRECT"};
    return std::any_of(std::begin(kMethods), std::end(kMethods),
                       [&](const char* known) { return method == known; });
}

}  // namespace

Answer answerTo(const Request& request, const std::string& ip, unsigned session) {
    if (!request.good) {
        return {400, "Bad Request", "", "", true};
    }
    if (request.version != "RTSP/1.0") {
        return {505, "RTSP Version Not Supported", "", "", true};
    }
    if (!request.required.empty()) {
        return {551, "Option not supported", "Unsupported: " + request.required + "\r\n", ""};
    }
    if (request.method == "OPTIONS") {
        return {200, "OK", "Public: OPTIONS, DESCRIBE\r\n", ""};
    }
    if (request.method != "DESCRIBE") {
        return isKnown(request.method) ? Answer{405, "Method Not Allowed", "Allow: OPTIONS, DESCRIBE\r\n", ""}
                                       : Answer{501, "Not Implemented", "Public: OPTIONS, DESCRIBE\r\n", ""};
    }
    if (request.url == "*") {
        return {400, "Bad Request", "", "", true};
    }
    if (!request.takes_sdp) {
        return {406, "Not Acceptable", "", ""};
    }
    const std::string slash = request.url.back() == '/' ? "" : "/";
    return {200, "OK", "Content-Base: " + request.url + slash + "\r\nContent-Type: application/sdp\r\n",
            describe(ip, session)};
}

}  // namespace rtsp
