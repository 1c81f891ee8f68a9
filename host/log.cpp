// What the log macros need beside their own text.
#include "host/log.h"

int host_log_level_held = LOG_LEVEL_UNKNOWN;

int host_log_priority(int level) {
  return log_level_info[level + LOG_LEVEL_OFFSET].syslog_level |
         get_debug_facility(TARN_MODULE_NAME, sizeof(TARN_MODULE_NAME) - 1);
}

host_log_record::host_log_record(int level, const char *file, int line, const char *function)
    : data{} {
  snprintf(location, sizeof(location), TARN_MODULE_NAME " [%s:%d]: ", file, line);
  data.v_facility = host_log_priority(level);
  data.v_level = level;
  data.v_lname = host_log_level_name(level);
  data.v_fname = file;
  data.v_fline = line;
  data.v_mname = TARN_MODULE_NAME;
  data.v_func = function;
  data.v_locinfo = location;
}
