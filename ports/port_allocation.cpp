// The allocator of one port map.
#include "ports/port_allocation.h"

#include "host/log.h"

namespace {

// Messages show the byte widened with its sign.
int shown(const uint8_t *entry) { return static_cast<int8_t>(*entry); }

// From 32 holders on the six bits read as a negative number, and such a port is never given back.
bool counts_down(uint8_t entry) {
  const int use_count = entry & PORT_USE_COUNT;
  return use_count > 0 && use_count < 32;
}

bool is_in_range(const port_m *m, int32_t port, int level = L_DBG) {
  if (is_port_in_range(m, port)) return true;
  HOST_LOG(level, "Port %d out of range\n", port);
  return false;
}

void log_in_range(int32_t port) { LM_DBG("Port %d is within range\n", port); }

// done if the map has the port.
port_result find_port(const port_m *m, int32_t port) {
  if (m == nullptr) {
    LM_DBG("NULL value for port_m\n");
    return port_result::no_map;
  }
  return is_in_range(m, port) ? port_result::done : port_result::out_of_range;
}

bool has_private_ranges(const port_m *m) {
  if (m->private_range_count != 0) return true;
  LM_DBG("There is no private range of ports within this range\n");
  return false;
}

const private_range_ports *find_range(const port_m *m, int32_t base) {
  for (const private_range_ports *range : private_ranges(m))
    if (range != nullptr && range->port[0] == base) return range;
  return nullptr;
}

}  // namespace

port_result set_port(port_m *m, int32_t port) {
  LM_DBG("Setting port %d\n", port);
  if (const port_result found = find_port(m, port); found != port_result::done) return found;
  log_in_range(port);
  uint8_t *const entry = port_entry(m, port);
  *entry |= PORT_IN_USE;
  if (port == m->next_free_port) update_next_free_port(m);
  LM_DBG("Port %d is being reserved, value 0x%x \n", port, static_cast<unsigned>(shown(entry)));
  return port_result::done;
}

port_result increment_port_count(port_m *m, int32_t port) {
  if (const port_result found = find_port(m, port); found != port_result::done) return found;
  uint8_t *const entry = port_entry(m, port);
  LM_DBG("Port %d Before Value = 0x%x\n", port, static_cast<unsigned>(shown(entry)));
  const unsigned use_count = (*entry + 1U) & PORT_USE_COUNT;
  *entry = static_cast<uint8_t>((*entry & PORT_PRIVATE) | PORT_IN_USE | use_count);
  LM_DBG("Port %d After Value = 0x%x\n", port, static_cast<unsigned>(shown(entry)));
  return port_result::done;
}

port_result free_port(port_m *m, int32_t port) {
  if (!is_in_range(m, port)) return port_result::out_of_range;
  uint8_t *const entry = port_entry(m, port);
  if ((*entry & PORT_IN_USE) != 0 && counts_down(*entry)) *entry = static_cast<uint8_t>(*entry - 1);
  if ((*entry & PORT_USE_COUNT) == 0) {
    *entry = static_cast<uint8_t>(*entry & ~PORT_IN_USE);
    if (m->next_free_port == NO_PORT && !is_port_private(m, port)) {
      m->next_free_port = port;
      LM_DBG("New Free Port updated to %d\n", port);
    }
  }
  LM_DBG("Port = %d is freed and value update to 0x%x\n", port,
         static_cast<unsigned>(shown(entry)));
  return port_result::done;
}

void update_next_free_port(port_m *m) {
  LM_DBG("Current free port is %d\n", m->next_free_port);
  // At the top of the number space the step wraps to a port that no map holds.
  const auto above = static_cast<int32_t>(static_cast<uint32_t>(m->next_free_port) + 1);
  if (is_port_free(m, above) && !is_port_private(m, above))
    m->next_free_port = above;
  else
    m->next_free_port = find_free_port(m);
  LM_DBG("Next free port update to %d\n", m->next_free_port);
}

bool is_port_free(const port_m *m, int32_t port) {
  if (!is_in_range(m, port)) return false;
  log_in_range(port);
  const uint8_t *const entry = port_entry(m, port);
  if ((*entry & PORT_IN_USE) != 0) {
    LM_DBG("Port = %d is in USE, value=%d \n", port, shown(entry));
    return false;
  }
  LM_DBG("Port = %d is FREE, value=%d \n", port, shown(entry));
  return true;
}

bool is_port_private(const port_m *m, int32_t port) {
  if (!has_private_ranges(m) || !is_in_range(m, port, L_ERR)) return false;
  const bool is_private = (*port_entry(m, port) & PORT_PRIVATE) != 0;
  if (is_private) {
    LM_DBG("Port %d is within range and it is reserved for a private range\n", port);
    LM_DBG("Port %d is reserved for a private range\n", port);
  } else {
    LM_DBG("Port %d is within range and it is not reserved for a private range\n", port);
    LM_DBG("Port %d is not reserved for a private range\n", port);
  }
  return is_private;
}

int32_t find_free_port(const port_m *m) {
  for (int64_t at = m->min_port; at <= m->max_port; at++) {
    const auto port = static_cast<int32_t>(at);
    LM_DBG("Processing Port = %d\n", port);
    if (!is_port_free(m, port)) {
      LM_DBG("Port = %d is Not FREE.... IGNORE\n", port);
      continue;
    }
    if (is_port_private(m, port)) {
      LM_DBG("Port = %d is a Private Port.... IGNORE\n", port);
      continue;
    }
    LM_DBG("Found Free Port = %d\n", port);
    return port;
  }
  LM_DBG("No free port available\n");
  return NO_PORT;
}

int32_t find_free_port_in_range(const port_m *m, int32_t base) {
  if (!has_private_ranges(m)) return 0;
  const private_range_ports *const range = find_range(m, base);
  if (range == nullptr) {
    LM_DBG("The base port %d is not assigned to any private range\n", base);
    return NO_PORT;
  }
  // The walk ends on NO_PORT: behind the last port of a short range, or behind the tenth place.
  const int32_t *candidate = &range->port[1];
  while (*candidate != NO_PORT && !is_port_free(m, *candidate)) {
    LM_DBG("Port %d of private range is in use\n", *candidate);
    candidate++;
  }
  if (*candidate == NO_PORT) {
    LM_ERR("No free port available for this private range with base port %d\n", base);
    return NO_PORT;
  }
  LM_DBG("Port %d is free in private range with base port %d\n", *candidate, base);
  return *candidate;
}
