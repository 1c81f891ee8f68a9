// The records that the host and a module exchange in memory, as Kamailio 6.0.x and 6.1.x lay them
// out on x86-64 Linux. Nothing outside host/ knows an offset, a flag value or a magic number of the
// host.
#pragma once

#include <cstddef>
#include <cstdint>

struct sip_msg;  // a message in work; only ever handed on

// The host's counted string. Need not be terminated.
struct str {
  char *s;
  int len;
};

using cmd_function = int (*)(sip_msg *, char *, char *);
using fixup_function = int (*)(void **param, int param_no);

// A script function of any number of parameters. The host calls it with as many as its row of the
// command table says, and with two where it says fewer.
union script_function {
  cmd_function two;
  int (*three)(sip_msg *, char *, char *, char *);
  int (*four)(sip_msg *, char *, char *, char *, char *);
  int (*five)(sip_msg *, char *, char *, char *, char *, char *);
  int (*six)(sip_msg *, char *, char *, char *, char *, char *, char *);

  constexpr script_function(std::nullptr_t = nullptr) : two(nullptr) {}
  constexpr script_function(decltype(two) function) : two(function) {}
  constexpr script_function(decltype(three) function) : three(function) {}
  constexpr script_function(decltype(four) function) : four(function) {}
  constexpr script_function(decltype(five) function) : five(function) {}
  constexpr script_function(decltype(six) function) : six(function) {}
};

// One script function.
struct cmd_export_t {
  const char *name;
  script_function function;
  int param_no;
  fixup_function fixup;
  fixup_function free_fixup;
  unsigned int flags;
};

// One module parameter; the host writes through param_pointer before mod_init.
struct param_export_t {
  const char *name;
  unsigned int type;
  void *param_pointer;
};

// The RPC operations, as the transport of a command fills them.
struct rpc_t {
  void (*fault)(void *ctx, int code, const char *fmt, ...);
  int (*send)(void *ctx);
  int (*add)(void *ctx, const char *fmt, ...);
  int (*scan)(void *ctx, const char *fmt, ...);
  int (*rpl_printf)(void *ctx, const char *fmt, ...);
  int (*struct_add)(void *ctx, const char *fmt, ...);
  int (*array_add)(void *ctx, const char *fmt, ...);
  int (*struct_scan)(void *ctx, const char *fmt, ...);
  int (*struct_printf)(void *ctx, const char *name, const char *fmt, ...);
  int (*capabilities)(void *ctx);
  void *(*delayed_ctx_new)(void *ctx);
  void (*delayed_ctx_close)(void *delayed);
};

using rpc_function = void (*)(rpc_t *rpc, void *ctx);

// One RPC command; doc_str ends in a null.
struct rpc_export_t {
  const char *name;
  rpc_function function;
  const char **doc_str;
  unsigned int flags;
};

// What a module presents to the loader.
struct module_exports_t {
  const char *name;
  unsigned int dlflags;
  const cmd_export_t *cmds;
  const param_export_t *params;
  rpc_export_t *rpc_methods;
  void *pv_items;
  int (*response_f)(sip_msg *);
  int (*init_mod_f)();
  int (*init_child_f)(int rank);
  void (*destroy_mod_f)();
};

// A name or a value of an AVP: a number or a string, told apart by flags kept elsewhere.
union int_str {
  long n;
  str s;
};

using avp_flags_t = unsigned int;

struct pv_name_t {
  int type;
  void (*nfree)(void *);
  union {
    struct {
      avp_flags_t type;
      int_str name;
    } isname;
    void *dname;
  } u;
};

struct pv_index_t {
  int type;
  union {
    int ival;
    void *dval;
  } u;
};

struct pv_param_t {
  pv_name_t pvn;
  pv_index_t pvi;
};

struct pv_value_t {
  str rs;
  long ri;
  int flags;
};

// A pseudo-variable as parsed from a script.
struct pv_spec_t {
  int type;
  int (*getf)(sip_msg *, pv_param_t *, pv_value_t *);
  int (*setf)(sip_msg *, pv_param_t *, int, pv_value_t *);
  pv_param_t pvp;
  void *trans;
};

// One piece of a format: text, and behind it a pseudo-variable; spec is null for plain text.
struct pv_elem_t {
  str text;
  pv_spec_t *spec;
  pv_elem_t *next;
};

struct pvname_list_t {
  pv_spec_t sname;
  pvname_list_t *next;
};

// A fixed-up string-or-pseudo-variable parameter. The host's union holds more than the string.
struct fparam_t {
  char *orig;
  int type;
  union {
    str text;
    unsigned char room[32];
  } v;
  void *fixed;
};

// One name=value item of a parameter list; name and body point into the text parsed.
struct param_t {
  int type;
  str name;
  str body;
  int len;
  param_t *next;
};

