// Walking, unescaping and escaping of field texts.
#include "query/text/field_strings.h"

#include <climits>
#include <cstddef>
#include <cstring>

#include "host/log.h"
#include "host/memory.h"
#include "query/text/query_marks.h"

namespace {

bool is_special(char c) {
  switch (c) {
    case PART_SEPARATOR:
    case FIELD_SEPARATOR:
    case FIELD_ESCAPE:
    case *WILDCARD:
    case '\0':
      return true;
    default:
      return false;
  }
}

bool is_usable(const str *text) { return text != nullptr && text->s != nullptr && text->len >= 0; }

// A negative length is no text.
std::string_view text_or_none(const str &text) {
  return text.len > 0 ? text_of(text) : std::string_view();
}

void warn_of_escape() { LM_WARN("Bad escape detected\n"); }

// Runs take over the characters of in that an unescaped copy consists of.
template <typename Take>
void each_unescaped(const str &in, Take take) {
  const char *const end = in.s + in.len;
  for (const char *at = in.s; at < end; at++) {
    if (*at == FIELD_ESCAPE) {
      at++;
      if (at == end) {
        warn_of_escape();
        return;
      }
    }
    take(*at);
  }
}

bool is_wildcard(const char *field, size_t len) { return len == 1 && *field == *WILDCARD; }
bool is_wildcard(const str &field) { return is_wildcard(field.s, static_cast<size_t>(field.len)); }

// The walk character by character, which honours escapes.
uint32_t walk_field(const str &line, char sep, char **cursor, str *field) {
  const char *const end = line.s + line.len;
  char *at = *cursor;
  uint32_t len = 0;
  for (; at < end; at++, len++) {
    if (*at == FIELD_ESCAPE) {
      if (at + 1 == end) {
        warn_of_escape();
        break;
      }
      at++;
    } else if (*at == sep) {
      break;
    }
  }
  *field = {*cursor, static_cast<int>(at - *cursor)};
  *cursor = at < end ? at + 1 : nullptr;
  return len;
}

const char *find_or_end(const char *at, const char *end, char c) {
  const void *const found = memchr(at, c, static_cast<size_t>(end - at));
  return found != nullptr ? static_cast<const char *>(found) : end;
}

bool has_escape(const char *text, ptrdiff_t len) {
  return memchr(text, FIELD_ESCAPE, static_cast<size_t>(len)) != nullptr;
}

bool is_expected(uint32_t count, const uint32_t *expected) {
  if (expected == nullptr || count == *expected) return true;
  LM_ERR("Size mismatch");
  return false;
}

char **allocate_fields(uint32_t count, size_t text_total) {
  auto *const block = pkg_array<char>(count * sizeof(char *) + text_total);
  if (block == nullptr) LM_CRIT("no more pkg memory\n");
  return reinterpret_cast<char **>(block);
}

char **create_walked_fields(const str &list, const uint32_t *expected) {
  uint32_t count = 0;
  size_t text_total = 0;
  str field;
  for (char *cursor = list.s; cursor != nullptr; count++) {
    const uint32_t len = walk_field(list, FIELD_SEPARATOR, &cursor, &field);
    if (!is_wildcard(field)) text_total += size_t{len} + 1;
  }
  if (!is_expected(count, expected)) return nullptr;
  char **const fields = allocate_fields(count, text_total);
  if (fields == nullptr) return nullptr;
  char **slot = fields;
  char *text = reinterpret_cast<char *>(fields + count);
  for (char *cursor = list.s; cursor != nullptr; slot++) {
    walk_field(list, FIELD_SEPARATOR, &cursor, &field);
    if (is_wildcard(field)) {
      *slot = nullptr;
      continue;
    }
    str unescaped{text, 0};
    tarn_memdb_unescape(&field, &unescaped);
    *slot = text;
    text[unescaped.len] = '\0';
    text += unescaped.len + 1;
  }
  return fields;
}

// The fields of a list whose marks tell where they are, as in nearly all: each is the text between
// two bars as it stands.
class plain_fields {
 public:
  plain_fields(const str &list, std::span<const uint32_t> marks, uint32_t first) : text_(list.s) {
    starts_[0] = 0;
    for (const uint32_t mark : marks) {
      const uint32_t place = mark - first;
      if (text_[place] == FIELD_SEPARATOR) end_field(place);
    }
    end_field(static_cast<uint32_t>(list.len));
  }

  uint32_t count() const { return count_; }

  // Behind each field stands a bar or the end, where its terminator goes.
  size_t text_total() const { return starts_[count_] - 2 * size_t{wildcards_}; }

