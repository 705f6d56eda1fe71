// Response: the head of an answer (RFC 9112).
#pragma once

#include <string>

namespace relay {

/// The words for a status that this program answers with.
const char* reasonOf(int status);

/// Up to where more header lines may follow; the blank line is the caller's. Each answer ends its connection.
std::string responseHead(int status, const std::string& type);

}  // namespace relay
