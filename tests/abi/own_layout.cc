// The module's side of the comparison.
#include <cstddef>
#include <type_traits>

#include "host/imports.h"
#include "tests/abi/layout.h"

#define TEXT const char *
#define PARAM_CLASS int

namespace {

template <typename Left, typename Right>
constexpr long long is_type() {
  return std::is_same_v<Left, Right> ? 1 : -1;
}

}  // namespace

// The records are plain, so that offsets of nested members are well defined too.
#define RECORD(own, host) {"sizeof " #own, sizeof(own)},
#define MEMBER(own, own_member, host, member)                                          \
  {"offset " #own "." #own_member, static_cast<long long>(offsetof(own, own_member))}, \
      {"size " #own "." #own_member, sizeof(static_cast<own *>(nullptr)->own_member)},
#define CONSTANT(own, host) {#own, own},
#define VARIABLE(name) {"sizeof " #name, sizeof(name)},
#define FUNCTION(name, result, arguments) \
  {"type of " #name,                      \
   is_type<std::remove_reference_t<decltype(name)>, std::type_identity_t<result arguments>>()},
#define POINTER(record, member, result, arguments) \
  {"type of " #record "." #member,                 \
   is_type<decltype(record::member), std::type_identity_t<result(*) arguments>>()},

const layout_fact own_layout[] = {
#include "tests/abi/layout_facts.h"
    {nullptr, 0}};
