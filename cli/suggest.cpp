#include "suggest.h"

#include <algorithm>
#include <cctype>

namespace cmctl {
namespace {

// Levenshtein distance, case-insensitive (names are upper case, and people
// type them in lower case).
size_t distance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diag = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t up = row[j];
            const bool same = std::toupper(static_cast<unsigned char>(a[i - 1])) ==
                              std::toupper(static_cast<unsigned char>(b[j - 1]));
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diag + (same ? 0 : 1)});
            diag = up;
        }
    }
    return row[b.size()];
}

}  // namespace

std::string nearest(const std::string& word, const std::vector<std::string>& candidates) {
    const size_t limit = std::max<size_t>(2, word.size() / 3);
    std::string best;
    size_t bestDistance = limit + 1;
    for (const std::string& c : candidates) {
        const size_t d = distance(word, c);
        if (d < bestDistance) bestDistance = d, best = c;
    }
    return best;
}

std::string didYouMean(const std::string& word, const std::vector<std::string>& candidates) {
    const std::string n = nearest(word, candidates);
    return n.empty() ? "" : " (did you mean " + n + "?)";
}

}  // namespace cmctl
