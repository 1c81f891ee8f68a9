// Parameters of script functions and lists of name=value items, as the host prepares them.
#pragma once

#include <string>

namespace standin {

// A text, or none, that stays its owner's.
struct borrowed_text {
  char *text;
};

// The record that holds one parameter of a script function in the host's parsed script. Fix-ups are
// given the address of its data word, and some look at the word before it. Holds a private copy of
// the text at first (owner "core"), which a fix-up may free, or a borrowed one.
class parameter_slot {
 public:
  explicit parameter_slot(const std::string &text);
  explicit parameter_slot(borrowed_text text);
  ~parameter_slot();
  parameter_slot(const parameter_slot &) = delete;
  parameter_slot &operator=(const parameter_slot &) = delete;

  // What a fix-up is called with.
  void **address() { return &data; }
  // What the slot holds now, as a function is called with it.
  char *get() const { return static_cast<char *>(data); }
  // True as long as the slot holds what it held at first.
  bool untouched() const { return data == first; }

 private:
  int type;
  void *data;
  void *first;
};

// The order of the chain that parse_params gives: reversed as on the hosts known (the item written
// last stands first), or the order of the text.
enum class params_order { reversed, forward };
void set_params_order(params_order order);

// Part of reset().
void reset_params();

}  // namespace standin
