// The subnet and subscriber select: whether a request comes from a known remote subscriber. Walks
// the Remote Subscriber Configuration Table and delivers the first row that the request matches, by
// source address or by the location domain of its From and Contact users.
#include <cstdlib>
#include <cstring>

#include "host/log.h"
#include "script/select/select_functions.h"
#include "script/select/select_run.h"
#include "script/select/subnet_address.h"
#include "script/select/subscriber_domain.h"

namespace {

// Columns of the table.
constexpr uint32_t DOMAIN_COL = 2;
constexpr uint32_t SUBNET_COL = 3;
constexpr uint32_t MASK_COL = 4;
constexpr uint32_t DN_FLAG_COL = 12;
constexpr uint32_t SUBNET_FLAG_COL = 13;
constexpr uint32_t FROM_FLAG_COL = 14;
constexpr uint32_t CT_FLAG_COL = 15;
constexpr uint32_t SUBSCRIBER_COLUMNS = 16;

// The slots of the third to fifth parameter.
struct request_slots {
  char *source;
  char *from_user;
  char *contact_user;
};

// What the rows are matched against.
struct request {
  char source[REQUEST_PART_SIZE];
  char from_user[REQUEST_PART_SIZE];
  char contact_user[REQUEST_PART_SIZE];
};

// How the log speaks of a user of the request.
struct user_texts {
  message_text<> unprintable;
  message_text<> missing;
  message_text<const char *> received;
  message_text<> no_domain;
  message_text<const char *, const char *> domain;  // the row's, the user's
};

constexpr user_texts FROM{"Could not print the formatted pv input for from_user_str\n",
                          "From user not received\n", "Received From user = %s\n",
                          "From user DN not found in table remote_sub_dn_list\n",
                          "from_f is set. Location_domain row = %s  location domain_dn = %s\n"};
constexpr user_texts CONTACT{"Could not print the formatted pv input ct\n",
                             "Contact user not received\n", "Received Contact user = %s\n",
                             "Contact user DN not found in table remote_sub_dn_list\n",
                             "ct_f is set. Location_domain row = %s  location domain_dn = %s\n"};

bool print_source(sip_msg *msg, const char *slot, request *from) {
  static constexpr message_text<> REFUSAL{
      "Could not print the formatted pv input for src_ip_str\n"};
  if (print_or_refuse(msg, slot, from->source, REFUSAL).s == nullptr) return false;
  LM_DBG("Received Source IP = %s\n", from->source);
  return true;
}

// A request may lack either user.
bool print_user(sip_msg *msg, const char *slot, std::span<char> name, const user_texts &texts) {
  const str text = print_param(msg, slot, name);
  if (text.s == nullptr) {
    LM_TEXT(L_ERR, texts.unprintable);
    return false;
  }
  if (text.len == 0)
    LM_TEXT(L_DBG, texts.missing);
  else
    LM_TEXT(L_DBG, texts.received, text.s);
  return true;
}

bool print_request(sip_msg *msg, const request_slots &slots, request *from) {
  return print_source(msg, slots.source, from) &&
         print_user(msg, slots.from_user, from->from_user, FROM) &&
         print_user(msg, slots.contact_user, from->contact_user, CONTACT);
}

bool has_subscriber_columns(const tarn_tbl *table) {
  if (table->tbl->col_cnt >= SUBSCRIBER_COLUMNS) return true;
  LM_ERR("Table '%s' has no subscriber columns\n", table->table_name);
  return false;
}

// One row of the table. Each flag is read once: an unlocked reader could read another a second
// time.
class subscriber_row {
 public:
  subscriber_row(const memdb_tbl *tbl, const memdb_row *row) : tbl_(tbl), row_(row) {}

  const char *text(uint32_t col) const { return memdb_get_field(tbl_, row_, col); }
  int flag(uint32_t col) const { return atoi(text(col)); }

