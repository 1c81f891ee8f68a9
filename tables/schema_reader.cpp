// Formatted reads from the schema file.
#include "tables/schema_reader.h"

#include <cctype>

read_result schema_reader::text(const char *key, std::span<char> field, bool may_cut) {
  const long start = ftell(file_);
  if (const read_result at_key = literal(key, start); at_key != read_result::read) return at_key;
  const read_result value = word(field);
  if (value == read_result::too_long && may_cut) return read_result::read;
  if (value == read_result::read) skip_space();
  return note(value);
}

read_result schema_reader::number(const char *key, int32_t *value) {
  const long start = ftell(file_);
  if (const read_result at_key = literal(key, start); at_key != read_result::read) return at_key;
  const read_result result = integer(value);
  if (result == read_result::mismatch) fseek(file_, start, SEEK_SET);
  if (result == read_result::read) skip_space();
  return result;
}

void schema_reader::field(std::span<char> name, tbl_dcl *declared) {
  int32_t len = 0;
  int32_t flag = 0;
  if (note(word(name)) != read_result::read) return;
  if (integer(&len) != read_result::read) return;
  declared->len = static_cast<uint32_t>(len);
  if (integer(&flag) != read_result::read) return;
  declared->flag = static_cast<uint32_t>(flag);
  skip_space();
}

read_result schema_reader::note(read_result result) {
  if (result == read_result::too_long) met_overlong_ = true;
  return result;
}

void schema_reader::skip_space() {
  int c = getc(file_);
  while (isspace(c)) c = getc(file_);
  ungetc(c, file_);
}

read_result schema_reader::literal(const char *key, long start) {
  for (; *key != '\0'; key++) {
    const int c = getc(file_);
    if (c == EOF) return read_result::end;
    if (c != *key) {
      // One character can be put back even where there is no way to seek, as in a pipe.
      if (fseek(file_, start, SEEK_SET) != 0) ungetc(c, file_);
      return read_result::mismatch;
    }
  }
  return read_result::read;
}

read_result schema_reader::word(std::span<char> field) {
  skip_space();
  size_t len = 0;
  int c = getc(file_);
  if (c == EOF) return read_result::end;
  for (; c != EOF && !isspace(c); c = getc(file_)) {
    if (len == field.size() - 1) {
      ungetc(c, file_);
      field[len] = '\0';
      return read_result::too_long;
    }
    field[len++] = static_cast<char>(c);
  }
  ungetc(c, file_);
  field[len] = '\0';
  return read_result::read;
}

read_result schema_reader::integer(int32_t *value) {
  const int items = fscanf(file_, "%d", value);
  return items == EOF ? read_result::end : static_cast<read_result>(items);
}
