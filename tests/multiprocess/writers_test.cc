// Inserts, deletes, updates and stores by several processes at once: what stands at the end is what
// was done.
#include "tests/multiprocess/fixture.h"

namespace tables_test {
namespace {

class WritersTest : public MultiprocessTest {
 protected:
  // id is generated; name is a worker's own key; several workers share each group.
  static table_spec people() {
    table_spec spec;
    spec.use_index = true;
    spec.max_rows = 100000;
    spec.columns = {{"id", 10, 1}, {"name", 20, 1}, {"city", 30, 0}, {"team", 5, 1}};
    return spec;
  }

  static std::string field(const memdb_row *row, uint32_t col) {
    return memdb_get_field(table()->tbl, row, col);
  }
};

TEST_F(WritersTest, EveryIndexNumberIsGivenOnceAndEveryRowIsThere) {
  constexpr int ROWS = 8000;
  start_module({people()});
  const function insert = prepare("tarn_memdb_insert", {"t,$var(q)"});
  EXPECT_TRUE(run_processes(WORKERS, [&](int worker) {
    std::ofstream notes(notes_of(worker));
    for (int i = 0; i < ROWS; i++) {
      const std::string name = "w" + std::to_string(worker) + "_" + std::to_string(i);
      const int index = insert("|" + name + "|city|g" + std::to_string(i % 3));
      if (index <= 0) return 1;
      notes << index << '|' << name << "|city|g" << i % 3 << '\n';
    }
    return 0;
  }));
  expect_sound(table());
  EXPECT_EQ(table()->row_count, WORKERS * ROWS);
  EXPECT_EQ(table()->next_index, static_cast<uint32_t>(WORKERS * ROWS + 1));
  EXPECT_EQ(table()->state, TBL_CHANGED);

  texts expected;
  for (int worker = 0; worker < WORKERS; worker++)
    for (const std::string &line : lines_of(notes_of(worker))) expected.push_back(line);
  texts got = rows(table());
  // Numbers were drawn under the lock that the rows were added under, so both have one order.
  for (size_t i = 0; i < got.size(); i++)
    ASSERT_EQ(got[i].substr(0, got[i].find('|')), std::to_string(got.size() - i));
  std::sort(expected.begin(), expected.end());
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, expected);
  expect_same_after_reload(table());
}

TEST_F(WritersTest, MixedWritesAndStoresLeaveExactlyWhatWasDone) {
  constexpr int STEPS = 15000;
  start_module({people()});
  const function insert = prepare("tarn_memdb_insert", {"t,$var(q)"});
  const function remove = prepare("tarn_memdb_delete", {"t,$var(q)"});
  const function update = prepare("tarn_memdb_update", {"t,$var(q)", "$var(v)"});
  EXPECT_TRUE(run_processes(WORKERS, [&](int worker) {
    std::mt19937 random(static_cast<uint32_t>(worker) + 1);
    std::map<std::string, std::string> own;  // name to "id|name|city|team"
    std::vector<int> drawn;
    int serial = 0;
    for (int step = 0; step < STEPS; step++) {
      const auto choice = random() % 100;
      auto target = own.begin();
      if (!own.empty()) std::advance(target, random() % own.size());
      if (choice < 45 || own.empty()) {
        const std::string name = "w" + std::to_string(worker) + "_" + std::to_string(serial++);
        const std::string team = "g" + std::to_string(random() % 3);
        const int index = insert("x|" + name + "|rome|" + team);
        if (index <= 0) return 1;
        drawn.push_back(index);
        own[name] = std::to_string(index) + "|" + name + "|rome|" + team;
      } else if (choice < 70) {
        if (remove("*|" + target->first + "|*|*") != 1) return 2;
        own.erase(target);
      } else if (choice < 97) {
        const std::string city = "c" + std::to_string(step);
        if (update("*|" + target->first + "|*|*", "*|*|" + city + "|*") != 1) return 3;
        std::string &row = target->second;
        const size_t start = row.find('|', row.find('|') + 1) + 1;
        row.replace(start, row.find('|', start) - start, city);
      } else if (choice < 99) {
        if (remove("*|nobody|*|*") != -2) return 4;
      } else if (random() % 10 == 0) {
        store_table_mngt(0, nullptr);
      }
    }
    std::ofstream notes(notes_of(worker));
    for (const auto &[name, row] : own) notes << row << '\n';
    std::ofstream numbers(notes_of(worker) + "_drawn");
    for (const int index : drawn) numbers << index << '\n';
    return 0;
  }));
  expect_sound(table());

  texts expected;
  std::set<std::string> numbers;
  size_t drawn = 0;
  for (int worker = 0; worker < WORKERS; worker++) {
    for (const std::string &line : lines_of(notes_of(worker))) expected.push_back(line);
    for (const std::string &line : lines_of(notes_of(worker) + "_drawn")) {
      numbers.insert(line);
      drawn++;
    }
  }
  EXPECT_EQ(numbers.size(), drawn);
  EXPECT_EQ(table()->next_index, drawn + 1);
  texts got = rows(table());
  EXPECT_EQ(table()->row_count, static_cast<int32_t>(expected.size()));
  std::sort(expected.begin(), expected.end());
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, expected);
  expect_same_after_reload(table());
}

