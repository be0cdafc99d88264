// lumbra objects: what a store knows by name, in the order of ids or as trees.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "failure.h"
#include "host/text.h"
#include "ids.h"
#include "inspect/paths.h"
#include "open_objects.h"
#include "path_filter.h"
#include "reading.h"

namespace lumbra::tool {
namespace {

using inspect::Answer;
using inspect::DataBlock;
using inspect::ObjectView;

// An object as it is shown.
struct Listed {
  std::uint64_t nId = 0;
  bool bRead = false;  // the record could be read: type, flags and the blocks of data are known
  tODB_ID_ENTRY Record{};
  std::vector<DataBlock> Data;
};

std::string Hex(std::uint32_t nValue, int nDigits) {
  char Text[16];
  std::snprintf(Text, sizeof(Text), "0x%0*x", nDigits, nValue);
  return Text;
}

class Output {
 public:
  explicit Output(const ObjectsOptions& Options) : m_Options(Options) {}

  // pWhy stands for a name that is not shown; null for one that is.
  void Print(const Listed& Object, std::string_view Name, const char* pWhy, std::size_t nIndent) const {
    if (m_Options.bJson) return PrintJson(Object, Name, pWhy);
    const std::string Type = Object.bRead ? FormatType(Object.Record.nType) : "-";
    const std::string Flags = Object.bRead ? Hex(Object.Record.nFlags, 2) : "-";
    std::printf("%s  %-6s  %-4s  %*s%s\n", FormatId(Object.nId).c_str(), Type.c_str(), Flags.c_str(),
                static_cast<int>(nIndent), "", pWhy != nullptr ? pWhy : Printable(Name).c_str());
    for (const DataBlock& One : Object.Data) {
      std::printf("%34s%*s%s  %llu bytes\n", "", static_cast<int>(nIndent), "", Hex(One.nKey, 8).c_str(),
                  static_cast<unsigned long long>(One.nSize));
    }
  }

 private:
  void PrintJson(const Listed& Object, std::string_view Name, const char* pWhy) const {
    nlohmann::ordered_json Line = {
        {"id", FormatId(Object.nId)}, {"type", nullptr}, {"flags", nullptr}, {"parent", nullptr}, {"name", nullptr}};
    if (Object.bRead) {
      Line["type"] = Object.Record.nType;
      Line["flags"] = Object.Record.nFlags;
      if (Object.Record.nParentId != 0)
        Line["parent"] = FormatId(WithDatabase(Object.Record.nParentId, DatabaseOfId(Object.nId)));
    }
    if (pWhy == nullptr) {
      Line["name"] = host::ToUtf8(host::ToUtf16(Name));
      if (!host::IsUtf8(Name)) Line["escaped"] = Printable(Name);
    }
    if (m_Options.bData) {
      Line["data"] = nlohmann::ordered_json::array();
      for (const DataBlock& One : Object.Data) Line["data"].push_back({{"key", One.nKey}, {"size", One.nSize}});
    }
    std::puts(host::PrintableJson(Line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)).c_str());
  }

  const ObjectsOptions& m_Options;
};

class Lister {
 public:
  Lister(const CommonOptions& Common, const ObjectsOptions& Options)
      : m_Options(Options),
        m_pStore(OpenToRead(Common)),
        m_Stores(*m_pStore, Common, &m_Findings),
        m_Paths(*m_pStore, CacheBytesOf(Common)),
        m_Filter(Options.Under),
        m_Output(Options) {}

  int List() {
    if (m_Options.Database) {
      ListStores(m_Stores.List(*m_Options.Database));
      return m_Findings.StatusOfReading(kExitOk);
    }
    ListStores(m_Stores.List(DatabaseName{kSystemDatabase, {}}));
    for (const inspect::Database& One : m_pStore->Databases()) {
      try {
        if (One.Id != kSystemDatabase) ListStores(m_Stores.List(One));
      } catch (const Failure& Reason) {  // one that cannot be listed does not hide the others
        ReportFailure(Reason);
        m_Findings.NoteMissing();
      }
    }
    return m_Findings.StatusOfReading(kExitOk);
  }

