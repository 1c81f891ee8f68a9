// Telling a table of the best-match searches to come.
//
// It is said here, in the main process ahead of the fork, since nobody has to wait for anybody yet:
// tables are loaded, and a look-up that is made now delays no call. What a script's text leaves
// open is taken to be a value in one field; a query that is printed in another form finds no
// look-up of its form and is left to a scan. Other script languages have no such start: there a
// call asks.
#include <cstdlib>
#include <string_view>

#include "memdb/prefix/prefix.h"
#include "query/text/field_strings.h"
#include "script/params/prefix_searches.h"
#include "script/params/special_slot.h"
#include "tables/tarn_tbl.h"

namespace {

// What the constant parts of a query tell: its table, and the fields that are given.
struct query_form {
  memdb_tbl *tbl;  // null if they don't tell
  uint32_t fields;
  uint32_t given;  // bit by bit
};

constexpr uint32_t MOST_FIELDS = 32;

// Reads the text of a query, in which a pseudo-variable stands for one character of some value.
class form_reader {
 public:
  void character(char c) {
    if (in_name_)
      name_character(c);
    else
      list_character(c);
  }

  void variable() {
    if (in_name_)
      failed_ = true;
    else
      value();
  }

  query_form form() {
    end_field();
    if (failed_ || in_name_ || form_.fields > MOST_FIELDS) return {};
    memdb_tbl *const tbl = table();
    if (tbl == nullptr || tbl->col_cnt != form_.fields) return {};
    form_.tbl = tbl;
    return form_;
  }

 private:
  void name_character(char c) {
    if (c == PART_SEPARATOR)
      in_name_ = false;
    else if (c == FIELD_ESCAPE || length_ == sizeof(name_))
      failed_ = true;
    else
      name_[length_++] = c;
  }

  void list_character(char c) {
    if (over_) return;
    if (!escaped_) {
      switch (c) {
        case FIELD_ESCAPE:
          escaped_ = true;
          return;
        case FIELD_SEPARATOR:
          end_field();
          return;
        case PART_SEPARATOR:
          over_ = true;
          return;
        case *WILDCARD:
          stars_++;
          return;
        default:
          break;
      }
    }
    value();
  }

  void value() {
    escaped_ = false;
    has_value_ = true;
  }

  // A star alone is a wildcard; a field of no characters is a value.
  void end_field() {
    if (form_.fields < MOST_FIELDS && (has_value_ || stars_ != 1))
      form_.given |= uint32_t{1} << form_.fields;
    form_.fields++;
    stars_ = 0;
    has_value_ = false;
  }

  // The one that the parser finds: the first of that name. A query that names none has its message
  // at each call.
  memdb_tbl *table() const {
    for (const tarn_tbl &table : all_tarn_tbls())
      if (std::string_view(name_, length_) == table.table_name) return table.tbl;
    return nullptr;
  }

  query_form form_ = {};
  char name_[TARN_NAME_SIZE];
  size_t length_ = 0;
  uint32_t stars_ = 0;
  bool in_name_ = true;
  bool over_ = false;
  bool escaped_ = false;
  bool has_value_ = false;
  bool failed_ = false;
};

query_form read_form(const pv_elem_t *format) {
  form_reader reader;
  for (; format != nullptr; format = format->next) {
    if (format->text.s != nullptr)
      for (const char c : text_of(format->text)) reader.character(c);
    if (format->spec != nullptr) reader.variable();
  }
  return reader.form();
}

// Of the call whose parameters are being fixed up, one after the other.
query_form present;
bool asked_for;

}  // namespace

void note_prefix_search(const void *slot, int param_no) {
  if (start_is_over()) return;
  if (param_no == 1) {
    present = is_raw_text(slot) ? query_form{} : read_form(static_cast<const pv_elem_t *>(slot));
    asked_for = false;
  } else if (param_no == 3 && present.tbl != nullptr) {
    const auto column = static_cast<uint32_t>(atoi(static_cast<const char *>(slot)));
    asked_for = column < present.fields && (present.given >> column & 1) != 0 &&
                memdb_want_prefixes(present.tbl, column, present.given);
  } else if (param_no == 5 && asked_for) {
    // Range selects have the same fix-up and a parameter more.
    memdb_unwant_prefixes(present.tbl);
    asked_for = false;
  }
}
