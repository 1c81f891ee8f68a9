// Script functions on ports.
#include "ports/script/script_ports.h"

#include <cstdio>
#include <cstdlib>

#include "host/log.h"
#include "ports/port_allocation.h"
#include "query/text/buffers.h"
#include "script/params/avp.h"
#include "script/params/script_query.h"
#include "tables/files/table_files.h"
#include "tables/rows/row_writes.h"
#include "tables/tarn_tbl.h"

namespace {

constexpr int SCRIPT_OUT_OF_RANGE = -2;
constexpr int SCRIPT_UNPRINTABLE = -3;
constexpr int SCRIPT_PORT_FREED = 0;  // which ends the script

constexpr audit_table_text CLEARED{"       %s - (%d) Clearing table %s"};

// Sizes of the buffers that parameters are printed into, terminator included. Scripts count on what
// doesn't fit failing.
constexpr size_t WORD_SIZE = 19;
constexpr size_t SHORT_WORD_SIZE = 8;
constexpr size_t PORT_SIZE = 7;
constexpr size_t PORT_TEXT_SIZE = 8;

bool print(sip_msg *msg, const char *slot, std::span<char> text,
           const message_text<> &unprintable) {
  return print_or_refuse(msg, slot, text, unprintable).s != nullptr;
}

// The map that the word names; null, logged with shown, if it names none.
port_m *find_map(const char *word, const char *shown) {
  port_m *const m = port_map_by_word(word);
  if (m == nullptr)
    LM_ERR("Wrong parameter (%s). Allowed values are 'EXT', 'INT', 'STATIC_EXT' and 'STATIC_INT'\n",
           shown);
  return m;
}

void log_next_port(int32_t port) {
  LM_DBG("tarn_memdb_get_port: port to be returned = %d\n", port);
}

// The map was found by then, so that nothing but the port can be wrong.
int script_result(port_result result, int done) {
  return result == port_result::done ? done : SCRIPT_OUT_OF_RANGE;
}

// As seen in passing, without the lock.
bool is_exhausted(const port_m *m) UNCHECKED_LOCKING { return m->next_free_port == NO_PORT; }

// Takes whatever is next under the lock. Another process may have taken the last port since the
// caller looked; set_port then refuses NO_PORT, and NO_PORT is the answer.
int32_t take_next_port(port_m *m) {
  const lock_scope lock(port_map_lock);
  const int32_t port = m->next_free_port;
  set_port(m, port);
  return port;
}

// Takes a port that was found, or counts that none was.
int32_t taken_or_counted(port_m *m, int32_t port) NEEDS_LOCK(port_map_lock) {
  if (port != NO_PORT)
    set_port(m, port);
  else
    count_refused_request(m);
  return port;
}

void clear_port_table(tarn_tbl *table) {
  const lock_scope lock(table->lock);
  LM_DBG("Clear table: %s\n", table->table_name);
  clear_rows(table, CLEARED);
}

}  // namespace

int32_t take_port(port_m *m) {
  const lock_scope lock(port_map_lock);
  return taken_or_counted(m, m->next_free_port);
}

int32_t take_port_from_range(port_m *m, int32_t base) {
  const lock_scope lock(port_map_lock);
  return taken_or_counted(m, find_free_port_in_range(m, base));
}

int take_this_port(port_m *m, int32_t port) {
  const lock_scope lock(port_map_lock);
  return script_result(set_port(m, port), SCRIPT_OK);
}

int give_port_back(port_m *m, int32_t port, int done) {
  beside_port_map_lock();
  return script_result(free_port(m, port), done);
}

int tarn_memdb_get_port1(sip_msg *msg, char *map_slot, char *) {
  const host_log_scope log;
  char word[WORD_SIZE];
  if (!print(msg, map_slot, word, UNPRINTABLE_SELECT)) return SCRIPT_FAILED;
  // The line shows the query that the process printed last, here and for a range: log filters know
  // it so.
  port_m *const m = find_map(word, query_buf);
  if (m == nullptr) return SCRIPT_FAILED;
  const int32_t port = take_port(m);
  if (port == NO_PORT) {
    LM_DBG("tarn_memdb_get_port: no free port available!\n");
    return SCRIPT_FAILED;
  }
  log_next_port(port);
  return port;
}

int tarn_memdb_get_port(sip_msg *msg, char *map_slot, char *avp) {
  const host_log_scope log;
  char word[SHORT_WORD_SIZE];
  if (!print(msg, map_slot, word, UNPRINTABLE)) return SCRIPT_FAILED;
  port_m *const m = find_map(word, word);
  if (m == nullptr) return SCRIPT_FAILED;
  int32_t port = NO_PORT;
  if (is_exhausted(m)) {
    LM_DBG("tarn_memdb_get_port: no free port available\n");
  } else {
    port = take_next_port(m);
    log_next_port(port);
  }
  if (port == NO_PORT) count_refused_request(m);
  char text[PORT_TEXT_SIZE];
  snprintf(text, sizeof(text), "%d", port);
  return add_text_to_param(msg, avp, text) ? SCRIPT_OK : SCRIPT_FAILED;
}

int tarn_memdb_get_port_from_range(sip_msg *msg, char *map_slot, char *base_slot) {
  const host_log_scope log;
  char text[WORD_SIZE];
  if (!print(msg, base_slot, text, UNPRINTABLE)) return SCRIPT_UNPRINTABLE;
  const int32_t base = atoi(text);
  if (!print(msg, map_slot, text, UNPRINTABLE_SELECT)) return SCRIPT_FAILED;
  LM_DBG("Base port received %d, for range %s\n", base, text);
  port_m *const m = find_map(text, query_buf);
  if (m == nullptr) return SCRIPT_FAILED;
  const int32_t port = take_port_from_range(m, base);
  LM_DBG("tarn_memdb_get_port_from_range: port to be returned = %d\n", port);
  return port;
}

int tarn_memdb_set_port(sip_msg *msg, char *port_slot, char *map_slot) {
  const host_log_scope log;
  char text[WORD_SIZE];
  if (!print(msg, port_slot, text, UNPRINTABLE)) return SCRIPT_UNPRINTABLE;
  const int32_t port = atoi(text);
  if (!print(msg, map_slot, text, UNPRINTABLE)) return SCRIPT_UNPRINTABLE;
  port_m *const m = find_map(text, text);
  return m != nullptr ? take_this_port(m, port) : SCRIPT_FAILED;
}

int tarn_memdb_free_port(sip_msg *msg, char *map_slot, char *port_slot) {
  const host_log_scope log;
  char word[WORD_SIZE];
  char text[PORT_SIZE];
  if (!print(msg, map_slot, word, UNPRINTABLE) || !print(msg, port_slot, text, UNPRINTABLE))
    return SCRIPT_UNPRINTABLE;
  port_m *const m = find_map(word, word);
  if (m == nullptr) return SCRIPT_FAILED;
  const int32_t port = atoi(text);
  LM_DBG("Received port to be freed = %d\n", port);
  return give_port_back(m, port, SCRIPT_PORT_FREED);
}

int tarn_memdb_clear_pmap(sip_msg *, char *, char *) {
  const host_log_scope log;
  LM_DBG("Clear port map\n");
  for (tarn_tbl &table : all_tarn_tbls())
    if (holds_ports(table)) clear_port_table(&table);
  clear_port_maps();
  store_table_mngt(0, nullptr);
  LM_DBG("Clear port map OK!\n");
  return SCRIPT_OK;
}