TEST_F(WritersTest, AfterTheLastStoreTheFileHoldsTheTableAndTheBackupAWholeGeneration) {
  start_module({people()});
  const function insert = prepare("tarn_memdb_insert", {"t,$var(q)"});
  const function remove = prepare("tarn_memdb_delete", {"t,$var(q)"});
  EXPECT_TRUE(run_processes(WORKERS, [&](int worker) {
    for (int i = 0; i < 150; i++) {
      const std::string name = "w" + std::to_string(worker) + "_" + std::to_string(i);
      if (insert("x|" + name + "|a city of some length|g") <= 0) return 1;
      if (i % 3 == 0 && remove("*|" + name + "|*|*") != 1) return 2;
      if (!store_table(table())) return 3;
    }
    return 0;
  }));
  EXPECT_EQ(table()->state, TBL_UNCHANGED);
  EXPECT_EQ(table()->row_count, WORKERS * 100);
  expect_sound(table());
  std::string whole = "Version 1\n";
  for (const std::string &row : [] {
         texts oldest_first = rows(table());
         std::reverse(oldest_first.begin(), oldest_first.end());
         return oldest_first;
       }())
    whole += row + '\n';
  EXPECT_EQ(read(main_file()), whole);
  // Each process closes its file after it let go of the lock; by now all of them are closed.
  const std::string backup = read(backup_file());
  EXPECT_EQ(backup.substr(0, 10), "Version 1\n");
  EXPECT_EQ(backup.back(), '\n');
  std::filesystem::remove(main_file());
  load_table(table());
  EXPECT_GE(table()->row_count, WORKERS * 100 - WORKERS);
  EXPECT_TRUE(exists(backup_file()));
}

TEST_F(WritersTest, TheRowLimitIsReachedAndNeverPassed) {
  constexpr int LIMIT = 5000;
  table_spec spec = people();
  spec.max_rows = LIMIT;
  start_module({spec});
  const function insert = prepare("tarn_memdb_insert", {"t,$var(q)"});
  EXPECT_TRUE(run_processes(WORKERS, [&](int worker) {
    std::ofstream notes(notes_of(worker));
    for (int i = 0; i < LIMIT; i++)
      if (insert("x|w" + std::to_string(worker) + "_" + std::to_string(i) + "|a|b") > 0)
        notes << i << '\n';
    return 0;
  }));
  size_t taken = 0;
  for (int worker = 0; worker < WORKERS; worker++) taken += lines_of(notes_of(worker)).size();
  EXPECT_EQ(taken, static_cast<size_t>(LIMIT));
  EXPECT_EQ(table()->row_count, LIMIT);
  // Refused rows drew no number.
  EXPECT_EQ(table()->next_index, static_cast<uint32_t>(LIMIT + 1));
  expect_sound(table());
}

