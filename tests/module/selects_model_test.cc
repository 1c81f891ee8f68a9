// Random tables and queries: every select beside a straightforward model of what it delivers, in
// which order, and with which result.
#include <algorithm>
#include <cstdlib>
#include <optional>
#include <random>

#include "tests/module/shared_view.h"

namespace module_test {
namespace {

constexpr size_t COLUMNS = 6;
constexpr int MAX_ROWS = 14;
constexpr size_t EXT = 2;
constexpr size_t INT = 3;
const texts NAMES = {"grp", "pfx", "ext", "int", "tag", "id"};

// What a query asks for: a value per column, none for a wildcard, and a limit, 0 for none.
struct wish {
  std::vector<std::optional<std::string>> fields;
  int limit = 0;

  std::string text() const {
    std::string out;
    for (size_t i = 0; i < fields.size(); i++) out += (i > 0 ? "|" : "") + fields[i].value_or("*");
    return out + "," + (limit > 0 ? std::to_string(limit) : "");
  }
  int most() const { return limit > 0 ? limit : MAX_ROWS; }
};

// What a select does: its result and the rows that it delivers, in order.
struct outcome {
  int result;
  row_list delivered;
  bool operator==(const outcome &other) const = default;
};

std::ostream &operator<<(std::ostream &out, const outcome &shown) {
  return out << shown.result << " " << testing::PrintToString(shown.delivered);
}

// The model: rows newest first.
class model_table {
 public:
  void add(const row &fields) { rows_.insert(rows_.begin(), fields); }
  void clear() { rows_.clear(); }
  const row_list &rows() const { return rows_; }

  // Rows that are equal in every given field but the one left out.
  row_list filtered(const wish &wanted, size_t left_out = COLUMNS) const {
    row_list out;
    for (const row &each : rows_) {
      bool equal = true;
      for (size_t i = 0; i < COLUMNS; i++)
        if (i != left_out && wanted.fields[i] && *wanted.fields[i] != each[i]) equal = false;
      if (equal) out.push_back(each);
    }
    return out;
  }

  // Stops after the limit's number of rows delivered.
  outcome plain(const wish &wanted) const { return first(filtered(wanted), wanted.most()); }

  // Stops after the limit's number of rows visited; of these the longest prefixes of the key.
  outcome best(const wish &wanted, size_t column, int flags) const {
    const std::optional<std::string> key = wanted.fields[column];
    if (!key || key->empty()) return {-1, {}};
    row_list visited = first(filtered(wanted, column), wanted.most()).delivered;
    size_t longest = 0;
    for (const row &each : visited)
      if (matches(*key, each[column], flags)) longest = std::max(longest, each[column].size());
    row_list out;
    for (const row &each : visited)
      if (each[column].size() == longest && matches(*key, each[column], flags)) out.push_back(each);
    return result_of(out, 1);
  }

  // Stops after the limit's number of rows held.
  outcome out_of(const wish &wanted, size_t column, int lower, int upper) const {
    row_list outside;
    for (const row &each : filtered(wanted, column)) {
      const int number = atoi(each[column].c_str());
      if (number < lower || number > upper) outside.push_back(each);
    }
    outside = first(outside, wanted.most()).delivered;
    return result_of(outside, static_cast<int>(outside.size()));
  }

  // Stops after the limit's number of rows visited; how many of these lie above the lower limit.
  int above(const wish &wanted, size_t column, int lower) const {
    int count = 0;
    for (const row &each : first(filtered(wanted, column), wanted.most()).delivered)
      count += atoi(each[column].c_str()) > lower ? 1 : 0;
    return count;
  }

  // The wish has the port at the external column; a row shows the port that wasn't compared at the
  // internal one and nothing at the external one.
  outcome pair(wish wanted, bool internal) const {
    if (internal) std::swap(wanted.fields[EXT], wanted.fields[INT]);
    row_list shown = first(filtered(wanted), wanted.most()).delivered;
    for (row &each : shown) {
      if (internal) each[INT] = each[EXT];
      each[EXT] = "";
    }
    return result_of(shown, 1);
  }

 private:
  static bool matches(const std::string &key, const std::string &entry, int flags) {
    if (flags < 0 || static_cast<size_t>(flags) >= entry.size()) return true;
    const std::string compared = entry.substr(0, entry.size() - static_cast<size_t>(flags));
    return key.compare(0, compared.size(), compared) == 0;
  }
  static outcome result_of(const row_list &found, int good) {
    return {found.empty() ? -2 : good, found};
  }
  static outcome first(row_list found, int most) {
    if (found.size() > static_cast<size_t>(most)) found.resize(static_cast<size_t>(most));
    return result_of(found, 1);
  }

  row_list rows_;
};

class SelectModelTest : public SharedViewTest, public testing::WithParamInterface<uint32_t> {
 protected:
  // Tables that differ in which of their columns have an index.
  static const std::vector<std::vector<bool>> &indexes() {
    static const std::vector<std::vector<bool>> all = {
        {false, false, false, false, false, false},
        {true, false, false, false, false, false},
        {false, false, true, true, true, false},
        {true, false, false, true, true, true},
    };
    return all;
  }

