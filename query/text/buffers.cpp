// The process's text buffers.
#include "query/text/buffers.h"

char query_buf[TEXT_BUFFER_SIZE];
char update_buf[TEXT_BUFFER_SIZE];
char row_image_buf[TEXT_BUFFER_SIZE];
char dn_query_buf[DN_QUERY_SIZE];