 private:
  const memdb_tbl *tbl_;
  const memdb_row *row_;
};

struct user_flags {
  int from;
  int contact;
};

// True if the user belongs to the row's domain.
bool belongs(const char *user, const user_texts &texts, const char *row_domain) {
  char domain[REQUEST_PART_SIZE] = "";
  if (!tarn_memdb_select_dn(user, domain)) {
    LM_TEXT(L_DBG, texts.no_domain);
    return false;
  }
  LM_TEXT(L_DBG, texts.domain, row_domain, domain);
  if (strcmp(row_domain, domain) == 0) return true;
  LM_DBG("location domain is different\n");
  return false;
}

bool match_ends(bool is_same) {
  if (is_same) LM_DBG("location domain is same\n");
  return is_same;
}

bool matches_users(const char *domain, const user_flags &flags, const request &from) {
  if (flags.from == 1 && flags.contact == 0)
    return match_ends(belongs(from.from_user, FROM, domain));
  if (flags.from == 0 && flags.contact == 1)
    return match_ends(belongs(from.contact_user, CONTACT, domain));
  if (flags.from != 1 || flags.contact != 1) {
    LM_ERR("DN flag is set but From Flag neither Contact Flag is set\n");
    return false;
  }
  if (!belongs(from.from_user, FROM, domain)) return false;
  LM_DBG("location domain is same for from user lets check contact user\n");
  return match_ends(belongs(from.contact_user, CONTACT, domain));
}

// The subnet flag overrides every other; a row that is set to neither way is told and passed over.
bool matches(const subscriber_row &row, const request &from) {
  LM_DBG("Entering memdb_select for subnet ip match or from or contact user match\n");
  const char *const domain = row.text(DOMAIN_COL);
  if (*domain != '\0')
    LM_DBG("Processing location domain entry [%s], length=%lu\n", domain, strlen(domain));
  else
    LM_INFO("Invalid location domain!\n");
  const int subnet_flag = row.flag(SUBNET_FLAG_COL);
  const int dn_flag = row.flag(DN_FLAG_COL);
  user_flags users{};
  if ((subnet_flag != 1 && dn_flag == 1) || host_log_enabled(L_DBG))
    users = {row.flag(FROM_FLAG_COL), row.flag(CT_FLAG_COL)};
  LM_DBG("subnet=%d from=%d ct=%d dn=%d\n", subnet_flag, users.from, users.contact, dn_flag);
  if (subnet_flag == 1) return is_in_subnet(from.source, row.text(SUBNET_COL), row.text(MASK_COL));
  if (dn_flag == 1) return matches_users(domain, users, from);
  LM_ERR("Subnet flag and DN flag are not set\n");
  return false;
}

const memdb_row *find_subscriber(const select_run &run, const request &from) {
  const memdb_row *found = nullptr;
  memdb_visit(run.tbl(), run.query.flds, run.max_res(), [&](const memdb_row *row, int32_t) {
    if (matches(subscriber_row(run.tbl(), row), from)) found = row;
    return found == nullptr;
  });
  return found;
}

}  // namespace

// Without a last line of its own on any way out, unlike the other selects.
int tarn_memdb_nl_select_subnetmask(sip_msg *msg, char *query, char *avps, char *source,
                                    char *from_user, char *contact_user) {
  const host_log_scope log;
  if (source == nullptr || from_user == nullptr || contact_user == nullptr) {
    LM_TEXT(L_ERR, BAD_PARAMETERS);
    return SCRIPT_NO_ROW;
  }
  select_run run(msg);
  request from;
  if (start_select(&run, {query, avps}, delivery_target::avps) != select_start::ready ||
      !has_subscriber_columns(run.table()) ||
      !print_request(msg, {source, from_user, contact_user}, &from))
    return SCRIPT_FAILED;
  LM_DBG("Start loop through Remote Subscriber Configuration Table\n");
  const table_scope scope(run.table(), table_access::unlocked);
  const memdb_row *const row = find_subscriber(run, from);
  LM_DBG("memdb_select_subnetmask: MATCH FOUND and Saving AVP");
  if (row == nullptr) return SCRIPT_NO_ROW;
  return run.deliver(row) ? SCRIPT_OK : SCRIPT_FAILED;
}
