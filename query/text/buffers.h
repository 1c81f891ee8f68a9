// Text buffers of the process: not shared, so without a lock, and empty of meaning between calls.
#pragma once

#include <cstddef>

inline constexpr size_t TEXT_BUFFER_SIZE = 4096;
inline constexpr size_t DN_QUERY_SIZE = 256;

extern char query_buf[TEXT_BUFFER_SIZE];      // the printed query; a line of an RPC reply
extern char update_buf[TEXT_BUFFER_SIZE];     // an update's values; a text for another language
extern char row_image_buf[TEXT_BUFFER_SIZE];  // a row in an audit line
extern char dn_query_buf[DN_QUERY_SIZE];      // the look-up of a DN
