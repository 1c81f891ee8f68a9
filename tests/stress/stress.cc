// Eight processes run every script function that takes locks on shared tables and port maps. Each
// knows what its own rows and ports have to be like, holds every result against that, and keeps
// totals; at the end totals, rows, chains and maps are held against each other.
//
// Usage: stress OPERATIONS
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "host/loader_symbols.h"
#include "tables/files/table_files.h"
#include "tests/standin/standin.h"
#include "tests/stress/final_walk.h"
#include "tests/stress/ledger.h"
#include "tests/support/schema_text.h"

namespace stress {
namespace {

using std::to_string;

// The tables by what is special about them; the first MODELLED ones have the same columns.
const char *const MODELLED_NAMES[MODELLED] = {"scanned", "keyed", "numbered"};
constexpr int NUMBERED = 2;
constexpr size_t TAKEN = 16;  // ports that a process may hold without a row

enum map_number { INT, EXT, STATIC_INT, STATIC_EXT };

std::vector<schema_text::table> tables() {
  const auto modelled = [](const std::string &name, bool indexed, bool use_index,
                           const std::string &tag) {
    return schema_text::table{name,
                              {{"id", 10, indexed},
                               {"name", 20, indexed},
                               {"ext", 10},
                               {"int", 10},
                               {"pfx", 20},
                               {"city", 30}},
                              5000,
                              tag,
                              use_index};
  };
  return {modelled("scanned", false, false, ""),
          modelled("keyed", true, false, "K"),
          modelled("numbered", true, true, ""),
          {"unique", {{"a", 10, true}, {"b", 10}}, 1000, "", false, true},
          {"cleared", {{"id", 10, true}, {"name", 20, true}, {"city", 30}}, 100000, "", true},
          {"media",
           {{"id", 10},
            {"k1", 20, true},
            {"k2", 10},
            {"k3", 10},
            {"c4", 10},
            {"location", 10},
            {"c6", 10},
            {"s_type", 10},
            {"d_type", 10},
            {"int_port", 10},
            {"ext_port", 10}},
           5000,
           "",
           false,
           true,
           {{"dynamic", 9, 10}}}};
}

// Wide enough for no map to run out: giving back a port in an exhausted map is not done under the
// lock, and with it the promise that no port is given twice is gone.
constexpr char RANGES[] =
    "STATIC_EXT 9200 9201 9202 9203 9204 9205 9206 9207 9208 9209\n"
    "STATIC_EXT 9210 9211 9212\n";
constexpr int OWN_PORTS = 16;
constexpr int FIRST_OWN_PORT = 9010;
constexpr int ROW_PORTS = 256;
constexpr int FIRST_ROW_PORT = 21000;

class work_directory {
 public:
  work_directory() {
    path_ = (std::filesystem::temp_directory_path() / "tarn_stress_XXXXXX").string();
    if (mkdtemp(path_.data()) == nullptr) {
      perror("stress: no temporary directory");
      exit(2);
    }
    std::filesystem::create_directory(path_ + "/main");
    std::filesystem::create_directory(path_ + "/backup");
  }
  ~work_directory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  work_directory(const work_directory &) = delete;
  work_directory &operator=(const work_directory &) = delete;
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

// All calls, prepared before the fork as the host does it, with the script variables q and v as
// what they are called with.
struct calls {
  struct of_table {
    standin::command insert, remove, select, update, best, port_type, xavp, xavp_best, count;
  };

