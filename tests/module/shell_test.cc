// The module's public face: exported tables, parameters, symbols, and what the file needs.
#include <dlfcn.h>

#include <algorithm>
#include <map>
#include <set>

#include "tests/module/elf_file.h"
#include "tests/module/fixture.h"
#include "tests/module/rpc_command_rows.h"

namespace module_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

struct command_row {
  const char *name;
  int parameters;
  const char *fixup;  // a name for it; null for none
  bool frees;         // has the host's release of string parameters
};

const command_row COMMANDS[] = {
    {"tarn_memdb_clear_pmap", 0, nullptr, false},
    {"tarn_memdb_clear_tbl", 1, "query", false},
    {"tarn_memdb_insert", 1, "mode2", false},
    {"tarn_memdb_delete", 1, "mode2", false},
    {"tarn_memdb_select", 2, "mode", false},
    {"tarn_memdb_select_best_match", 3, "query3", false},
    {"tarn_memdb_select_by_port_type", 3, "port", false},
    {"tarn_memdb_nl_select", 2, "mode", false},
    {"tarn_memdb_nl_select_best_match", 3, "query3", false},
    {"tarn_memdb_nl_select_by_port_type", 3, "port", false},
    {"tarn_memdb_update", 2, "mode2", false},
    {"tarn_memdb_row_count", 2, "query2", false},
    {"sqll_tarn_memdb_select", 2, "new", false},
    {"sqll_tarn_memdb_delete", 1, "new", false},
    {"sqll_tarn_memdb_insert", 1, "new", false},
    {"sqll_tarn_memdb_update", 1, "new", false},
    {"tarn_memdb_get_port", 2, "query2", false},
    {"tarn_memdb_get_port", 1, "new", false},
    {"tarn_memdb_get_port_from_range", 2, "query2", false},
    {"tarn_memdb_set_port", 2, "query2", false},
    {"tarn_memdb_free_port", 2, "query2", false},
    {"tarn_memdb_nl_select_best_match_prefix", 4, "query3", false},
    {"tarn_memdb_nl_select_field_out_of_range", 5, "query3", false},
    {"tarn_memdb_nl_select_field_within_the_range", 6, "query3", false},
    {"tarn_memdb_nl_select_subnetmask", 5, "query4", false},
    {"tarn_memdb_xavp_select", 2, "xavp", true},
    {"tarn_memdb_nl_xavp_select", 2, "xavp", true},
    {"tarn_memdb_xavp_select_best_match", 3, "xavp", true},
    {"tarn_memdb_nl_xavp_select_best_match", 3, "xavp", true},
};

const std::set<std::string> HOST_SYMBOLS = {
    "_km_log_func",    "_ksr_slog_func",       "_pkg_root",          "_shm_root",
    "add_avp",         "dprint_color",         "dprint_color_reset", "dprint_crit",
    "find_export",     "fixup_free_spve_spve", "fixup_pvar_null",    "fixup_spve_spve",
    "free_params",     "get_debug_facility",   "get_debug_level",    "get_str_fparam",
    "log_color",       "log_level_info",       "log_prefix_val",     "log_stderr",
    "my_pid",          "parse_params",         "parse_pvname_list",  "process_no",
    "pv_get_avp_name", "pv_get_spec_value",    "pv_parse_format",    "pv_parse_spec2",
    "pv_printf",       "pv_set_spec_value",    "register_timer",     "rpc_register_array"};

// What not every host offers, and what the compiler's own start-up code asks for.
const std::set<std::string> WEAK_HOST_SYMBOLS = {"counter_register", "fixup_complete",
                                                 "sr_kemi_modules_add"};
const std::set<std::string> WEAK_START_UP_SYMBOLS = {
    "_ITM_deregisterTMCloneTable", "_ITM_registerTMCloneTable", "__cxa_finalize", "__gmon_start__"};

#ifndef EXPECTED_FLAGS
#define EXPECTED_FLAGS                                                                   \
  "USE_TCP, USE_TLS, USE_SCTP, TLS_HOOKS, USE_RAW_SOCKS, DISABLE_NAGLE, USE_MCAST, "     \
  "DNS_IP_HACK, SHM_MMAP, PKG_MALLOC, MEM_JOIN_FREE, Q_MALLOC, F_MALLOC, TLSF_MALLOC, "  \
  "DBG_SR_MEMORY, USE_FUTEX, FAST_LOCK-ADAPTIVE_WAIT, USE_DNS_CACHE, USE_DNS_FAILOVER, " \
  "USE_NAPTR, USE_DST_BLOCKLIST, HAVE_RESOLV_RES, TLS_PTHREAD_MUTEX_SHARED"
#endif

