// Selects of rows.
#include <climits>

#include "host/log.h"
#include "query/text/field_strings.h"
#include "script/kemi/avp_lists.h"
#include "script/kemi/kemi_functions.h"
#include "script/kemi/kemi_text.h"
#include "script/select/select_bodies.h"
#include "script/select/select_functions.h"

namespace {

// The query and the target of a select, the first two parameters of each.
class kemi_select_params {
 public:
  // True if both are good; else false, logged.
  bool take(const str *query, const str *target, delivery_target kind, const kemi_site &site = {}) {
    if (!query_.take(query, {1, site}) || !is_good_text(target, {2, site}, TEXT_BUFFER_SIZE))
      return false;
    params_ = {query_.slot(), kind == delivery_target::avps ? avps_in(*target) : xavp_in(*target)};
    return params_.target != nullptr;
  }

  const select_params &params() const { return params_; }

 private:
  static char *avps_in(const str &list) {
    return reinterpret_cast<char *>(kept_avp_list(text_of(list)));
  }

  // The name as it stands.
  char *xavp_in(const str &name) {
    xavp_.type = FPARAM_STR;
    xavp_.v.text = name;
    return reinterpret_cast<char *>(&xavp_);
  }

  kemi_text query_;
  fparam_t xavp_{};
  select_params params_{};
};

int select(sip_msg *msg, const str *query, const str *target, const select_flavour &flavour,
           const kemi_site &site = {}) {
  const host_log_scope log;
  kemi_select_params given;
  if (!given.take(query, target, flavour.target, site)) return SCRIPT_FAILED;
  return select_rows(msg, given.params(), flavour);
}

int best_match(sip_msg *msg, const str *query, const str *target, int column,
               const select_flavour &flavour, const kemi_site &site = {}) {
  const host_log_scope log;
  kemi_select_params given;
  if (!given.take(query, target, flavour.target, site)) return SCRIPT_FAILED;
  return select_best_match(msg, given.params(), {column, nullptr, look_ups::asked_for}, flavour);
}

num_or_pv number_of(int number) { return {NUM_FROM_SCRIPT, number, nullptr}; }

}  // namespace

int kemi_select(sip_msg *msg, str *query, str *avps) {
  return select(msg, query, avps, LOCKED_AVPS);
}

int kemi_nl_select(sip_msg *msg, str *query, str *avps) {
  return select(msg, query, avps, UNLOCKED_AVPS);
}

int kemi_xavp_select(sip_msg *msg, str *query, str *xavp) {
  return select(msg, query, xavp, LOCKED_XAVP);
}

int kemi_nl_xavp_select(sip_msg *msg, str *query, str *xavp) {
  return select(msg, query, xavp, UNLOCKED_XAVP);
}

int kemi_select_best_match(sip_msg *msg, str *query, str *avps, int column) {
  return best_match(msg, query, avps, column, LOCKED_AVPS);
}

int kemi_nl_select_best_match(sip_msg *msg, str *query, str *avps, int column) {
  return best_match(msg, query, avps, column, UNLOCKED_AVPS);
}

int kemi_xavp_select_best_match(sip_msg *msg, str *query, str *xavp, int column) {
  return best_match(msg, query, xavp, column, LOCKED_XAVP);
}

int kemi_nl_xavp_select_best_match(sip_msg *msg, str *query, str *xavp, int column) {
  return best_match(msg, query, xavp, column, UNLOCKED_XAVP);
}

int kemi_nl_select_best_match_prefix(sip_msg *msg, str *query, str *avps, int column,
                                     int left_out) {
  const host_log_scope log;
  kemi_select_params given;
  if (!given.take(query, avps, delivery_target::avps)) return SCRIPT_FAILED;
  const num_or_pv number = number_of(left_out);
  // Look-ups compare whole entries.
  const look_ups look_up = left_out == 0 ? look_ups::asked_for : look_ups::told;
  return select_best_match(msg, given.params(), {column, &number, look_up}, UNLOCKED_AVPS);
}

int kemi_nl_select_field_out_of_range(sip_msg *msg, str *query, str *avps, int column, int lower,
                                      int upper) {
  const host_log_scope log;
  kemi_select_params given;
  if (!given.take(query, avps, delivery_target::avps)) return SCRIPT_FAILED;
  const num_or_pv least = number_of(lower);
  const num_or_pv most = number_of(upper);
  return select_out_of_range(msg, given.params(), {column, &least, &most});
}

int kemi_nl_select_field_within_the_range(sip_msg *msg, str *query, int column, int lower) {
  const host_log_scope log;
  kemi_text text;
  if (!text.take(query, 1)) return SCRIPT_FAILED;
  const num_or_pv least = number_of(lower);
  const num_or_pv most = number_of(INT_MAX);
  return count_above_limit(msg, text.slot(), {column, &least, &most});
}

int kemi_nl_select_subnetmask(sip_msg *msg, str *query, str *avps, str *source, str *from_user,
                              str *contact_user) {
  const host_log_scope log;
  kemi_select_params given;
  kemi_text address;
  kemi_text from;
  kemi_text contact;
  if (!given.take(query, avps, delivery_target::avps) ||
      !address.take(source, 3, REQUEST_PART_SIZE) ||
      !from.take(from_user, 4, REQUEST_PART_SIZE, empty_text::taken) ||
      !contact.take(contact_user, 5, REQUEST_PART_SIZE, empty_text::taken))
    return SCRIPT_FAILED;
  return tarn_memdb_nl_select_subnetmask(msg, given.params().query, given.params().target,
                                         address.slot(), from.slot(), contact.slot());
}