  explicit calls(const standin::loaded_module &m) : module(m) {
    const std::string list = "$avp(id);$avp(name);$avp(ext);$avp(int);$avp(pfx);$avp(city)";
    for (const char *name : MODELLED_NAMES) {
      const std::string t = name;
      const std::string q = t + ",$var(q)";
      modelled.push_back({fix("tarn_memdb_insert", {q}), fix("tarn_memdb_delete", {q}),
                          fix("tarn_memdb_select", {q, list}),
                          fix("tarn_memdb_update", {q, "$var(v)"}),
                          fix("tarn_memdb_select_best_match", {q, list, "4"}),
                          fix("tarn_memdb_select_by_port_type",
                              {"external_port", t + ",*|$var(q)|$var(v)|*|*", list}),
                          fix("tarn_memdb_xavp_select", {q, "x"}),
                          fix("tarn_memdb_xavp_select_best_match", {q, "x", "4"}),
                          fix("tarn_memdb_row_count", {t, "$avp(n)"})});
    }
    st_insert = fix("sqll_tarn_memdb_insert", {"$var(q)"});
    st_delete = fix("sqll_tarn_memdb_delete", {"$var(q)"});
    st_update = fix("sqll_tarn_memdb_update", {"$var(q)"});
    st_select = fix("sqll_tarn_memdb_select", {"$var(q)", "$avp(ext);$avp(city)"});
    unique_insert = fix("tarn_memdb_insert", {"unique,$var(q)"});
    unique_delete = fix("tarn_memdb_delete", {"unique,$var(q)"});
    cleared_insert = fix("tarn_memdb_insert", {"cleared,$var(q)"});
    cleared_delete = fix("tarn_memdb_delete", {"cleared,$var(q)"});
    clear = fix("tarn_memdb_clear_tbl", {"cleared"});
    media_insert = fix("tarn_memdb_insert", {"media,$var(q)"});
    media_delete = fix("tarn_memdb_delete", {"media,$var(q)"});
    media_update = fix("tarn_memdb_update", {"media,$var(q)", "$var(v)"});
    get_ext = fix("tarn_memdb_get_port", {"EXT"});
    get_ext_avp = fix("tarn_memdb_get_port", {"EXT", "$avp(port)"});
    get_static = fix("tarn_memdb_get_port", {"STATIC_INT"});
    from_range = fix("tarn_memdb_get_port_from_range", {"STATIC_EXT", "$var(q)"});
    set_own = fix("tarn_memdb_set_port", {"$var(q)", "STATIC_EXT"});
    free_static = fix("tarn_memdb_free_port", {"STATIC_INT", "$var(q)"});
    free_own = fix("tarn_memdb_free_port", {"STATIC_EXT", "$var(q)"});
    free_ext = fix("tarn_memdb_free_port", {"EXT", "$var(q)"});
  }

  standin::command fix(const std::string &name, const std::vector<std::string> &parameters) const {
    standin::command out = module.fixup(name, parameters);
    if (!out.accepted()) {
      fprintf(stderr, "stress: the module refuses a call of %s\n%s", name.c_str(),
              standin::log_dump().c_str());
      exit(2);
    }
    return out;
  }

  const standin::loaded_module &module;
  std::vector<of_table> modelled;
  standin::command st_insert, st_delete, st_update, st_select, unique_insert, unique_delete,
      cleared_insert, cleared_delete, clear, media_insert, media_delete, media_update, get_ext,
      get_ext_avp, get_static, from_range, set_own, free_static, free_own, free_ext;
};

// One of the eight.
class worker {
 public:
  worker(const calls &c, int number)
      : calls_(c),
        number_(number),
        account_(book->accounts[number]),
        random_(static_cast<uint32_t>(number) * 7919 + 17),
        own_(OWN_PORTS, false) {}

  void run(int64_t operations) {
    while (account_.operations < operations) {
      const uint32_t choice = draw(1000);
      if (choice < 700)
        modelled_row();
      else if (choice < 790)
        contested_key();
      else if (choice < 830)
        cleared_table();
      else if (choice < 910)
        port_row();
      else
        script_port();
    }
  }

 private:
  // A port that the process got and the rows that hold it; internal ports belong to rows alone.
  struct clip {
    int port;
    bool internal;
    std::vector<std::string> rows;
  };

  uint32_t draw(uint32_t below) { return static_cast<uint32_t>(random_() % below); }