// The host clears this block in every call and fills it only for classes not used here.
struct param_hooks_t {
  void *hook[9];
};

// The private and the shared allocator; the members not used here keep their places only.
struct sr_pkg_api_t {
  char *mname;
  char *mem_pool;
  void *mem_block;
  void *(*xmalloc)(void *block, size_t size, const char *file, const char *func, unsigned int line,
                   const char *mname);
  void *(*xmallocxz)(void *block, size_t size, const char *file, const char *func,
                     unsigned int line, const char *mname);
  void *(*xrealloc)(void *block, void *p, size_t size, const char *file, const char *func,
                    unsigned int line, const char *mname);
  void *xreallocxf;
  void (*xfree)(void *block, void *p, const char *file, const char *func, unsigned int line,
                const char *mname);
  void *unused[9];
};

struct sr_shm_api_t {
  char *mname;
  void *mem_pool;
  void *mem_block;
  void *(*xmalloc)(void *block, size_t size, const char *file, const char *func, unsigned int line,
                   const char *mname);
  void *(*xmallocxz)(void *block, size_t size, const char *file, const char *func,
                     unsigned int line, const char *mname);
  void *xmalloc_unsafe;
  void *(*xrealloc)(void *block, void *p, size_t size, const char *file, const char *func,
                    unsigned int line, const char *mname);
  void *xreallocxf;
  void *xresize;
  void (*xfree)(void *block, void *p, const char *file, const char *func, unsigned int line,
                const char *mname);
  void *xfree_unsafe;
  void *xstatus;
  void *xstatus_filter;
  void *xinfo;
  void *xreport;
  unsigned long (*xavailable)(void *block);
  void *unused[7];
};

// What the structured log sink is told beside the format.
struct ksr_logdata_t {
  int v_facility;
  int v_level;
  const char *v_lname;
  const char *v_fname;
  int v_fline;
  const char *v_mname;
  const char *v_func;
  const char *v_locinfo;
  int v_pid;
  int v_pidx;
};

struct log_level_info_t {
  const char *name;
  int syslog_level;
};

// The record that the pv module fills. Hosts before the ninth operation fill eight only.
struct pv_api_t {
  void *unused[8];
  int (*explode_params)(str *params, str *xavp_name);
};

// One of the host's counters, as it refers to it.
struct counter_handle_t {
  unsigned short id;
};

// Gives a counter's value when somebody asks for it, in whichever process that is.
using counter_callback = long (*)(counter_handle_t handle, void *param);

inline constexpr unsigned int MODULE_INTERFACE_VERSION = 4;

inline constexpr unsigned int PARAM_STRING = 1U << 0;
inline constexpr unsigned int PARAM_INT = 1U << 1;

// Route types in which a function may stand: every one but ONSEND_ROUTE (16).
inline constexpr unsigned int EVERY_ROUTE_BUT_ONSEND = 0xEF;

inline constexpr unsigned int RPC_RET_ARRAY = 1U << 0;
inline constexpr int FPARAM_STR = 1 << 5;
inline constexpr avp_flags_t AVP_NAME_STR = 1U << 0;
inline constexpr avp_flags_t AVP_VAL_STR = 1U << 1;
inline constexpr int PVT_ANY = 0;
inline constexpr int PVT_AVP = 4;
inline constexpr int PVT_SCRIPTVAR = 15;
inline constexpr int PV_NAME_INTSTR = 0;  // pv_name_t::type of a name that is text or number
inline constexpr int PV_VAL_INT = 8;
inline constexpr int PV_TYPE_INT = 16;
inline constexpr int PARAM_CLASS_ANY = 0;
inline constexpr int CNT_F_NO_RESET = 1;
inline constexpr int COUNTER_NAME_TAKEN = -2;  // from counter_register

inline constexpr int L_CRIT = -3;  // the host's variant with a prefix
inline constexpr int L_ERR = -1;
inline constexpr int L_WARN = 0;
inline constexpr int L_NOTICE = 1;
inline constexpr int L_INFO = 2;
inline constexpr int L_DBG = 3;
inline constexpr int LOG_LEVEL_OFFSET = 5;  // log_level_info starts at ALERT, -5

static_assert(sizeof(str) == 16 && offsetof(str, len) == 8);
static_assert(sizeof(cmd_export_t) == 48 && offsetof(cmd_export_t, function) == 8 &&
              offsetof(cmd_export_t, param_no) == 16 && offsetof(cmd_export_t, fixup) == 24 &&
              offsetof(cmd_export_t, free_fixup) == 32 && offsetof(cmd_export_t, flags) == 40);
static_assert(sizeof(param_export_t) == 24 && offsetof(param_export_t, type) == 8 &&
              offsetof(param_export_t, param_pointer) == 16);
