#include "tests/faults/scenarios.h"

#include <map>

#include "tests/standin/kemi.h"

namespace faults {
namespace {

using standin::host_kind;
using texts = std::vector<std::string>;

void nothing(world &) {}

struct function_call {
  std::string function;
  texts parameters;
  // A row or a port may be done while a later one fails.
  bool in_parts = false;
  bool stores = false;
  host_kind host = host_kind::exported_explode;
};

// Every script function, as it succeeds and as it finds nothing, is refused, or has no room.
const std::vector<function_call> &function_calls() {
  static const texts all_remotes = {"remotes,*|*|*|*|*|*|*|*|*|*|*|*|*|*|*|*", "|$avp(b)|$avp(c)"};
  const auto remotes = [](const char *source, const char *from, const char *contact) {
    texts out = all_remotes;
    for (const char *each : {source, from, contact}) out.emplace_back(each);
    return out;
  };
  const auto range = [](const char *name, const char *query, const char *limit) {
    return function_call{name, {query, "||$avp(c)|$avp(d)", "3", limit, "50"}};
  };
  const auto within = [](const char *query, const char *limit, const char *target) {
    return function_call{"tarn_memdb_nl_select_field_within_the_range",
                         {query, "$avp(a)", "3", limit, "0", target}};
  };
  static const std::vector<function_call> all = {
      {"tarn_memdb_insert", {"phones,dave|sip:dave@10.0.0.9|$fU"}},
      {"tarn_memdb_insert", {"phones,user=dave;source=$fU,"}},
      {"tarn_memdb_insert", {"phones,bob|sip:bob@10.0.0.7|10.0.0.7"}},
      {"tarn_memdb_insert", {"media,|call-2|a|$fU|21003|WAN|22003|0|0"}},
      {"tarn_memdb_insert", {"media,|call-1|a|alice|21003|WAN||0|0"}},
      {"tarn_memdb_insert", {"full,three|3"}},
      {"tarn_memdb_delete", {"phones,$rU|*|*"}},
      {"tarn_memdb_delete", {"phones,user=bob,"}},
      {"tarn_memdb_delete", {"phones,nobody|*|*"}},
      {"tarn_memdb_delete", {"gateways,world|*|*|*,2"}, true},
      {"tarn_memdb_delete", {"media,*|call-1|*|*|*|*|*|*|*"}, true},
      {"tarn_memdb_update", {"phones,$rU|*|*", "*|sip:bob@10.0.0.77|10.0.0.77"}},
      {"tarn_memdb_update", {"phones,user=carol,", "contact=sip:carol@$fU"}},
      {"tarn_memdb_update", {"phones,nobody|*|*", "*|x|*"}},
      {"tarn_memdb_update", {"phones,bob|*|*", "||"}},
      {"tarn_memdb_update", {"media,*|call-1|*|*|*|*|*|*|*", "*|*|*|*|21005|*|*|*|*"}, true},
      {"tarn_memdb_clear_tbl", {"phones"}, false, true},
      {"tarn_memdb_clear_tbl", {"$rU"}},
      {"tarn_memdb_row_count", {"gateways", "$avp(rows)"}},
      {"tarn_memdb_row_count", {"$rU", "$avp(rows)"}},
      {"tarn_memdb_select", {"phones,$rU|*|*", "|$avp(b)|$avp(c)"}},
      {"tarn_memdb_select", {"gateways,grp=world,", "|$avp(b)"}},
      {"tarn_memdb_select", {"phones,nobody|*|*", "|$avp(b)"}},
      {"tarn_memdb_nl_select", {"gateways,world|44|*|*,1", "||$avp(c)"}},
      {"tarn_memdb_nl_select", {"gateways,nowhere|*|*|*", "||$avp(c)"}},
      {"tarn_memdb_xavp_select", {"phones,user=$rU,1", "callee"}},
      {"tarn_memdb_xavp_select", {"gateways,world|*|*|*", "gw_$fU"}},
      {"tarn_memdb_xavp_select", {"phones,nobody|*|*", "callee"}},
      {"tarn_memdb_xavp_select", {"phones,$rU|*|*", "c"}, false, false, host_kind::ninth_operation},
      {"tarn_memdb_nl_xavp_select", {"gateways,local|*|*|*", "gw"}},
      {"tarn_memdb_nl_xavp_select", {"gateways,nowhere|*|*|*", "gw"}},
      {"tarn_memdb_select_best_match", {"gateways,world|39061|*|*", "|$avp(b)|$avp(c)", "1"}},
      {"tarn_memdb_select_best_match", {"gateways,local|49|*|*", "|$avp(b)", "1"}},
      {"tarn_memdb_nl_select_best_match", {"gateways,world|4420|*|*", "||$avp(c)", "1"}},
      {"tarn_memdb_nl_select_best_match", {"gateways,local|49|*|*", "||$avp(c)", "1"}},
      {"tarn_memdb_nl_select_best_match_prefix",
       {"gateways,world|3907|*|*", "||$avp(c)", "1", "1"}},
      {"tarn_memdb_nl_select_best_match_prefix",
       {"gateways,world|3907|*|*", "||$avp(c)", "1", "$var(cut)"}},
      {"tarn_memdb_nl_select_best_match_prefix",
       {"gateways,nowhere|3907|*|*", "||$avp(c)", "1", "1"}},
      {"tarn_memdb_xavp_select_best_match", {"gateways,grp=world;prefix=39061,", "gw", "1"}},
      {"tarn_memdb_xavp_select_best_match", {"gateways,local|49|*|*", "gw", "1"}},
      {"tarn_memdb_nl_xavp_select_best_match", {"gateways,world|4420|*|*", "gw_$fU", "1"}},
      {"tarn_memdb_nl_xavp_select_best_match", {"gateways,local|49|*|*", "gw", "1"}},
      range("tarn_memdb_nl_select_field_out_of_range", "gateways,world|*|*|*", "15"),
      range("tarn_memdb_nl_select_field_out_of_range", "gateways,world|*|*|*", "$var(cut)"),
      range("tarn_memdb_nl_select_field_out_of_range", "gateways,local|*|*|*", "1"),
      within("gateways,world|*|*|*", "20", "$var(busy)"),
      within("gateways,world|*|*|*", "$var(cut)", "$avp(busy)"),
      within("gateways,nowhere|*|*|*", "20", "$var(busy)"),
      {"tarn_memdb_nl_select_subnetmask", remotes("10.1.2.3", "mallory", "")},
      {"tarn_memdb_nl_select_subnetmask", remotes("192.0.2.9", "$fU", "")},
      {"tarn_memdb_nl_select_subnetmask", remotes("192.0.2.9", "mallory", "$rU")},
      {"tarn_memdb_select_by_port_type",
       {"external_port", "pairs,*|*|500|*", "$avp(a)|$avp(b)|$avp(c)|$avp(d)"}},
      {"tarn_memdb_select_by_port_type", {"internal_port", "pairs,*|*|777|*", "$avp(a)"}},
      {"tarn_memdb_nl_select_by_port_type",
       {"internal_port", "pairs,*|*|600|PCMA", "||$avp(outer)"}},
      {"tarn_memdb_nl_select_by_port_type", {"external_port", "pairs,*|*|777|*", "$avp(a)"}},
      {"sqll_tarn_memdb_insert", {"INSERT INTO phones user,contact VALUES $fU,sip:dave@10.0.0.9"}},
      {"sqll_tarn_memdb_insert",
       {"INSERT INTO media call,leg,party,inner_port,side VALUES call-9,a,$fU,21003,WAN"}},
      {"sqll_tarn_memdb_insert", {"INSERT INTO full key,value VALUES three,3"}},
      {"sqll_tarn_memdb_delete", {"DELETE FROM gateways WHERE grp=world,prefix=44 MAX=1"}},
      {"sqll_tarn_memdb_delete", {"DELETE FROM media WHERE call=call-1"}, true},
      {"sqll_tarn_memdb_delete", {"DELETE FROM phones WHERE user=nobody"}},
      {"sqll_tarn_memdb_select",
       {"SELECT source,contact FROM phones WHERE user=$rU MAX=1", "$avp(c);$avp(b)"}},
      {"sqll_tarn_memdb_select", {"SELECT source FROM phones WHERE user=nobody", "$avp(c)"}},
      {"sqll_tarn_memdb_update", {"UPDATE gateways SET load=95 WHERE grp=world,prefix=39"}},
      {"sqll_tarn_memdb_update", {"UPDATE media SET inner_port=21005 WHERE call=call-1"}, true},
      {"sqll_tarn_memdb_update", {"UPDATE phones SET contact=x WHERE user=nobody"}},
      {"tarn_memdb_get_port", {"EXT"}},
      {"tarn_memdb_get_port", {"$rU"}},
      // The port is taken before its AVP is written.
      {"tarn_memdb_get_port", {"INT", "$avp(port)"}, true},
      {"tarn_memdb_get_port_from_range", {"INT", "21006"}},
      {"tarn_memdb_get_port_from_range", {"INT", "21001"}},
      {"tarn_memdb_set_port", {"21000", "INT"}},
      {"tarn_memdb_set_port", {"80", "STATIC_INT"}},
      {"tarn_memdb_free_port", {"INT", "21001"}},
      {"tarn_memdb_free_port", {"EXT", "80"}},
      {"tarn_memdb_clear_pmap", {}, false, true},
  };
  return all;
}

// What other script languages call: what is the native functions' own beyond the parameters is
// tried with those.
struct language_call {
  std::string function;
  std::vector<standin::kemi_value> values;
  bool in_parts = false;
  bool stores = false;
  row_count rows = row_count::few;
};

const std::vector<language_call> &language_calls() {
  static const std::string all_remotes = "remotes,*|*|*|*|*|*|*|*|*|*|*|*|*|*|*|*";
  static const std::vector<language_call> all = {
      {"insert", {"phones,dave|sip:dave@10.0.0.9|$fU"}},
      {"insert", {"phones,dave|sip:dave\\|x|"}},
      {"insert", {"media,|call-2|a|alice|21003|WAN|22003|0|0"}},
      {"delete", {"phones,bob|*|*"}},
      {"delete", {"phones"}},
      {"clear_tbl", {"phones"}, false, true},
      {"update", {"phones,bob|*|*", "*|sip:bob@10.0.0.77|10.0.0.77"}},
      {"update", {"phones,bob|*|*", "*|\\*|*"}},
      {"row_count", {"gateways"}},
      {"select", {"phones,bob|*|*", "|$avp(b)|$avp(c)"}},
      {"nl_select", {"gateways,world|44|*|*,1", "||$avp(c)"}},
      {"xavp_select", {"phones,bob|*|*", "callee"}},
      {"nl_xavp_select", {"gateways,local|*|*|*", "gw"}},
      {"select_best_match", {"gateways,world|39061|*|*", "|$avp(b)|$avp(c)", 1}},
      {"select_best_match",
       {"gateways,world|39061|*|*", "|$avp(b)|$avp(c)", 1},
       false,
       false,
       row_count::many},
      {"nl_select_best_match",
       {"gateways,world|4420|*|*", "||$avp(c)", 1},
       false,
       false,
       row_count::many},
      {"nl_select_best_match_prefix", {"gateways,world|3907|*|*", "||$avp(c)", 1, 1}},
      {"xavp_select_best_match", {"gateways,world|39061|*|*", "gw", 1}},
      {"nl_xavp_select_best_match", {"gateways,world|4420|*|*", "gw", 1}},
      {"nl_select_field_out_of_range", {"gateways,world|*|*|*", "||$avp(c)", 3, 15, 50}},
      {"nl_select_field_within_the_range", {"gateways,world|*|*|*", 3, 20}},
      {"nl_select_subnetmask", {all_remotes, "|$avp(b)", "192.0.2.9", "mallory", "bob"}},
      {"get_port", {"EXT"}},
      {"get_port_from_range", {"INT", 21006}},
      {"set_port", {21000, "INT"}},
      {"free_port", {"INT", 21001}},
      {"clear_pmap", {}, false, true},
      {"escape", {"a|b"}},
      {"get", {"phones,bob|*|*", 1}},
      {"get", {"phones,nobody|*|*", 1}},
  };
  return all;
}

std::string words_of(const language_call &call) {
  std::string out = "KSR.tarn_memdb." + call.function + "(";
  for (const standin::kemi_value &each : call.values)
    if (const auto *const text = std::get_if<std::string>(&each)) out += *text + ";";
  return out + ")" + (call.rows == row_count::many ? " on many rows" : "");
}

std::string result_of(world &w, const language_call &call) {
  const standin::kemi_result result =
      standin::kemi_call(*standin::kemi_find(call.function), call.values, &w.msg);
  if (result.kind == SR_KEMIP_INT) return std::to_string(result.number);
  return result.kind == SR_KEMIP_NULL ? "- null" : result.text;
}

std::string words_of(const function_call &call) {
  std::string out = call.function + "(";
  for (size_t i = 0; i < call.parameters.size(); i++)
    out += (i > 0 ? "; " : "") + call.parameters[i];
  return out + ")" + (call.host == host_kind::ninth_operation ? " by the ninth operation" : "");
}

std::string result_of_call(world &w) { return std::to_string(w.call()); }

struct command {
  const char *name;
  std::vector<standin::value> arguments;
  bool in_parts = false;
  bool stores = false;
  // How the files are that the command reads, in the words of spoil.
  const char *files = nullptr;
};

const std::vector<command> COMMANDS = {
    {"insert", {"media,|c9|a|b|21003|WAN||0|0"}},
    {"insert", {"phones,bob|sip:bob@10.0.0.7|10.0.0.7"}},
    {"delete", {"phones,bob|*|*"}, false, true},
    {"delete", {"media,*|call-1|*|*|*|*|*|*|*"}, true, true},
    {"select", {"gateways,world|*|*|*"}},
    {"nl_select", {"gateways,world|*|*|*"}},
    {"show", {"media"}},
    {"show", {"unknown"}},
    {"show_p", {"phones"}},
    {"clear_all", {}, true, true},
    {"clear_tbl", {"media"}, true, true},
    {"update", {"media,*|*|*|*|21001|*|*|*|*", "*|*|*|*|21005|*|*|*|*"}, true},
    {"update", {"phones,nobody|*|*", "*|x|*"}},
    {"show_tbl_info", {"media"}},
    {"show_tbls_lst", {}},
    {"show_cmds", {}},
    {"show_pm_info", {}},
    {"reload_table", {"media"}, true, false, "good"},
    {"reload_table", {"media"}, true, false, "bad main"},
    {"reload_table", {"phones"}, true, false, "good"},
    {"reload_table", {"phones"}, true, false, "bad main"},
    {"reload_table", {"phones"}, true, false, "bad"},
    {"sync", {"phones"}, false, true},
};

std::string reply_of(const command &asked) {
  const standin::rpc_reply reply =
      standin::rpc_call(std::string("tarn_memdb.") + asked.name, asked.arguments);
  return reply.faults.empty() ? "reply" : "fault: " + reply.faults.front().text;
}

// A change of each table, so that a store writes them all.
void change_all(world &w) {
  for (const char *query : {"phones,dave|sip:dave@10.0.0.9|10.0.0.9", "gateways,local|3|sip:x|5",
                            "media,|call-3|a|b|21004|WAN||0|0", "pairs,call-3|a|504|604|OPUS"}) {
    w.fix("tarn_memdb_insert", {query});
    if (w.call() < 0) deviation(std::string("no row for ") + query);
  }
}

void fill_phones(world &w) {
  w.fix("tarn_memdb_insert",
        {"phones,$var(user)|sip:$var(user)@198.51.100.200:5060|198.51.100.200"});
  for (int i = 0; i < 48; i++) {
    standin::set_var("user", "user-with-a-long-name-" + std::to_string(i));
    if (w.call() != 1) deviation("no row for number " + std::to_string(i));
  }
}

// Spoils neither of a table's files ("good"), the main file ("bad main"), or both ("bad").
void spoil(world &w, const std::string &table, const std::string &files) {
  if (files != "good") w.spoil(table, false);
  if (files == "bad") w.spoil(table, true);
}

std::string tick(world &) {
  standin::tick();
  return "a pass of the timer";
}

std::string stop(world &w) {
  w.destroy();
  return "stopped";
}

std::string start(world &w) { return w.start() ? "started" : "-1"; }

}  // namespace

bool is_failure(const std::string &outcome) {
  return outcome.rfind('-', 0) == 0 || outcome.rfind("fault", 0) == 0;
}

std::vector<scenario> all_scenarios() {
  std::vector<scenario> out;
  for (const host_kind host :
       {host_kind::exported_explode, host_kind::ninth_operation, host_kind::without_explode}) {
    out.push_back({"start " + std::to_string(static_cast<int>(host)), phase::start, nothing, start,
                   false, false, true, host});
  }
  for (const char *files : {"bad main", "bad"})
    out.push_back({std::string("start with ") + files + " files", phase::start,
                   [files](world &w) {
                     for (const module_test::table &each : world::tables())
                       spoil(w, each.name, files);
                   },
                   start, false, false, true});
  for (const function_call &each : function_calls()) {
    out.push_back({"fix-ups of " + words_of(each), phase::fixup,
                   [each](world &w) { w.write_call(each.function, each.parameters); },
                   [](world &w) -> std::string { return w.run_fixups() ? "accepted" : "-1"; },
                   false, false, false, each.host});
    out.push_back({words_of(each), phase::run,
                   [each](world &w) {
                     if (!w.fix(each.function, each.parameters)) deviation("fix-up refused");
                   },
                   result_of_call, each.in_parts, each.stores, false, each.host});
  }
  for (const language_call &each : language_calls())
    out.push_back({words_of(each), phase::run, nothing,
                   [each](world &w) { return result_of(w, each); }, each.in_parts, each.stores,
                   false, host_kind::exported_explode, each.rows});
  for (const command &each : COMMANDS) {
    const std::string first = each.arguments.empty() ? "" : " " + each.arguments[0].text;
    const bool loads = each.files != nullptr;
    const std::string files = loads ? std::string(" of ") + each.files + " files" : "";
    std::function<void(world &)> prepare = nothing;
    if (loads) prepare = [each](world &w) { spoil(w, each.arguments[0].text, each.files); };
    if (std::string(each.name) == "sync") prepare = change_all;
    out.push_back({std::string("tarn_memdb.") + each.name + first + files, phase::run, prepare,
                   [each](world &) { return reply_of(each); }, each.in_parts, each.stores, loads});
  }
  out.push_back({"timer with nothing changed", phase::run, nothing, tick});
  out.push_back({"timer", phase::run, change_all, tick, false, true});
  out.push_back({"timer with a long table", phase::run, fill_phones, tick, false, true});
  out.push_back({"stop with nothing changed", phase::shutdown, nothing, stop});
  out.push_back({"stop", phase::shutdown, change_all, stop, false, true});
  out.push_back({"stop with a long table", phase::shutdown, fill_phones, stop, false, true});
  for (scenario &each : large_table_scenarios()) out.push_back(std::move(each));
  return out;
}

}  // namespace faults
