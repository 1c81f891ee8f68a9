// Putting new files into the places of the old ones, which are kept.
//
// Each place has the old file or the new one at every moment: the old one gets a second name, and
// then the new one takes the first. What several files have to undergo is written down ahead, so
// that a run that is cut off can be finished by the next one.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/common/findings.h"
#include "tools/convert/report.h"
#include "tools/convert/site.h"

// Names that no table file may have, or the places would be others' too: those of all tables'
// files, of the files that a load sets aside, and of the new ones. False, told, if one of paths is
// such.
bool are_free_names(const std::vector<std::string> &paths, const std::vector<const site *> &sites,
                    findings *found);

// Puts the new files of these paths into place. *kept gets where what stood at a path is now. Gives
// applied, or, told, nothing or unfinished: then each path has what it had or its new file.
run_outcome place_files(const site &of, const std::vector<std::string> &paths,
                        std::map<std::string, std::string> *kept, findings *found);

// True if a run with this site's files, of whichever kind, was cut off: nothing else is to be done
// then. That run is finished where may_apply is set, and else told; *run gets what came of it.
bool goes_on(const site &of, bool may_apply, run_report *run, findings *found);
