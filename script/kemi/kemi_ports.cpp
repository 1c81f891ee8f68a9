// Ports.
#include "host/log.h"
#include "ports/script/script_ports.h"
#include "query/text/field_strings.h"
#include "script/kemi/kemi_functions.h"
#include "script/kemi/kemi_text.h"
#include "script/params/script_query.h"

namespace {

// The map that the word names; null, logged, if it names none.
port_m *find_map(const str *word, const kemi_param &param) {
  if (!is_good_text(word, param, TEXT_BUFFER_SIZE)) return nullptr;
  port_m *const m = port_map_by_word(text_of(*word));
  if (m == nullptr)
    LM_ERR("'%.*s' is no port map, as EXT, INT, STATIC_EXT and STATIC_INT are\n", word->len,
           word->s);
  return m;
}

}  // namespace

int kemi_get_port(sip_msg *, str *map) {
  const host_log_scope log;
  port_m *const m = find_map(map, 1);
  return m != nullptr ? take_port(m) : SCRIPT_FAILED;
}

int kemi_get_port_from_range(sip_msg *, str *map, int base) {
  const host_log_scope log;
  port_m *const m = find_map(map, 1);
  return m != nullptr ? take_port_from_range(m, base) : SCRIPT_FAILED;
}

int kemi_set_port(sip_msg *, int port, str *map) {
  const host_log_scope log;
  port_m *const m = find_map(map, 2);
  return m != nullptr ? take_this_port(m, port) : SCRIPT_FAILED;
}

int kemi_free_port(sip_msg *, str *map, int port) {
  const host_log_scope log;
  port_m *const m = find_map(map, 1);
  return m != nullptr ? give_port_back(m, port, SCRIPT_OK) : SCRIPT_FAILED;
}

int kemi_clear_pmap(sip_msg *msg) { return tarn_memdb_clear_pmap(msg, nullptr, nullptr); }
