// A little module for the stand-in's own tests: it binds to the host as a real one does.
#include <cstdio>
#include <cstring>

#include "host/imports.h"

namespace {

int runs;  // static data, fresh with every load
int limit = 7;
char *title;
int ticks_seen;

int fix_format(void **param, int) {
  str text = {static_cast<char *>(*param), static_cast<int>(strlen(static_cast<char *>(*param)))};
  pv_elem_t *format = nullptr;
  if (pv_parse_format(&text, &format) < 0) return -1;
  *param = format;
  return 0;
}

int fix_by_number(void **param, int param_no) {
  static char seen[8];
  if (param == nullptr) return param_no == 0 ? 0 : -1;
  if (strcmp(static_cast<char *>(*param), "refuse") == 0) return -param_no;
  snprintf(seen, sizeof(seen), "%d", param_no);
  return 0;
}

int fix_join(void **param, int param_no) {
  if (strcmp(static_cast<char *>(*param), "refuse") == 0) return -1;
  return param_no == 1 ? fixup_spve_spve(param, param_no) : 0;
}

// The first text's length, and behind it the digit.
int join(sip_msg *msg, char *text, char *digit) {
  str first;
  if (get_str_fparam(&first, msg, reinterpret_cast<fparam_t *>(text)) != 0) return -1;
  return digit != nullptr ? first.len * 10 + digit[0] - '0' : first.len;
}

int print(sip_msg *msg, char *format, char *) {
  char buf[64];
  int len = sizeof(buf);
  if (pv_printf(msg, reinterpret_cast<pv_elem_t *>(format), buf, &len) < 0) return -1;
  int_str name, text;
  char key[] = "printed";
  name.s = {key, static_cast<int>(sizeof(key)) - 1};
  text.s = {buf, len};
  return add_avp(AVP_NAME_STR | AVP_VAL_STR, name, text) == 0 ? len : -1;
}

int count(sip_msg *, char *, char *) { return ++runs; }
int arity1(sip_msg *, char *a, char *) { return a[0] - '0'; }
int arity2(sip_msg *, char *a, char *b) { return (a[0] - '0') * 10 + b[0] - '0'; }

int arity3(sip_msg *msg, char *a, char *b, char *c) { return arity2(msg, a, b) * 10 + c[0] - '0'; }

int arity4(sip_msg *msg, char *a, char *b, char *c, char *d) {
  return arity3(msg, a, b, c) * 10 + d[0] - '0';
}

int arity5(sip_msg *msg, char *a, char *b, char *c, char *d, char *e) {
  return arity4(msg, a, b, c, d) * 10 + e[0] - '0';
}

int arity6(sip_msg *msg, char *a, char *b, char *c, char *d, char *e, char *f) {
  return arity5(msg, a, b, c, d, e) * 10 + f[0] - '0';
}

// Logs the text that is given, in one of the ways in which modules put their lines together.
int say(sip_msg *, char *way, char *text) {
  static constexpr char NAME[] = "the sample's own piece";
  ksr_logdata_t data{};
  data.v_fname = "sample_module.cpp";
  switch (way[0]) {
    case 'v':
      _ksr_slog_func(&data, "a value (%s) in a text of %d, %.*s, %lu and 100 %%\n", text, 3, 2,
                     text, 4UL);
      return 1;
    case 'p':
      _ksr_slog_func(&data, "%d, and %s\n", 1, NAME);
      return 1;
    case 'b':
      _ksr_slog_func(&data, "%s", text);
      return 1;
    default:
      return -1;
  }
}

void rpc_title(rpc_t *rpc, void *ctx) {
  rpc->rpl_printf(ctx, "%s %d", title != nullptr ? title : "none", limit);
}

const char *title_doc[] = {"Tells the title", nullptr};
rpc_export_t commands[] = {{"sample.title", rpc_title, title_doc, 0},
                           {nullptr, nullptr, nullptr, 0}};

void on_timer(unsigned int ticks, void *param) {
  ticks_seen += static_cast<int>(ticks);
  *static_cast<int *>(param) = ticks_seen;
}

int init() {
  if (limit < 0 || rpc_register_array(commands) != 0) return -1;
  // Kept for ever, to be seen as a live block of this file.
  void *room =
      _shm_root.xmalloc(_shm_root.mem_block, 24, "sample_module.cpp", "init", 77, "sample");
  return room != nullptr && register_timer(on_timer, room, 15) >= 0 ? 0 : -1;
}

int child_init(int rank) { return rank == 3 ? -1 : 0; }
void destroy() { _ksr_slog_func = nullptr; }

const cmd_export_t functions[] = {{"sample_print", print, 1, fix_format, nullptr, 239},
                                  {"sample_count", count, 0, fix_by_number, nullptr, 239},
                                  {"sample_say", say, 2, nullptr, nullptr, 239},
                                  {"sample_join", join, 1, fix_join, fixup_free_spve_spve, 239},
                                  {"sample_join", join, 2, fix_join, fixup_free_spve_spve, 239},
                                  {"sample_digits", arity1, 1, nullptr, nullptr, 239},
                                  {"sample_digits", arity2, 2, fix_by_number, nullptr, 239},
                                  {"sample_digits", arity3, 3, fix_by_number, nullptr, 239},
                                  {"sample_digits", arity4, 4, fix_by_number, nullptr, 239},
                                  {"sample_digits", arity5, 5, fix_by_number, nullptr, 239},
                                  {"sample_digits", arity6, 6, fix_by_number, nullptr, 239},
                                  {}};

const param_export_t parameters[] = {
    {"limit", PARAM_INT, &limit}, {"title", PARAM_STRING, &title}, {nullptr, 0, nullptr}};

}  // namespace

extern "C" {
// Writes one line to a file, each step through another operation; 0 if all worked.
int sample_write(const char *path) {
  FILE *out = fopen(path, "w");
  if (out == nullptr) return 1;
  int failed = fprintf(out, "row %d\n", limit) < 0 ? 2 : 0;
  if (failed == 0 && fputs("text\n", out) < 0) failed = 3;
  if (failed == 0 && fwrite("data\n", 1, 5, out) != 5) failed = 4;
  if (failed == 0 && fflush(out) != 0) failed = 5;
  if (fclose(out) != 0 && failed == 0) failed = 6;
  return failed;
}

const char *sample_version = "sample 1";

extern const module_exports_t exports;
const module_exports_t exports = {"sample", 0,       functions, parameters, nullptr,
                                  nullptr,  nullptr, init,      child_init, destroy};
}