class ShellTest : public ModuleTest {
 protected:
  std::vector<const cmd_export_t *> command_rows() {
    std::vector<const cmd_export_t *> out;
    for (const cmd_export_t *at = module().exports().cmds; at->name != nullptr; at++)
      out.push_back(at);
    return out;
  }

  // The place of a parameter's value.
  void *parameter(const std::string &name, unsigned int type) {
    for (const param_export_t *at = module().exports().params; at->name != nullptr; at++)
      if (name == at->name && at->type == type) return at->param_pointer;
    return nullptr;
  }
};

TEST_F(ShellTest, TheModuleRecordNamesTablesAndLifeCycleFunctionsOnly) {
  const module_exports_t &exports = module().exports();
  EXPECT_STREQ(exports.name, "tarn_memdb");
  EXPECT_EQ(exports.dlflags, 0u);
  EXPECT_NE(exports.cmds, nullptr);
  EXPECT_NE(exports.params, nullptr);
  EXPECT_EQ(exports.rpc_methods, nullptr);
  EXPECT_EQ(exports.pv_items, nullptr);
  EXPECT_EQ(exports.response_f, nullptr);
  EXPECT_NE(exports.init_mod_f, nullptr);
  EXPECT_NE(exports.init_child_f, nullptr);
  EXPECT_NE(exports.destroy_mod_f, nullptr);
}

TEST_F(ShellTest, TwentyNineScriptFunctionsStandInTheirOrder) {
  std::vector<std::string> expected, found;
  for (const command_row &row : COMMANDS)
    expected.push_back(std::string(row.name) + "/" + std::to_string(row.parameters));
  for (const cmd_export_t *row : command_rows())
    found.push_back(std::string(row->name) + "/" + std::to_string(row->param_no));
  EXPECT_EQ(expected.size(), 29u);
  EXPECT_EQ(found, expected);
}

TEST_F(ShellTest, EveryScriptFunctionMayStandInEveryRouteButOnsend) {
  for (const cmd_export_t *row : command_rows()) EXPECT_EQ(row->flags, 0xEFu) << row->name;
}

TEST_F(ShellTest, EveryRowHasAFunctionOfItsOwn) {
  std::set<const void *> functions;
  for (const cmd_export_t *row : command_rows()) {
    EXPECT_NE(row->function.two, nullptr) << row->name;
    EXPECT_TRUE(functions.insert(reinterpret_cast<const void *>(row->function.two)).second)
        << row->name;
  }
}

TEST_F(ShellTest, RowsShareTheirFixupsAsToldAndFixupsOfDifferentKindsDiffer) {
  std::map<std::string, fixup_function> fixups;
  for (const command_row &expected : COMMANDS) {
    const cmd_export_t *const row = module().find(expected.name, expected.parameters);
    ASSERT_NE(row, nullptr) << expected.name;
    if (expected.fixup == nullptr) {
      EXPECT_EQ(row->fixup, nullptr) << expected.name;
      continue;
    }
    ASSERT_NE(row->fixup, nullptr) << expected.name;
    EXPECT_EQ(fixups.emplace(expected.fixup, row->fixup).first->second, row->fixup)
        << expected.name;
  }
  std::set<const void *> distinct;
  for (const auto &[name, fixup] : fixups) distinct.insert(reinterpret_cast<const void *>(fixup));
  EXPECT_EQ(distinct.size(), 9u);
}

TEST_F(ShellTest, OnlyTheXavpFunctionsHaveTheHostsRelease) {
  for (const command_row &expected : COMMANDS) {
    const cmd_export_t *const row = module().find(expected.name, expected.parameters);
    ASSERT_NE(row, nullptr) << expected.name;
    EXPECT_EQ(row->free_fixup, expected.frees ? &fixup_free_spve_spve : nullptr) << expected.name;
  }
}

TEST_F(ShellTest, TheTablesEndInAnEmptyRow) {
  const cmd_export_t *command = module().exports().cmds;
  while (command->name != nullptr) command++;
  EXPECT_EQ(command->function.two, nullptr);
  EXPECT_EQ(command->param_no, 0);
  EXPECT_EQ(command->fixup, nullptr);
  EXPECT_EQ(command->free_fixup, nullptr);
  EXPECT_EQ(command->flags, 0u);
  const param_export_t *param = module().exports().params;
  while (param->name != nullptr) param++;
  EXPECT_EQ(param->type, 0u);
  EXPECT_EQ(param->param_pointer, nullptr);
}

