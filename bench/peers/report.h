// What was measured, as Markdown tables: a row a work, a column a peer, medians with half of their range.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace lumbra::peers {

class Report {
 public:
  // Columns come in this order. The first is compared with the best of the others, but the last, and with the last.
  explicit Report(std::vector<std::string> Columns) : m_Columns(std::move(Columns)) {}

  // Rows and tables come in the order in which they are first met.
  void Add(const std::string& Title, const std::string& Work, const std::string& Column, double nValue);
  void Print(std::FILE* pInto) const;
  // The medians of the first table, separated by tabs, for a plot.
  void WriteData(const std::string& File) const;

 private:
  struct Row {
    std::string Work;
    std::map<std::string, std::vector<double>> Values;
  };
  struct Table {
    std::string Title;
    std::vector<Row> Rows;
  };
  void PrintRow(std::FILE* pInto, const Row& Printed) const;
  double MedianOf(const Row& Of, const std::string& Column) const;  // NaN where nothing was measured

  std::vector<std::string> m_Columns;
  std::vector<Table> m_Tables;
};

}  // namespace lumbra::peers
