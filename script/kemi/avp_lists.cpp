// Checking, parsing and keeping.
#include "script/kemi/avp_lists.h"

#include <algorithm>
#include <cstring>

#include "host/log.h"
#include "host/memory.h"
#include "script/params/pvname_list.h"

namespace {

struct kept_list {
  char *text;  // the names of the list point into it; null for none
  uint32_t len;
  uint32_t places;
  pvname_list_t *names;

  bool is(std::string_view other) const {
    return len == other.size() && text != nullptr && memcmp(text, other.data(), len) == 0;
  }
};

// A ring: the oldest list stands at next - count.
struct kept_lists {
  kept_list lists[MOST_KEPT_LISTS];
  uint32_t next;
  uint32_t count;
  uint32_t places;
};

// Of the process.
kept_lists kept;

// True for a name that is the same for every message. What else the host would take, names in
// variables and transformations, is evaluated by it, and parsing it leaves private memory behind.
bool is_plain_name(std::string_view item) {
  constexpr std::string_view HEAD = "$avp(";
  if (item.size() <= HEAD.size() + 1 || !item.starts_with(HEAD) || item.back() != ')') return false;
  item.remove_prefix(HEAD.size());
  item.remove_suffix(1);
  return std::none_of(item.begin(), item.end(), [](char c) {
    constexpr std::string_view OF_EXPRESSIONS = "$(){}[]";
    return static_cast<unsigned char>(c) <= ' ' || OF_EXPRESSIONS.find(c) != std::string_view::npos;
  });
}

bool are_plain_names(std::string_view text) {
  for (;;) {
    const size_t end = text.find('|');
    const std::string_view item = text.substr(0, end);
    if (!item.empty() && !is_plain_name(item)) return false;
    if (end == std::string_view::npos) return true;
    text.remove_prefix(end + 1);
  }
}

void give_up_oldest() {
  kept_list &oldest = kept.lists[(kept.next + MOST_KEPT_LISTS - kept.count) % MOST_KEPT_LISTS];
  for (pvname_list_t *name = oldest.names; name != nullptr;) {
    pvname_list_t *const following = name->next;
    pkg_free(name);
    name = following;
  }
  pkg_free(oldest.text);
  kept.places -= oldest.places;
  kept.count--;
  oldest = {};
}

pvname_list_t *keep(const kept_list &list) {
  while (kept.count == MOST_KEPT_LISTS ||
         (kept.count > 0 && kept.places + list.places > MOST_KEPT_PLACES))
    give_up_oldest();
  kept.lists[kept.next] = list;
  kept.next = (kept.next + 1) % MOST_KEPT_LISTS;
  kept.count++;
  kept.places += list.places;
  return list.names;
}

pvname_list_t *parse_and_keep(std::string_view text) {
  pkg_owner<char> own(pkg_array<char>(text.size() + 1));
  if (!own) {
    LM_ERR("No more memory for a list of names\n");
    return nullptr;
  }
  *std::copy(text.begin(), text.end(), own.get()) = '\0';
  str whole{own.get(), static_cast<int>(text.size())};
  pvname_list_t *const names = parse_tarn_pvname_list(&whole, PVT_AVP);
  if (names == nullptr) return nullptr;
  const auto bars = static_cast<uint32_t>(std::count(text.begin(), text.end(), '|'));
  return keep({own.release(), static_cast<uint32_t>(text.size()), bars + 1, names});
}

}  // namespace

pvname_list_t *kept_avp_list(std::string_view text) {
  for (const kept_list &list : kept.lists)
    if (list.is(text)) return list.names;
  if (are_plain_names(text)) return parse_and_keep(text);
  LM_ERR("Not a list of plain names, such as $avp(a)||$avp(b): '%.*s'\n",
         static_cast<int>(text.size()), text.data());
  return nullptr;
}