  int call(const standin::command &what, const std::string &q, const std::string &v = {}) {
    account_.operations++;
    standin::set_var("q", q);
    if (!v.empty()) standin::set_var("v", v);
    return calls_.module.run(what, message_);
  }

  void expect(int got, int wanted, const char *what, const std::string &about) {
    if (got != wanted) deviation("%s of %s gave %d, not %d", what, about.c_str(), got, wanted);
  }

  static std::string avp_text(const char *name) {
    const std::vector<standin::value> all = standin::avp(name);
    return all.size() == 1 ? all[0].text : "(" + to_string(all.size()) + " values)";
  }

  void expect_avps(const slot &row, const std::string &name) {
    const std::string number = to_string(row.number);
    if (avp_text("ext") != number || avp_text("city") != "c" + number)
      deviation("%s is delivered as %s and %s, not with %s", name.c_str(), avp_text("ext").c_str(),
                avp_text("city").c_str(), number.c_str());
  }

  void note_number(int table, int32_t index) {
    if (index <= 0 || static_cast<uint32_t>(index) >= NUMBERS) {
      deviation("an insert gave the index %d", index);
      return;
    }
    account_.drawn[table]++;
    if (book->number_given[table][index].exchange(1) != 0)
      deviation("the index %d was given twice", index);
  }

  // A row of this process's own in one of the modelled tables: it is there or not, and nobody else
  // changes it.
  void modelled_row() {
    const size_t t = draw(MODELLED);
    const uint32_t s = draw(SLOTS);
    slot &row = account_.rows[t][s];
    const calls::of_table &on = calls_.modelled[t];
    const std::string table = MODELLED_NAMES[t];
    const std::string name = "w" + to_string(number_) + "_" + to_string(s);
    const std::string prefix = to_string(number_ + 1) + to_string(100 + s);
    const std::string where = "*|" + name + "|*|*|*|*";
    const int found = row.present ? 1 : -2;
    const uint32_t choice = draw(100);
    if (choice < 35) {
      const bool by_statement = draw(4) == 0;
      if (row.present) {
        const int result =
            by_statement ? call(calls_.st_delete, "DELETE FROM " + table + " WHERE name=" + name)
                         : call(on.remove, where);
        expect(result, 1, "delete", name);
        row.present = false;
        return;
      }
      row.number = draw(1000000);
      const std::string number = to_string(row.number);
      const int result =
          by_statement ? call(calls_.st_insert,
                              "INSERT INTO " + table + " name,ext,int,pfx,city VALUES " + name +
                                  "," + number + "," + number + "," + prefix + ",c" + number)
                       : call(on.insert, "|" + name + "|" + number + "|" + number + "|" + prefix +
                                             "|c" + number);
      if (t == NUMBERED)
        note_number(0, result);
      else
        expect(result, 1, "insert", name);
      row.index = t == NUMBERED ? result : 0;
      row.present = true;
    } else if (choice < 60) {
      standin::clear_avps();
      const int result =
          draw(4) == 0
              ? call(calls_.st_select, "SELECT ext,city FROM " + table + " WHERE name=" + name)
              : call(on.select, where);
      expect(result, found, "select", name);
      if (row.present) expect_avps(row, name);
    } else if (choice < 80) {
      const uint32_t number = draw(1000000);
      const std::string text = to_string(number);
      const int result =
          draw(4) == 0
              ? call(calls_.st_update, "UPDATE " + table + " SET ext=" + text + ",int=" + text +
                                           ",city=c" + text + " WHERE name=" + name)
          : draw(2) == 0
              ? call(on.update, where, "*|*|" + text + "|" + text + "|*|c" + text)
              : call(on.update, where, "ext=" + text + ";int=" + text + ";city=c" + text);
      expect(result, found, "update", name);
      row.number = number;
    } else if (choice < 88) {
      standin::clear_avps();
      expect(call(on.best, "*|*|*|*|" + prefix + "55|*"), found, "best match", name);
      if (row.present) expect_avps(row, name);
    } else if (choice < 93) {
      standin::clear_avps();
      expect(call(on.port_type, name, to_string(row.number)), found, "port type select", name);
    } else if (choice < 97) {
      standin::clear_xavps();
      expect(call(on.xavp, where), found, "xavp select", name);
      if (row.present && standin::xavp_item("x", 0, "city").text != "c" + to_string(row.number))
        deviation("%s is delivered as another row", name.c_str());
    } else if (choice < 99) {
      standin::clear_xavps();
      expect(call(on.xavp_best, "*|*|*|*|" + prefix + "7|*"), found, "xavp best match", name);
    } else {
      standin::clear_avps();
      expect(call(on.count, ""), 1, "row count", table);
    }
  }

