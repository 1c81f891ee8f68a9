// What the module offers to the host's other script languages, as KSR.tarn_memdb.*.
#pragma once

// Gives the host the table of functions; to be called at start, ahead of the fork. True also on a
// host that has no place for it. False, logged, if the host refuses it.
bool offer_to_script_languages();
