// "Did you mean ...?" for a misspelt variable name or subcommand.
#pragma once

#include <string>
#include <vector>

namespace cmctl {

// The candidate nearest to `word` by edit distance, or "" when none is near
// enough to be what was meant.
std::string nearest(const std::string& word, const std::vector<std::string>& candidates);

// " (did you mean X?)" for the nearest candidate, or "".
std::string didYouMean(const std::string& word, const std::vector<std::string>& candidates);

}  // namespace cmctl