  // A row that every process adds and takes away: the table holds it once at most.
  void contested_key() {
    const uint32_t key = draw(KEYS);
    const std::string row = "k" + to_string(key) + "|x";
    if (draw(2) == 0) {
      const int result = call(calls_.unique_insert, row);
      if (result != 1) expect(result, -1, "insert", row);
      account_.key_balance[key] += result == 1 ? 1 : 0;
    } else {
      const int result =
          draw(3) == 0
              ? call(calls_.st_delete, "DELETE FROM unique WHERE a=k" + to_string(key) + " MAX=1")
              : call(calls_.unique_delete, row);
      if (result != 1) expect(result, -2, "delete", row);
      account_.key_balance[key] -= result == 1 ? 1 : 0;
    }
  }

  void cleared_table() {
    const uint32_t choice = draw(1000);
    const std::string name = "n" + to_string(draw(40));
    if (choice < 650) {
      note_number(1, call(calls_.cleared_insert, "|" + name + "|city"));
      account_.cleared_inserts++;
    } else if (choice < 998) {
      const int result = call(calls_.cleared_delete, "*|" + name + "|*,2");
      if (result != 1) expect(result, -2, "delete", name);
    } else if (choice == 998) {
      expect(call(calls_.clear, ""), 1, "clear", "cleared");
    } else {
      account_.operations++;
      store_table_mngt(0, nullptr);
    }
  }

  void take(map_number map, int port, const char *how) {
    if (port <= 0 || port >= LAST_PORT) {
      deviation("%s gave the port %d", how, port);
      return;
    }
    const int holder = book->port_held[map][port].exchange(number_ + 1);
    if (holder != 0)
      deviation("%s gave the port %d, which process %d holds", how, port, holder - 1);
  }

  static void let_go(map_number map, int port) { book->port_held[map][port] = 0; }

  // Rows that hold ports: on the external side those that the process got, on the internal side any
  // of a few that rows of all processes share.
  void port_row() {
    const uint32_t choice = draw(100);
    if (clips_.size() < CLIPS && (choice < 40 || clips_.empty())) {
      clip made{0, draw(3) == 0, {}};
      if (made.internal) {
        made.port = FIRST_ROW_PORT + static_cast<int>(draw(ROW_PORTS));
      } else if (draw(2) == 0) {
        made.port = call(calls_.get_ext, "");
        take(EXT, made.port, "get_port");
      } else {
        standin::clear_avps();
        expect(call(calls_.get_ext_avp, ""), 1, "get_port", "EXT");
        made.port = atoi(avp_text("port").c_str());
        take(EXT, made.port, "get_port");
      }
      add_row(&made);
      clips_.push_back(made);
      return;
    }
    const size_t at = draw(static_cast<uint32_t>(clips_.size()));
    clip &of = clips_[at];
    if (choice < 50 && of.rows.size() < 3) {
      add_row(&of);
    } else if (choice < 60) {
      const std::string row = of.rows.back();
      expect(call(calls_.media_insert, image(of, row)), -1, "insert of a duplicate", row);
    } else if (choice < 75) {
      // The port is named and stays, so nothing is given back.
      const std::string port = to_string(of.port);
      const std::string where =
          "*|" + of.rows.back() + "|*|*|*|*|*|*|*|" + (of.internal ? port + "|*" : "*|" + port);
      const std::string values =
          std::string("*|*|*|*|u|*|*|*|*|") + (of.internal ? port + "|*" : "*|" + port);
      expect(call(calls_.media_update, where, values), 1, "update", of.rows.back());
    } else {
      const std::string row = of.rows.back();
      of.rows.pop_back();
      // The last row to go gives the port back, and the next moment somebody else may have it.
      const bool last = of.rows.empty();
      if (last && !of.internal) let_go(EXT, of.port);
      const int result = draw(3) == 0
                             ? call(calls_.st_delete, "DELETE FROM media WHERE k1=" + row)
                             : call(calls_.media_delete, "*|" + row + "|*|*|*|*|*|*|*|*|*");
      expect(result, 1, "delete", row);
      account_.port_deletes++;
      if (last) clips_.erase(clips_.begin() + static_cast<std::ptrdiff_t>(at));
    }
  }

