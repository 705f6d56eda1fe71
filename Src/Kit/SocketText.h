// A socket's address as text.
#pragma once

#include <cstddef>

struct sockaddr_storage;

namespace Orvex::Reticor::Kit {
inline namespace v1 {

/// Writes "127.0.0.1:7007" or "[::1]:7007" to `text`, cut to `size` with a terminator, and returns its
/// length; an empty text for null and for other families.
size_t write_address(const sockaddr_storage* address, char* text, size_t size);

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
