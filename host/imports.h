// The host's functions and variables that the loader binds when it opens the module: all of them,
// and no others.
#pragma once

#include "host/abi.h"
#include "host/kemi.h"

extern "C" {

// Logging; used by host/log.h alone.
extern void (*_ksr_slog_func)(ksr_logdata_t *, const char *, ...);
extern void (*_km_log_func)(int priority, const char *, ...);
extern int log_stderr;
extern int log_color;
extern str *log_prefix_val;
extern log_level_info_t log_level_info[];
extern volatile int dprint_crit;
extern int process_no;
int my_pid(void);
void dprint_color(int level);
void dprint_color_reset(void);
int get_debug_level(const char *module_name, int module_name_len);
int get_debug_facility(const char *module_name, int module_name_len);

// Allocators; used by host/memory.h alone.
extern sr_pkg_api_t _pkg_root;
extern sr_shm_api_t _shm_root;

// Registration and look-up at start.
int rpc_register_array(rpc_export_t *commands);
int register_timer(void (*function)(unsigned int ticks, void *param), void *param,
                   unsigned int interval);
cmd_function find_export(const char *name, int param_no, int flags);

// Not 0 once the host has run all fix-ups of its start. Not every host offers it.
extern int fixup_complete __attribute__((weak));

// Offers functions to the host's other script languages; functions ends in a row of nulls and is
// kept. Negative if the host has no room for one more module. Not every host offers it.
int sr_kemi_modules_add(sr_kemi_t *functions) __attribute__((weak));

// Adds a counter to the host's own, ahead of the fork alone. The host copies the texts. 0, or less
// than that: COUNTER_NAME_TAKEN, or -1. Not every host offers it.
int counter_register(counter_handle_t *handle, const char *group, const char *name, int flags,
                     counter_callback callback, void *param, const char *doc, int reg_flags)
    __attribute__((weak));

// Preparing script parameters.
int pv_parse_format(str *text, pv_elem_t **format);
char *pv_parse_spec2(str *text, pv_spec_t *spec, int silent);
pvname_list_t *parse_pvname_list(str *text, unsigned int type);
int fixup_pvar_null(void **param, int param_no);
int fixup_spve_spve(void **param, int param_no);
int fixup_free_spve_spve(void **param, int param_no);
int parse_params(str *text, int param_class, param_hooks_t *hooks, param_t **params);
void free_params(param_t *params);

// Reading and writing values for a message.
int pv_printf(sip_msg *msg, pv_elem_t *format, char *buf, int *len);
int pv_get_spec_value(sip_msg *msg, pv_spec_t *spec, pv_value_t *value);
int pv_set_spec_value(sip_msg *msg, pv_spec_t *spec, int op, pv_value_t *value);
int pv_get_avp_name(sip_msg *msg, pv_param_t *param, int_str *name, avp_flags_t *name_type);
int add_avp(avp_flags_t flags, int_str name, int_str value);
int get_str_fparam(str *value, sip_msg *msg, fparam_t *param);
}