TEST_F(ShellTest, TwelveParametersStandInTheirOrderWithTheirTypes) {
  constexpr unsigned int STRING = 1, INT = 2;
  const std::vector<std::pair<std::string, unsigned int>> expected = {
      {"cfg_file_path", STRING},    {"private_ranges_file_path", STRING},
      {"store_tbl_auto", INT},      {"store_tbl_interval", INT},
      {"min_ext_port", INT},        {"max_ext_port", INT},
      {"min_int_port", INT},        {"max_int_port", INT},
      {"min_static_ext_port", INT}, {"max_static_ext_port", INT},
      {"min_static_int_port", INT}, {"max_static_int_port", INT}};
  std::vector<std::pair<std::string, unsigned int>> found;
  for (const param_export_t *at = module().exports().params; at->name != nullptr; at++)
    found.emplace_back(at->name, at->type);
  EXPECT_EQ(found, expected);
}

TEST_F(ShellTest, ParametersHaveTheirDefaults) {
  EXPECT_STREQ(*static_cast<char **>(parameter("cfg_file_path", 1)), "");
  EXPECT_STREQ(*static_cast<char **>(parameter("private_ranges_file_path", 1)),
               "/var/lib/sipserver/gw_private_range.txt");
  const std::map<std::string, int> numbers = {
      {"store_tbl_auto", 1},         {"store_tbl_interval", 15},    {"min_ext_port", 10000},
      {"max_ext_port", 15000},       {"min_int_port", 21000},       {"max_int_port", 21255},
      {"min_static_ext_port", 9000}, {"max_static_ext_port", 9255}, {"min_static_int_port", 21000},
      {"max_static_int_port", 21255}};
  for (const auto &[name, number] : numbers)
    EXPECT_EQ(*static_cast<int *>(parameter(name, 2)), number) << name;
}

TEST_F(ShellTest, EachParameterHasAPlaceOfItsOwn) {
  std::set<const void *> places;
  for (const param_export_t *at = module().exports().params; at->name != nullptr; at++)
    EXPECT_TRUE(places.insert(at->param_pointer).second) << at->name;
}

TEST_F(ShellTest, VersionFlagsAndInterfaceAreThoseThatTheLoaderCompares) {
  ASSERT_NE(module().symbol<const char *>("module_version"), nullptr);
  ASSERT_NE(module().symbol<const char *>("module_flags"), nullptr);
  ASSERT_NE(module().symbol<unsigned int>("module_interface_ver"), nullptr);
  EXPECT_STREQ(*module().symbol<const char *>("module_version"), EXPECTED_VERSION);
  EXPECT_STREQ(*module().symbol<const char *>("module_flags"), EXPECTED_FLAGS);
  EXPECT_EQ(*module().symbol<unsigned int>("module_interface_ver"), 4u);
}

TEST_F(ShellTest, FifteenRpcCommandsAreRegisteredInTheirOrder) {
  start({});
  std::vector<std::string> expected;
  for (const rpc_command_row &row : RPC_COMMANDS) expected.push_back(row.name);
  ASSERT_EQ(standin::rpc_tables().size(), 1u);
  EXPECT_EQ(standin::rpc_names(), expected);
  std::set<const void *> handlers;
  for (const rpc_command_row &row : RPC_COMMANDS) {
    const rpc_export_t *const found = standin::rpc_find(row.name);
    ASSERT_NE(found, nullptr) << row.name;
    EXPECT_NE(found->function, nullptr) << row.name;
    EXPECT_TRUE(handlers.insert(reinterpret_cast<const void *>(found->function)).second)
        << row.name;
    ASSERT_NE(found->doc_str, nullptr) << row.name;
    EXPECT_STREQ(found->doc_str[0], row.documentation);
    EXPECT_EQ(found->doc_str[1], nullptr) << row.name;
    EXPECT_EQ(found->flags, 0u) << row.name;
  }
}

TEST_F(ShellTest, TheFileDefinesSevenSymbolsForOthers) {
  std::vector<std::string> defined;
  for (const elf_symbol &symbol : elf_file(TARN_MODULE_FILE).dynamic_symbols()) {
#ifdef TARN_INSTRUMENTED
    if (symbol.name.rfind("__odr_asan", 0) == 0) continue;
#endif
    if (symbol.defined) defined.push_back(symbol.name);
  }
  EXPECT_THAT(defined, UnorderedElementsAre("exports", "module_version", "module_flags",
                                            "module_interface_ver", "tarn_memdb_escape",
                                            "tarn_memdb_escaped_len", "tarn_memdb_unescaped_len"));
}

