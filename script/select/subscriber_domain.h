// The location domain of a user, from the table remote_sub_dn_list.
#pragma once

#include <cstdint>
#include <span>

// Looks the user up and writes the domain into domain, cut at its end. 1 if the user has a domain,
// -2 if not, -1, logged, if the look-up could not be made. Reads the table without its lock: the
// domains change rarely, and the caller may hold another table's.
int32_t tarn_memdb_select_dn(const char *dn, std::span<char> domain);