  void start_tables() {
    std::vector<table> tables;
    for (size_t t = 0; t < indexes().size(); t++) {
      table each{"t" + std::to_string(t), {}, MAX_ROWS};
      for (size_t i = 0; i < COLUMNS; i++) each.columns.push_back({NAMES[i], 15, indexes()[t][i]});
      tables.push_back(each);
    }
    start(tables);
    standin::set_debug_level(NOTICE_LEVEL);
    for (size_t t = 0; t < tables.size(); t++) prepare_calls(tables[t].name);
  }

  // Fills a table anew and runs every select on it a few times.
  void run_seed(uint32_t seed) {
    random_.seed(seed);
    name_ = "t" + std::to_string(below(static_cast<int>(indexes().size())));
    fill();
    for (int i = 0; i < 6; i++) {
      const wish wanted = some_wish();
      SCOPED_TRACE("seed " + std::to_string(seed) + ", query " + wanted.text() + ", " +
                   testing::PrintToString(model_.rows()));
      compare(wanted);
      if (HasFailure()) return;
    }
  }

 private:
  int below(int limit) { return static_cast<int>(random_() % static_cast<unsigned>(limit)); }
  bool one_in(int n) { return below(n) == 0; }
  std::string one_of(const texts &all) {
    return all[static_cast<size_t>(below(static_cast<int>(all.size())))];
  }

  std::string some_text(size_t column) {
    static const std::vector<texts> alphabet = {
        {"a", "b", ""},     {"", "1", "12", "123", "13", "2", "-5", "7x", "+3"},
        {"500", "501", ""}, {"500", "600", ""},
        {"x", "y"},         {"0"}};
    return one_of(alphabet[column]);
  }

  wish some_wish() {
    wish out;
    for (size_t i = 0; i + 1 < COLUMNS; i++)
      out.fields.push_back(one_in(2) ? std::optional<std::string>() : some_text(i));
    out.fields.push_back(std::nullopt);
    if (one_in(4)) out.fields.back() = std::to_string(below(MAX_ROWS));
    if (one_in(3)) out.fields[1] = one_of({"1234", "12", "9", "77", "1"});
    if (one_in(2)) out.limit = 1 + below(MAX_ROWS + 3);
    return out;
  }

  void fill() {
    model_.clear();
    standin::set_var("q", "*|*|*|*|*|*");
    go("tarn_memdb_delete");
    for (int n = below(MAX_ROWS + 1); n > 0; n--) {
      row fields;
      for (size_t i = 0; i + 1 < COLUMNS; i++) fields.push_back(some_text(i));
      fields.push_back(std::to_string(n - 1));
      standin::set_var("q", joined(fields, "|"));
      ASSERT_EQ(go("tarn_memdb_insert"), 1);
      model_.add(fields);
    }
  }

  void compare(const wish &wanted) {
    standin::set_var("q", wanted.text());
    const size_t column = one_in(2) ? 1 : 4;
    const std::string at = std::to_string(column);
    const int flags = below(6) - 1;
    standin::set_var("flags", flags);
    const int lower = below(16) - 6;
    const int upper = lower + below(8) - 1;
    standin::set_var("lower", lower);
    standin::set_var("upper", upper);

    const outcome plain = model_.plain(wanted);
    for (const char *function : {"tarn_memdb_select", "tarn_memdb_nl_select"})
      EXPECT_EQ(into_avps(function), plain) << function;
    for (const char *function : {"tarn_memdb_xavp_select", "tarn_memdb_nl_xavp_select"})
      EXPECT_EQ(into_xavps(function), plain) << function;

    // An indexed main column is refused.
    const bool main_indexed = indexes()[static_cast<size_t>(name_[1] - '0')][column];
    const auto unless_indexed = [main_indexed](const outcome &good) {
      return main_indexed ? outcome{-1, {}} : good;
    };
    const outcome best = unless_indexed(model_.best(wanted, column, 0));
    for (const char *function : {"tarn_memdb_select_best_match", "tarn_memdb_nl_select_best_match"})
      EXPECT_EQ(into_avps(function + at), best) << function;
    for (const char *function :
         {"tarn_memdb_xavp_select_best_match", "tarn_memdb_nl_xavp_select_best_match"})
      EXPECT_EQ(into_xavps(function + at), best) << function;
    EXPECT_EQ(into_avps("tarn_memdb_nl_select_best_match_prefix" + at),
              unless_indexed(model_.best(wanted, column, flags)))
        << "flags " << flags;

    EXPECT_EQ(into_avps("tarn_memdb_nl_select_field_out_of_range" + at),
              unless_indexed(model_.out_of(wanted, column, lower, upper)))
        << lower << " to " << upper;
    standin::set_var("count", -77);
    EXPECT_EQ(into_avps("tarn_memdb_nl_select_field_within_the_range" + at),
              (outcome{main_indexed ? -1 : -2, {}}));
    EXPECT_EQ(standin::var("count"),
              value(main_indexed ? -77 : model_.above(wanted, column, lower)))
        << lower;
    compare_pairs(wanted);
  }

