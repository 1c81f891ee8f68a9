// Long random runs of the functions beside a plain model of a table.
#include <algorithm>
#include <optional>
#include <random>

#include "tests/module/fixture.h"

namespace module_test {
namespace {

// A pattern of a query: a null matches every text.
using pattern = std::vector<std::optional<std::string>>;

// A table as a list, newest row first.
struct model {
  size_t max_rows;
  bool check_duplicates;
  row_list rows;

  static bool matches(const pattern &wanted, const row &one) {
    for (size_t i = 0; i < one.size(); i++)
      if (wanted[i] && *wanted[i] != one[i]) return false;
    return true;
  }

  static bool is_empty(const row &one) {
    return std::all_of(one.begin(), one.end(), [](const std::string &t) { return t.empty(); });
  }

  int insert(const row &one) {
    if (rows.size() == max_rows || is_empty(one)) return -1;
    if (check_duplicates && std::find(rows.begin(), rows.end(), one) != rows.end()) return -1;
    rows.insert(rows.begin(), one);
    return 1;
  }

  int remove(const pattern &wanted, size_t limit) {
    size_t done = 0;
    for (auto at = rows.begin(); at != rows.end() && done < limit;) {
      if (!matches(wanted, *at)) {
        ++at;
        continue;
      }
      at = rows.erase(at);
      done++;
    }
    return done > 0 ? 1 : -2;
  }

  int update(const pattern &wanted, const pattern &values, size_t limit) {
    size_t done = 0;
    for (auto at = rows.begin(); at != rows.end() && done < limit;) {
      if (!matches(wanted, *at)) {
        ++at;
        continue;
      }
      done++;
      for (size_t i = 0; i < values.size(); i++)
        if (values[i]) (*at)[i] = *values[i];
      if (is_empty(*at))
        at = rows.erase(at);
      else
        ++at;
    }
    return done > 0 ? 1 : -2;
  }

  // What a select delivers, as a script reads it.
  row_list select(const pattern &wanted, size_t limit) const {
    row_list out;
    for (const row &one : rows)
      if (out.size() < limit && matches(wanted, one)) out.insert(out.begin(), one);
    return out;
  }

  row_list oldest_first() const { return {rows.rbegin(), rows.rend()}; }
};

class ModelTest : public ModuleTest, public testing::WithParamInterface<unsigned> {
 protected:
  // Texts of few values, so that keys meet; one of them holds what the language gives a meaning.
  std::string text() {
    static const std::vector<std::string> texts = {"", "a", "b", "key", "k,|\\*", "*", "zzz"};
    return texts[random_() % texts.size()];
  }

  static std::string escaped(const std::string &plain) {
    std::string out;
    for (const char c : plain) {
      if (std::string(",|\\*").find(c) != std::string::npos) out += '\\';
      out += c;
    }
    return out;
  }

  pattern random_pattern(size_t columns, unsigned wildcards_in_ten) {
    pattern out(columns);
    for (auto &place : out)
      if (random_() % 10 >= wildcards_in_ten) place = text();
    return out;
  }

  static std::string list(const pattern &p) {
    std::string out;
    for (size_t i = 0; i < p.size(); i++) {
      if (i > 0) out += '|';
      out += p[i] ? escaped(*p[i]) : "*";
    }
    return out;
  }

  std::pair<std::string, size_t> limit(size_t table_limit) {
    const size_t number = random_() % 4;
    if (number == 0) return {",", table_limit};
    return {"," + std::to_string(number), number};
  }

  // Runs a function whose parameters are set anew for each call, as in a script.
  int run_with(const std::string &query, const standin::command &prepared,
               const std::string &values = "") {
    standin::set_var("query", query);
    standin::set_var("values", values);
    return call(prepared);
  }

