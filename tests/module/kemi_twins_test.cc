// Each function for other script languages beside the native script's: on equal tables they give,
// deliver, say and leave the same.
#include "tests/module/kemi_fixture.h"

namespace module_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct twin {
  const char *name;  // without tarn_memdb_
  texts parameters;
  values given;
};

std::ostream &operator<<(std::ostream &out, const twin &shown) {
  return out << shown.name << " " << joined(shown.parameters, " ");
}

// Parameters that are the same on both sides.
twin same(const char *name, const texts &parameters) {
  return {name, parameters, values(parameters.begin(), parameters.end())};
}

// The column, and the numbers behind it, are numbers on one side and texts on the other.
twin numbered(const char *name, const texts &parameters, const std::vector<int> &numbers) {
  twin out = same(name, parameters);
  for (const int number : numbers) {
    out.parameters.push_back(std::to_string(number));
    out.given.emplace_back(number);
  }
  return out;
}

const std::string AVPS = "$avp(a)|$avp(b)||$avp(d)||$avp(id)";

std::vector<twin> twins() {
  const texts all_ids = {query("*"), AVPS};
  std::vector<twin> out = {
      same("insert", {"users,dave|40|bern"}),
      same("insert", {"users,a\\,b|40|be rn"}),
      same("insert", {"users,alice|30|rome"}),
      same("insert", {"users,||"}),
      same("insert", {"users,x|y"}),
      same("insert", {"users,x|*|y"}),
      same("insert", {"numbered,|x"}),
      same("insert", {"numbered,a|b|c"}),
      same("insert", {"media,1|c1|a|b|x|WAN|x|0|0|10002|0"}),
      same("insert", {"users,$fU|$avp(a)|$$"}),
      same("delete", {"users,alice|*|*"}),
      same("delete", {"users,*|30|*,1"}),
      same("delete", {"users,nobody|*|*"}),
      same("delete", {"users,alice|*"}),
      same("delete", {"users,alice|*|*,0"}),
      same("delete", {"media,*|c9|*|*|*|*|*|*|*|*|*"}),
      same("clear_tbl", {"users"}),
      same("clear_tbl", {"nowhere"}),
      same("update", {"users,alice|*|*", "*|31|*"}),
      same("update", {"users,*|30|*", "*|31|oslo"}),
      same("update", {"users,*|*|*", "||"}),
      same("update", {"users,nobody|*|*", "*|31|*"}),
      same("update", {"users,alice|*|*", "31"}),
      same("update", {"users,alice", "*|31|*"}),
      same("update", {"users,alice|*|*", "*|a\\,b|c,d"}),
      same("nl_select_subnetmask", {query("*"), AVPS, "10.0.0.1", "x", "x"}),
      same("nl_select_subnetmask", {query("*"), AVPS, "192.0.2.1", "x", "x"}),
      same("nl_select_subnetmask", {"users,*|*|*", AVPS, "10.0.0.1", "x", "x"}),
      same("nl_select_subnetmask", {query("dn"), AVPS, "192.0.2.1", "alice", "bob"}),
      same("nl_select_subnetmask", {query("dn"), AVPS, "192.0.2.1", "bob", "alice"}),
      numbered("nl_select_best_match_prefix", {query("57"), AVPS}, {1, 0}),
      numbered("nl_select_best_match_prefix", {query("57"), AVPS}, {1, 1}),
      numbered("nl_select_field_out_of_range", all_ids, {1, 0, 4}),
      numbered("nl_select_field_out_of_range", all_ids, {1, 0, 99}),
      numbered("nl_select_field_out_of_range", all_ids, {0, 0, 4}),
      numbered("nl_select_field_out_of_range", all_ids, {16, 0, 4}),
      same("get_port", {"INT"}),
      same("get_port", {"STATIC_EXT"}),
      numbered("get_port_from_range", {"EXT"}, {200}),
      numbered("get_port_from_range", {"EXT"}, {201}),
      numbered("get_port_from_range", {"INT"}, {100}),
      {"set_port", {"101", "INT"}, {101, "INT"}},
      {"set_port", {"99", "INT"}, {99, "INT"}},
      numbered("free_port", {"INT"}, {99}),
      same("clear_pmap", {}),
  };
  for (const char *name : {"select", "nl_select"})
    for (const char *asked : {"users,alice|*|*", "users,*|30|*,2", "users,nobody|*|*",
                              "users,alice|*", "users,$fU|*|*", "users,*|*|*,-1"})
      out.push_back(same(name, {asked, "$avp(a)||$avp(c)|$avp(d)"}));
  for (const char *name : {"xavp_select", "nl_xavp_select"})
    for (const char *asked : {"users,alice|*|*", "users,*|30|*", "users,nobody|*|*"})
      out.push_back(same(name, {asked, "x"}));
  const std::pair<const char *, int> keys[] = {{"57", 1}, {"5", 1},  {"9", 1},
                                               {"", 1},   {"57", 0}, {"57", 16}};
  for (const auto &[key, column] : keys) {
    for (const char *name : {"select_best_match", "nl_select_best_match"})
      out.push_back(numbered(name, {query(key), AVPS}, {column}));
    for (const char *name : {"xavp_select_best_match", "nl_xavp_select_best_match"})
      out.push_back(numbered(name, {query(key), "x"}, {column}));
  }
  return out;
}

