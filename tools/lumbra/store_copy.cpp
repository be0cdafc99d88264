#include "store_copy.h"

#include <algorithm>
#include <thread>

#include "failure.h"
#include "format/file_names.h"
#include "format/named_index_file.h"
#include "format/record_file.h"
#include "format/segments_file.h"
#include "host/text.h"
#include "machine.h"
#include "object_copy.h"
#include "platform/result.h"
#include "salvage/trees.h"

namespace lumbra::tool {
namespace {

// A file that was written to shortly before it was looked at may have been written to again since, within one tick of
// the clock that tells.
constexpr std::uint64_t kSettled = 500000;  // 50 ms, in units of 100 ns
constexpr int kTries = 5;

constexpr os::FolderRules kOwnerAlone{};

bool IsSame(const os::FileLook& One, const os::FileLook& Other) {
  return One.nSize == Other.nSize && One.nBirth == Other.nBirth && One.nNumber == Other.nNumber &&
         One.nWritten == Other.nWritten;
}

bool IsSettled(const os::FileLook& Of) {
  return Of.nWritten + kSettled < os::CurrentTime();
}

void Require(os::SystemError nError, const std::string& What) {
  if (nError != os::kSuccess) throw Failure(What, ResultFromSystemError(nError));
}

}  // namespace

StoreCopy::StoreCopy(const inspect::Store& From, const std::filesystem::path& To, const BackupFiles& Before,
                     Findings* pFindings)
    : m_From(From), m_To(To), m_Before(Before), m_pFindings(pFindings) {}

std::string StoreCopy::What(const Place& At, const std::u16string& Name) const {
  return "copy " + Printable(At.Folder + host::ToUtf8(Name));
}

const BackupFiles& StoreCopy::Run() {
  Require(os::OpenFolder(m_To.u16string(), kOwnerAlone, &m_pTo), "open " + Printable(TextOf(m_To)));
  const Place Here{m_From.Folder(), m_pTo, ""};
  for (const inspect::Database& One : m_From.Databases()) CopyDatabase(One);
  CopyFile(Here, kIndexFile, UINT64_MAX, nullptr);  // names are only added to it: it has those of all that was copied
  CopyObjects(Here, inspect::SharedObjectFiles());
  m_Progress.End();
  return m_Files;
}

// ---- Databases --------------------------------------------------------------------------------------------

StoreCopy::Place StoreCopy::OpenPlace(const inspect::Database& Which) {
  Place At{nullptr, nullptr, host::ToUtf8(Which.Folder) + '/'};
  Require(m_From.OpenFolder(Which, &At.pFrom), "open " + Printable(At.Folder));
  const os::SystemError nError = os::MakeFolder(m_pTo, Which.Folder);
  if (nError != os::kAlreadyExists && nError != os::kFileExists) Require(nError, "make " + Printable(At.Folder));
  Require(os::OpenFolder(m_pTo, Which.Folder, &At.pTo), "open " + Printable(At.Folder));
  return At;
}

void StoreCopy::CopyDatabase(const inspect::Database& Which) {
  const Place At = OpenPlace(Which);
  CopyFile({m_From.Folder(), m_pTo, ""}, Which.Folder + u".schema", UINT64_MAX, nullptr);
  for (int i = 0; i < kTries; ++i) {
    if (TryDatabase(Which, At)) return;
  }
  throw Failure(What(At, u""), errSHARING_VIOLATION, "it is cleared, or all of it dropped, again and again meanwhile");
}

// False when it was cleared meanwhile, so that what was copied may be of two lives, or when all of it was dropped. The
// newest segment comes first: where one is found dropped, all before it are.
bool StoreCopy::TryDatabase(const inspect::Database& Which, const Place& At) {
  std::erase_if(m_Files, [&At](const auto& One) { return One.first.starts_with(At.Folder); });  // of an earlier try
  CopyFile(At, kIdentityFile, UINT64_MAX, nullptr);
  std::unique_ptr<inspect::File> pChain;
  (void)inspect::File::Open(At.pFrom, kSegmentsFile, &pChain);  // TakeHorizon tells when it is missing
  inspect::Horizon Seen;
  Check(inspect::TakeHorizon(m_From, Which, m_pFindings->Teller(), &Seen), What(At, kSegmentsFile));
  std::uint32_t nFirst = Seen.Segments.empty() ? Seen.nFirst : 0;
  for (auto One = Seen.Segments.rbegin(); One != Seen.Segments.rend(); ++One) {
    if (!CopySegment(At, *One, Seen.nEventSize)) break;
    nFirst = One->nNumber;
  }
  if (pChain != nullptr && pChain->IsDeleted()) return false;
  if (nFirst == 0 && !Seen.Segments.empty()) return false;
  if (Seen.nEventSize != 0) WriteFile(At, kSegmentsFile, EncodeSegments(nFirst, Seen.nEventSize));
  RemoveOthers(At);
  return true;
}

// False when it is not there any more, or went while it was copied.
bool StoreCopy::CopySegment(const Place& At, const inspect::SegmentExtent& Segment, std::uint32_t nEventSize) {
  const std::u16string Name = SegmentFileName(Segment.nNumber, kEventsFile);
  os::FileLook Source{};
  // A segment that is dropped loses its files when "segments.dat" leads behind it.
  const auto IsThere = [&] {
    const os::SystemError nError = os::LookAt(At.pFrom, Name, &Source);
    if (nError != os::kFileNotFound) Require(nError, What(At, Name));
    return nError == os::kSuccess && Source.nBirth == Segment.nBirth &&
           inspect::ReadChainHead(At.pFrom).nFirst <= Segment.nNumber;
  };
  if (!IsThere()) return false;
  const std::uint64_t nBytes = sizeof(tPLAINDB_HEADER) + Segment.nEvents * nEventSize;
  const bool bAll = Source.nSize == nBytes && IsSettled(Source);
  const bool bCopied = (bAll && IsKept(At, Name, Source)) || CopyFile(At, Name, nBytes, bAll ? &Source : nullptr);
  if (bCopied) CopyObjects(At, inspect::ObjectFilesOf(Segment.nNumber));
  if (bCopied && IsThere()) return true;
  std::erase_if(m_Files, [&](const auto& One) {
    return One.first.starts_with(At.Folder) &&
           NumberOfSegmentFile(host::ToUtf16(One.first.substr(At.Folder.size()))) == Segment.nNumber;
  });
  return false;
}

// Files of a database that do not belong to the copy: of an earlier one, or of what went while it was copied.
void StoreCopy::RemoveOthers(const Place& At) {
  std::vector<std::u16string> Names;
  (void)os::ListPlainFiles(At.pTo, &Names);  // what is not found stands in no manifest
  for (const std::u16string& Name : Names) {
    if (IsFileOfDatabase(Name) && !m_Files.contains(At.Folder + host::ToUtf8(Name)))
      (void)os::RemoveFile(At.pTo, Name);  // the same
  }
}

// ---- Objects ----------------------------------------------------------------------------------------------

void StoreCopy::CopyObjects(const Place& At, const inspect::ObjectFileNames& Names) {
  if (!CopyUnchanged(At, Names)) CopyEachObject(At, Names);
}

// Copies the three files, as long as nobody writes to them.
bool StoreCopy::CopyUnchanged(const Place& At, const inspect::ObjectFileNames& Names) {
  const std::u16string* const Three[] = {&Names.Ids, &Names.Tree, &Names.Data};
  os::FileLook Before[3] = {};
  bool bThere[3] = {};
  for (int i = 0; i < 3; ++i) {
    bThere[i] = os::LookAt(At.pFrom, *Three[i], &Before[i]) == os::kSuccess;
    if (bThere[i] && !IsSettled(Before[i])) return false;
  }
  for (int i = 0; i < 3; ++i) {
    if (!bThere[i] || IsKept(At, *Three[i], Before[i])) continue;
    if (!CopyFile(At, *Three[i], Before[i].nSize, &Before[i])) return false;
  }
  for (int i = 0; i < 3; ++i) {
    os::FileLook After{};
    const bool bStill = os::LookAt(At.pFrom, *Three[i], &After) == os::kSuccess;
    if (bStill != bThere[i] || (bStill && !IsSame(Before[i], After))) return false;
  }
  return true;
}

void StoreCopy::CopyEachObject(const Place& At, const inspect::ObjectFileNames& Names) {
  inspect::BlockCache Blocks(16 << 20);
  inspect::Objects From(m_From, At.pFrom, Names, &Blocks);
  const inspect::Answer Opened = From.Open();
  if (Opened == inspect::Answer::Missing) return;  // it was dropped, and its events with it
  if (Opened != inspect::Answer::Read) {
    LeaveOut(At, Names.Ids);
    return;
  }
  const ObjectCopy Copied = CopyObjectsOneByOne(&From, At.pTo, Names);
  if (Copied.nLeftOut != 0) {
    m_pFindings->NoteMissing();
    std::fprintf(stderr, "lumbra: of %s, %llu objects or what belongs to them could not be read and are left out\n",
                 Printable(At.Folder + host::ToUtf8(Names.Ids)).c_str(),
                 static_cast<unsigned long long>(Copied.nLeftOut));
  }
  const std::u16string Folder = host::ToUtf16(At.Folder.substr(0, At.Folder.size() - (At.Folder.empty() ? 0 : 1)));
  (void)os::RemoveFile(At.pTo, Names.Tree);  // of an earlier backup
  Check(salvage::RebuildTree(m_To.u16string(), kOwnerAlone, {.Folder = Folder, .File = Names.Tree, .Why = ""}),
        What(At, Names.Tree));
  for (const std::u16string* const pName : {&Names.Ids, &Names.Tree, &Names.Data}) Note(At, *pName, nullptr);
}

// ---- Files ------------------------------------------------------------------------------------------------

// Whether an earlier backup has copied just this.
bool StoreCopy::IsKept(const Place& At, const std::u16string& Name, const os::FileLook& Source) {
  const auto Found = m_Before.find(At.Folder + host::ToUtf8(Name));
  if (Found == m_Before.end() || Source.nBirth == 0) return false;
  const BackupFile& Known = Found->second;
  os::FileLook Kept{};
  if (Known.nSourceBirth != Source.nBirth || Known.nSourceSize != Source.nSize ||
      Known.nSourceWritten != Source.nWritten)
    return false;
  if (os::LookAt(At.pTo, Name, &Kept) != os::kSuccess || !Kept.bPlain || Kept.nSize != Known.nSize) return false;
  m_Files[Found->first] = Known;
  return true;
}

// Copies a file, or its first bytes. False when it is not there. Of a source that has not changed its look is kept.
bool StoreCopy::CopyFile(const Place& At, const std::u16string& Name, std::uint64_t nMost,
                         const os::FileLook* pSource) {
  std::unique_ptr<inspect::File> pFrom;
  const os::SystemError nError = inspect::File::Open(At.pFrom, Name, &pFrom);
  if (nError == os::kFileNotFound) return false;
  os::FileLook Now{};
  if (nError != os::kSuccess || pFrom->Look(&Now) != os::kSuccess) return LeaveOut(At, Name);
  NewFile To(At.pTo, Name, What(At, Name));
  To.TakeFrom(*pFrom, std::min(nMost, Now.nSize));
  To.Close();
  Note(At, Name, pSource);
  return true;
}

// A file that cannot be read does not keep the others from being copied.
bool StoreCopy::LeaveOut(const Place& At, const std::u16string& Name) {
  ReportFailure(Failure(What(At, Name), errOPEN_FAILED, "it is no plain file, or may not be read, and is left out"));
  m_pFindings->NoteMissing();
  return true;
}

void StoreCopy::WriteFile(const Place& At, const std::u16string& Name, const std::string& Bytes) {
  NewFile To(At.pTo, Name, What(At, Name));
  To.Append(Bytes.data(), Bytes.size());
  To.Close();
  Note(At, Name, nullptr);
}

void StoreCopy::Note(const Place& At, const std::u16string& Name, const os::FileLook* pSource) {
  BackupFile& File = m_Files[At.Folder + host::ToUtf8(Name)];
  File = {};
  Require(SumOf(At.pTo, Name, &File.Sum, &File.nSize), What(At, Name));
  if (pSource != nullptr) {
    File.nSourceBirth = pSource->nBirth;
    File.nSourceSize = pSource->nSize;
    File.nSourceWritten = pSource->nWritten;
  }
  m_nCopied += File.nSize;
  m_Progress.Tell(m_nCopied);
  if (Interrupted()) throw Failure(What(At, Name), errOPERATION_CANCELLED);
}

}  // namespace lumbra::tool
