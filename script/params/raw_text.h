// Parameter slots that kept their text because the host refused its format. The script loads all
// the same; at run time such a slot must never be taken for a format.
#pragma once

// Remembers a slot's text for the life of the process. False if memory is short.
bool remember_raw_text(const char *text);

// True if the slot holds a remembered text.
bool is_raw_text(const void *slot);