class KemiTwinsTest : public KemiTest, public testing::WithParamInterface<twin> {
 protected:
  // All that can be told of a call from outside.
  struct outcome {
    int result;
    std::vector<message> said;
    std::map<std::string, texts> avps;
    std::vector<standin::xavp_items> xavps;
    std::map<std::string, row_list> rows;
    std::map<std::string, std::vector<int>> maps;

    bool operator==(const outcome &) const = default;
  };

  void open() {
    write_file(ranges_file(), "EXT 200 202\n");
    for (const auto &[name, lines] :
         contents{{"users", {"alice|30|rome", "bob|30|oslo", "carol|31|rome"}},
                  {"t",
                   {line("5", "500", "10.0.0.1", "a"), line("57", "1", "9.9.9.9", "b"),
                    line("", "500", "9.9.9.9", "c"), line("5", "1", "9.9.9.9", "d"),
                    "g|dn|home|||e|||||||1|0|1|0"}},
                  {"remote_sub_dn_list", {"alice|home"}},
                  {"numbered", {}},
                  {"media", {"1|c9|a|b|x|WAN|x|0|0|105|0"}}})
      write_file(main_file(name), table_text(lines));
    start_with_small_maps(
        {with({"users", {{"name", 31, true}, {"age"}, {"city"}}}, 100, "", false, true),
         {"numbered", {{"id"}, {"a"}}, 100, "", true},
         all_in_one(),
         {"remote_sub_dn_list", {{"dn"}, {"domain"}}},
         port_table("media", "dynamic")});
    standin::set_value(msg, "$fU", "evaluated");
    clear();
  }

  outcome after(int result) {
    outcome out{result, messages(INFO_LEVEL), {}, standin::xavps("x"), {}, {}};
    for (const std::string &name : standin::avp_names()) out.avps[name] = avp_texts(name);
    for (const char *name : {"users", "numbered", "t", "media"}) out.rows[name] = rows(name);
    for (const char *word : MAP_WORDS) out.maps[word] = view().bytes(word);
    EXPECT_THAT(view().held_locks(), IsEmpty());
    return out;
  }

  // What the native script evaluates in a list comes by a variable there.
  int native() {
    texts parameters = GetParam().parameters;
    for (std::string &text : parameters) {
      const size_t list = text.find(",$fU") + 1;
      if (list == 0) continue;
      standin::set_var("literal", text.substr(list));
      text.replace(list, std::string::npos, "$var(literal)");
    }
    const standin::command prepared =
        fixup(std::string("tarn_memdb_") + GetParam().name, parameters);
    clear();
    return call(prepared);
  }
};

TEST_P(KemiTwinsTest, GivesDeliversSaysAndLeavesTheSame) {
  open();
  const outcome expected = after(native());
  forget_view();
  unload();
  standin::forget_kemi();
  load();
  open();
  const outcome found = after(kemi(GetParam().name, GetParam().given));
  EXPECT_EQ(found.result, expected.result);
  EXPECT_EQ(found.said, expected.said);
  EXPECT_EQ(found.avps, expected.avps);
  EXPECT_EQ(found.xavps, expected.xavps);
  EXPECT_EQ(found.rows, expected.rows);
  EXPECT_EQ(found.maps, expected.maps);
}

INSTANTIATE_TEST_SUITE_P(All, KemiTwinsTest, testing::ValuesIn(twins()));

}  // namespace
}  // namespace module_test
