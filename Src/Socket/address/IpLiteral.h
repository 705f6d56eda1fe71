// Numeric address texts, taken without any name service, and IPv4-mapped addresses.
#pragma once

struct in_addr;
struct sockaddr_in6;

namespace Orvex::Reticor {

/// "10.0.0.1", with all four parts. False for null and anything else, and then `address` is unchanged.
bool parse_ipv4_literal(const char* text, struct in_addr& address);

/// "2001:db8::1", "::ffff:10.0.0.1", or with a scope as "fe80::1%eth0" and "fe80::1%3". The whole record is
/// written: family, address and scope, with port and flow information 0. False for null and anything else,
/// and then `record` is unchanged.
bool parse_ipv6_literal(const char* text, struct sockaddr_in6& record);

/// Writes bytes 10 to 15 of the address of `record`, which make it an IPv4-mapped one if the others are 0.
void write_mapped_address(const struct in_addr& address, struct sockaddr_in6& record);

}  // namespace Orvex::Reticor