  static std::string image(const clip &of, const std::string &row) {
    const std::string port = to_string(of.port);
    return "i|" + row + "|a|b||" + (of.internal ? "WAN" : "LAN") + "||0|0|" +
           (of.internal ? port + "|" : "|" + port);
  }

  void add_row(clip *of) {
    const std::string row = "p" + to_string(number_) + "_" + to_string(serial_++);
    expect(call(calls_.media_insert, image(*of, row)), 1, "insert", row);
    of->rows.push_back(row);
    account_.port_inserts++;
  }

  void script_port() {
    const uint32_t choice = draw(100);
    if (choice < 40) {
      if (taken_.size() < TAKEN && (draw(2) == 0 || taken_.empty())) {
        const int port = call(calls_.get_static, "");
        take(STATIC_INT, port, "get_port");
        taken_.push_back(port);
      } else {
        const int port = take_out(&taken_);
        let_go(STATIC_INT, port);
        expect(call(calls_.free_static, to_string(port)), 0, "free_port", to_string(port));
      }
    } else if (choice < 70) {
      if (from_ranges_.size() < 4 && (draw(2) == 0 || from_ranges_.empty())) {
        const int base = draw(2) == 0 ? 9200 : 9210;
        const int port = call(calls_.from_range, to_string(base));
        if (port == -1) return;
        if (port <= base || port > base + (base == 9200 ? 9 : 2))
          deviation("the range of %d gave the port %d", base, port);
        take(STATIC_EXT, port, "get_port_from_range");
        from_ranges_.push_back(port);
      } else {
        const int port = take_out(&from_ranges_);
        let_go(STATIC_EXT, port);
        expect(call(calls_.free_own, to_string(port)), 0, "free_port", to_string(port));
      }
    } else if (choice < 95) {
      const uint32_t which = draw(OWN_PORTS);
      const int port = FIRST_OWN_PORT + number_ * OWN_PORTS + static_cast<int>(which);
      if (own_[which]) {
        let_go(STATIC_EXT, port);
        expect(call(calls_.free_own, to_string(port)), 0, "free_port", to_string(port));
      } else {
        expect(call(calls_.set_own, to_string(port)), 1, "set_port", to_string(port));
        take(STATIC_EXT, port, "set_port");
      }
      own_[which] = !own_[which];
    } else {
      expect(call(calls_.free_ext, "1"), -2, "free_port", "1");
    }
  }

  int take_out(std::vector<int> *from) {
    const size_t at = draw(static_cast<uint32_t>(from->size()));
    const int port = (*from)[at];
    from->erase(from->begin() + static_cast<std::ptrdiff_t>(at));
    return port;
  }

