// Addresses in binary form, and the test whether one lies in a subnet.
#pragma once

#include <sys/socket.h>

#include <cstdint>

inline constexpr int FAMILY_UNREADABLE = -1;
static_assert(AF_INET == 2 && AF_INET6 == 10);

struct ip_address {
  uint8_t bytes[16];  // in network order; an IPv4 address takes the first four, the rest is zero
};

// Converts an IPv4 or IPv6 text. The family, AF_INET or AF_INET6, or FAMILY_UNREADABLE, told on
// standard output, with the address zero.
int read_address(const char *text, ip_address *address);

// True if source lies in the subnet that row_subnet and row_mask tell. Mixed families are told and
// compared all the same, over the bytes of the source's. A source that can't be read lies nowhere.
bool is_in_subnet(const char *source, const char *row_subnet, const char *row_mask);
