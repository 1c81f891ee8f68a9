// What a start really makes of a schema and its table files: usage load_probe SCHEMA [quiet].
//
// Prints START FAILED, or for each table TABLE and the paths of its two files, and for each of its
// rows, oldest first, ROW and the row's text in hexadecimal digits. With a second argument it
// prints nothing of the rows, to be timed.
#include <cstdio>
#include <string>

#include "ports/port_map.h"
#include "ports/private_ranges.h"
#include "tables/files/table_files.h"
#include "tables/files/table_paths.h"
#include "tables/rows/row_image.h"
#include "tables/schema.h"
#include "tables/shared/shared_memory.h"
#include "tables/tarn_tbl.h"

namespace {

void print_row(const memdb_tbl *tbl, const memdb_row *row) {
  std::string image(tbl->row_len + size_t{tbl->col_cnt} + 1, '\0');
  printf("ROW ");
  for (const char *c = row_image(tbl, row, image); *c != '\0'; c++)
    printf("%02x", static_cast<unsigned>(static_cast<unsigned char>(*c)));
  printf("\n");
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2 && argc != 3) return 2;
  port_settings.private_ranges_file_path = "";
  cfg_file_path = argv[1];
  install_engine_hooks();
  tarn_tbl_mngt = static_cast<tarn_mngt *>(tarn_shm_calloc(1, sizeof(tarn_mngt)));
  if (tarn_tbl_mngt == nullptr || !init_port_maps()) return 2;
  if (!create_tables()) {
    printf("START FAILED\n");
    return 0;
  }
  for (tarn_tbl &table : all_tarn_tbls()) {
    load_table(&table);
    printf("TABLE %s\t%s\n", main_path(&table).text, backup_path(&table).text);
    for (const memdb_row *row = argc == 2 ? table.tbl->last : nullptr; row != nullptr;
         row = row->prev)
      print_row(table.tbl, row);
  }
  return 0;
}
