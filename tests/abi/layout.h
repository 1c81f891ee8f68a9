/* One compared number, and the two tables of them. */
#pragma once

struct layout_fact {
  const char *name; /* as the module's side names it */
  long long number;
};

/* A table ends in a null name. */
#ifdef __cplusplus
extern "C" {
#endif
extern const struct layout_fact own_layout[];
extern const struct layout_fact host_layout[];
/* The host's list of build flags, as its headers put it together. */
extern const char *const host_build_flags;
#ifdef __cplusplus
}
#endif
