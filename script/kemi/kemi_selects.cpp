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
  bool take_avps(const str *query, const str *avps, const kemi_site &site = {}) {
    if (!take_query(query, site) || !is_good_text(avps, {2, site}, TEXT_BUFFER_SIZE)) return false;
    params_.target = reinterpret_cast<char *>(kept_avp_list(text_of(*avps)));
    return params_.target != nullptr;
  }

  bool take_xavp(const str *query, const str *xavp, const kemi_site &site = {}) {
    if (!take_query(query, site) || !is_good_text(xavp, {2, site}, TEXT_BUFFER_SIZE)) return false;
    xavp_.type = FPARAM_STR;
    xavp_.v.text = *xavp;
    params_.target = reinterpret_cast<char *>(&xavp_);
    return true;
  }

  const select_params &params() const { return params_; }

 private:
  bool take_query(const str *query, const kemi_site &site) {
    if (!query_.take(query, {1, site})) return false;
    params_.query = query_.slot();
    return true;
  }

  kemi_text query_;
  fparam_t xavp_{};
  select_params params_{};
};

using select_function = int (*)(sip_msg *msg, char *query, char *target);

int select_to_avps(sip_msg *msg, const str *query, const str *avps, select_function select,
                   const kemi_site &site = {}) {
  const host_log_scope log;
  kemi_select_params given;
  if (!given.take_avps(query, avps, site)) return SCRIPT_FAILED;
  return select(msg, given.params().query, given.params().target);
}

int select_to_xavp(sip_msg *msg, const str *query, const str *xavp, select_function select,
                   const kemi_site &site = {}) {
  const host_log_scope log;
  kemi_select_params given;
  if (!given.take_xavp(query, xavp, site)) return SCRIPT_FAILED;
  return select(msg, given.params().query, given.params().target);
}

int best_match(sip_msg *msg, const kemi_select_params &given, int column,
               const select_flavour &flavour) {
  return select_best_match(msg, given.params(), {column, nullptr, look_ups::asked_for}, flavour);
}

int best_match_to_avps(sip_msg *msg, const str *query, const str *avps, int column,
                       const select_flavour &flavour, const kemi_site &site = {}) {
  const host_log_scope log;
  kemi_select_params given;
  if (!given.take_avps(query, avps, site)) return SCRIPT_FAILED;
  return best_match(msg, given, column, flavour);
}

int best_match_to_xavp(sip_msg *msg, const str *query, const str *xavp, int column,
                       const select_flavour &flavour, const kemi_site &site = {}) {
  const host_log_scope log;
  kemi_select_params given;
  if (!given.take_xavp(query, xavp, site)) return SCRIPT_FAILED;
  return best_match(msg, given, column, flavour);
}

num_or_pv number_of(int number) { return {NUM_FROM_SCRIPT, number, nullptr}; }

}  // namespace

int kemi_select(sip_msg *msg, str *query, str *avps) {
  return select_to_avps(msg, query, avps, tarn_memdb_select);
}

int kemi_nl_select(sip_msg *msg, str *query, str *avps) {
  return select_to_avps(msg, query, avps, tarn_memdb_nl_select);
}

int kemi_xavp_select(sip_msg *msg, str *query, str *xavp) {
  return select_to_xavp(msg, query, xavp, tarn_memdb_xavp_select);
}

int kemi_nl_xavp_select(sip_msg *msg, str *query, str *xavp) {
  return select_to_xavp(msg, query, xavp, tarn_memdb_nl_xavp_select);
}

int kemi_select_best_match(sip_msg *msg, str *query, str *avps, int column) {
  return best_match_to_avps(msg, query, avps, column, LOCKED_AVPS);
}

int kemi_nl_select_best_match(sip_msg *msg, str *query, str *avps, int column) {
  return best_match_to_avps(msg, query, avps, column, UNLOCKED_AVPS);
}

int kemi_xavp_select_best_match(sip_msg *msg, str *query, str *xavp, int column) {
  return best_match_to_xavp(msg, query, xavp, column, LOCKED_XAVP);
}

int kemi_nl_xavp_select_best_match(sip_msg *msg, str *query, str *xavp, int column) {
  return best_match_to_xavp(msg, query, xavp, column, UNLOCKED_XAVP);
}

int kemi_nl_select_best_match_prefix(sip_msg *msg, str *query, str *avps, int column,
                                     int left_out) {
  const host_log_scope log;
  kemi_select_params given;
  if (!given.take_avps(query, avps)) return SCRIPT_FAILED;
  const num_or_pv number = number_of(left_out);
  // Look-ups compare whole entries.
  const look_ups look_up = left_out == 0 ? look_ups::asked_for : look_ups::told;
  return select_best_match(msg, given.params(), {column, &number, look_up}, UNLOCKED_AVPS);
}

int kemi_nl_select_field_out_of_range(sip_msg *msg, str *query, str *avps, int column, int lower,
                                      int upper) {
  const host_log_scope log;
  kemi_select_params given;
  if (!given.take_avps(query, avps)) return SCRIPT_FAILED;
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
  if (!given.take_avps(query, avps) || !address.take(source, 3, REQUEST_PART_SIZE) ||
      !from.take(from_user, 4, REQUEST_PART_SIZE, empty_text::taken) ||
      !contact.take(contact_user, 5, REQUEST_PART_SIZE, empty_text::taken))
    return SCRIPT_FAILED;
  return tarn_memdb_nl_select_subnetmask(msg, given.params().query, given.params().target,
                                         address.slot(), from.slot(), contact.slot());
}
