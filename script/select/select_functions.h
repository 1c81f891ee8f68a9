// The script functions that select rows. Parameters are what the fix-ups left in their slots. Above
// 0 is true for the script, below 0 false, and 0 ends the script. Each takes its table's lock,
// unless nl is in its name, and logs why it fails.
#pragma once

#include "host/abi.h"

// Exact select; see select.cpp.
int tarn_memdb_select(sip_msg *msg, char *query, char *avps);
int tarn_memdb_nl_select(sip_msg *msg, char *query, char *avps);
int tarn_memdb_xavp_select(sip_msg *msg, char *query, char *xavp);
int tarn_memdb_nl_xavp_select(sip_msg *msg, char *query, char *xavp);

// Selects by the longest prefix; see best_match.cpp. column is a decimal text, flags a num_or_pv.
int tarn_memdb_select_best_match(sip_msg *msg, char *query, char *avps, char *column);
int tarn_memdb_nl_select_best_match(sip_msg *msg, char *query, char *avps, char *column);
int tarn_memdb_nl_select_best_match_prefix(sip_msg *msg, char *query, char *avps, char *column,
                                           char *flags);
int tarn_memdb_xavp_select_best_match(sip_msg *msg, char *query, char *xavp, char *column);
int tarn_memdb_nl_xavp_select_best_match(sip_msg *msg, char *query, char *xavp, char *column);

// Selects by a number; see range_select.cpp. The limits are num_or_pv.
int tarn_memdb_nl_select_field_out_of_range(sip_msg *msg, char *query, char *avps, char *column,
                                            char *lower, char *upper);
int tarn_memdb_nl_select_field_within_the_range(sip_msg *msg, char *query, char *avps, char *column,
                                                char *lower, char *upper, char *target);

// Select by source address or user; see subnet_select.cpp. Longer parts of a request than this,
// terminator included, aren't printed.
inline constexpr size_t REQUEST_PART_SIZE = 256;
int tarn_memdb_nl_select_subnetmask(sip_msg *msg, char *query, char *avps, char *source,
                                    char *from_user, char *contact_user);

// Selects of a port pair; see port_type_select.cpp.
int tarn_memdb_select_by_port_type(sip_msg *msg, char *selection, char *query, char *avps);
int tarn_memdb_nl_select_by_port_type(sip_msg *msg, char *selection, char *query, char *avps);
