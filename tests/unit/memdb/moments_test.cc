// A writer may be killed at any instruction. So at each of them the table is looked at: by the list
// from its oldest row on, as a stop stores it, and by the list from its newest row on and the
// chains, as readers without a lock go. What is met is whole.
#include <array>
#include <span>

#include "tests/unit/memdb/engine_fixture.h"
#include "tests/unit/memdb/single_steps.h"

namespace engine_test {
namespace {

constexpr uint32_t COLUMNS = 4;
using row_texts = std::array<const char *, COLUMNS>;

// The row that the work is about, and the others, oldest first. All are of one chain each.
constexpr row_texts OLDER[] = {
    {"a1", "first", "x", "text"}, {"a2", "second", "x", "a longer text"}, {"a3", "third", "x", ""}};
constexpr row_texts SUBJECT = {"a2+", "subject", "x", "text of the subject"};

memdb_tbl *table;
memdb_row *subject;
// What the work puts into the subject's last column; null if it leaves that as it is.
const char *new_text;

// What was met.
size_t moments;
size_t with_subject;
const char *deviation;

bool is(const memdb_row *row, const row_texts &texts, uint32_t columns = COLUMNS) {
  for (uint32_t i = 0; i < columns; i++)
    if (strcmp(memdb_get_field(table, row, i), texts[i]) != 0) return false;
  return true;
}

// Each character is that of the old text or of the new one at its place.
bool is_between(const char *text, const char *old_text) {
  const size_t ends = strlen(old_text);
  const size_t new_ends = strlen(new_text);
  for (size_t i = 0; text[i] != '\0'; i++)
    if ((i >= ends || text[i] != old_text[i]) && (i >= new_ends || text[i] != new_text[i]))
      return false;
  return true;
}

bool is_subject(const memdb_row *row) {
  if (new_text == nullptr) return is(row, SUBJECT);
  return is(row, SUBJECT, COLUMNS - 1) &&
         is_between(memdb_get_field(table, row, COLUMNS - 1), SUBJECT[COLUMNS - 1]);
}

// One of the older rows: its number; the subject: their count; none of these: -1.
int number_of(const memdb_row *row) {
  int number = 0;
  for (const row_texts &texts : OLDER) {
    if (is(row, texts)) return number;
    number++;
  }
  return is_subject(row) ? number : -1;
}

// Walks from row to row, and tells whether the older rows are met in their order, upwards or
// downwards, with nothing but the subject among them.
template <typename Next>
bool is_walk(const memdb_row *row, int step, Next next) {
  constexpr int COUNT = std::size(OLDER);
  int wanted = step > 0 ? 0 : COUNT - 1;
  int met = 0;
  for (; row != nullptr; row = next(row)) {
    if (++met > COUNT + 1) return false;
    const int number = number_of(row);
    if (number == COUNT) {
      with_subject++;
      continue;
    }
    if (number != wanted) return false;
    wanted += step;
  }
  return wanted == (step > 0 ? COUNT : -1);
}

void look() {
  moments++;
  if (deviation != nullptr) return;
  if (!is_walk(table->last, 1, [](const memdb_row *row) { return row->prev; }))
    deviation = "what a stop stores";
  else if (!is_walk(table->first, -1, [](const memdb_row *row) { return row->next; }))
    deviation = "what a walk of the list meets";
  for (const memdb_col &col : memdb_cols(table)) {
    if (!memdb_is_indexed(col)) continue;
    size_t met = 0;
    for (const memdb_row *row = col.idx[0]; row != nullptr;) {
      if (++met > std::size(OLDER) + 1 || number_of(row) < 0) {
        deviation = "what a chain leads to";
        return;
      }
      memdb_row *next;
      memcpy(&next, memdb_data(row) + col.offset - sizeof(next), sizeof(next));
      row = next;
    }
    if (met < std::size(OLDER)) deviation = "a chain that lacks a row";
  }
}

class MomentsTest : public EngineTest {
 protected:
  MomentsTest() {
    memdb_idx_len = 1;
    table = make({{7, INDEXED}, {31, PLAIN}, {7, INDEXED}, {31, PLAIN}});
    memdb_retire = [](void *) {};  // for the caller to give back
    moments = with_subject = 0;
    deviation = nullptr;
    subject = nullptr;
    new_text = nullptr;
  }
  ~MomentsTest() override {
    memdb_retire = [](void *block) { memdb_free(block); };
  }

  static memdb_row *insert_all(std::span<const row_texts> rows) {
    memdb_row *row = nullptr;
    for (const row_texts &texts : rows) row = memdb_insert(table, texts.data());
    return row;
  }
  static void insert_subject() { subject = memdb_insert(table, SUBJECT.data()); }

  void expect_whole_at_each_moment(void (*work)()) {
    single_steps::run(look, work);
    EXPECT_EQ(deviation, nullptr) << deviation;
    EXPECT_GT(moments, 50u);
    EXPECT_GT(with_subject, 0u);
  }
};

TEST_F(MomentsTest, AnInsertedRowIsWholeOrNotThere) {
  insert_all(OLDER);
  expect_whole_at_each_moment(insert_subject);
  EXPECT_EQ(table->first, subject);
}

TEST_F(MomentsTest, ADeletedRowIsWholeOrNotThere) {
  for (size_t place = 0; place <= std::size(OLDER); place++) {
    SCOPED_TRACE(place);
    insert_all(std::span(OLDER).first(place));
    insert_subject();
    insert_all(std::span(OLDER).subspan(place));
    expect_whole_at_each_moment([] { memdb_delete_row(table, subject); });
    memdb_free(subject);
    memdb_retire = [](void *block) { memdb_free(block); };
    memdb_delete_all(table);
    memdb_retire = [](void *) {};
    moments = with_subject = 0;
  }
}

// Of the texts themselves a kill may leave a mix, which is nothing that a file can't carry.
TEST_F(MomentsTest, AnOverwrittenFieldCostsNothingElse) {
  insert_all(std::span(OLDER).first(1));
  insert_subject();
  insert_all(std::span(OLDER).subspan(1));
  for (const char *text : {"short", "a text that is longer than it was", "", "as it was, nearly"}) {
    SCOPED_TRACE(text);
    memdb_set_field(table, subject, COLUMNS - 1, SUBJECT[COLUMNS - 1]);
    new_text = text;
    expect_whole_at_each_moment([] { memdb_set_field(table, subject, COLUMNS - 1, new_text); });
    EXPECT_EQ(std::string(memdb_get_field(table, subject, COLUMNS - 1)),
              std::string(text).substr(0, 31));
    moments = with_subject = 0;
  }
}

}  // namespace
}  // namespace engine_test
