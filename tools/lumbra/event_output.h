// Events as lines: a table, JSON or CSV.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "inspect/event_reader.h"
#include "inspect/paths.h"
#include "line_buffer.h"
#include "schema.h"
#include "time_text.h"

namespace lumbra::tool {

// A gap in words. nDatabase is part of the events' ids.
std::string DescribeGap(const inspect::Gap& Lost, std::uint32_t nDatabase);

class EventOutput {
 public:
  // Throws a Failure for fields that are not there. nDatabase is part of the events' ids.
  EventOutput(const EventsOptions& Options, const Schema& Layout, std::uint32_t nDatabase);

  // Whether Print needs to be told of the events' objects.
  bool AsksForNames() const { return m_bAsksForNames; }

  // What stands in front of all lines: of CSV alone.
  void PrintHead();

  // A line for an event. Of its object, and its cursor, where they are asked for.
  void Print(inspect::Place Where, const std::uint8_t* pEvent, const inspect::ObjectView* pObject,
             const std::string& Cursor);

  void PrintGap(const inspect::Gap& Lost);  // JSON alone
  void PrintLine(std::string_view Text);

  // False where standard output takes no more.
  bool WriteIfFull() { return m_Lines.WriteIfFull(stdout); }
  bool Write() { return m_Lines.Write(stdout); }

 private:
  enum class Source { Id, Field, Type, Name, Parent, Cursor };
  struct Column {
    Source From;
    std::string Name;
    std::string Before;  // in the line
    Field Of{};          // of the event
    std::uint32_t nWidth = 0;
    bool bRight = false;  // aligned there
  };

  std::vector<std::string> UsualFields() const;
  Column ColumnOf(const std::string& Name) const;
  void Align(Column* pColumn) const;
  void AddValue(const Column& What, inspect::Place Where, const std::uint8_t* pEvent,
                const inspect::ObjectView* pObject, const std::string& Cursor);
  void AddField(const Field& What, const std::uint8_t* pEvent);
  void AddId(std::uint64_t nId);
  void AddText(std::string_view Text);
  void AddJsonText(std::string_view Text);
  void AddName(const inspect::ObjectView& Object);
  void AddNull();

  const OutputForm m_Form;
  const bool m_bNumbers;
  const bool m_bParents;
  const bool m_bCursors;
  const Schema m_Layout;
  const bool m_bOwn;  // the tool's own events
  const std::uint32_t m_nDatabase;
  bool m_bAsksForNames = false;
  std::vector<Column> m_Columns;
  TimeText m_Times;
  LineBuffer m_Lines;
};

}  // namespace lumbra::tool
