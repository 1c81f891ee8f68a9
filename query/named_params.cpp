// Rewriting of named lists.
#include "query/named_params.h"

#include <algorithm>
#include <string_view>

#include "host/log.h"
#include "host/memory.h"
#include "query/text/field_strings.h"
#include "query/text/text_writer.h"

namespace {

// The host's items of a named list; given back at the end of the scope.
class item_chain {
 public:
  item_chain() = default;
  ~item_chain() {
    if (first != nullptr) free_params(first);
  }
  item_chain(const item_chain &) = delete;
  item_chain &operator=(const item_chain &) = delete;

  bool parse(const str &list) {
    str text = list;
    param_hooks_t hooks{};
    if (parse_params(&text, PARAM_CLASS_ANY, &hooks, &first) >= 0) return true;
    first = nullptr;
    return false;
  }

  // The item of that name that the author wrote first. The host hands the items back in an order of
  // its own, so the place in the text decides.
  const param_t *find(std::string_view name) const {
    const param_t *found = nullptr;
    for (const param_t *item = first; item != nullptr; item = item->next)
      if (text_of(item->name) == name && (found == nullptr || item->name.s < found->name.s))
        found = item;
    return found;
  }

  param_t *first = nullptr;
};

bool is_column(const tarn_tbl *table, std::string_view name) {
  for (uint32_t i = 0; i < table->tbl->col_cnt; i++)
    if (column_name(table, i) == name) return true;
  return false;
}

bool are_columns(const item_chain &items, const tarn_tbl *table) {
  for (const param_t *item = items.first; item != nullptr; item = item->next) {
    if (is_column(table, text_of(item->name))) continue;
    LM_ERR("Parameter [%.*s] not found in the table [%s]\n", item->name.len, item->name.s,
           table->table_name);
    return false;
  }
  return true;
}

// Bytes for the result and its terminator: a bar for each slot but the first, and a star or a body
// in it.
size_t result_size(const item_chain &items, const tarn_tbl *table, const char *tail) {
  size_t size = 2 * size_t{table->tbl->col_cnt};
  for (const param_t *item = items.first; item != nullptr; item = item->next)
    size += text_of(item->body).size();
  if (tail != nullptr) size += strlen(table->table_name) + strlen(tail) + 2;
  return std::max<size_t>(size, 1);
}

// A tail that doesn't fit whole is left out: part of a number would be another number.
void append_tail(text_writer *out, std::string_view tail, size_t size) {
  out->append(PART_SEPARATOR);
  if (out->text().size() + tail.size() < size) out->append(tail);
}

}  // namespace

conversion tarn_memdb_convert_query_param_list(str *list, const tarn_tbl *table, const char *tail) {
  LM_DBG("Before conversionL [%.*s]\n", list->len, list->s);
  const bool named = list->len > 0;
  if (named) {
    const std::string_view text = text_of(*list);
    if (text.find(FIELD_SEPARATOR) != std::string_view::npos ||
        text.find('=') == std::string_view::npos)
      return conversion::positional;
    if (text.back() == ';') list->len--;
  }
  item_chain items;
  if (named && !items.parse(*list)) {
    LM_ERR("Invalid formatted values [%.*s]\n", list->len, list->s);
    return conversion::failed;
  }
  if (!are_columns(items, table)) return conversion::failed;
  const size_t size = result_size(items, table, tail);
  pkg_owner<char> result(pkg_array<char>(size));
  if (!result) {
    LM_ERR("Could not allocate memory for query list\n");
    return conversion::failed;
  }
  text_writer out({result.get(), size});
  if (tail != nullptr) out.append(table->table_name).append(PART_SEPARATOR);
  for (uint32_t i = 0; i < table->tbl->col_cnt; i++) {
    if (i > 0) out.append(FIELD_SEPARATOR);
    const param_t *const item = items.find(column_name(table, i));
    // Two columns of one name show one body twice, which isn't counted for.
    if (item != nullptr && out.text().size() + text_of(item->body).size() >= size) {
      LM_ERR("Buffer not enough for query list\n");
      return conversion::failed;
    }
    out.append(item != nullptr ? text_of(item->body) : std::string_view(WILDCARD));
  }
  if (tail != nullptr) append_tail(&out, tail, size);
  const auto len = static_cast<int>(out.text().size());
  *list = {result.release(), len};
  LM_INFO("Query list after conversion [%.*s]\n", list->len, list->s);
  return conversion::converted;
}
