// Scanning of statements.
#include "query/statement_scanner.h"

#include <algorithm>
#include <cstring>

#include "host/log.h"

namespace {

constexpr size_t INSERT_SLOT = 256;  // room of a value in an insert, unless it is longer
constexpr size_t PAIR_SLOT = 32;     // distance of the values of a pair-list
constexpr size_t PAIR_VALUE_MAX = 256;
static_assert(INSERT_SLOT >= INDEX_TEXT_SIZE);

bool is_given(const char *text) {
  if (text != nullptr) return true;
  LM_DBG("NULL value for str_q\n");
  return false;
}

// True at the end of a list: the end of the text, or a blank.
bool ends_list(char c) { return c == '\0' || c == ' '; }

const char *behind_comma(const char *at) { return *at == ',' ? at + 1 : at; }

// End of the item that starts at text: a comma, a blank or the end.
const char *item_end(const char *text) {
  while (!ends_list(*text) && *text != ',') text++;
  return text;
}

const char *list_end(const char *text) {
  while (!ends_list(*text)) text++;
  return text;
}

// Texts that are written one behind the other into a block, with an array of them at its head.
class text_array {
 public:
  // Room for count texts of altogether no more than total characters.
  text_array(uint32_t count, size_t total)
      : block_(pkg_array<char>(count * (sizeof(char *) + 1) + total)),
        next_(block_ ? block_.get() + count * sizeof(char *) : nullptr) {}

  explicit operator bool() const { return static_cast<bool>(block_); }
  char **array() const { return reinterpret_cast<char **>(block_.get()); }
  char **release() { return reinterpret_cast<char **>(block_.release()); }

  void set(int32_t i, const char *text, const char *end) {
    const auto len = static_cast<size_t>(end - text);
    memcpy(next_, text, len);
    next_[len] = '\0';
    array()[i] = next_;
    next_ += len + 1;
  }

 private:
  pkg_owner<char> block_;
  char *next_;
};

int32_t find_column(const tarn_tbl *table, const char *name) {
  for (uint32_t i = 0; i < table->tbl->col_cnt; i++)
    if (column_name(table, i) == name) return static_cast<int32_t>(i);
  return MEMDB_NO_COL;
}

// Reads one pair at *at into name i of names and the value at place. False, logged, for a bad one.
bool read_pair(const char **at, text_array *names, int32_t i, char *place) {
  const char *text = behind_comma(*at);
  const char *const name = text;
  while (!ends_list(*text) && *text != '=') text++;
  names->set(i, name, text);
  *place = '\0';
  // A name that ends the statement has no value and ends the list.
  if (*text != '\0') text++;
  if (*text == '\'') {
    if (text[1] != '\'') {
      LM_ERR("Ilegal sintax for empty string. It should be: field_name=''\n");
      return false;
    }
    text += 2;
  } else {
    const auto len = std::min(static_cast<size_t>(item_end(text) - text), PAIR_VALUE_MAX);
    memcpy(place, text, len);
    place[len] = '\0';
    text += len;
  }
  *at = text;
  return true;
}

}  // namespace

const char *skip_white_spaces(const char *text) {
  if (!is_given(text)) return nullptr;
  while (*text == ' ') text++;
  return *text != '\0' ? text : nullptr;
}

const char *go_to_next_white_space(const char *text) {
  if (!is_given(text)) return nullptr;
  return strchr(text, ' ');
}

const char *look_for_token(const char *text, const char *token) {
  const char *const at = skip_white_spaces(text);
  if (at == nullptr) {
    LM_ERR("End of string reached before finding token '%s'\n", token);
    return nullptr;
  }
  const size_t len = strlen(token);
  if (strncmp(at, token, len) != 0) {
    LM_ERR("Could not find token '%s'\n", token);
    return nullptr;
  }
  return skip_white_spaces(at + len);
}

char *get_table_name_from_query(const char *text) {
  const char *const name = skip_white_spaces(text);
  if (name == nullptr) {
    LM_ERR("End of string reached before finding table name\n");
    return nullptr;
  }
  pkg_owner<char> block(pkg_array<char>(TARN_NAME_SIZE));
  if (!block) {
    LM_ERR("Could not allocate memory for tbl_name\n");
    return nullptr;
  }
  const auto len = static_cast<size_t>(list_end(name) - name);
  if (len >= TARN_NAME_SIZE) return nullptr;
  memcpy(block.get(), name, len);
  block[len] = '\0';
  return block.release();
}

