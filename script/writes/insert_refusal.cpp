// One line per reason.
#include "script/writes/insert_refusal.h"

#include "host/log.h"

void log_refusal(admission refused, const tarn_tbl *table, int full_level) {
  switch (refused) {
    case admission::full:
      HOST_LOG(full_level,
               "MAX number of rows allowed (%d) for table '%s' reached. Data will not be "
               "inserted!\n",
               table->max_rows, table->table_name);
      break;
    case admission::duplicate:
      LM_WARN("Duplicated data will not be inserted into table '%s'!\n", table->table_name);
      break;
    case admission::no_index:
      LM_ERR("Insertion of index failed!\n");
      break;
    case admission::not_inserted:
      LM_ERR("Could not insert at table '%s'!\n", table->table_name);
      break;
    case admission::added:
      break;
  }
}
