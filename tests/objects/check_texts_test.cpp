// The texts of failed checks are a contract with whoever reads traces: the list of the documents is the one that the
// compiler holds every check against.
#include "objects/check_texts.h"

#include <fstream>
#include <iterator>

#include "support/steps.h"

namespace lumbra::test {
namespace {

TEST(CheckTextsTest, StandInTheDocuments) {
  std::ifstream Document(LUMBRA_DOCS "/check-texts.md");
  std::vector<std::string> Listed;
  for (std::string Line; std::getline(Document, Line);) {
    if (Line.starts_with("    Failed check: ")) Listed.push_back(Line.substr(4));
  }
  Step("the list", Listed).Is({std::begin(kCheckTexts), std::end(kCheckTexts)});
}

}  // namespace
}  // namespace lumbra::test
