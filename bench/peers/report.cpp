#include "report.h"

#include <algorithm>
#include <cmath>

#include "peer.h"

namespace lumbra::peers {
namespace {

// The element with that name, which is made behind the others where it is missing.
template <class Element>
Element& Named(std::vector<Element>& Among, std::string Element::*pName, const std::string& Name) {
  const auto Found = std::find_if(Among.begin(), Among.end(), [&](const Element& One) { return One.*pName == Name; });
  if (Found != Among.end()) return *Found;
  Among.emplace_back().*pName = Name;
  return Among.back();
}

// Three digits that count.
void PrintNumber(std::FILE* pInto, double nValue) {
  const int nDecimals = nValue < 0.1 ? 3 : nValue < 10 ? 2 : nValue < 100 ? 1 : 0;
  std::fprintf(pInto, "%.*f", nDecimals, nValue);
}

void PrintRatio(std::FILE* pInto, double nOurs, double nTheirs) {
  std::isfinite(nOurs / nTheirs) ? std::fprintf(pInto, " %.2f |", nOurs / nTheirs) : std::fputs(" |", pInto);
}

}  // namespace

void Report::Add(const std::string& Title, const std::string& Work, const std::string& Column, double nValue) {
  Named(Named(m_Tables, &Table::Title, Title).Rows, &Row::Work, Work).Values[Column].push_back(nValue);
}

double Report::MedianOf(const Row& Of, const std::string& Column) const {
  const auto Found = Of.Values.find(Column);
  if (Found == Of.Values.end()) return std::nan("");
  std::vector<double> Values = Found->second;
  std::sort(Values.begin(), Values.end());
  return Values[Values.size() / 2];
}

void Report::PrintRow(std::FILE* pInto, const Row& Printed) const {
  std::fprintf(pInto, "| %s |", Printed.Work.c_str());
  for (const std::string& Column : m_Columns) {
    const double nMedian = MedianOf(Printed, Column);
    if (std::isnan(nMedian)) {
      std::fputs(" – |", pInto);
      continue;
    }
    const std::vector<double>& Values = Printed.Values.at(Column);
    const auto [pLeast, pMost] = std::minmax_element(Values.begin(), Values.end());
    std::fputs(" ", pInto);
    PrintNumber(pInto, nMedian);
    if (Values.size() > 1) std::fprintf(pInto, " ±%.0f%%", 50 * (*pMost - *pLeast) / nMedian);
    std::fputs(" |", pInto);
  }
  double nBest = std::nan("");
  for (std::size_t i = 1; i + 1 < m_Columns.size(); ++i) nBest = std::fmin(nBest, MedianOf(Printed, m_Columns[i]));
  PrintRatio(pInto, MedianOf(Printed, m_Columns.front()), nBest);
  PrintRatio(pInto, MedianOf(Printed, m_Columns.front()), MedianOf(Printed, m_Columns.back()));
  std::fputs("\n", pInto);
}

void Report::Print(std::FILE* pInto) const {
  for (const Table& Printed : m_Tables) {
    std::fprintf(pInto, "\n**%s**\n\n| work |", Printed.Title.c_str());
    for (const std::string& Column : m_Columns) std::fprintf(pInto, " %s |", Column.c_str());
    std::fprintf(pInto, " %s / best peer | %s / %s |\n|---|", m_Columns.front().c_str(), m_Columns.front().c_str(),
                 m_Columns.back().c_str());
    for (std::size_t i = 0; i < m_Columns.size() + 2; ++i) std::fputs("---|", pInto);
    std::fputs("\n", pInto);
    for (const Row& One : Printed.Rows) PrintRow(pInto, One);
  }
}

void Report::WriteData(const std::string& File) const {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> Data(std::fopen(File.c_str(), "w"), std::fclose);
  Require(Data != nullptr, "the data of the plot");
  std::fputs("work", Data.get());
  for (const std::string& Column : m_Columns) std::fprintf(Data.get(), "\t%s", Column.c_str());
  for (const Row& One : m_Tables.front().Rows) {
    std::fprintf(Data.get(), "\n%s", One.Work.c_str());
    for (const std::string& Column : m_Columns) std::fprintf(Data.get(), "\t%.4f", MedianOf(One, Column));
  }
  std::fputs("\n", Data.get());
}

}  // namespace lumbra::peers