 private:
  // The newest segment first, as names are looked up.
  void ListStores(std::vector<OpenObjects> Stores) {
    for (OpenObjects& One : Stores) {
      if (!m_Stores.Open(&One)) continue;
      if (One.Life.nSegment != 0) One.Life.nToken = m_Paths.Keep(One.Life.nDatabase, One.Life.nSegment);
      if (One.pObjects->IsDeleted()) continue;  // and names may not be found any more
      m_pOpen = &One;
      m_nUnreadable = 0;
      m_Options.bTree ? ListAsTree() : ListInOrder();
      One.pObjects.reset();
      if (m_nUnreadable == 0) continue;
      m_Findings.NoteMissing();
      std::fflush(stdout);
      std::fprintf(stderr, "lumbra: of %s, %llu objects or what belongs to them cannot be read\n",
                   DescribeStoreOf(One.nBase).c_str(), static_cast<unsigned long long>(m_nUnreadable));
    }
  }

  Listed Read(std::uint32_t nShortId) {
    Listed Object;
    Object.nId = m_pOpen->nBase | nShortId;
    Object.bRead = m_pOpen->pObjects->ReadRecord(nShortId, &Object.Record) == Answer::Read;
    if (!Object.bRead) ++m_nUnreadable;
    const bool bHasData = m_Options.bData && Object.bRead && Object.Record.nDataEntriesCount != 0;
    if (bHasData && m_pOpen->pObjects->ListData(nShortId, &Object.Data) != Answer::Read) ++m_nUnreadable;
    return Object;
  }

  void ListInOrder() {
    constexpr std::uint32_t kBatch = 4096;
    const std::uint32_t nCount = m_pOpen->pObjects->Count();
    std::vector<Listed> Batch;
    std::vector<std::uint64_t> Ids;
    for (std::uint32_t nDone = 0; nDone < nCount;) {
      Batch.clear();
      Ids.clear();
      for (; nDone < nCount && Ids.size() < kBatch; ++nDone) {
        Batch.push_back(Read(nDone + 1));
        Ids.push_back(Batch.back().nId);
      }
      const std::vector<ObjectView>& Views = m_Paths.Resolve(Ids, m_pOpen->Life);
      for (std::size_t i = 0; i < Batch.size(); ++i) Print(Batch[i], Views[i]);
    }
  }

  void Print(const Listed& Object, const ObjectView& View) {
    const bool bNamed = View.Of == ObjectView::State::Named;
    const bool bTooLong = View.Of == ObjectView::State::TooLong;
    if (!bNamed && !bTooLong && Object.bRead) ++m_nUnreadable;  // the others are counted
    if (bNamed ? !m_Filter.Matches(View.Name) : !m_Options.Under.empty()) return;
    m_Output.Print(Object, View.Name, InPlaceOfName(View), 0);
  }

  // ---- Trees

  struct Pending {
    std::uint32_t nShortId;
    std::uint32_t nIndent;
    std::size_t nPathLength;  // of the path of its parent
  };

  void ListAsTree() {
    const std::uint32_t nCount = m_pOpen->pObjects->Count();
    ReadParents(nCount);
    m_Seen.assign(std::size_t{nCount} + 1, false);
    for (std::uint32_t i = m_nFirstChild[0]; i < m_nFirstChild[1]; ++i) Walk(m_Children[i]);
    for (std::uint32_t nShortId = 1; nShortId <= nCount; ++nShortId) {
      if (m_Seen[nShortId]) continue;
      ++m_nUnreadable;  // its parents run in a circle
      Walk(nShortId);
    }
  }

