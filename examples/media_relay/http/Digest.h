// Digest: the sums by which a client proves that it knows a password (RFC 7616).
#pragma once

#include <string>

#include "media_relay/http/Credentials.h"

namespace relay {

/// What the response of these credentials is, if they were made with this password for a request of this
/// method. Empty if they name no algorithm that is known here (MD5, SHA-256), or another protection than
/// "auth".
std::string digestResponse(const Credentials& credentials, const std::string& method,
                           const std::string& password);

/// SHA-256 under a key, in hexadecimal digits (RFC 2104).
std::string keyedSum(const std::string& key, const std::string& text);

/// Whether two texts are the same, in a time that does not tell where they differ.
bool isSame(const std::string& left, const std::string& right);

}  // namespace relay
