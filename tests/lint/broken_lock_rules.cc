// Lock rules that are broken here, each with what clang says about it: lint sees by these that its
// check of the module's code would notice.
#include "ports/port_allocation.h"
#include "tables/files/table_files.h"
#include "tables/rows/row_writes.h"

void a_guarded_field_without_its_lock(tarn_tbl *table) {
  table->row_count = 1;  // expected-warning {{writing variable 'row_count' requires holding lock}}
}

int32_t a_guarded_field_read_without_its_lock(const tarn_tbl *table) {
  return table->state;  // expected-warning {{reading variable 'state' requires holding lock}}
}

void another_tables_lock(tarn_tbl *table, tarn_tbl *other, const audit_table_text &text) {
  const lock_scope lock(other->lock);
  // expected-warning@+2 {{calling function 'clear_rows' requires holding lock 'table->lock'}}
  // expected-note@+1 {{found near match 'other->lock'}}
  clear_rows(table, text);
}

void a_lock_that_was_given_back(tarn_tbl *table) {
  {
    const lock_scope lock(table->lock);
    table->state = 1;
  }
  load_table(table);  // expected-warning {{calling function 'load_table' requires holding lock}}
}

void a_lock_taken_twice(tarn_tbl *table) {
  const lock_scope lock(table->lock);
  // expected-warning@+1 {{cannot call function 'store_table' while lock 'table->lock' is held}}
  store_table(table);
}

memdb_row *a_row_added_without_the_lock(tarn_tbl *table, const char *const *values) {
  // expected-warning@+1 {{calling function 'rows_to_change' requires holding lock}}
  return memdb_insert(rows_to_change(table), values);
}

void a_field_and_the_entries_of_a_port_map(port_m *m) {
  m->next_free_port = 1;  // expected-warning {{writing variable 'next_free_port' requires holding}}
  m->port_map[0] = 0;     // expected-warning {{requires holding lock 'port_map_lock'}}
}

void the_lock_that_a_function_takes_itself() {
  const lock_scope lock(port_map_lock);
  clear_port_maps();  // expected-warning {{while lock 'port_map_lock' is held}}
}

void an_exception_made_elsewhere(port_m *m) {
  const auto elsewhere = [m] {
    beside_port_map_lock();
    set_port(m, 1);
  };
  elsewhere();
  set_port(m, 2);  // expected-warning {{calling function 'set_port' requires holding lock}}
}

void a_port_map_without_its_lock(port_m *m) {
  set_port(m, 1);  // expected-warning {{calling function 'set_port' requires holding lock}}
}
