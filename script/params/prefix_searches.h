// Telling a table of the best-match searches to come, for which it then has look-ups.
#pragma once

// Notes what a fix-up has left in the slot of a parameter of a call that may be a best match: of 1
// a format or a refused one's text, of 3 the text of the column. Parameters come in their order.
// Does nothing once the start is over.
void note_prefix_search(const void *slot, int param_no);
