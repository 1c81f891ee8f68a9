// The host's part for the module's code inside the checker: plain memory, and a log that is kept.
#pragma once

#include <string>
#include <vector>

// Messages of the module's code at WARN and ERR since the last call, without their line ends.
std::vector<std::string> take_messages();

// Messages as one text.
std::string joined(const std::vector<std::string> &texts);