TEST_F(WritersTest, OfEqualRowsOneIsTakenAtATime) {
  constexpr int KEYS = 7;
  constexpr int STEPS = 30000;
  table_spec spec;
  spec.check_duplicates = true;
  spec.columns = {{"a", 10, 1}, {"b", 10, 0}};
  start_module({spec});
  const function insert = prepare("tarn_memdb_insert", {"t,$var(q)"});
  const function remove = prepare("tarn_memdb_delete", {"t,$var(q)"});
  EXPECT_TRUE(run_processes(WORKERS, [&](int worker) {
    std::mt19937 random(static_cast<uint32_t>(worker) + 77);
    int balance[KEYS] = {};
    for (int step = 0; step < STEPS; step++) {
      const size_t key = random() % KEYS;
      const std::string row = "k" + std::to_string(key) + "|x";
      if (random() % 2 == 0)
        balance[key] += insert(row) == 1 ? 1 : 0;
      else
        balance[key] -= remove(row) == 1 ? 1 : 0;
    }
    std::ofstream notes(notes_of(worker));
    for (const int each : balance) notes << each << '\n';
    return 0;
  }));
  texts expected;
  for (size_t key = 0; key < KEYS; key++) {
    int balance = 0;
    for (int worker = 0; worker < WORKERS; worker++)
      balance += std::stoi(lines_of(notes_of(worker))[key]);
    EXPECT_THAT(balance, testing::AnyOf(0, 1));
    if (balance == 1) expected.push_back("k" + std::to_string(key) + "|x");
  }
  texts got = rows(table());
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, expected);
  expect_sound(table());
}

TEST_F(WritersTest, ClearsAmongInsertsLeaveASoundTable) {
  start_module({people()});
  const function insert = prepare("tarn_memdb_insert", {"t,$var(q)"});
  const function clear = prepare("tarn_memdb_clear_tbl", {"$var(q)"});
  constexpr int ROWS = 5000;
  EXPECT_TRUE(run_processes(WORKERS, [&](int worker) {
    for (int i = 0; i < ROWS; i++) {
      if (insert("x|w" + std::to_string(worker) + "|a|g" + std::to_string(i % 3)) <= 0) return 1;
      if (i % 500 == 499 && clear("t") != 1) return 2;
    }
    return 0;
  }));
  // A clear takes rows and not the numbers' counter.
  EXPECT_EQ(table()->next_index, static_cast<uint32_t>(WORKERS * ROWS + 1));
  EXPECT_LT(table()->row_count, WORKERS * ROWS);
  expect_sound(table());
  expect_same_after_reload(table());
}

TEST_F(WritersTest, ReadersUnderTheLockSeeWholeRows) {
  start_module({people()});
  const function insert = prepare("tarn_memdb_insert", {"t,$var(q)"});
  const function remove = prepare("tarn_memdb_delete", {"t,$var(q)"});
  const function update = prepare("tarn_memdb_update", {"t,$var(q)", "$var(v)"});
  const function select =
      prepare("tarn_memdb_select", {"t,$var(q)", "$avp(id);$avp(name);$avp(city);$avp(team)"});
  auto *const done = new (tarn_shm_calloc(1, sizeof(std::atomic<int>))) std::atomic<int>;
  EXPECT_TRUE(run_processes(WORKERS, [&](int worker) {
    if (worker == 0) {
      // Name and city of a row always carry the same number.
      int seen = 0;
      while (*done < WORKERS - 1 || seen == 0) {
        standin::clear_avps();
        const int result = select("*|*|*|g,1");
        if (result == -2) continue;
        if (result != 1) return 1;
        seen++;
        const std::string name = standin::avp("name").at(0).text;
        const std::string city = standin::avp("city").at(0).text;
        if (city.substr(1) != name.substr(name.find('_'))) return 2;
      }
      return 0;
    }
    for (int i = 0; i < 8000; i++) {
      const std::string number = std::to_string(i);
      const std::string name = "w" + std::to_string(worker) + "_" + number;
      if (insert("x|" + name + "|A_" + number + "|g") <= 0) return 3;
      if (update("*|" + name + "|*|*", "*|*|B_" + number + "|*") != 1) return 4;
      if (remove("*|" + name + "|*|*") != 1) return 5;
    }
    ++*done;
    return 0;
  }));
  tarn_shm_free(done);
  EXPECT_EQ(table()->row_count, 0);
  expect_sound(table());
}

