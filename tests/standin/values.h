// Values that scripts work with: messages with their pseudo-variables, script variables, AVPs and
// XAVPs, and how tests set and read them.
#pragma once

#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace standin {

// What a pseudo-variable holds: nothing, a number, a text; or it can't be read at all.
struct value {
  enum class kind { null, number, text, unreadable };

  value() = default;
  value(int n) : type(kind::number), number(n) {}
  value(long n) : type(kind::number), number(n) {}
  value(const char *t) : type(kind::text), text(t) {}
  value(std::string t) : type(kind::text), text(std::move(t)) {}

  // A value whose reading fails: pv_get_spec_value gives -1, pv_printf prints nothing for it.
  static value unreadable();

  bool operator==(const value &other) const;
  bool operator!=(const value &other) const { return !(*this == other); }

  kind type = kind::null;
  long number = 0;
  std::string text;
};

// Writes a value for a failing test: null, 5, "text".
std::ostream &operator<<(std::ostream &out, const value &shown);

}  // namespace standin

// A message in work: what its pseudo-variables hold, by name without the dollar sign ("fU",
// "hdr(x-name)" with the header's name in small letters). Names not in the map hold null.
struct sip_msg {
  std::map<std::string, standin::value> values;
};

namespace standin {

// Sets or reads a variable as a script would write it: "$fU", "$hdr(X-Name)", "$ru" in the message,
// "$var(x)" and "$avp(x)" in the host's own stores (an AVP loses its other values; null takes it
// away). set_value throws std::invalid_argument on text that isn't exactly one pseudo-variable.
void set_value(sip_msg &msg, const std::string &variable, const value &content);
value get_value(sip_msg &msg, const std::string &variable);

// Script variables; one that was never set holds the number 0, as on the host.
void set_var(const std::string &name, const value &content);
value var(const std::string &name);

// All values of an AVP in the order in which a script reads them: the one added last stands first.
std::vector<value> avp(const std::string &name);
std::vector<value> avp(long id);

// Puts one more value in front, as a script's assignment does.
void push_avp(const std::string &name, const value &content);

// Number of AVP values of all names, and the names, newest first, each once.
size_t avp_count();
std::vector<std::string> avp_names();
void clear_avps();

// One XAVP: its items in the order of the list, which is the order of the text it was made from.
using xavp_items = std::vector<std::pair<std::string, std::string>>;

// All XAVPs of a name, the one added last first ($xavp(name[0]...) is the first).
std::vector<xavp_items> xavps(const std::string &name);

// The value that a script reads as $xavp(name[index]=>item): the first item with that name.
// Null if there is none.
value xavp_item(const std::string &name, size_t index, const std::string &item);
void clear_xavps();

// One call of the host operation that makes XAVPs, on either road, failed ones included.
struct explode_call {
  std::string params;
  std::string xavp;
  bool ninth_operation;  // else the exported script function
  bool made;
};
const std::vector<explode_call> &explode_calls();

// Forgets variables, AVPs, XAVPs and explode calls, and the host's cache of parsed variables:
// formats and lists parsed before may not be used any longer.
void reset_values();

}  // namespace standin