  const calls &calls_;
  int number_;
  account &account_;
  std::mt19937 random_;
  sip_msg message_;
  int64_t serial_ = 0;
  std::vector<clip> clips_;
  std::vector<int> taken_;
  std::vector<int> from_ranges_;
  std::vector<bool> own_;
};

// Runs all processes to their end. One that dies may have left a lock held, so the others go too.
void run_workers(const calls &c, int64_t operations) {
  std::vector<pid_t> running;
  for (int i = 0; i < PROCESSES; i++) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
      worker(c, i).run(operations);
      _exit(0);
    }
    if (pid < 0) {
      deviation("no process could be started");
      break;
    }
    running.push_back(pid);
  }
  while (!running.empty()) {
    int status = 0;
    const pid_t ended = waitpid(-1, &status, 0);
    if (ended < 0) break;
    std::erase(running, ended);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) continue;
    deviation("a process ended with the status 0x%x", static_cast<unsigned int>(status));
    for (const pid_t pid : running) kill(pid, SIGKILL);
  }
}

void check_modelled_rows(int t, const tarn_tbl &table) {
  std::vector<std::string> expected;
  for (int p = 0; p < PROCESSES; p++)
    for (int s = 0; s < SLOTS; s++) {
      const slot &row = book->accounts[p].rows[t][s];
      if (!row.present) continue;
      const std::string number = to_string(row.number);
      expected.push_back((t == NUMBERED ? to_string(row.index) : "") + "|w" + to_string(p) + "_" +
                         to_string(s) + "|" + number + "|" + number + "|" + to_string(p + 1) +
                         to_string(100 + s) + "|c" + number);
    }
  std::vector<std::string> got = rows_of(table);
  std::sort(expected.begin(), expected.end());
  std::sort(got.begin(), got.end());
  if (got != expected)
    deviation("%s: %zu rows where %zu were left, or other ones", table.table_name, got.size(),
              expected.size());
}

void check_contested_keys(const tarn_tbl &table) {
  std::vector<std::string> expected;
  for (int key = 0; key < KEYS; key++) {
    int64_t balance = 0;
    for (const account &each : book->accounts) balance += each.key_balance[key];
    if (balance == 1)
      expected.push_back("k" + to_string(key) + "|x");
    else if (balance != 0)
      deviation("the key %d was added %ld times more than removed", key, balance);
  }
  std::vector<std::string> got = rows_of(table);
  std::sort(expected.begin(), expected.end());
  std::sort(got.begin(), got.end());
  if (got != expected) deviation("%s: not the keys that were left", table.table_name);
}

// Every number below next_index was given once, and no row has a number that wasn't, or another's.
void check_numbers(int which, const tarn_tbl &table) {
  int64_t drawn = 0;
  for (const account &each : book->accounts) drawn += each.drawn[which];
  if (table.next_index != drawn + 1)
    deviation("%s: %ld numbers were given, the next one is %u", table.table_name, drawn,
              table.next_index);
  for (uint32_t i = 1; i < table.next_index && i < NUMBERS; i++)
    if (book->number_given[which][i] == 0)
      deviation("%s: nobody got the number %u", table.table_name, i);
  std::vector<std::string> numbers;
  for (const std::string &row : rows_of(table)) numbers.push_back(row.substr(0, row.find('|')));
  for (const std::string &number : numbers)
    if (static_cast<uint32_t>(atoi(number.c_str())) >= table.next_index)
      deviation("%s: a row with the number %s", table.table_name, number.c_str());
  std::sort(numbers.begin(), numbers.end());
  if (std::adjacent_find(numbers.begin(), numbers.end()) != numbers.end())
    deviation("%s: two rows of one number", table.table_name);
}

