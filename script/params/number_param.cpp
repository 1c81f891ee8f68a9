// Reading at run time what tarn_memdb_query_fixup3 prepared.
#include "script/params/number_param.h"

#include "host/imports.h"
#include "host/log.h"

bool read_number(sip_msg *msg, const num_or_pv *param, const char *not_integer, int32_t *number) {
  switch (param->type) {
    case NUM_FROM_SCRIPT:
      *number = param->num;
      return true;
    case NUM_FROM_PV: {
      pv_value_t value{};
      if (pv_get_spec_value(msg, param->pvs, &value) != 0) {
        LM_ERR("Cannot get flags value\n");
        return false;
      }
      if ((value.flags & PV_VAL_INT) == 0) {
        LM_ERR("%s", not_integer);
        return false;
      }
      *number = static_cast<int32_t>(value.ri);
      return true;
    }
    default:
      LM_ERR("get flags value Error\n");
      return false;
  }
}
