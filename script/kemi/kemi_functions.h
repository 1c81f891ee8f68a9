// The module's functions for the host's other script languages. A text is taken as it stands: no
// pseudo-variable in it is read. Each does what the native script's function of its name does,
// takes the same lock, and gives the same result, above 0 for success, -2 for no row, -1, logged,
// for a failure, but for those told here.
#pragma once

#include "host/abi.h"
#include "host/kemi.h"

// Of the values, those that the table's file can't carry are refused. Lists are by position.
int kemi_insert(sip_msg *msg, str *query);
int kemi_update(sip_msg *msg, str *query, str *values);

int kemi_delete(sip_msg *msg, str *query);
int kemi_clear_tbl(sip_msg *msg, str *table);

// The number of rows, or -1.
int kemi_row_count(sip_msg *msg, str *table);

// avps is a list of plain names, as in "$avp(a)||$avp(b)"; xavp a name as it stands.
int kemi_select(sip_msg *msg, str *query, str *avps);
int kemi_nl_select(sip_msg *msg, str *query, str *avps);
int kemi_xavp_select(sip_msg *msg, str *query, str *xavp);
int kemi_nl_xavp_select(sip_msg *msg, str *query, str *xavp);
int kemi_select_best_match(sip_msg *msg, str *query, str *avps, int column);
int kemi_nl_select_best_match(sip_msg *msg, str *query, str *avps, int column);
int kemi_nl_select_best_match_prefix(sip_msg *msg, str *query, str *avps, int column, int left_out);
int kemi_xavp_select_best_match(sip_msg *msg, str *query, str *xavp, int column);
int kemi_nl_xavp_select_best_match(sip_msg *msg, str *query, str *xavp, int column);
int kemi_nl_select_field_out_of_range(sip_msg *msg, str *query, str *avps, int column, int lower,
                                      int upper);
int kemi_nl_select_subnetmask(sip_msg *msg, str *query, str *avps, str *source, str *from_user,
                              str *contact_user);

// The number of rows above the lower limit, or -1.
int kemi_nl_select_field_within_the_range(sip_msg *msg, str *query, int column, int lower);

// map is the word of a port map. The port, or -1.
int kemi_get_port(sip_msg *msg, str *map);
int kemi_get_port_from_range(sip_msg *msg, str *map, int base);

// 1; -2 out of range; -1 for a wrong word. A port that is freed gives 1 here, since 0 ends nothing
// in these languages and counts as a failure.
int kemi_set_port(sip_msg *msg, int port, str *map);
int kemi_free_port(sip_msg *msg, str *map, int port);

int kemi_clear_pmap(sip_msg *msg);

// The text as a value of a query, and one column, from 0, of the first row that matches. The
// result, a text or null, is the process's until the next call of either; null also for a failure.
sr_kemi_xval_t *kemi_escape(sip_msg *msg, str *text);
sr_kemi_xval_t *kemi_get(sip_msg *msg, str *query, int column);