void check_ports(const tarn_tbl &media) {
  int64_t rows = 0;
  for (const account &each : book->accounts) rows += each.port_inserts - each.port_deletes;
  if (rows != media.row_count)
    deviation("media: %ld rows were left, it counts %d", rows, media.row_count);
  std::map<int, int> by_rows[4];
  for (const memdb_row *row = media.tbl->first; row != nullptr; row = row->next) {
    const bool internal = strcmp(memdb_get_field(media.tbl, row, 5), "WAN") == 0;
    by_rows[internal ? INT : EXT][atoi(memdb_get_field(media.tbl, row, internal ? 9 : 10))]++;
  }
  for (int i = 0; i < 4; i++) {
    std::map<int, int> by_scripts;
    for (int port = 0; port < LAST_PORT; port++)
      if (book->port_held[i][port] != 0) by_scripts[port] = 1;
    check_map(*port_map_kinds[i].map, port_map_kinds[i].word, by_rows[i], by_scripts);
  }
  if (*port_map_lock != 0) deviation("the lock of the port maps is held");
}

// From here on private memory comes from the C library: the stand-in's own keeps a record of every
// block, which is not what is to be kept busy here.
void use_plain_private_memory() {
  _pkg_root.xmalloc = [](void *, size_t size, const char *, const char *, unsigned int,
                         const char *) { return malloc(size); };
  _pkg_root.xrealloc = [](void *, void *block, size_t size, const char *, const char *,
                          unsigned int, const char *) { return realloc(block, size); };
  _pkg_root.xfree = [](void *, void *block, const char *, const char *, unsigned int,
                       const char *) { free(block); };
}

bool start(standin::loaded_module *module, const std::string &directory) {
  std::ofstream(directory + "/schema.cfg")
      << schema_text::schema(directory + "/main/", directory + "/backup/", tables());
  std::ofstream(directory + "/ranges.txt") << RANGES;
  return module->set_param("cfg_file_path", directory + "/schema.cfg") &&
         module->set_param("private_ranges_file_path", directory + "/ranges.txt") &&
         module->set_param("min_ext_port", 10000) && module->set_param("max_ext_port", 10999) &&
         module->set_param("min_static_int_port", 21000) &&
         module->set_param("max_static_int_port", 21999) && module->init() == 0;
}

int run(int64_t operations) {
  const work_directory directory;
  book = make_ledger();
  standin::set_debug_level(-10);
  standin::loaded_module module(exports);
  if (book == nullptr || !standin::use_shared_mapping(256 << 20) ||
      !start(&module, directory.path())) {
    fprintf(stderr, "stress: the module doesn't start\n");
    return 2;
  }
  const calls prepared(module);
  const auto xmalloc = _pkg_root;
  use_plain_private_memory();

  const auto begin = std::chrono::steady_clock::now();
  run_workers(prepared, (operations + PROCESSES - 1) / PROCESSES);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;

  if (book->deviations == 0) {
    for (const tarn_tbl &table : all_tarn_tbls()) check_table(table);
    const std::span<tarn_tbl> tables = all_tarn_tbls();
    for (int t = 0; t < MODELLED; t++) check_modelled_rows(t, tables[static_cast<size_t>(t)]);
    check_contested_keys(tables[3]);
    check_numbers(0, tables[NUMBERED]);
    check_numbers(1, tables[4]);
    check_ports(tables[5]);
    for (size_t t = 0; t < 5; t++) check_stored(tables[t]);
    _pkg_root = xmalloc;
    module.destroy();
    standin::check_blocks();
    const std::string leaks = standin::leak_report(standin::pool::shm);
    if (!leaks.empty()) deviation("shared memory is left over:\n%s", leaks.c_str());
  }
  for (const std::string &error : standin::memory_errors()) deviation("%s", error.c_str());

  int64_t done = 0;
  for (const account &each : book->accounts) done += each.operations;
  printf("stress: %ld operations by %d processes, %.0f per second, %ld deviations\n", done,
         PROCESSES, static_cast<double>(done) / took.count(), book->deviations.load());
  return book->deviations == 0 ? 0 : 1;
}

}  // namespace
}  // namespace stress

int main(int argc, char **argv) {
  const int64_t operations = argc == 2 ? atoll(argv[1]) : 0;
  if (operations <= 0) {
    fprintf(stderr, "usage: stress OPERATIONS\n");
    return 2;
  }
  return stress::run(operations);
}
