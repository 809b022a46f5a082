#include "Suggestion.h"

#include <algorithm>
#include <cstddef>
#include <numeric>

namespace Tansy::Cli {
namespace details {
namespace {

// Counts the letters that must be changed, added, left out, or swapped with their neighbour to turn one word into the
// other.
std::size_t Distance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> before_last(b.size() + 1);
  std::vector<std::size_t> last(b.size() + 1);
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 1; i <= a.size(); ++i) {
    before_last = last;
    last = row;
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        row[j] = std::min(row[j], before_last[j - 2] + 1);
      }
    }
  }
  return row[b.size()];
}

}  // namespace
}  // namespace details

std::string Suggest(const std::string& typed, const std::vector<std::string>& words) {
  std::string best;
  // This is one more than the largest distance that still counts as a typing error.
  std::size_t best_distance = typed.size() < 5 ? 2 : 3;
  for (const std::string& word : words) {
    const std::size_t distance = details::Distance(typed, word);
    if (distance < best_distance && distance < word.size()) {
      best = word;
      best_distance = distance;
    }
  }
  return best;
}

}  // namespace Tansy::Cli
