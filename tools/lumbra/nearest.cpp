#include "nearest.h"

#include <algorithm>
#include <vector>

namespace lumbra::tool {
namespace {

// How many such mistakes make one word of the other.
std::size_t Distance(std::string_view From, std::string_view To) {
  std::vector<std::vector<std::size_t>> Table(From.size() + 1, std::vector<std::size_t>(To.size() + 1));
  for (std::size_t i = 0; i <= From.size(); ++i) {
    for (std::size_t j = 0; j <= To.size(); ++j) {
      std::size_t& nBest = Table[i][j];
      if (i == 0 || j == 0) {
        nBest = i + j;
        continue;
      }
      const std::size_t nReplaced = Table[i - 1][j - 1] + (From[i - 1] == To[j - 1] ? 0 : 1);
      nBest = std::min({Table[i - 1][j] + 1, Table[i][j - 1] + 1, nReplaced});
      const bool bSwapped = i > 1 && j > 1 && From[i - 1] == To[j - 2] && From[i - 2] == To[j - 1];
      if (bSwapped) nBest = std::min(nBest, Table[i - 2][j - 2] + 1);
    }
  }
  return Table[From.size()][To.size()];
}

}  // namespace

std::string Nearest(std::string_view Typed, std::span<const std::string> Words) {
  constexpr std::size_t kLongestWord = 32;
  constexpr std::size_t kShortestBeginning = 3;
  if (Typed.size() > kLongestWord) return {};
  std::string Best;
  std::size_t nBest = std::max<std::size_t>(1, Typed.size() / 3) + 1;
  for (const std::string& Word : Words) {
    const bool bBeginning = Typed.size() >= kShortestBeginning && Word.starts_with(Typed);
    const std::size_t nDistance = bBeginning ? 0 : Distance(Typed, Word);
    if (nDistance >= nBest) continue;
    nBest = nDistance;
    Best = Word;
  }
  return Best;
}

}  // namespace lumbra::tool
