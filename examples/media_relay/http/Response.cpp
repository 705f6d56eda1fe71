// Response: words.

#include "media_relay/http/Response.h"

namespace relay {

const char* reasonOf(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 304:
            return "Not Modified";
        case 401:
            return "Unauthorized";
        case 403:
            return "Forbidden";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 408:
            return "Request Timeout";
        case 409:
            return "Conflict";
        case 414:
            return "URI Too Long";
        case 415:
            return "Unsupported Media Type";
        case 417:
            return "Expectation Failed";
        case 431:
            return "Request Header Fields Too Large";
        case 501:
            return "Not Implemented";
        case 503:
            return "Service Unavailable";
        default:
            return "Bad Request";
    }
}

std::string responseHead(int status, const std::string& type) {
    return "HTTP/1.1 " + std::to_string(status) + " " + reasonOf(status) + "\r\nContent-Type: " + type +
           "\r\nConnection: close\r\nCache-Control: no-store\r\n";
}

}  // namespace relay