  std::mt19937 random_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Seeds, ModelTest, testing::Range(1U, 9U));

TEST_P(ModelTest, ThousandsOfCallsLeaveTheTableAsTheModelSays) {
  standin::set_debug_level(ALERT_LEVEL);
  model expected{40, GetParam() % 2 == 0, {}};
  start({{"t",
          {{"a", 31, true}, {"b", 31, (GetParam() & 4) != 0}, {"c"}},
          static_cast<int>(expected.max_rows),
          GetParam() % 3 == 0 ? "TAG" : "",
          false,
          expected.check_duplicates}});
  const standin::command insert = fixup("tarn_memdb_insert", {"t,$var(query)"});
  const standin::command remove = fixup("tarn_memdb_delete", {"t,$var(query)"});
  const standin::command update = fixup("tarn_memdb_update", {"t,$var(query)", "$var(values)"});
  const standin::command select =
      fixup("tarn_memdb_select", {"t,$var(query)", "$avp(a)|$avp(b)|$avp(c)"});

  for (int i = 0; i < 3000; i++) {
    const auto [tail, count] = limit(expected.max_rows);
    switch (random_() % 8) {
      case 0:
      case 1:
      case 2:
      case 3: {
        const row one = {text(), text(), text()};
        EXPECT_EQ(run_with(list({one[0], one[1], one[2]}), insert), expected.insert(one));
        break;
      }
      case 4: {
        const pattern wanted = random_pattern(3, 4);
        EXPECT_EQ(run_with(list(wanted) + tail, remove), expected.remove(wanted, count));
        break;
      }
      case 5: {
        const pattern wanted = random_pattern(3, 5);
        // Columns with an index keep their values: an overwritten one isn't found any longer.
        const pattern values = {std::nullopt, std::nullopt, text()};
        EXPECT_EQ(run_with(list(wanted) + tail, update, list(values)),
                  expected.update(wanted, values, count));
        break;
      }
      default: {
        const pattern wanted = random_pattern(3, 6);
        const row_list found = expected.select(wanted, count);
        standin::clear_avps();
        EXPECT_EQ(run_with(list(wanted) + tail, select), found.empty() ? -2 : 1);
        const std::vector<value> a = standin::avp("a"), b = standin::avp("b"),
                                 c = standin::avp("c");
        ASSERT_EQ(a.size(), found.size());
        for (size_t r = 0; r < found.size(); r++)
          EXPECT_EQ((row{a[r].text, b[r].text, c[r].text}), found[r]);
        break;
      }
    }
    ASSERT_FALSE(HasFailure()) << "in call " << i;
    if (i % 100 == 0) {
      ASSERT_EQ(rows("t"), expected.oldest_first());
      ASSERT_EQ(row_count("t"), static_cast<int>(expected.rows.size()));
    }
  }
  expect_rows("t", expected.oldest_first());
}

TEST_P(ModelTest, RowsSurviveStoresAndRestarts) {
  standin::set_debug_level(ALERT_LEVEL);
  model expected{1000, false, {}};
  start({{"t", {{"a", 31, true}, {"b", 31, true}, {"c"}}, 1000}});
  static const std::vector<std::string> plain = {"", "a", "b", "key", "a b", "zzz"};
  for (int round = 0; round < 4; round++) {
    const standin::command insert = fixup("tarn_memdb_insert", {"t,$var(query)"});
    const standin::command remove = fixup("tarn_memdb_delete", {"t,$var(query)"});
    for (int i = 0; i < 100; i++) {
      const row one = {plain[random_() % plain.size()], "n" + std::to_string(random_() % 50),
                       plain[random_() % plain.size()]};
      EXPECT_EQ(run_with(one[0] + "|" + one[1] + "|" + one[2], insert), expected.insert(one));
      const std::string gone = "n" + std::to_string(random_() % 50);
      EXPECT_EQ(run_with("*|" + gone + "|*,1", remove),
                expected.remove({std::nullopt, gone, std::nullopt}, 1));
      if (random_() % 10 == 0) standin::tick();
    }
    restart();
    standin::set_debug_level(ALERT_LEVEL);
    expect_rows("t", expected.oldest_first());
  }
}

}  // namespace
}  // namespace module_test
