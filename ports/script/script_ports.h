// The script functions on ports, and the one that empties everything that holds ports. Results
// above 0 are true for the script, below 0 false, and 0 ends it. All but tarn_memdb_free_port take
// port_map_lock for what they do to a map.
#pragma once

#include "host/abi.h"
#include "ports/port_map.h"

// The functions behind their parameters, for every script language. Each takes port_map_lock, but
// for the last.

// Takes the port that is next: the port, or NO_PORT if the map is exhausted.
int32_t take_port(port_m *m);

// Takes the first free port of the private range with that base port: the port; 0 from a map
// without private ranges; NO_PORT if there is none.
int32_t take_port_from_range(port_m *m, int32_t base);

// Takes the port: 1, or -2 out of range.
int take_this_port(port_m *m, int32_t port);

// Gives back one holder of the port: done, or -2 out of range.
int give_port_back(port_m *m, int32_t port, int done);

// The native script's functions.

// map: the word of a port map. Takes the port that is next and gives it as the result; -1 if the
// map is exhausted or the word is wrong.
int tarn_memdb_get_port1(sip_msg *msg, char *map, char *unused);

// The same with the port as a text in an AVP, "-1" when exhausted; 1, or -1. The word has to fit
// seven characters, which the static maps' words don't.
int tarn_memdb_get_port(sip_msg *msg, char *map, char *avp);

// Takes the first free port of the private range with that base port: the port; 0 from a map
// without private ranges; -1 if there is none, or -3 if the base can't be printed.
int tarn_memdb_get_port_from_range(sip_msg *msg, char *map, char *base);

// Takes the port: 1; -2 out of range; -1 wrong word; -3 unprintable.
int tarn_memdb_set_port(sip_msg *msg, char *port, char *map);

// Gives back one holder of the port: 0, which ends the script; -2 out of range; -1 wrong word; -3
// unprintable. Takes no lock.
int tarn_memdb_free_port(sip_msg *msg, char *map, char *port);

// Empties every table that holds ports, then all port maps, and stores: each table's lock and
// port_map_lock are taken one after the other. Always 1.
int tarn_memdb_clear_pmap(sip_msg *msg, char *unused1, char *unused2);
