// Scanning of statements.
#include "query/statement_scanner.h"

#include <algorithm>
#include <cstring>
#include <string_view>

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

// The item that starts at text and ends at a comma, a blank or the end.
std::string_view item_at(const char *text) {
  const char *end = text;
  while (!ends_list(*end) && *end != ',') end++;
  return {text, static_cast<size_t>(end - text)};
}

// Takes the item that *at, within a list, is ahead of, and goes on behind it.
std::string_view take_item(const char **at) {
  const std::string_view item = item_at(behind_comma(*at));
  *at = item.data() + item.size();
  return item;
}

// The word that starts at text: a whole list.
std::string_view word_at(const char *text) {
  const char *end = text;
  while (!ends_list(*end)) end++;
  return {text, static_cast<size_t>(end - text)};
}

void put_text(char *place, std::string_view text) { place[text.copy(place, text.size())] = '\0'; }

// Blocks that both kinds of list need. Null, logged, if memory is short.
char *allocate_values(size_t size) {
  char *const block = pkg_array<char>(size);
  if (block == nullptr) LM_ERR("Could not allocate memory for field_value\n");
  return block;
}

// Texts that are written one behind the other into a block, with an array of them at its head.
class text_array {
 public:
  // Room for count texts of altogether no more than total characters; logged if there is none.
  text_array(uint32_t count, size_t total)
      : block_(pkg_array<char>(count * (sizeof(char *) + 1) + total)),
        next_(block_ ? block_.get() + count * sizeof(char *) : nullptr) {
    if (!block_) LM_ERR("Could not allocate memory for field_list\n");
  }

  explicit operator bool() const { return static_cast<bool>(block_); }
  char **array() const { return reinterpret_cast<char **>(block_.get()); }
  char **release() { return reinterpret_cast<char **>(block_.release()); }

  void set(int32_t i, std::string_view text) {
    put_text(next_, text);
    array()[i] = next_;
    next_ += text.size() + 1;
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
  names->set(i, {name, static_cast<size_t>(text - name)});
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
    const std::string_view value = item_at(text).substr(0, PAIR_VALUE_MAX);
    put_text(place, value);
    text += value.size();
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
  const std::string_view word = word_at(name);
  if (word.size() >= TARN_NAME_SIZE) return nullptr;
  put_text(block.get(), word);
  return block.release();
}

char **get_fields_name(const char *text, const tarn_tbl *table, int32_t *count) {
  const char *at = skip_white_spaces(text);
  if (at == nullptr) {
    LM_ERR("End of string reached before finding fields name\n");
    return nullptr;
  }
  const auto columns = static_cast<int32_t>(table->tbl->col_cnt);
  text_array names(table->tbl->col_cnt, word_at(at).size());
  if (!names) return nullptr;
  int32_t found = 0;
  for (; !ends_list(*at) && found < columns; found++) names.set(found, take_item(&at));
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
  const size_t list_len = word_at(text).size();
  // Behind the slots there is room for every value that doesn't fit its own.
  const size_t slots_start = columns * sizeof(char *);
  const size_t spare_start = slots_start + columns * INSERT_SLOT;
  pkg_owner<char> block(allocate_values(spare_start + list_len + static_cast<size_t>(count)));
  if (!block) return nullptr;
  auto **const values = reinterpret_cast<char **>(block.get());
  for (size_t i = 0; i < columns; i++) {
    values[i] = block.get() + slots_start + i * INSERT_SLOT;
    *values[i] = '\0';
  }
  char *spare = block.get() + spare_start;
  int32_t found = 0;
  for (const char *at = text; found < count && !ends_list(*at); found++) {
    const std::string_view value = take_item(&at);
    char *&target = values[positions[found]];
    if (value.size() >= INSERT_SLOT) {
      target = spare;
      spare += value.size() + 1;
    }
    put_text(target, value);
  }
  if (found < count) {
    LM_ERR("Number of values (%d) does not match number of fields (%d)\n", found, count);
    return nullptr;
  }
  return reinterpret_cast<char **>(block.release());
}

char **generate_pair_list(const char *text, const tarn_tbl *table, pkg_owner<char> *texts) {
  const uint32_t columns = table->tbl->col_cnt;
  // A blank in place of '=' leads the scan past the first one, so the whole rest may hold names.
  text_array names(columns, strlen(text));
  if (!names) return nullptr;
  pkg_owner<char *> values(pkg_array<char *>(columns));
  if (!values) {
    LM_ERR("Could not allocate memory for field_value_f\n");
    return nullptr;
  }
  std::fill_n(values.get(), columns, nullptr);
  pkg_owner<char> slots(allocate_values(columns * PAIR_SLOT + PAIR_VALUE_MAX + 1));
  if (!slots) return nullptr;
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
