// The tables of limits and properties: docs/interface.md says of each what its table says.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "lumbra/lumbra.h"

namespace lumbra::test {
namespace {

std::string Documented() {
  std::ifstream File(LUMBRA_DOCS "/interface.md", std::ios::binary);
  return {std::istreambuf_iterator<char>(File), {}};
}

TEST(TablesTest, LimitsAreDocumented) {
  const std::string Text = Documented();
  for (const LumbraLimitInfo& Limit : kLimits) {
    const std::string Row = "| " + std::to_string(Limit.nKind) + " | `--" + Limit.pName + "` | " + Limit.pUnit + " | " +
                            Limit.pMeaning + " |";
    EXPECT_NE(std::string::npos, Text.find(Row)) << Row;
  }
}

TEST(TablesTest, PropertiesAreDocumented) {
  const std::string Text = Documented();
  const char* const kTypes[] = {"u32", "UTF-16", "8-bit"};
  const char* const kSet[] = {"always", "until initialised", "ignored", "never"};
  for (const LumbraPropertyInfo& Property : kProperties) {
    char Id[16];
    std::snprintf(Id, sizeof(Id), "0x%08X", static_cast<unsigned>(Property.nId));
    const std::string Row = std::string("| `") + Property.pName + "` | " + Id + " | " +
                            kTypes[static_cast<int>(Property.Type)] + " | " + kSet[static_cast<int>(Property.Set)] +
                            " | " + Property.pMeaning + " |";
    EXPECT_NE(std::string::npos, Text.find(Row)) << Row;
  }
}

}  // namespace
}  // namespace lumbra::test