char **get_fields_name(const char *text, const tarn_tbl *table, int32_t *count) {
  const char *at = skip_white_spaces(text);
  if (at == nullptr) {
    LM_ERR("End of string reached before finding fields name\n");
    return nullptr;
  }
  const auto columns = static_cast<int32_t>(table->tbl->col_cnt);
  text_array names(table->tbl->col_cnt, static_cast<size_t>(list_end(at) - at));
  if (!names) {
    LM_ERR("Could not allocate memory for field_list\n");
    return nullptr;
  }
  int32_t found = 0;
  for (; !ends_list(*at) && found < columns; found++) {
    const char *const name = behind_comma(at);
    at = item_end(name);
    names.set(found, name, at);
  }
  // A list of all columns is refused too: what names every column has a positional function.
  if (found == columns) {
    LM_ERR("Wrong number of fields (%d) for table '%s' (%d)\n", found, table->table_name, columns);
    return nullptr;
  }
  *count = found;
  return names.release();
}

int32_t *validate_field_list(char *const *names, const tarn_tbl *table, int32_t count) {
  pkg_owner<int32_t> positions(pkg_array<int32_t>(static_cast<size_t>(count)));
  if (!positions) {
    LM_ERR("Could not allocate memory for field_pos\n");
    return nullptr;
  }
  for (int32_t i = 0; i < count; i++) {
    const int32_t column = find_column(table, names[i]);
    if (column == MEMDB_NO_COL) {
      LM_ERR("Table '%s' does not have a field named '%s'\n", table->table_name, names[i]);
      return nullptr;
    }
    positions[static_cast<size_t>(i)] = column;
  }
  return positions.release();
}

char **generate_value_list(const char *text, const tarn_tbl *table, const int32_t *positions,
                           int32_t count) {
  const size_t columns = table->tbl->col_cnt;
  const auto list_len = static_cast<size_t>(list_end(text) - text);
  // Behind the slots there is room for every value that doesn't fit its own.
  const size_t slots_start = columns * sizeof(char *);
  const size_t spare_start = slots_start + columns * INSERT_SLOT;
  pkg_owner<char> block(pkg_array<char>(spare_start + list_len + static_cast<size_t>(count)));
  if (!block) {
    LM_ERR("Could not allocate memory for field_value\n");
    return nullptr;
  }
  auto **const values = reinterpret_cast<char **>(block.get());
  for (size_t i = 0; i < columns; i++) {
    values[i] = block.get() + slots_start + i * INSERT_SLOT;
    *values[i] = '\0';
  }
  char *spare = block.get() + spare_start;
  int32_t found = 0;
  for (const char *at = text; found < count && !ends_list(*at); found++) {
    const char *const value = behind_comma(at);
    at = item_end(value);
    const auto len = static_cast<size_t>(at - value);
    char *&target = values[positions[found]];
    if (len >= INSERT_SLOT) {
      target = spare;
      spare += len + 1;
    }
    memcpy(target, value, len);
    target[len] = '\0';
  }
  if (found < count) {
    LM_ERR("Number of values (%d) does not match number of fields (%d)\n", found, count);
    return nullptr;
  }
  return reinterpret_cast<char **>(block.release());
}

char **generate_value_list2(const char *text, const tarn_tbl *table, pkg_owner<char> *texts) {
  const uint32_t columns = table->tbl->col_cnt;
  // A blank in place of '=' leads the scan past the first one, so the whole rest may hold names.
  text_array names(columns, strlen(text));
  if (!names) {
    LM_ERR("Could not allocate memory for field_list\n");
    return nullptr;
  }
  pkg_owner<char *> values(pkg_array<char *>(columns));
  if (!values) {
    LM_ERR("Could not allocate memory for field_value_f\n");
    return nullptr;
  }
  std::fill_n(values.get(), columns, nullptr);
  pkg_owner<char> slots(pkg_array<char>(columns * PAIR_SLOT + PAIR_VALUE_MAX + 1));
  if (!slots) {
    LM_ERR("Could not allocate memory for field_value\n");
    return nullptr;
  }
  const auto slot = [&slots](int32_t i) {
    return slots.get() + static_cast<size_t>(i) * PAIR_SLOT;
  };
  int32_t count = 0;
  for (const char *at = text; !ends_list(*at) && count < static_cast<int32_t>(columns); count++)
    if (!read_pair(&at, &names, count, slot(count))) return nullptr;
  const pkg_owner<int32_t> positions(validate_field_list(names.array(), table, count));
  if (!positions) {
    LM_ERR("NULL value for field_pos\n");
    return nullptr;
  }
  for (int32_t i = 0; i < count; i++)
    values[static_cast<size_t>(positions[static_cast<size_t>(i)])] = slot(i);
  texts->reset(slots.release());
  return values.release();
}
