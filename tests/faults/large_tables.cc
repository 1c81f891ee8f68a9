// Scenarios in a table that has directories and a look-up: where they are made, enlarged, divided,
// made smaller and given up. What fails there changes nothing that can be seen.
#include "tests/faults/scenarios.h"

namespace faults {
namespace {

using texts = std::vector<std::string>;

constexpr char TABLE[] = "gateways";
constexpr int FIRST = 5;  // rows in its file

// A group for each row, so that the index of the groups has as many texts.
std::string row(int number) {
  const std::string n = std::to_string(number);
  return "g" + n + "|" + n + "|sip:" + n + "|" + n;
}

row_texts rows(int from, int to) {
  row_texts out;
  for (int number = from; number < to; number++) out.push_back(row(number));
  return out;
}

void insert(world &w, int from, int to) {
  w.fix("tarn_memdb_insert", {"gateways,g$var(n)|$var(n)|sip:$var(n)|$var(n)"});
  for (int number = from; number < to; number++) {
    standin::set_var("n", std::to_string(number));
    if (w.call() != 1) deviation("no row " + row(number));
  }
}

void fix(world &w, const std::string &function, const texts &parameters) {
  if (!w.fix(function, parameters)) deviation("fix-up refused");
}

const texts BEST_MATCH = {"gateways,$var(grp)|$var(number)|*|*", "||$avp(found)", "1"};

// The table with that many rows and a look-up, or where rows are still few, what has one made.
void fill(world &w, int count) {
  fix(w, "tarn_memdb_nl_select_best_match", BEST_MATCH);
  insert(w, FIRST, count);
}

std::string result_of_call(world &w) { return std::to_string(w.call()); }

std::string reload(world &) {
  const standin::rpc_reply reply = standin::rpc_call("tarn_memdb.reload_table", {TABLE});
  return reply.faults.empty() ? "reply" : "fault: " + reply.faults.front().text;
}

// least is the number of allocations that the act has to take, so that it is known to come to what
// it is for: one for the words of a call, one for a row, and those of directories and look-ups.
scenario of(const std::string &name, phase when, size_t least, std::function<void(world &)> prepare,
            std::function<std::string(world &)> act) {
  scenario out{name, when, std::move(prepare), std::move(act)};
  out.rows = row_count::many;
  out.least_allocations = least;
  return out;
}

// The insert that makes them so many rows.
scenario insert_of(int n, const std::string &what, size_t least) {
  return of(
      "insert " + what, phase::run, least,
      [n](world &w) {
        fill(w, n - 1);
        fix(w, "tarn_memdb_insert", {"gateways," + row(n - 1)});
      },
      result_of_call);
}

// The delete after which so many of 100 rows are left.
scenario delete_to(int n, const std::string &what, size_t least) {
  return of(
      "delete " + what, phase::run, least,
      [n](world &w) {
        fill(w, 100);
        fix(w, "tarn_memdb_delete", {"gateways,*|*|*|*," + std::to_string(99 - n)});
        w.call();
        fix(w, "tarn_memdb_delete", {"gateways,*|*|*|*,1"});
      },
      result_of_call);
}

}  // namespace

std::vector<scenario> large_table_scenarios() {
  std::vector<scenario> out = {
      insert_of(8, "that makes directory and look-up", 5),
      insert_of(28, "that enlarges a directory", 3),
      insert_of(49, "that enlarges a look-up", 3),
      insert_of(52, "that divides a directory", 2 + 257),
      insert_of(85, "that divides a look-up", 5),
      delete_to(31, "that leaves a look-up in one part", 3),
      delete_to(19, "that leaves a directory undivided", 2),
      delete_to(3, "that ends the look-up", 1),
  };
  out.push_back(of(
      "insert into a directory that is full", phase::run, 3,
      [](world &w) {
        fill(w, 27);
        standin::tell_available(0);
        insert(w, 27, 33);
        standin::tell_available(PTRDIFF_MAX);
        fix(w, "tarn_memdb_insert", {"gateways," + row(33)});
      },
      result_of_call));
  out.push_back(of(
      "fix-ups of a best match in a large table", phase::fixup, 8,
      [](world &w) {
        insert(w, FIRST, 60);
        standin::set_var("grp", "g40");
        standin::set_var("number", "407");
        w.write_call("tarn_memdb_nl_select_best_match", BEST_MATCH);
      },
      [](world &w) -> std::string { return w.run_fixups() ? "accepted" : "-1"; }));
  out.push_back(of(
      "update of a prefix in a large table", phase::run, 3,
      [](world &w) {
        fill(w, 48);
        fix(w, "tarn_memdb_update", {"gateways,g33|*|*|*", "*|337|*|*"});
      },
      result_of_call));
  out.push_back(of(
      "update of a key in a large table", phase::run, 1,
      [](world &w) {
        fill(w, 60);
        fix(w, "tarn_memdb_update", {"gateways,*|40|*|*", "g40-|*|*|*"});
      },
      result_of_call));
  out.push_back(of(
      "insert behind keys that were overwritten and back", phase::run, 3,
      [](world &w) {
        fill(w, 30);
        for (const char *text : {"g20-|*|*|*", "g20|*|*|*"}) {
          fix(w, "tarn_memdb_update", {"gateways,*|20|*|*", text});
          w.call();
        }
        fix(w, "tarn_memdb_insert", {"gateways," + row(30)});
      },
      result_of_call));
  const row_texts loaded = rows(FIRST, 30);
  out.push_back(of(
      "start with a large table", phase::start, 3,
      [loaded](world &w) { w.lengthen(TABLE, loaded); },
      [](world &w) -> std::string { return w.start() ? "started" : "-1"; }));
  out.back().loads = true;
  out.push_back(of(
      "reload of a large table", phase::run, loaded.size() + 5,
      [loaded](world &w) {
        fill(w, 10);
        w.lengthen(TABLE, loaded);
      },
      reload));
  out.back().in_parts = out.back().loads = true;
  out.push_back(of(
      "clear of a large table", phase::run, 0,
      [](world &w) {
        fill(w, 60);
        fix(w, "tarn_memdb_clear_tbl", {TABLE});
      },
      result_of_call));
  out.push_back(of(
      "stop with a large table", phase::shutdown, 0, [](world &w) { fill(w, 60); },
      [](world &w) -> std::string {
        w.destroy();
        return "stopped";
      }));
  return out;
}

}  // namespace faults
