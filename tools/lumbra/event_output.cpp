#include "event_output.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "failure.h"
#include "host/text.h"
#include "ids.h"
#include "reading.h"

namespace lumbra::tool {
namespace {

// The fields of the tool's own events in the order in which people are shown them.
constexpr const char* kOwnOrder[] = {"time", "kind", "value", "object"};
constexpr std::uint32_t kIdWidth = 18;
constexpr std::uint32_t kKindWidth = 6;
constexpr std::uint32_t kTypeWidth = 6;

std::uint64_t IdAt(inspect::Place Where, std::uint32_t nDatabase) {
  return WithDatabase((std::uint64_t{Where.nSegment} << 32) | Where.nIndex, nDatabase);
}

std::string_view KindName(std::uint64_t nKind) {
  constexpr std::string_view kNames[] = {"-", "file", "folder", "link", "other"};
  return nKind < std::size(kNames) ? kNames[nKind] : std::string_view();
}

// Whether a text of such bytes is written as it is: eight are looked at together.
bool IsPlainAscii(std::string_view Text) {
  constexpr std::uint64_t kOnes = 0x0101010101010101;
  constexpr std::uint64_t kHigh = 0x8080808080808080;
  std::uint64_t nOdd = 0;
  std::size_t n = 0;
  for (; n + 8 <= Text.size(); n += 8) {
    std::uint64_t nEight = 0;
    std::memcpy(&nEight, Text.data() + n, 8);
    // Bytes above 0x7F, below 0x20, and 0x7F; a borrow or carry can only come from a byte that is one of these.
    nOdd |= nEight | (nEight - kOnes * 0x20) | (nEight + kOnes);
  }
  bool bPlain = (nOdd & kHigh) == 0;
  for (; n < Text.size(); ++n) bPlain = bPlain && Text[n] >= 0x20 && Text[n] < 0x7F;
  return bPlain;
}

bool HasNone(std::string_view Text, char c) {
  return Text.empty() || std::memchr(Text.data(), c, Text.size()) == nullptr;
}

std::uint64_t NumberAt(const Field& What, const std::uint8_t* pEvent) {
  std::uint64_t nNumber = 0;
  std::memcpy(&nNumber, pEvent + What.nOffset, What.nSize);
  return nNumber;
}

std::int64_t SignedAt(const Field& What, const std::uint8_t* pEvent) {
  const std::uint32_t nShift = 64 - 8 * What.nSize;
  return static_cast<std::int64_t>(NumberAt(What, pEvent) << nShift) >> nShift;
}

}  // namespace

// ---- Columns ----------------------------------------------------------------------------------------------

EventOutput::EventOutput(const EventsOptions& Options, const Schema& Layout, std::uint32_t nDatabase)
    : m_Form(Options.Form),
      m_bNumbers(Options.bNumbers),
      m_bParents(Options.bParents),
      m_bCursors(Options.bShowCursor && Options.Form != OutputForm::Table),
      m_Layout(Layout),
      m_bOwn(Layout == OwnLayout()),
      m_nDatabase(nDatabase),
      m_Times(Options.Form == OutputForm::Csv && !Options.bUtc ? Zone::Local : Zone::Utc) {
  for (const std::string& Name : Options.Fields.empty() ? UsualFields() : Options.Fields)
    m_Columns.push_back(ColumnOf(Name));
  if (m_bCursors) m_Columns.push_back({Source::Cursor, "cursor", {}});
  m_bAsksForNames = std::ranges::any_of(m_Columns, [](const Column& One) {
    return One.From == Source::Type || One.From == Source::Name || One.From == Source::Parent;
  });
  for (Column& One : m_Columns) {
    const bool bFirst = &One == &m_Columns.front();
    if (m_Form == OutputForm::Json) One.Before = (bFirst ? "{\"" : ",\"") + One.Name + "\":";
    if (m_Form == OutputForm::Csv && !bFirst) One.Before = ",";
    if (m_Form == OutputForm::Table && !bFirst) One.Before = "  ";
    if (m_Form == OutputForm::Table) Align(&One);
  }
  if (!m_Columns.back().bRight) m_Columns.back().nWidth = 0;
}

// A table shows what an object is called in the place of its id.
std::vector<std::string> EventOutput::UsualFields() const {
  std::vector<std::string> Names = {"id"};
  const bool bTable = m_Form == OutputForm::Table;
  const Field* const pObject = m_Layout.Object();
  const auto Add = [&](const std::string& Name) {
    if (!bTable || pObject == nullptr || Name != pObject->Name) Names.push_back(Name);
  };
  if (m_bOwn) {
    for (const char* const pName : kOwnOrder) Add(pName);
  } else {
    for (const Field& One : m_Layout.Fields) Add(One.Name);
  }
  if (pObject == nullptr) return Names;
  if (bTable && m_bParents) Names.emplace_back("parent");
  if (!bTable) Names.emplace_back("type");
  Names.emplace_back("name");
  if (!bTable && m_bParents) Names.emplace_back("parent");
  return Names;
}

EventOutput::Column EventOutput::ColumnOf(const std::string& Name) const {
  if (Name == "id") return {Source::Id, Name, {}};
  const bool bOfObject = Name == "type" || Name == "name" || Name == "parent";
  if (bOfObject && m_Layout.Object() != nullptr) {
    return {Name == "type" ? Source::Type : Name == "name" ? Source::Name : Source::Parent, Name, {}};
  }
  if (const Field* const pFound = m_Layout.Find(Name)) return {Source::Field, Name, {}, *pFound};
  std::string Known = "id";
  for (const Field& One : m_Layout.Fields) Known += ", " + One.Name;
  if (m_Layout.Object() != nullptr) Known += ", type, name, parent";
  throw Failure("show the field " + Printable(Name), errNOT_FOUND, "there are " + Known);
}

void EventOutput::Align(Column* pColumn) const {
  const auto Left = [pColumn](std::uint32_t nWidth) {
    pColumn->nWidth = nWidth;
  };
  const auto Right = [pColumn](std::uint32_t nWidth) {
    pColumn->nWidth = nWidth;
    pColumn->bRight = true;
  };
  constexpr std::uint32_t kMostColumns = 80;
  if (pColumn->From == Source::Id || pColumn->From == Source::Parent) return Left(kIdWidth);
  if (pColumn->From == Source::Type) return Left(kTypeWidth);
  if (pColumn->From != Source::Field) return;
  const Field& Of = pColumn->Of;
  if (m_bOwn && Of.Name == "kind") return Left(kKindWidth);
  if (Of.Type == FieldType::Text) return Left(std::min(Of.nSize, kMostColumns));
  if (Of.Type == FieldType::Id) return Left(kIdWidth);
  if (IsWhole(Of.Type)) return Right(Of.nSize == 8 ? 12 : Of.nSize == 4 ? 10 : Of.nSize == 2 ? 5 : 3);
  if (Of.Type == FieldType::Float) return Right(12);
}

// ---- Lines ------------------------------------------------------------------------------------------------

void EventOutput::PrintHead() {
  if (m_Form != OutputForm::Csv) return;
  for (const Column& One : m_Columns) {
    m_Lines.Add(One.Before);
    m_Lines.Add(One.Name);
  }
  m_Lines.Add("\r\n");
}

void EventOutput::Print(inspect::Place Where, const std::uint8_t* pEvent, const inspect::ObjectView* pObject,
                        const std::string& Cursor) {
  for (const Column& One : m_Columns) {
    m_Lines.Add(One.Before);
    const std::size_t nStart = m_Lines.Size();
    AddValue(One, Where, pEvent, pObject, Cursor);
    if (One.nWidth == 0) continue;
    if (One.bRight) {
      m_Lines.AlignRight(nStart, One.nWidth);
    } else {
      m_Lines.AlignLeft(nStart, One.nWidth);
    }
  }
  m_Lines.Add(m_Form == OutputForm::Json ? "}\n" : m_Form == OutputForm::Csv ? "\r\n" : "\n");
}

void EventOutput::AddValue(const Column& What, inspect::Place Where, const std::uint8_t* pEvent,
                           const inspect::ObjectView* pObject, const std::string& Cursor) {
  const bool bNamed = pObject != nullptr && pObject->Of == inspect::ObjectView::State::Named;
  switch (What.From) {
    case Source::Id:
      return AddId(IdAt(Where, m_nDatabase));
    case Source::Field:
      return AddField(What.Of, pEvent);
    case Source::Type:
      if (!bNamed) return AddNull();
      if (m_Form == OutputForm::Table && !m_bNumbers) return m_Lines.Add(FormatType(pObject->nType));
      return m_Lines.AddNumber(pObject->nType);
    case Source::Name:
      return AddName(*pObject);
    case Source::Parent:
      return pObject->nParent == 0 ? AddNull() : AddId(pObject->nParent);
    case Source::Cursor:
      return AddText(Cursor);
  }
}

void EventOutput::AddField(const Field& What, const std::uint8_t* pEvent) {
  const bool bJson = m_Form == OutputForm::Json;
  switch (What.Type) {
    case FieldType::Unsigned:
      if (m_bOwn && m_Form == OutputForm::Table && !m_bNumbers && What.Name == "kind") {
        if (const std::string_view Name = KindName(NumberAt(What, pEvent)); !Name.empty()) return m_Lines.Add(Name);
      }
      return m_Lines.AddNumber(NumberAt(What, pEvent));
    case FieldType::Signed:
      return m_Lines.AddNumber(SignedAt(What, pEvent));
    case FieldType::Float: {
      double dWide = 0;
      float dNarrow = 0;
      if (What.nSize == 4) std::memcpy(&dNarrow, pEvent + What.nOffset, sizeof(dNarrow));
      if (What.nSize == 8) std::memcpy(&dWide, pEvent + What.nOffset, sizeof(dWide));
      if (bJson && !std::isfinite(What.nSize == 4 ? static_cast<double>(dNarrow) : dWide)) return AddNull();
      return What.nSize == 4 ? m_Lines.AddNumber(dNarrow) : m_Lines.AddNumber(dWide);
    }
    case FieldType::Id:
      return AddId(NumberAt(What, pEvent));
    case FieldType::Hex:
      if (bJson) m_Lines.Add('"');
      m_Lines.AddHex({pEvent + What.nOffset, What.nSize});
      if (bJson) m_Lines.Add('"');
      return;
    case FieldType::Text: {
      const std::string_view Text(reinterpret_cast<const char*>(pEvent) + What.nOffset, What.nSize);
      return AddText(Text.substr(0, std::min(Text.find('\0'), Text.size())));
    }
    default:
      break;
  }
  const std::uint64_t nTime = NumberAt(What, pEvent);
  if (m_bNumbers) return TimeText::AddNanoseconds(&m_Lines, What.Type, nTime);
  if (bJson) m_Lines.Add('"');
  const bool bHasForm = m_Times.Add(&m_Lines, What.Type, nTime);
  if (bJson && bHasForm) return m_Lines.Add('"');
  if (bHasForm) return;
  if (bJson) {
    m_Lines.TakeBack(1);
    AddNull();
  } else if (What.Type == FieldType::FileTime) {
    m_Lines.AddNumber(nTime);
  } else {
    m_Lines.AddNumber(static_cast<std::int64_t>(nTime));
  }
}

void EventOutput::AddId(std::uint64_t nId) {
  if (m_bNumbers) return m_Lines.AddNumber(nId);
  const bool bJson = m_Form == OutputForm::Json;
  if (bJson) m_Lines.Add('"');
  m_Lines.AddId(nId);
  if (bJson) m_Lines.Add('"');
}

void EventOutput::AddNull() {
  if (m_Form != OutputForm::Csv) m_Lines.Add(m_Form == OutputForm::Json ? "null" : "-");
}

void EventOutput::AddName(const inspect::ObjectView& Object) {
  const bool bNamed = Object.Of == inspect::ObjectView::State::Named;
  if (m_Form != OutputForm::Table) {
    if (!bNamed) return AddNull();
    AddText(Object.Name);
    // JSON has no form for bytes that are no UTF-8, but --escaped reads this.
    if (m_Form != OutputForm::Json || IsPlainAscii(Object.Name) || host::IsUtf8(Object.Name)) return;
    m_Lines.Add(",\"escaped\":");
    return AddJsonText(Printable(Object.Name));
  }
  if (bNamed) return AddText(Object.Name);
  m_Lines.Add(InPlaceOfName(Object));
}

// Most names are plain, and nothing else than copied.
void EventOutput::AddText(std::string_view Text) {
  const bool bPlain = IsPlainAscii(Text);
  switch (m_Form) {
    case OutputForm::Table:
      if (bPlain && !Text.starts_with('"')) return m_Lines.Add(Text);
      return m_Lines.Add(Printable(Text));
    case OutputForm::Json:
      if (!bPlain || !HasNone(Text, '"') || !HasNone(Text, '\\')) return AddJsonText(Text);
      m_Lines.Add('"');
      m_Lines.Add(Text);
      return m_Lines.Add('"');
    case OutputForm::Csv:
      if (Text.find_first_of("\",\r\n") == std::string_view::npos) return m_Lines.Add(Text);
      m_Lines.Add('"');
      for (const char c : Text) m_Lines.Add(c == '"' ? std::string_view("\"\"") : std::string_view(&c, 1));
      return m_Lines.Add('"');
  }
}

void EventOutput::AddJsonText(std::string_view Text) {
  m_Lines.Add(host::PrintableJson(nlohmann::json(host::ToUtf8(host::ToUtf16(Text))).dump()));
}

void EventOutput::PrintLine(std::string_view Text) {
  m_Lines.Add(Text);
  m_Lines.Add(m_Form == OutputForm::Csv ? "\r\n" : "\n");
}

// ---- Gaps -------------------------------------------------------------------------------------------------

namespace {

std::string_view WordOf(inspect::Gap::Why Reason) {
  switch (Reason) {
    case inspect::Gap::Why::Dropped:
      return "dropped";
    case inspect::Gap::Why::Cleared:
      return "cleared";
    case inspect::Gap::Why::Damaged:
      return "damaged";
    case inspect::Gap::Why::Unreadable:
      return "unreadable";
  }
  return {};
}

const char* DescribeReason(inspect::Gap::Why Reason) {
  switch (Reason) {
    case inspect::Gap::Why::Dropped:
      return "the oldest segments were dropped";
    case inspect::Gap::Why::Cleared:
      return "the database was cleared";
    case inspect::Gap::Why::Damaged:
      return "a file is missing or damaged";
    case inspect::Gap::Why::Unreadable:
      return "a file cannot be read";
  }
  return "";
}

}  // namespace

void EventOutput::PrintGap(const inspect::Gap& Lost) {
  if (m_Form != OutputForm::Json) return;
  m_Lines.Add("{\"gap\":{\"from\":");
  AddId(IdAt(Lost.From, m_nDatabase));
  m_Lines.Add(",\"to\":");
  AddId(IdAt(Lost.To, m_nDatabase));
  m_Lines.Add(",\"count\":");
  if (Lost.bAtLeast) {
    m_Lines.Add("null");
  } else {
    m_Lines.AddNumber(Lost.nCount);
  }
  m_Lines.Add(",\"at_least\":");
  m_Lines.AddNumber(Lost.nCount);
  m_Lines.Add(",\"why\":\"");
  m_Lines.Add(WordOf(Lost.Reason));
  m_Lines.Add("\"}}\n");
}

std::string DescribeGap(const inspect::Gap& Lost, std::uint32_t nDatabase) {
  std::string Count = std::to_string(Lost.nCount) + (Lost.nCount == 1 ? " event" : " events");
  if (Lost.bAtLeast) Count = Lost.nCount == 0 ? "an unknown number of events" : "at least " + Count;
  return Count + " from " + FormatId(IdAt(Lost.From, nDatabase)) + " up to " + FormatId(IdAt(Lost.To, nDatabase)) +
         " are missing here: " + DescribeReason(Lost.Reason);
}

}  // namespace lumbra::tool
