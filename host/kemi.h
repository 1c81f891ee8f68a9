// The records by which the host offers a module's functions to its other script languages (KEMI,
// the host's name for that interface).
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "host/abi.h"

inline constexpr int SR_KEMIP_NONE = 0;  // ends the parameters
inline constexpr int SR_KEMIP_INT = 1 << 0;
inline constexpr int SR_KEMIP_STR = 1 << 1;
inline constexpr int SR_KEMIP_XVAL = 1 << 4;  // the kind of a result that tells its own kind
inline constexpr int SR_KEMIP_NULL = 1 << 5;
inline constexpr size_t SR_KEMI_PARAMS_MAX = 6;

// A value with its kind: a text, or null.
struct sr_kemi_xval_t {
  int vtype;
  union {
    int n;
    long l;
    str s;
  } v;
};

// A function of any kind. The host calls it with as many parameters, of the kinds, as its row says.
// Texts come as records that are never null; the text itself may be, and need not be terminated.
union kemi_function {
  template <typename... Parameters>
  using number = int (*)(sip_msg *, Parameters...);
  template <typename... Parameters>
  using value = sr_kemi_xval_t *(*)(sip_msg *, Parameters...);

  number<> none;
  number<str *> s;
  number<str *, str *> ss;
  number<str *, int> sn;
  number<int, str *> ns;
  number<str *, int, int> snn;
  number<str *, str *, int> ssn;
  number<str *, str *, int, int> ssnn;
  number<str *, str *, int, int, int> ssnnn;
  number<str *, str *, str *, str *, str *> sssss;
  value<str *> value_of_s;
  value<str *, int> value_of_sn;

  constexpr kemi_function(std::nullptr_t = nullptr) : none(nullptr) {}
  constexpr kemi_function(decltype(none) function) : none(function) {}
  constexpr kemi_function(decltype(s) function) : s(function) {}
  constexpr kemi_function(decltype(ss) function) : ss(function) {}
  constexpr kemi_function(decltype(sn) function) : sn(function) {}
  constexpr kemi_function(decltype(ns) function) : ns(function) {}
  constexpr kemi_function(decltype(snn) function) : snn(function) {}
  constexpr kemi_function(decltype(ssn) function) : ssn(function) {}
  constexpr kemi_function(decltype(ssnn) function) : ssnn(function) {}
  constexpr kemi_function(decltype(ssnnn) function) : ssnnn(function) {}
  constexpr kemi_function(decltype(sssss) function) : sssss(function) {}
  constexpr kemi_function(decltype(value_of_s) function) : value_of_s(function) {}
  constexpr kemi_function(decltype(value_of_sn) function) : value_of_sn(function) {}
};

// One function of a module. A row of nulls ends the list of them.
struct sr_kemi_t {
  str mname;
  str fname;
  int rtype;
  kemi_function func;
  int ptypes[SR_KEMI_PARAMS_MAX];
};

static_assert(sizeof(sr_kemi_xval_t) == 24 && offsetof(sr_kemi_xval_t, v) == 8);
static_assert(sizeof(sr_kemi_t) == 72 && offsetof(sr_kemi_t, fname) == 16 &&
              offsetof(sr_kemi_t, rtype) == 32 && offsetof(sr_kemi_t, func) == 40 &&
              offsetof(sr_kemi_t, ptypes) == 48);

// The kind that the host knows a parameter's or a result's type by.
template <typename T>
consteval int kemi_kind() {
  if constexpr (std::same_as<T, sr_kemi_xval_t *>) return SR_KEMIP_XVAL;
  if constexpr (std::same_as<T, str *>) return SR_KEMIP_STR;
  static_assert(std::same_as<T, int> || std::same_as<T, str *> ||
                std::same_as<T, sr_kemi_xval_t *>);
  return SR_KEMIP_INT;
}

// The row of a function, whose kinds follow from its type.
template <typename Result, typename... Parameters>
consteval sr_kemi_t kemi_row(std::string_view module, std::string_view name,
                             Result (*function)(sip_msg *, Parameters...)) {
  static_assert(sizeof...(Parameters) <= SR_KEMI_PARAMS_MAX);
  const auto text_of_name = [](std::string_view text) {
    return str{const_cast<char *>(text.data()), static_cast<int>(text.size())};
  };
  return {text_of_name(module),
          text_of_name(name),
          kemi_kind<Result>(),
          function,
          {kemi_kind<Parameters>()...}};
}
