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

constexpr size_t PART_SIZE = 256;

// The slots of the third to fifth parameter.
struct request_slots {
  char *source;
  char *from_user;
  char *contact_user;
};

// What the rows are matched against.
struct request {
  char source[PART_SIZE];
  char from_user[PART_SIZE];
  char contact_user[PART_SIZE];
};

// A user of the request, and how the log speaks of it.
struct user {
  const char *name;
  const char *title;
  const char *flag;
};

bool print_source(sip_msg *msg, const char *slot, request *from) {
  static constexpr char REFUSAL[] = "Could not print the formatted pv input for src_ip_str\n";
  if (print_or_refuse(msg, slot, from->source, REFUSAL).s == nullptr) return false;
  LM_DBG("Received Source IP = %s\n", from->source);
  return true;
}

// A request may lack either user.
bool print_user(sip_msg *msg, const char *slot, std::span<char> name, const char *in_failure,
                const char *title) {
  const str text = print_param(msg, slot, name);
  if (text.s == nullptr) {
    LM_ERR("Could not print the formatted pv input %s\n", in_failure);
    return false;
  }
  if (text.len == 0)
    LM_DBG("%s user not received\n", title);
  else
    LM_DBG("Received %s user = %s\n", title, text.s);
  return true;
}

bool print_request(sip_msg *msg, const request_slots &slots, request *from) {
  return print_source(msg, slots.source, from) &&
         print_user(msg, slots.from_user, from->from_user, "for from_user_str", "From") &&
         print_user(msg, slots.contact_user, from->contact_user, "ct", "Contact");
}

bool has_subscriber_columns(const tarn_tbl *table) {
  if (table->tbl->col_cnt >= SUBSCRIBER_COLUMNS) return true;
  LM_ERR("Table '%s' has no subscriber columns\n", table->table_name);
  return false;
}

// One row of the table.
class subscriber_row {
 public:
  subscriber_row(const memdb_tbl *tbl, const memdb_row *row) : tbl_(tbl), row_(row) {}

  const char *text(uint32_t col) const { return memdb_get_field(tbl_, row_, col); }
  int flag(uint32_t col) const { return atoi(text(col)); }

 private:
  const memdb_tbl *tbl_;
  const memdb_row *row_;
};

// True if the user's domain, which goes into domain, could be found.
bool find_domain(const user &who, std::span<char> domain, const char *row_domain) {
  if (tarn_memdb_select_dn(who.name, domain) != SCRIPT_OK) {
    LM_DBG("%s user DN not found in table remote_sub_dn_list\n", who.title);
    return false;
  }
  LM_DBG("%s is set. Location_domain row = %s  location domain_dn = %s\n", who.flag, row_domain,
         domain.data());
  return true;
}

// True if the user belongs to the row's domain.
bool belongs(const user &who, const char *row_domain, const char *same_line) {
  char domain[PART_SIZE] = "";
  if (!find_domain(who, domain, row_domain)) return false;
  if (strcmp(row_domain, domain) != 0) {
    LM_DBG("location domain is different\n");
    return false;
  }
  LM_DBG("%s", same_line);
  return true;
}

bool matches_users(const subscriber_row &row, const request &from) {
  static constexpr char SAME[] = "location domain is same\n";
  static constexpr char SAME_SO_FAR[] =
      "location domain is same for from user lets check contact user\n";
  const char *const domain = row.text(DOMAIN_COL);
  const user from_user{from.from_user, "From", "from_f"};
  const user contact_user{from.contact_user, "Contact", "ct_f"};
  const int from_flag = row.flag(FROM_FLAG_COL);
  const int ct_flag = row.flag(CT_FLAG_COL);
  if (from_flag == 1 && ct_flag == 0) return belongs(from_user, domain, SAME);
  if (from_flag == 0 && ct_flag == 1) return belongs(contact_user, domain, SAME);
  if (from_flag == 1 && ct_flag == 1)
    return belongs(from_user, domain, SAME_SO_FAR) && belongs(contact_user, domain, SAME);
  LM_ERR("DN flag is set but From Flag neither Contact Flag is set\n");
  return false;
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
  LM_DBG("subnet=%d from=%d ct=%d dn=%d\n", subnet_flag, row.flag(FROM_FLAG_COL),
         row.flag(CT_FLAG_COL), dn_flag);
  if (subnet_flag == 1) return is_in_subnet(from.source, row.text(SUBNET_COL), row.text(MASK_COL));
  if (dn_flag == 1) return matches_users(row, from);
  LM_ERR("Subnet flag and DN flag are not set\n");
  return false;
}

const memdb_row *find_subscriber(select_run *run, const request &from) {
  memdb_cursor cursor;
  const memdb_row *row = memdb_select(run->tbl(), run->wanted(), &cursor);
  for (int32_t visited = 0; row != nullptr && visited < run->max_res(); visited++) {
    if (matches(subscriber_row(run->tbl(), row), from)) return row;
    row = memdb_select_next(&cursor);
  }
  return nullptr;
}

// Without a last line of its own on any way out, unlike the other selects.
int tarn_memdb_select_subnetmask_cmn(sip_msg *msg, const select_params &params,
                                     const request_slots &slots, const select_flavour &flavour) {
  const host_log_scope log;
  if (slots.source == nullptr || slots.from_user == nullptr || slots.contact_user == nullptr) {
    LM_ERR("Bad parameters\n");
    return SCRIPT_NO_ROW;
  }
  select_run run(msg, flavour);
  request from;
  if (start_select(&run, params) != select_start::ready || !has_subscriber_columns(run.table()) ||
      !print_request(msg, slots, &from))
    return SCRIPT_FAILED;
  LM_DBG("Start loop through Remote Subscriber Configuration Table\n");
  run.enter_table();
  const memdb_row *const row = find_subscriber(&run, from);
  if (!run.delivery.prepare(run.table())) return SCRIPT_FAILED;
  LM_DBG("memdb_select_subnetmask: MATCH FOUND and Saving AVP");
  if (row == nullptr) return SCRIPT_NO_ROW;
  return run.deliver(row) ? SCRIPT_OK : SCRIPT_FAILED;
}

}  // namespace

int tarn_memdb_nl_select_subnetmask(sip_msg *msg, char *query, char *avps, char *source,
                                    char *from_user, char *contact_user) {
  return tarn_memdb_select_subnetmask_cmn(msg, {query, avps}, {source, from_user, contact_user},
                                          {.locked = false, .as_xavp = false});
}
