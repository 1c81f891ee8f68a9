// What positional writes, statements and other script languages say alike.
#pragma once

#include "tables/rows/row_admission.h"

inline constexpr message_text<> INSERT_FAILED{"INSERT failed!\n"};
inline constexpr message_text<> DELETE_FAILED{"DELETE failed!\n"};
inline constexpr message_text<> UPDATE_FAILED{"UPDATE failed!\n"};
inline constexpr message_text<> ROW_COUNT_FAILED{"Get row count failed!\n"};

inline constexpr refusal_texts INSERT_REFUSED{
    "MAX number of rows allowed (%d) for table '%s' reached. Data will not be inserted!\n",
    "Duplicated data will not be inserted into table '%s'!\n",
    "Insertion of index failed!\n",
    "Could not insert at table '%s'!\n",
};
