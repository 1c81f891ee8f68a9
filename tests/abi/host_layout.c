/* The host's side of the comparison, compiled with the defines of the host's own build. */
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/counters.h"
#include "core/dprint.h"
#include "core/kemi.h"
#include "core/mem/pkg.h"
#include "core/mem/shm.h"
#include "core/mod_fix.h"
#include "core/parser/parse_param.h"
#include "core/pvar.h"
#include "core/route.h"
#include "core/rpc.h"
#include "core/rpc_lookup.h"
#include "core/sr_module.h"
#include "core/timer.h"
#include "core/usr_avp.h"
#include "core/ver_defs.h"
#include "modules/pv/pv_api.h"
#include "tests/abi/layout.h"

#define TEXT char *
#define PARAM_CLASS pclass_t
#define IS_TYPE(left, right) (__builtin_types_compatible_p(left, right) ? 1 : -2)

/* The record of pointers that the module has instead of casts. */
typedef struct {
  sr_kemi_fm_f none;
  sr_kemi_fms_f s;
  sr_kemi_fmss_f ss;
  sr_kemi_fmsn_f sn;
  sr_kemi_fmns_f ns;
  sr_kemi_fmsnn_f snn;
  sr_kemi_fmssn_f ssn;
  sr_kemi_fmssnn_f ssnn;
  sr_kemi_fmssnnn_f ssnnn;
  sr_kemi_fmsssss_f sssss;
  sr_kemi_xfms_f value_of_s;
  sr_kemi_xfmsn_f value_of_sn;
} kemi_function;

#define RECORD(own, host) {"sizeof " #own, sizeof(host)},
#define MEMBER(own, own_member, host, member)               \
  {"offset " #own "." #own_member, offsetof(host, member)}, \
      {"size " #own "." #own_member, sizeof(((host *)0)->member)},
#define CONSTANT(own, host) {#own, host},
#define VARIABLE(name) {"sizeof " #name, sizeof(name)},
#define FUNCTION(name, result, arguments) \
  {"type of " #name, IS_TYPE(__typeof__(name), result arguments)},
#define POINTER(record, member, result, arguments) \
  {"type of " #record "." #member, IS_TYPE(__typeof__(((record *)0)->member), result(*) arguments)},

const struct layout_fact host_layout[] = {
#include "tests/abi/layout_facts.h"
    {NULL, 0}};

const char *const host_build_flags = SER_COMPILE_FLAGS;