  // The children of each object in the order of their ids; those of 0 have no parent here.
  void ReadParents(std::uint32_t nCount) {
    std::vector<std::uint32_t> Parents(std::size_t{nCount} + 1, 0);
    for (std::uint32_t nShortId = 1; nShortId <= nCount; ++nShortId) {
      tODB_ID_ENTRY Record{};
      if (m_pOpen->pObjects->ReadRecord(nShortId, &Record) != Answer::Read) continue;
      const std::uint32_t nParent = MAKE_SHORT_OBJECT_ID(Record.nParentId);
      if (StoreNumberOf(Record.nParentId) == m_pOpen->Life.nSegment && nParent <= nCount) Parents[nShortId] = nParent;
    }
    m_nFirstChild.assign(std::size_t{nCount} + 2, 0);
    for (std::uint32_t i = 1; i <= nCount; ++i) ++m_nFirstChild[Parents[i] + std::size_t{1}];
    for (std::size_t i = 1; i < m_nFirstChild.size(); ++i) m_nFirstChild[i] += m_nFirstChild[i - 1];
    m_Children.resize(nCount);
    std::vector<std::uint32_t> Next(m_nFirstChild.begin(), m_nFirstChild.end() - 1);
    for (std::uint32_t i = 1; i <= nCount; ++i) m_Children[Next[Parents[i]]++] = i;
  }

  void Walk(std::uint32_t nTop) {
    constexpr std::uint32_t kStep = 2;
    constexpr std::uint32_t kDeepest = 100;  // objects of a line of millions of parents would cost as many blanks
    std::string Path;
    std::vector<Pending> Open{{nTop, 0, 0}};
    while (!Open.empty()) {
      const Pending One = Open.back();
      Open.pop_back();
      if (m_Seen[One.nShortId]) continue;
      m_Seen[One.nShortId] = true;
      Path.resize(One.nPathLength);
      const Listed Object = Read(One.nShortId);
      std::string Name;
      const bool bNamed = Object.bRead && ReadOwnName(Object, &Name);
      AddTo(&Path, Object, Name);
      const bool bShown = m_Filter.Matches(Path);
      if (bShown) m_Output.Print(Object, Name, bNamed ? nullptr : kNameUnreadable, One.nIndent);
      const std::uint32_t nIndent = bShown ? std::min(One.nIndent + kStep, kDeepest * kStep) : One.nIndent;
      for (std::uint32_t i = m_nFirstChild[One.nShortId + std::size_t{1}]; i > m_nFirstChild[One.nShortId]; --i)
        Open.push_back({m_Children[i - 1], nIndent, Path.size()});
    }
  }

  bool ReadOwnName(const Listed& Object, std::string* pName) {
    if (Object.Record.nNameSize == 0) return true;
    std::span<const std::uint8_t> Stored;
    if (m_pOpen->pObjects->ReadName(Object.Record, &Stored) != Answer::Read) {
      ++m_nUnreadable;
      return false;
    }
    if ((Object.Record.nFlags & fObjUtf8) != 0) {
      pName->assign(Stored.begin(), Stored.end());
    } else {
      std::u16string Wide(Stored.size() / sizeof(char16_t), u'\0');
      std::memcpy(Wide.data(), Stored.data(), Wide.size() * sizeof(char16_t));
      *pName = host::NameToBytes(Wide);
    }
    return true;
  }

  // Makes the path of an object of that of its parent, as far as paths go.
  void AddTo(std::string* pPath, const Listed& Object, const std::string& Name) const {
    if (m_Options.Under.empty() || pPath->size() > inspect::kMaxNameUnits * 4) return;
    const bool bSeparated = Name.starts_with('/') || Name.starts_with('\\');
    if (Object.Record.nParentId != 0 && !bSeparated) *pPath += Object.Record.nType == typeRegistryValue ? '/' : '\\';
    *pPath += Name;
  }

  const ObjectsOptions& m_Options;
  Findings m_Findings;
  const std::unique_ptr<inspect::Store> m_pStore;
  ObjectStores m_Stores;
  inspect::Paths m_Paths;
  const PathFilter m_Filter;
  const Output m_Output;
  OpenObjects* m_pOpen = nullptr;   // what is listed now
  std::uint64_t m_nUnreadable = 0;  // of it
  std::vector<bool> m_Seen;
  std::vector<std::uint32_t> m_nFirstChild;  // in m_Children, of each object
  std::vector<std::uint32_t> m_Children;
};

}  // namespace

int ListObjects(const CommonOptions& Common, const ObjectsOptions& Options) {
  if (ReadsThroughComponent(Common)) {
    std::fputs("lumbra: a module lists no objects: objects is not for --module and --trace\n", stderr);
    return kExitUsage;
  }
  return Lister(Common, Options).List();
}

}  // namespace lumbra::tool
