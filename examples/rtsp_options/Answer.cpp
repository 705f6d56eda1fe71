// Answer: its first line, and the headers that each one has.
#include "rtsp_options/Answer.h"

namespace rtsp {

std::string toText(const Answer& answer, const std::optional<unsigned>& cseq) {
    std::string text = "RTSP/1.0 " + std::to_string(answer.code) + " " + answer.reason + "\r\n";
    if (cseq) {
        text += "CSeq: " + std::to_string(*cseq) + "\r\n";
    }
    text += answer.headers;
    if (!answer.body.empty()) {
        text += "Content-Length: " + std::to_string(answer.body.size()) + "\r\n";
    }
    if (answer.last) {
        text += "Connection: close\r\n";
    }
    return text + "\r\n" + answer.body;
}

}  // namespace rtsp
