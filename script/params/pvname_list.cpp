// Parsing of AVP name lists.
#include "script/params/pvname_list.h"

#include <cstring>

#include "host/imports.h"
#include "host/log.h"
#include "script/params/param_record.h"
#include "script/params/script_query.h"

namespace {

// A chain under construction; given back unless it is handed over.
class name_chain {
 public:
  name_chain() = default;
  ~name_chain() {
    while (head_ != nullptr) {
      pvname_list_t *const next = head_->next;
      pkg_free(head_);
      head_ = next;
    }
  }
  name_chain(const name_chain &) = delete;
  name_chain &operator=(const name_chain &) = delete;

  bool append(const pv_spec_t &spec) {
    auto *const entry = make_record<pvname_list_t>();
    if (entry == nullptr) return false;
    *entry = {spec, nullptr};
    *end_ = entry;
    end_ = &entry->next;
    return true;
  }

  pvname_list_t *release() {
    pvname_list_t *const out = head_;
    head_ = nullptr;
    return out;
  }

 private:
  pvname_list_t *head_ = nullptr;
  pvname_list_t **end_ = &head_;
};

}  // namespace

pvname_list_t *parse_tarn_pvname_list(str *text, int type) {
  if (text == nullptr || text->s == nullptr) {
    LM_TEXT(L_ERR, BAD_PARAMETERS);
    return nullptr;
  }
  char *const end = text->s + strnlen(text->s, static_cast<size_t>(text->len));
  name_chain names;
  for (char *at = text->s; at < end;) {
    pv_spec_t spec{};
    if (*at != '|') {
      str rest{at, static_cast<int>(end - at)};
      at = pv_parse_spec2(&rest, &spec, 0);
      if (at == nullptr || (type != PVT_ANY && spec.type != type)) {
        LM_ERR("Wrong item name list [%.*s]!\n", text->len, text->s);
        return nullptr;
      }
    }
    if (!names.append(spec)) return nullptr;
    // Whatever stands behind a name counts as its bar.
    if (at < end) at++;
  }
  // A bar at the end has one more place behind it.
  if (end > text->s && end[-1] == '|' && !names.append({})) return nullptr;
  return names.release();
}