  // The script's query lacks the internal port's place, which then is a wildcard.
  void compare_pairs(wish wanted) {
    wanted.fields[INT] = std::nullopt;
    for (size_t i = 0; i < COLUMNS; i++)
      standin::set_var("f" + std::to_string(i), wanted.fields[i].value_or("*"));
    standin::set_var("limit", wanted.limit > 0 ? std::to_string(wanted.limit) : "");
    for (const bool internal : {false, true}) {
      standin::set_var("side", internal ? "internal_port" : "external_port");
      const outcome expected = model_.pair(wanted, internal);
      for (const char *function :
           {"tarn_memdb_select_by_port_type", "tarn_memdb_nl_select_by_port_type"})
        EXPECT_EQ(into_avps(function), expected) << function << (internal ? " internal" : "");
    }
  }

  void prepare_calls(const std::string &t) {
    texts avps;
    for (const std::string &name : NAMES) avps.push_back("$avp(" + name + ")");
    const std::string all = joined(avps, "|");
    const std::string query = t + ",$var(q)";
    const auto prepare = [this, &t](const std::string &name, const texts &parameters,
                                    const std::string &tail = "") {
      prepared_[t + name + tail] = fixup(name, parameters);
      ASSERT_TRUE(prepared_[t + name + tail].accepted()) << name;
    };
    prepare("tarn_memdb_insert", {query});
    prepare("tarn_memdb_delete", {query});
    for (const char *name : {"tarn_memdb_select", "tarn_memdb_nl_select"})
      prepare(name, {query, all});
    for (const char *name : {"tarn_memdb_xavp_select", "tarn_memdb_nl_xavp_select"})
      prepare(name, {query, "x"});
    for (const std::string column : {"1", "4"}) {
      for (const char *name : {"tarn_memdb_select_best_match", "tarn_memdb_nl_select_best_match"})
        prepare(name, {query, all, column}, column);
      for (const char *name :
           {"tarn_memdb_xavp_select_best_match", "tarn_memdb_nl_xavp_select_best_match"})
        prepare(name, {query, "x", column}, column);
      prepare("tarn_memdb_nl_select_best_match_prefix", {query, all, column, "$var(flags)"},
              column);
      prepare("tarn_memdb_nl_select_field_out_of_range",
              {query, all, column, "$var(lower)", "$var(upper)"}, column);
      prepare("tarn_memdb_nl_select_field_within_the_range",
              {query, all, column, "$var(lower)", "$var(upper)", "$var(count)"}, column);
    }
    for (const char *name : {"tarn_memdb_select_by_port_type", "tarn_memdb_nl_select_by_port_type"})
      prepare(name, {"$var(side)", t + ",$var(f0)|$var(f1)|$var(f2)|$var(f4)|$var(f5),$var(limit)",
                     "$avp(grp)|$avp(pfx)|$avp(int)|$avp(tag)|$avp(id)"});
  }

  int go(const std::string &key) { return call_often(prepared_.at(name_ + key)); }

  // The rows that a call puts into the AVPs, in the order of their delivery.
  outcome into_avps(const std::string &key) {
    standin::clear_avps();
    outcome out{go(key), {}};
    for (size_t i = 0; i < COLUMNS; i++) {
      const texts values = avp_texts(NAMES[i]);
      out.delivered.resize(std::max(out.delivered.size(), values.size()), row(COLUMNS));
      for (size_t r = 0; r < values.size(); r++)
        out.delivered[values.size() - 1 - r][i] = values[r];
    }
    return out;
  }
  outcome into_xavps(const std::string &key) {
    standin::clear_xavps();
    outcome out{go(key), {}};
    for (const standin::xavp_items &items : standin::xavps("x")) {
      row fields;
      for (size_t i = 0; i < COLUMNS; i++) {
        EXPECT_EQ(items.at(i).first, NAMES[i]);
        fields.push_back(items[i].second);
      }
      out.delivered.insert(out.delivered.begin(), fields);
    }
    return out;
  }

  std::mt19937 random_;
  std::string name_;
  model_table model_;
  std::map<std::string, standin::command> prepared_;
};

constexpr uint32_t SEEDS_PER_TEST = 250;

TEST_P(SelectModelTest, RandomQueriesOfRandomTablesGiveWhatTheModelGives) {
  start_tables();
  for (uint32_t seed = GetParam(); seed < GetParam() + SEEDS_PER_TEST; seed++) {
    run_seed(seed);
    ASSERT_FALSE(HasFailure());
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, SelectModelTest,
                         testing::Range(uint32_t{0}, uint32_t{3000}, SEEDS_PER_TEST));

}  // namespace
}  // namespace module_test