  void copy_to(char **fields) const {
    char *text = reinterpret_cast<char *>(fields + count_);
    if (wildcards_ == 0)
      copy_all_to(fields, text);
    else
      copy_each_to(fields, text);
  }

 private:
  // In one piece, bars included.
  void copy_all_to(char **fields, char *text) const {
    memcpy(text, text_, starts_[count_] - 1);
    for (uint32_t i = 0; i < count_; i++) {
      fields[i] = text + starts_[i];
      text[starts_[i + 1] - 1] = '\0';
    }
  }

  void copy_each_to(char **fields, char *text) const {
    for (uint32_t i = 0; i < count_; i++) {
      const char *const field = text_ + starts_[i];
      if (is_wildcard(field, len(i))) {
        fields[i] = nullptr;
        continue;
      }
      fields[i] = text;
      memcpy(text, field, len(i));
      text[len(i)] = '\0';
      text += len(i) + 1;
    }
  }

  size_t len(uint32_t field) const { return starts_[field + 1] - starts_[field] - 1; }

  void end_field(uint32_t end) {
    if (is_wildcard(text_ + starts_[count_], end - starts_[count_])) wildcards_++;
    starts_[++count_] = end + 1;
  }

  const char *text_;
  uint32_t starts_[query_marks::CAPACITY + 2];  // of the fields, and where one more would start
  uint32_t count_ = 0;
  uint32_t wildcards_ = 0;
};

}  // namespace

uint32_t tarn_memdb_get_next_field(const str &line, char sep, char **cursor, str *field) {
  const char *const end = line.s + line.len;
  // Without a backslash ahead of it, the first separator ends the field.
  if (*cursor >= end || sep == FIELD_ESCAPE) return walk_field(line, sep, cursor, field);
  const auto len = find_or_end(*cursor, end, sep) - *cursor;
  if (has_escape(*cursor, len)) return walk_field(line, sep, cursor, field);
  *field = {*cursor, static_cast<int>(len)};
  *cursor = *cursor + len != end ? *cursor + len + 1 : nullptr;
  return static_cast<uint32_t>(len);
}

char **tarn_memdb_create_fields(const str &list, const uint32_t *expected) {
  if (!is_usable(&list)) return create_walked_fields(list, expected);
  const query_marks marks(text_of(list));
  return marks.tell() ? tarn_memdb_create_fields(list, marks.places(), 0, expected)
                      : create_walked_fields(list, expected);
}

char **tarn_memdb_create_fields(const str &list, std::span<const uint32_t> marks, uint32_t first,
                                const uint32_t *expected) {
  const plain_fields plain(list, marks, first);
  if (!is_expected(plain.count(), expected)) return nullptr;
  char **const fields = allocate_fields(plain.count(), plain.text_total());
  if (fields != nullptr) plain.copy_to(fields);
  return fields;
}

void tarn_memdb_destroy_fields(char **fields) { pkg_free(fields); }

bool str_to_sint(const str *text, int32_t *value) {
  if (!is_usable(text) || value == nullptr) return false;
  *value = 0;
  const bool negative = *text->s == '-';
  int i = negative || *text->s == '+' ? 1 : 0;
  for (; i < text->len; i++) {
    const char c = text->s[i];
    if (c < '0' || c > '9') return false;
    const int digit = c - '0';
    const bool fits = !__builtin_mul_overflow(*value, 10, value) &&
                      !(negative ? __builtin_sub_overflow(*value, digit, value)
                                 : __builtin_add_overflow(*value, digit, value));
    if (!fits) {
      *value = negative ? INT_MIN : INT_MAX;
      return false;
    }
  }
  return true;
}

void tarn_memdb_unescape(const str *in, str *out) {
  char *to = out->s;
  each_unescaped(*in, [&to](char c) { *to++ = c; });
  out->len = static_cast<int>(to - out->s);
}

uint32_t tarn_memdb_unescaped_len(const str *in) {
  uint32_t len = 0;
  each_unescaped(*in, [&len](char) { len++; });
  return len;
}

void tarn_memdb_escape(const str *in, str *out) {
  char *to = out->s;
  for (const char c : text_or_none(*in)) {
    if (is_special(c)) *to++ = FIELD_ESCAPE;
    *to++ = c;
  }
  out->len = static_cast<int>(to - out->s);
}

uint32_t tarn_memdb_escaped_len(const str *in) {
  uint32_t len = 0;
  for (const char c : text_or_none(*in)) len += is_special(c) ? 2 : 1;
  return len;
}
