// The location domain of a user, from the table remote_sub_dn_list.
#pragma once

#include <span>

// Looks the user up and writes the domain into domain, cut at its end. False if the user has
// none or the look-up could not be made. Reads the table without its lock: the domains change
// rarely, and the caller may hold another table's.
bool tarn_memdb_select_dn(const char *dn, std::span<char> domain);
