// Walking, unescaping and escaping of field texts.
#include "query/field_strings.h"

#include <climits>
#include <cstring>

#include "host/log.h"
#include "host/memory.h"

namespace {

bool is_special(char c) {
  switch (c) {
    case PART_SEPARATOR:
    case FIELD_SEPARATOR:
    case FIELD_ESCAPE:
    case '*':
    case '\0':
      return true;
    default:
      return false;
  }
}

bool is_usable(const str *text) { return text != nullptr && text->s != nullptr && text->len >= 0; }

// Runs take over the characters of in that an unescaped copy consists of.
template <typename Take>
void each_unescaped(const str &in, Take take) {
  const char *const end = in.s + in.len;
  for (const char *at = in.s; at < end; at++) {
    if (*at == FIELD_ESCAPE) {
      at++;
      if (at == end) {
        LM_WARN("Bad escape detected\n");
        return;
      }
    }
    take(*at);
  }
}

bool is_wildcard(const str &field) {
  static constexpr char text[] = "*";
  const str wildcard{const_cast<char *>(text), sizeof(text) - 1};
  return str_strcmp(&field, &wildcard) == 0;
}

}  // namespace

uint32_t tarn_memdb_get_next_field(const str &line, char sep, char **cursor, str *field) {
  const char *const end = line.s + line.len;
  char *at = *cursor;
  uint32_t len = 0;
  for (; at < end; at++, len++) {
    if (*at == FIELD_ESCAPE) {
      if (at + 1 == end) {
        LM_WARN("Bad escape detected\n");
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

char **tarn_memdb_create_fields(const str &list, const uint32_t *expected) {
  uint32_t count = 0;
  size_t text_total = 0;
  str field;
  for (char *cursor = list.s; cursor != nullptr; count++) {
    const uint32_t len = tarn_memdb_get_next_field(list, FIELD_SEPARATOR, &cursor, &field);
    if (!is_wildcard(field)) text_total += size_t{len} + 1;
  }
  if (expected != nullptr && count != *expected) {
    LM_ERR("Size mismatch");
    return nullptr;
  }
  const size_t array_size = count * sizeof(char *);
  auto *const block = pkg_array<char>(array_size + text_total);
  if (block == nullptr) {
    LM_CRIT("no more pkg memory\n");
    return nullptr;
  }
  char **const fields = reinterpret_cast<char **>(block);
  char **slot = fields;
  char *text = block + array_size;
  for (char *cursor = list.s; cursor != nullptr; slot++) {
    tarn_memdb_get_next_field(list, FIELD_SEPARATOR, &cursor, &field);
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

void tarn_memdb_destroy_fields(char **fields) { pkg_free(fields); }

int32_t str_strcmp(const str *a, const str *b) {
  if (!is_usable(a) || !is_usable(b)) {
    LM_ERR("bad parameters\n");
    return -2;
  }
  if (a->len != b->len) return a->len < b->len ? -1 : 1;
  return strncmp(a->s, b->s, static_cast<size_t>(a->len));
}

int32_t str_to_sint(const str *text, int32_t *value) {
  if (!is_usable(text) || value == nullptr) return -1;
  *value = 0;
  const bool negative = *text->s == '-';
  int i = negative || *text->s == '+' ? 1 : 0;
  for (; i < text->len; i++) {
    const char c = text->s[i];
    if (c < '0' || c > '9') return -1;
    const int digit = c - '0';
    const bool fits = !__builtin_mul_overflow(*value, 10, value) &&
                      !(negative ? __builtin_sub_overflow(*value, digit, value)
                                 : __builtin_add_overflow(*value, digit, value));
    if (!fits) {
      *value = negative ? INT_MIN : INT_MAX;
      return -1;
    }
  }
  return 0;
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
  for (const char c : text_of(*in)) {
    if (is_special(c)) *to++ = FIELD_ESCAPE;
    *to++ = c;
  }
  out->len = static_cast<int>(to - out->s);
}

uint32_t tarn_memdb_escaped_len(const str *in) {
  uint32_t len = 0;
  for (const char c : text_of(*in)) len += is_special(c) ? 2 : 1;
  return len;
}
