// Layout: a header, then blocks one after another without gaps up to `used`. Each block is a
// record, room for the bytes asked for, and guard bytes. A freed block keeps its size for ever and
// waits in the list of its size, so that the blocks can be walked from the start at any time.
#include "tests/standin/shared_mapping.h"

#include <pthread.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>

namespace standin {
namespace {

constexpr size_t UNIT = 16;
constexpr size_t BINS = 1024;  // one per size in units; the last one holds all larger blocks
constexpr size_t GUARD_BYTES = 16;
constexpr unsigned char GUARD = 0xFD;
constexpr unsigned char FREED = 0xDD;
constexpr uint64_t LIVE_MARK = 0x6C697665626C6F63U;
constexpr uint64_t FREE_MARK = 0x66726565626C6F63U;
constexpr size_t ERROR_SLOTS = 32;
constexpr size_t ERROR_LEN = 240;

struct alignas(UNIT) block_record {
  uint64_t mark;
  size_t room;  // bytes behind the record, guard included, a multiple of UNIT
  size_t size;  // bytes asked for
  uint64_t serial;
  const char *file;
  const char *func;
  const char *owner;
  block_record *next_free;
  unsigned int line;
};

struct alignas(UNIT) mapping_header {
  pthread_mutex_t lock;
  size_t bytes;
  size_t used;
  size_t live;
  uint64_t serial;
  block_record *bins[BINS];
  unsigned int error_count;
  char errors[ERROR_SLOTS][ERROR_LEN];
};

mapping_header *mapping;

char *base() { return reinterpret_cast<char *>(mapping); }

block_record *record_of(const void *block) {
  return reinterpret_cast<block_record *>(const_cast<void *>(block)) - 1;
}

// Holds the lock. A process that died with it leaves the lists as they were: each change is made by
// its last store.
class locked {
 public:
  locked() {
    if (pthread_mutex_lock(&mapping->lock) == EOWNERDEAD) pthread_mutex_consistent(&mapping->lock);
  }
  ~locked() { pthread_mutex_unlock(&mapping->lock); }
  locked(const locked &) = delete;
  locked &operator=(const locked &) = delete;
};

void note_locked(const char *text) {
  const unsigned int slot = mapping->error_count++;
  if (slot < ERROR_SLOTS) snprintf(mapping->errors[slot], ERROR_LEN, "%s", text);
}

template <typename Visit>
void each_block(Visit visit) {
  for (size_t at = sizeof(mapping_header); at < mapping->used;) {
    block_record *record = reinterpret_cast<block_record *>(base() + at);
    visit(record);
    at += sizeof(block_record) + record->room;
  }
}

bool guard_intact(const block_record *record) {
  const unsigned char *end = reinterpret_cast<const unsigned char *>(record + 1) + record->size;
  for (size_t i = 0; i < GUARD_BYTES; ++i)
    if (end[i] != GUARD) return false;
  return true;
}

void note_place(const char *what, const block_record *record) {
  char text[ERROR_LEN];
  snprintf(text, sizeof(text), "shm: %s %s:%u %s", what, record->file, record->line, record->func);
  note_locked(text);
}

size_t bin_of(size_t room) { return room / UNIT < BINS ? room / UNIT : BINS - 1; }

block_record *take_free(size_t room) {
  for (block_record **link = &mapping->bins[bin_of(room)]; *link != nullptr;
       link = &(*link)->next_free)
    if ((*link)->room >= room) {
      block_record *record = *link;
      *link = record->next_free;
      return record;
    }
  return nullptr;
}

}  // namespace

bool mapping_open(size_t bytes, uint64_t first_serial) {
  if (mapping != nullptr || bytes < sizeof(mapping_header)) return false;
  void *room = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (room == MAP_FAILED) return false;
  mapping = new (room) mapping_header();
  mapping->bytes = bytes;
  mapping->used = sizeof(mapping_header);
  mapping->serial = first_serial;
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(&mapping->lock, &attributes);
  pthread_mutexattr_destroy(&attributes);
  return true;
}

void mapping_close() {
  if (mapping == nullptr) return;
  munmap(mapping, mapping->bytes);
  mapping = nullptr;
}

bool mapping_active() { return mapping != nullptr; }

void *mapping_malloc(size_t size, const char *file, const char *func, unsigned int line,
                     const char *owner) {
  if (size > mapping->bytes) return nullptr;
  const size_t room = (size + GUARD_BYTES + UNIT - 1) / UNIT * UNIT;
  const locked held;
  block_record *record = take_free(room);
  if (record == nullptr) {
    if (mapping->bytes - mapping->used < sizeof(block_record) + room) return nullptr;
    record = reinterpret_cast<block_record *>(base() + mapping->used);
    record->room = room;
    record->mark = FREE_MARK;
    mapping->used += sizeof(block_record) + room;
  }
  record->size = size;
  record->serial = ++mapping->serial;
  record->file = file;
  record->func = func;
  record->owner = owner;
  record->line = line;
  record->next_free = nullptr;
  memset(reinterpret_cast<char *>(record + 1) + size, GUARD, GUARD_BYTES);
  record->mark = LIVE_MARK;
  ++mapping->live;
  return record + 1;
}

void mapping_free(void *block, const char *file, const char *func, unsigned int line) {
  const locked held;
  char text[ERROR_LEN];
  if (reinterpret_cast<uintptr_t>(block) % UNIT != 0 ||
      (record_of(block)->mark != LIVE_MARK && record_of(block)->mark != FREE_MARK)) {
    snprintf(text, sizeof(text), "shm: free of an unknown pointer at %s:%u %s", file, line, func);
    note_locked(text);
    return;
  }
  block_record *record = record_of(block);
  if (record->mark == FREE_MARK) {
    snprintf(text, sizeof(text), "shm: block freed twice at %s:%u %s", file, line, func);
    note_locked(text);
    return;
  }
  if (!guard_intact(record)) note_place("bytes written behind the block of", record);
  memset(block, FREED, record->size);
  record->mark = FREE_MARK;
  --mapping->live;
  block_record *&bin = mapping->bins[bin_of(record->room)];
  record->next_free = bin;
  bin = record;
}

bool mapping_owns(const void *block) {
  const char *at = static_cast<const char *>(block);
  return at >= base() + sizeof(mapping_header) + sizeof(block_record) &&
         at < base() + mapping->bytes;
}

size_t mapping_block_size(const void *block) {
  if (reinterpret_cast<uintptr_t>(block) % UNIT != 0) return SIZE_MAX;
  const locked held;
  const block_record *record = record_of(block);
  return record->mark == LIVE_MARK ? record->size : SIZE_MAX;
}

size_t mapping_live_count() {
  const locked held;
  return mapping->live;
}

uint64_t mapping_last_serial() {
  const locked held;
  return mapping->serial;
}

void mapping_collect(std::vector<block_info> &out) {
  const locked held;
  each_block([&out](const block_record *record) {
    if (record->mark == LIVE_MARK)
      out.push_back({record + 1, record->size, record->file, record->line, record->func,
                     record->owner, record->serial});
  });
}

void mapping_check() {
  const locked held;
  each_block([](const block_record *record) {
    if (record->mark == LIVE_MARK && !guard_intact(record))
      note_place("bytes written behind the live block of", record);
  });
}

void mapping_note(const char *text) {
  const locked held;
  note_locked(text);
}

void mapping_errors(std::vector<std::string> &out) {
  const locked held;
  for (unsigned int i = 0; i < mapping->error_count && i < ERROR_SLOTS; ++i)
    out.emplace_back(mapping->errors[i]);
  if (mapping->error_count > ERROR_SLOTS)
    out.push_back("and " + std::to_string(mapping->error_count - ERROR_SLOTS) + " more errors");
}

void mapping_clear_errors() {
  const locked held;
  mapping->error_count = 0;
}

}  // namespace standin
