// Look-up in remote_sub_dn_list: DN in column 0, location domain in column 1.
#include "script/select/subscriber_domain.h"

#include <cstdio>

#include "host/log.h"
#include "query/query_input.h"
#include "query/text/buffers.h"
#include "query/text/text_writer.h"
#include "script/params/script_query.h"
#include "tables/table_scope.h"

namespace {

constexpr message_text<const char *> UNPARSED{"Could not parse query (%s) for select\n"};
constexpr uint32_t DOMAIN_COL = 1;

// The query for the DN, which goes in unescaped: a bar or a comma in it changes the query.
bool compose_query(const char *dn, str *text) {
  const int len = snprintf(dn_query_buf, sizeof(dn_query_buf), "remote_sub_dn_list,%s|*", dn);
  // A negative length is a huge one.
  if (static_cast<size_t>(len) >= sizeof(dn_query_buf)) {
    LM_ERR("DN too long to be looked up: '%s'\n", dn);
    return false;
  }
  *text = {dn_query_buf, len};
  LM_TEXT(L_DBG, PRINTED_SELECT, dn_query_buf);
  return true;
}

bool read_domain(const query_in &in, const char *dn, std::span<char> domain) {
  const table_scope scope(in.table, table_access::unlocked);
  memdb_tbl *const tbl = in.table->tbl;
  memdb_cursor cursor;
  const memdb_row *const row = memdb_select(tbl, in.flds, &cursor);
  if (row == nullptr) {
    LM_DBG("No match found for DN = '%s'\n", dn);
    return false;
  }
  // Only a DN with separators in it makes a query that a table of one column takes.
  if (tbl->col_cnt <= DOMAIN_COL) return false;
  const char *const found = memdb_get_field(tbl, row, DOMAIN_COL);
  if (*found == '\0') return false;
  LM_DBG("Found location_domain '%s'\n", found);
  text_writer(domain).append(found);
  return true;
}

}  // namespace

bool tarn_memdb_select_dn(const char *dn, std::span<char> domain) {
  if (*dn == '\0') {
    LM_DBG("Invalid DN\n");
    return false;
  }
  str text;
  script_query query;
  return compose_query(dn, &text) && parse_query(text, OP_SELECT, UNPARSED, &query) &&
         read_domain(query, dn, domain);
}
