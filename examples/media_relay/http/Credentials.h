// Credentials: what a request shows to be let in.
#pragma once

#include <map>
#include <string>

#include "media_relay/http/HttpRequest.h"

namespace relay {

/// The Authorization field of a request (RFC 9110, 11.4).
struct Credentials {
    std::string scheme;                             // in small letters
    std::string token;                              // what follows it, of Bearer
    std::map<std::string, std::string> parameters;  // of others, by names in small letters, without quotes

    /// What that parameter says; empty without one.
    std::string parameter(const std::string& name) const {
        const auto found = parameters.find(name);
        return found == parameters.end() ? "" : found->second;
    }
};

/// False if the text cannot be read, or can be read in two ways, as when it names a parameter twice.
bool parseCredentials(const std::string& text, Credentials& credentials);

/// The value of the first argument of that name in a query, decoded (RFC 3986); empty without one. A plus is
/// a plus.
std::string findArgument(const std::string& query, const std::string& name);

}  // namespace relay
