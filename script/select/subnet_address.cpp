// Subnet test on texts.
#include "script/select/subnet_address.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "host/log.h"

namespace {

int bytes_of_family(int family) {
  switch (family) {
    case AF_INET:
      return 4;
    case AF_INET6:
      return 16;
    default:
      LM_INFO("Invalid address family!\n");
      return 0;
  }
}

}  // namespace

int read_address(const char *text, ip_address *address) {
  *address = {};
  if (inet_pton(AF_INET, text, address->bytes) == 1) return AF_INET;
  if (inet_pton(AF_INET6, text, address->bytes) == 1) return AF_INET6;
  puts("inet_pton cannot convert parameter");
  return FAMILY_UNREADABLE;
}

bool is_in_subnet(const char *source, const char *row_subnet, const char *row_mask) {
  if (*row_subnet == '\0') {
    LM_DBG("Subnet ip is empty, ignoring this row\n");
    return false;
  }
  LM_DBG("Processing entry [%s], length=%lu\n", row_subnet, strlen(row_subnet));
  ip_address from;
  ip_address subnet;
  ip_address mask;
  const int family = read_address(source, &from);
  if (read_address(row_subnet, &subnet) != family) LM_INFO("Addresses from different families\n");
  if (read_address(row_mask, &mask) != family) LM_INFO("mask from different families\n");
  const int bytes = bytes_of_family(family);
  LM_DBG("Bytes=%d\n", bytes);
  for (int i = 0; i < bytes; i++) {
    if ((mask.bytes[i] & (from.bytes[i] ^ subnet.bytes[i])) != 0) {
      LM_DBG("Not the same net!\n");
      return false;
    }
  }
  if (bytes == 0) return false;
  LM_DBG("Same net!\n");
  return true;
}
