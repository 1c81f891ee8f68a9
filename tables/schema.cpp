// The schema reader: keys in a fixed order, each optional, values ended by white space.
#include "tables/schema.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/log.h"
#include "host/memory.h"
#include "tables/schema_reader.h"
#include "tables/shared/file_handle.h"
#include "tables/shared/shared_memory.h"
#include "tables/tarn_tbl.h"

const char *cfg_file_path = "";

namespace {

// The keys ahead of the field lines.
void read_settings(schema_reader *schema, tarn_tbl *table) {
  schema->text("TABLE_NAME=", table->table_name);
  schema->number("FLAG=", &table->flag);
  if (holds_ports(*table)) {
    schema->text("RANGE=", table->range);
    schema->number("INT_PORT_FIELD=", &table->int_port_field);
    schema->number("EXT_PORT_FIELD=", &table->ext_port_field);
  }
  schema->text("LOG_TAG=", table->log_tag, true);
  schema->number("USE_INDEX=", &table->use_index);
  schema->number("DUPLICATED_DATA_CHECK=", &table->duplicated_data_check);
  schema->number("MAX_ROWS=", &table->max_rows);
  schema->number("NUM_FIELDS=", &table->num_fields);
  LM_DBG("\nUSE_INDEX = '%d'\nDUPLICATED_DATA_CHECK = '%d'\nMAX_ROWS = %d\nNUM_FIELDS = %d\n",
         table->use_index, table->duplicated_data_check, table->max_rows, table->num_fields);
}

// Reads the field lines and makes the engine's table. The names go to shared memory, where every
// process looks them up; a name that finds no memory is left out and its column goes nameless.
bool read_columns(schema_reader *schema, tarn_tbl *table) {
  const auto count = static_cast<size_t>(table->num_fields);
  const pkg_owner<tbl_dcl> declared(pkg_array<tbl_dcl>(count));
  if (!declared) {
    LM_DBG("Could not allocate memory for tbl_dcl!\n");
    return false;
  }
  table->field_name = static_cast<char **>(tarn_shm_calloc(count, sizeof(char *)));
  if (table->field_name == nullptr) {
    LM_DBG("Could not allocate memory for field_name!\n");
    return false;
  }
  for (size_t i = 0; i < count; i++)
    table->field_name[i] = static_cast<char *>(tarn_shm_calloc(TARN_NAME_SIZE, 1));
  for (size_t i = 0; i < count; i++) {
    char unnamed[TARN_NAME_SIZE] = "";
    char *const name = table->field_name[i] != nullptr ? table->field_name[i] : unnamed;
    declared[i] = {};
    schema->field({name, TARN_NAME_SIZE}, &declared[i]);
    LM_DBG("\nFIELD NAME = '%s'\nLEN = %d\nFLAG = %d\n", name, static_cast<int>(declared[i].len),
           static_cast<int>(declared[i].flag));
  }
  if (schema->overlong()) return true;
  table->tbl = memdb_create_tbl(declared.get(), static_cast<uint32_t>(table->num_fields));
  if (table->tbl == nullptr) {
    LM_DBG("Could not allocate memory for tbl!\n");
    return false;
  }
  return true;
}

bool refuse_lines() {
  LM_ERR("Error on reading! Maybe a line is missing");
  return false;
}

// False after a line that isn't what has to stand there; the end of the file is no such line.
bool read_file_name(schema_reader *schema, tarn_tbl *table) {
  const read_result result = schema->text("FILE_NAME=", table->file_name);
  LM_DBG("\nFILE_NAME = '%s'\n", table->file_name);
  return result != read_result::mismatch && !schema->overlong();
}

bool read_table(schema_reader *schema, tarn_tbl *table) {
  read_settings(schema, table);
  if (!read_columns(schema, table)) return false;
  if (!read_file_name(schema, table)) return refuse_lines();
  alone_with(table);
  reset_tbl_index(table);
  reset_tbl_row_count(table);
  set_tbl_state(table, TBL_UNCHANGED);
  table->lock = nullptr;
  return true;
}

}  // namespace

bool create_tables() {
  const file_handle file(fopen(cfg_file_path, "r"));
  if (!file) {
    LM_ERR("Could not open file '%s' with table(s) description\n", cfg_file_path);
    return false;
  }
  if (!create_tables_from(file.get())) return false;
  LM_INFO("Reading cfg file '%s' OK!\n", cfg_file_path);
  return true;
}

bool create_tables_from(FILE *file) {
  schema_reader schema(file);
  tarn_mngt &registry = *tarn_tbl_mngt;
  schema.text("BASE_DIR=", registry.base_dir);
  schema.text("BASE_BACKUP_DIR=", registry.base_backup_dir);
  int32_t num_table = 0;
  schema.number("NUM_TABLE=", &num_table);
  LM_DBG("\nBase Dir = '%s'\nBase Backup Dir = '%s'\nNum Tables = %d\n", registry.base_dir,
         registry.base_backup_dir, num_table);
  if (schema.overlong()) return refuse_lines();
  registry.tables =
      static_cast<tarn_tbl *>(tarn_shm_calloc(static_cast<size_t>(num_table), sizeof(tarn_tbl)));
  if (registry.tables == nullptr) {
    LM_DBG("Could not create tarn_tbl_mngt->tarn_tbl in shared memory!\n");
    return false;
  }
  registry.num_table = num_table;
  for (tarn_tbl &table : all_tarn_tbls())
    if (!read_table(&schema, &table)) return false;
  return true;
}
