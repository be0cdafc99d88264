// The parts of a verification, and what they have in common.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "inspect/file.h"
#include "inspect/finding.h"
#include "inspect/horizon.h"
#include "inspect/objects.h"
#include "inspect/store.h"
#include "inspect/verify.h"
#include "platform/os.h"

namespace lumbra::inspect {

// A file in a folder of the store, and what it is called in findings.
struct FileOf {
  os::FolderHandle pFolder;
  std::u16string Folder;  // of the database; empty: the store's own
  std::u16string Name;

  std::u16string Path() const { return Folder.empty() ? Name : Folder + u'/' + Name; }
};

std::string Hex(std::uint64_t nNumber);

// Takes what the parts find. A part is looked at once; where something contradicts itself, once more when that had time
// to settle, and what is found both times is told.
class Examiner {
 public:
  Examiner(const Store& Of, const Report& Tell, const Progress& Going, std::uint64_t nTotal, Verified* pTotals);

  const Store& Of() const { return m_Store; }
  Verified& Totals() { return *m_pTotals; }

  // Around a look at a part. The answer of the first End is whether to look again.
  struct Suspicion {
    std::vector<std::uint64_t> Keys;
  };
  void BeginFirst();
  bool EndFirst(Suspicion* pFound);
  void BeginSecond(const Suspicion& Of);
  void EndSecond() { TellRest(); }
  void WaitToSettle();

  // A contradiction, and what is left of something.
  void Suspect(const FileOf& In, std::uint64_t nOffset, const char* pWhat, std::string Expected = {},
               std::string Found = {});
  void Leftover(const FileOf& In, std::uint64_t nOffset, const std::string& What, std::string Expected = {},
                std::string Found = {});
  // A contradiction that was waited for already.
  void Settled(Finding Found);

  // Whether to read a contradiction once more, after a moment where this is the second look.
  bool LooksAgain(bool* pbLooked);

  // Counts bytes that were read in the first look. False when it is to end.
  bool Count(std::uint64_t nBytes);
  bool IsFirst() const { return !m_bSecond; }
  bool Stopped() const { return !m_pTotals->bWhole; }

 private:
  static constexpr std::uint32_t kMostOfAKind = 100;  // are told one by one, in a file

  bool IsToldByItself(const Finding& Found);
  void Forward(const Finding& Found);
  void TellRest();

  const Store& m_Store;
  const Report& m_Tell;
  const Progress& m_Going;
  const std::uint64_t m_nTotal;
  Verified* const m_pTotals;
  bool m_bSecond = false;
  std::vector<std::uint64_t> m_Keys;  // of what is suspected
  std::vector<Finding> m_Leftovers;
  std::map<std::pair<std::u16string, std::string>, std::uint32_t> m_Counts;  // of a kind, in a file
  std::vector<std::pair<Finding, std::uint64_t>> m_Rest;                     // kinds of which there were more
  Patience m_Patience;
  std::optional<bool> m_bHeld;
  std::uint64_t m_nDone = 0;
};

// What a part that is begun tells of a file which it cannot open.
const char* WhyNotOpen(os::SystemError nError, const FileOf& What);

// Reads a file piece by piece. What is asked for in the order in which it stands is read once.
class Window {
 public:
  static constexpr std::uint32_t kSize = 256 * 1024;

  Window(const File* pFile, FileOf What, Examiner* pTell);

  // Fewer bytes at the file's end, and where the system refuses, which is told. At most kSize.
  std::span<const std::uint8_t> Get(std::uint64_t nOffset, std::uint32_t nSize) {
    if (nOffset >= m_nStart && nOffset + nSize <= m_nStart + m_nValid)
      return {m_Bytes.get() + (nOffset - m_nStart), nSize};
    return Fill(nOffset, nSize);
  }
  void Forget() { m_nValid = 0; }

 private:
  std::span<const std::uint8_t> Fill(std::uint64_t nOffset, std::uint32_t nSize);

  const File* const m_pFile;
  const FileOf m_What;
  Examiner* const m_pTell;
  std::unique_ptr<std::uint8_t[]> m_Bytes;
  std::uint64_t m_nStart = 0;
  std::uint32_t m_nValid = 0;
  std::uint64_t m_nCounted = 0;  // bytes from the start that were counted
};

// ---- The parts ---------------------------------------------------------------------------------------------

struct ObjectsPart {
  os::FolderHandle pFolder;
  std::u16string Folder;  // the database's; empty: the shared objects
  std::uint32_t nSegment = 0;
  bool bMayBeBegun = false;  // its creation may have been cut short

  ObjectFileNames Names() const { return nSegment == 0 ? SharedObjectFiles() : ObjectFilesOf(nSegment); }
};

// The chain of a database's segments, and their events. Answers the object stores that belong to it.
std::vector<ObjectsPart> VerifyChain(const Database& What, const VerifyRequest& Request, Examiner* pTell);
void VerifyObjects(const ObjectsPart& What, Examiner* pTell);
void VerifyIndex(Examiner* pTell);

// What the tree has to lead to.
class HashedRecords {
 public:
  virtual ~HashedRecords() = default;
  virtual std::uint64_t CountAtHorizon() const = 0;  // short ids are 1 to this
  virtual std::uint64_t CountNow() = 0;              // the same, with what came since
  virtual std::uint64_t HashOf(std::uint64_t nShortId) const = 0;
  virtual bool IsDamaged(std::uint64_t nShortId) const = 0;
};

// bSeeded: the CRCs of nodes have seeds.
void VerifyTree(const FileOf& Tree, const File& From, HashedRecords& Records, bool bShared, bool bSeeded,
                Examiner* pTell);

}  // namespace lumbra::inspect
