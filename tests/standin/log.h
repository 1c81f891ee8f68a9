// The log catcher: what the module writes through the host's three sinks.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace standin {

// One message that came through the structured sink.
struct log_record {
  int level;
  int facility;
  std::string level_name;
  std::string file;
  int line;
  std::string module;
  std::string function;
  std::string location;
  std::string text;  // the format with its arguments, line end included
  int critical;      // what dprint_crit was during the call
};

// One line that came through _km_log_func.
struct syslog_record {
  int priority;
  std::string text;
};

// One call of dprint_color (with its level) or dprint_color_reset.
struct color_call {
  bool reset;
  int level;
};

enum class log_sink { structured, standard_error, syslog };

// Chooses the road of the messages from now on; structured at first. The stderr road writes the
// colour calls to stderr as "<color LEVEL>" and "<color off>", so that their places can be checked.
void use_log_sink(log_sink sink);

// Everything caught by the structured sink, in order; all or of one level.
const std::vector<log_record> &logs();
std::vector<log_record> logs(int level);

// The texts alone; all or of one level.
std::vector<std::string> log_texts();
std::vector<std::string> log_texts(int level);

// True if a message of that level has exactly that text (or, in log_contains, that text within).
bool logged(int level, const std::string &text);
bool log_contains(int level, const std::string &part);
size_t log_count(int level);

// All caught messages as text, "LEVEL function: text" per message, for a failing test's output.
std::string log_dump();

const std::vector<syslog_record> &syslog_lines();
const std::vector<color_call> &color_calls();

// Forgets all that was caught.
void clear_logs();

// What get_debug_level answers from now on; 3 (debug) at first.
void set_debug_level(int level);

// Calls of get_debug_level so far, since the last reset of the calls (see calls.h).
int debug_level_queries();

// What get_debug_facility answers; LOG_DAEMON at first.
void set_facility(int facility);

// The host's log prefix: set to a text, or taken away again.
void set_log_prefix(const std::string &prefix);
void clear_log_prefix();

// The host's log_color and process_no.
void set_log_color(bool on);
void set_process_no(int number);

// Everything above back to its first state.
void reset_log();

}  // namespace standin