TEST_F(ShellTest, TheFileAsksForNothingBeyondTheHostAndTheCLibrary) {
  void *const libc = dlopen("libc.so.6", RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(libc, nullptr);
  for (const elf_symbol &symbol : elf_file(TARN_MODULE_FILE).dynamic_symbols()) {
    if (symbol.defined || symbol.weak || HOST_SYMBOLS.count(symbol.name) != 0) continue;
#ifdef TARN_INSTRUMENTED
    if (symbol.name.rfind("__asan_", 0) == 0 || symbol.name.rfind("__ubsan_", 0) == 0) continue;
#endif
    EXPECT_NE(dlsym(libc, symbol.name.c_str()), nullptr) << symbol.name;
  }
  dlclose(libc);
}

TEST_F(ShellTest, SymbolsThatNotEveryHostHasAreDoneWithoutWhereThereAreNone) {
  std::set<std::string> weak;
  for (const elf_symbol &symbol : elf_file(TARN_MODULE_FILE).dynamic_symbols()) {
    if (symbol.defined || !symbol.weak || WEAK_START_UP_SYMBOLS.count(symbol.name) != 0) continue;
#ifdef TARN_INSTRUMENTED
    if (symbol.name.rfind("__", 0) == 0) continue;
#endif
    weak.insert(symbol.name);
  }
  EXPECT_EQ(weak, WEAK_HOST_SYMBOLS);
  // This program is such a host.
  for (const std::string &name : WEAK_HOST_SYMBOLS)
    EXPECT_EQ(dlsym(RTLD_DEFAULT, name.c_str()), nullptr) << name;
  start({});
  EXPECT_EQ(run("tarn_memdb_clear_pmap", {}), 1);
}

#ifndef TARN_INSTRUMENTED
TEST_F(ShellTest, TheCLibraryIsTheOnlyLibraryNeeded) {
  EXPECT_THAT(elf_file(TARN_MODULE_FILE).needed(), ElementsAre("libc.so.6"));
}

// A module that is built on a new system runs on older ones, as does its host.
TEST_F(ShellTest, ACLibraryOf2011WillDo) {
  const std::vector<std::string> versions = elf_file(TARN_MODULE_FILE).needed_versions();
  EXPECT_THAT(versions, Not(IsEmpty()));
  for (const std::string &version : versions) {
    int minor = 0;
    EXPECT_EQ(sscanf(version.c_str(), "GLIBC_2.%d", &minor), 1) << version;
    EXPECT_LE(minor, 14) << version;
  }
}

// One entry is the compiler's own, in every shared object.
TEST_F(ShellTest, NoGlobalObjectIsConstructedWhenTheFileIsOpened) {
  const elf_file file(TARN_MODULE_FILE);
  EXPECT_LE(file.constructors(), 1u);
  std::vector<std::string> initialisers;
  for (const elf_symbol &symbol : file.all_symbols())
    if (symbol.name.find("_GLOBAL__sub_I") != std::string::npos ||
        symbol.name.find("__static_initialization") != std::string::npos)
      initialisers.push_back(symbol.name);
  EXPECT_THAT(initialisers, IsEmpty());
}
#endif

class EscapeSymbolsTest : public ModuleTest {
 protected:
  using escape_function = void(const str *, str *);
  using length_function = uint32_t(const str *);

  static str text_of(std::string *text) { return {text->data(), static_cast<int>(text->size())}; }

  std::string escaped(std::string text) {
    const str in = text_of(&text);
    std::string room(2 * text.size() + 1, '#');
    str out{room.data(), -1};
    function<escape_function>("tarn_memdb_escape")(&in, &out);
    EXPECT_GE(out.len, 0);
    EXPECT_EQ(room[static_cast<size_t>(out.len)], '#') << "written behind the text";
    EXPECT_EQ(static_cast<uint32_t>(out.len),
              function<length_function>("tarn_memdb_escaped_len")(&in));
    return room.substr(0, static_cast<size_t>(out.len));
  }

  uint32_t unescaped_len(std::string text) {
    const str in = text_of(&text);
    return function<length_function>("tarn_memdb_unescaped_len")(&in);
  }

 private:
  template <typename F>
  F *function(const char *name) {
    return reinterpret_cast<F *>(reinterpret_cast<void (*)()>(module().symbol<void>(name)));
  }
};

TEST_F(EscapeSymbolsTest, EscapePutsABackslashAheadOfEachSpecialCharacter) {
  EXPECT_EQ(escaped("plain"), "plain");
  EXPECT_EQ(escaped(""), "");
  EXPECT_EQ(escaped("a,b|c\\d*e"), "a\\,b\\|c\\\\d\\*e");
  EXPECT_EQ(escaped(std::string("a\0b", 3)), std::string("a\\\0b", 4));
}

TEST_F(EscapeSymbolsTest, UnescapedLengthCountsWhatAnEscapeStandsFor) {
  EXPECT_EQ(unescaped_len("plain"), 5u);
  EXPECT_EQ(unescaped_len("a\\,b\\\\"), 4u);
  EXPECT_EQ(unescaped_len(""), 0u);
  EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(EscapeSymbolsTest, ALoneBackslashAtTheEndIsWarnedOfAndNotCounted) {
  EXPECT_EQ(unescaped_len("ab\\"), 2u);
  EXPECT_THAT(messages(), ElementsAre(warn("Bad escape detected\n")));
}

}  // namespace
}  // namespace module_test