TEST_F(WritersTest, TablesDoNotDisturbEachOther) {
  std::vector<table_spec> specs;
  for (int i = 0; i < WORKERS; i++) {
    table_spec spec = people();
    spec.name = "t" + std::to_string(i);
    specs.push_back(spec);
  }
  start_module(specs);
  std::vector<function> insert;
  for (const table_spec &spec : specs)
    insert.push_back(prepare("tarn_memdb_insert", {spec.name + ",$var(q)"}));
  EXPECT_TRUE(run_processes(WORKERS, [&](int worker) {
    for (int i = 0; i < 5000; i++) {
      // Most rows go to the worker's own table, some to its neighbour's.
      const int target = i % 10 == 0 ? (worker + 1) % WORKERS : worker;
      if (insert[static_cast<size_t>(target)]("x|w" + std::to_string(worker) + "|a|b") <= 0)
        return 1;
      if (i % 1000 == 0) store_table_mngt(0, nullptr);
    }
    return 0;
  }));
  for (size_t i = 0; i < WORKERS; i++) {
    EXPECT_EQ(table(i)->row_count, 5000);
    expect_sound(table(i));
    expect_same_after_reload(table(i));
  }
}

TEST_F(WritersTest, PortsFollowTheRowsOfATable) {
  table_spec spec;
  spec.ports = {{"dynamic", 6, 7}};
  spec.max_rows = 100000;
  spec.columns.clear();
  for (int i = 0; i < 9; i++) spec.columns.push_back({"c" + std::to_string(i), 20, i == 1});
  start_module({spec});
  const function insert = prepare("tarn_memdb_insert", {"t,$var(q)"});
  const function remove = prepare("tarn_memdb_delete", {"t,$var(q)"});
  const int first = port_settings.internal.min;
  EXPECT_TRUE(run_processes(WORKERS, [&](int worker) {
    std::mt19937 random(static_cast<uint32_t>(worker) + 5);
    std::map<std::string, int> own;
    for (int i = 0; i < 8000; i++) {
      if (own.size() < 5 || (own.size() < 20 && random() % 2 == 0)) {
        const std::string name = "w" + std::to_string(worker) + "_" + std::to_string(i);
        const int port = first + static_cast<int>(random() % 10);
        if (insert("n|" + name + "|||x|WAN|" + std::to_string(port) + "||3") != 1) return 1;
        own[name] = port;
      } else {
        auto target = own.begin();
        std::advance(target, random() % own.size());
        if (remove("*|" + target->first + "|*|*|*|*|*|*|*") != 1) return 2;
        own.erase(target);
      }
    }
    std::ofstream notes(notes_of(worker));
    for (const auto &[name, port] : own) notes << port << '\n';
    return 0;
  }));
  std::map<int, int> holders;
  for (int worker = 0; worker < WORKERS; worker++)
    for (const std::string &port : lines_of(notes_of(worker))) holders[std::stoi(port)]++;
  int rows_expected = 0;
  for (int port = first; port <= port_settings.internal.max; port++) {
    const int expected = holders.count(port) != 0 ? holders[port] : 0;
    ASSERT_LT(expected, 32);
    rows_expected += expected;
    EXPECT_EQ(*port_entry(port_m_int, port), expected == 0 ? 0 : 0x80 | expected) << port;
  }
  EXPECT_EQ(table()->row_count, rows_expected);
  expect_sound(table());
}

}  // namespace
}  // namespace tables_test