static_assert(sizeof(module_exports_t) == 80 && offsetof(module_exports_t, dlflags) == 8 &&
              offsetof(module_exports_t, cmds) == 16 && offsetof(module_exports_t, params) == 24 &&
              offsetof(module_exports_t, rpc_methods) == 32 &&
              offsetof(module_exports_t, pv_items) == 40 &&
              offsetof(module_exports_t, response_f) == 48 &&
              offsetof(module_exports_t, init_mod_f) == 56 &&
              offsetof(module_exports_t, init_child_f) == 64 &&
              offsetof(module_exports_t, destroy_mod_f) == 72);
static_assert(sizeof(rpc_export_t) == 32 && offsetof(rpc_export_t, function) == 8 &&
              offsetof(rpc_export_t, doc_str) == 16 && offsetof(rpc_export_t, flags) == 24);
static_assert(sizeof(rpc_t) == 96 && offsetof(rpc_t, add) == 16 && offsetof(rpc_t, scan) == 24 &&
              offsetof(rpc_t, rpl_printf) == 32 && offsetof(rpc_t, struct_add) == 40 &&
              offsetof(rpc_t, array_add) == 48 && offsetof(rpc_t, struct_scan) == 56 &&
              offsetof(rpc_t, struct_printf) == 64 && offsetof(rpc_t, capabilities) == 72);
static_assert(sizeof(pv_spec_t) == 88 && offsetof(pv_spec_t, getf) == 8 &&
              offsetof(pv_spec_t, setf) == 16 && offsetof(pv_spec_t, pvp) == 24 &&
              offsetof(pv_spec_t, trans) == 80);
static_assert(sizeof(pv_param_t) == 56 && sizeof(pv_name_t) == 40 && sizeof(pv_index_t) == 16);
static_assert(sizeof(pv_value_t) == 32 && offsetof(pv_value_t, ri) == 16 &&
              offsetof(pv_value_t, flags) == 24);
static_assert(sizeof(pv_elem_t) == 32 && offsetof(pv_elem_t, spec) == 16 &&
              offsetof(pv_elem_t, next) == 24);
static_assert(sizeof(pvname_list_t) == 96 && offsetof(pvname_list_t, next) == 88);
static_assert(sizeof(fparam_t) == 56 && offsetof(fparam_t, type) == 8 &&
              offsetof(fparam_t, v) == 16 && offsetof(fparam_t, fixed) == 48);
static_assert(sizeof(int_str) == 16 && sizeof(avp_flags_t) == 4);
static_assert(sizeof(param_t) == 56 && offsetof(param_t, name) == 8 &&
              offsetof(param_t, body) == 24 && offsetof(param_t, len) == 40 &&
              offsetof(param_t, next) == 48);
static_assert(sizeof(param_hooks_t) == 72);
static_assert(sizeof(sr_pkg_api_t) == 136 && offsetof(sr_pkg_api_t, mem_block) == 16 &&
              offsetof(sr_pkg_api_t, xmalloc) == 24 && offsetof(sr_pkg_api_t, xmallocxz) == 32 &&
              offsetof(sr_pkg_api_t, xrealloc) == 40 && offsetof(sr_pkg_api_t, xfree) == 56);
static_assert(sizeof(sr_shm_api_t) == 184 && offsetof(sr_shm_api_t, mem_block) == 16 &&
              offsetof(sr_shm_api_t, xmalloc) == 24 && offsetof(sr_shm_api_t, xmallocxz) == 32 &&
              offsetof(sr_shm_api_t, xmalloc_unsafe) == 40 &&
              offsetof(sr_shm_api_t, xrealloc) == 48 && offsetof(sr_shm_api_t, xfree) == 72 &&
              offsetof(sr_shm_api_t, xfree_unsafe) == 80 &&
              offsetof(sr_shm_api_t, xavailable) == 120);
static_assert(sizeof(ksr_logdata_t) == 64 && offsetof(ksr_logdata_t, v_level) == 4 &&
              offsetof(ksr_logdata_t, v_lname) == 8 && offsetof(ksr_logdata_t, v_fname) == 16 &&
              offsetof(ksr_logdata_t, v_fline) == 24 && offsetof(ksr_logdata_t, v_mname) == 32 &&
              offsetof(ksr_logdata_t, v_func) == 40 && offsetof(ksr_logdata_t, v_locinfo) == 48 &&
              offsetof(ksr_logdata_t, v_pid) == 56 && offsetof(ksr_logdata_t, v_pidx) == 60);
static_assert(sizeof(log_level_info_t) == 16 && offsetof(log_level_info_t, syslog_level) == 8);
static_assert(sizeof(counter_handle_t) == 2);
static_assert(sizeof(pv_api_t) == 72 && offsetof(pv_api_t, explode_params) == 64);
