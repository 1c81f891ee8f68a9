// Composing the line.
#include "tables/rows/row_image.h"

#include "query/text/field_strings.h"
#include "query/text/text_writer.h"

const char *row_image(const memdb_tbl *tbl, const memdb_row *row, std::span<char> buffer) {
  text_writer out(buffer);
  for (uint32_t i = 0; i < tbl->col_cnt; i++) {
    if (i > 0) out.append(FIELD_SEPARATOR);
    out.append(memdb_get_field(tbl, row, i));
  }
  return buffer.data();
}
