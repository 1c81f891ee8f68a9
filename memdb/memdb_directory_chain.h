// From chain to directory and back.
#pragma once

#include "memdb/memdb_directory.h"

// Ends what a writer began that was killed while the links between texts were being cut or made, so
// that each text's last row leads nowhere again.
void memdb_make_whole(memdb_bucket_kind kind, memdb_col *col);
