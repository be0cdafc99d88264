// The order of a verification: a first look at everything, a pause, and a second one where something was suspected.
#include "inspect/verify.h"

#include <thread>

#include "inspect/verify_parts.h"
#include "platform/result.h"

namespace lumbra::inspect {

std::string Hex(std::uint64_t nNumber) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string Text;
  do {
    Text.insert(Text.begin(), kDigits[nNumber & 15]);
    nNumber >>= 4;
  } while (nNumber != 0);
  return "0x" + Text;
}

const char* WhyNotOpen(os::SystemError nError, const FileOf& What) {
  if (nError == os::kFileNotFound) return "it is missing";
  os::FileLook Found{};
  if (os::LookAt(What.pFolder, What.Name, &Found) == os::kSuccess && !Found.bPlain) return "it is no plain file";
  return "the system refuses to open it";
}

// ---- What is found ------------------------------------------------------------------------------------------

namespace {

// FNV-1a.
std::uint64_t KeyOf(const std::u16string& File, std::uint64_t nOffset, std::string_view What) {
  std::uint64_t nKey = 0xCBF29CE484222325;
  const auto Add = [&nKey](std::uint64_t nValue) {
    nKey = (nKey ^ nValue) * 0x100000001B3;
  };
  for (const char16_t c : File) Add(c);
  for (const char c : What) Add(static_cast<std::uint8_t>(c));
  Add(nOffset);
  Add(nOffset >> 32);
  return nKey;
}

}  // namespace

Examiner::Examiner(const Store& Of, const Report& Tell, const Progress& Going, std::uint64_t nTotal, Verified* pTotals)
    : m_Store(Of), m_Tell(Tell), m_Going(Going), m_nTotal(nTotal), m_pTotals(pTotals) {}

void Examiner::BeginFirst() {
  m_bSecond = false;
  m_Keys.clear();
  m_Leftovers.clear();
  m_Counts.clear();
}

bool Examiner::EndFirst(Suspicion* pFound) {
  if (m_Keys.empty()) {
    for (const Finding& One : m_Leftovers) Forward(One);
    TellRest();
    m_Leftovers.clear();
    return false;
  }
  std::ranges::sort(m_Keys);
  pFound->Keys = std::move(m_Keys);
  m_Rest.clear();
  return true;
}

void Examiner::BeginSecond(const Suspicion& Of) {
  m_bSecond = true;
  m_Keys = Of.Keys;
  m_Counts.clear();
}

void Examiner::WaitToSettle() {
  std::this_thread::sleep_for(kSettleTime);
  m_Patience = Patience();
}

// Beyond the first of a kind a key for all of them is kept.
void Examiner::Suspect(const FileOf& In, std::uint64_t nOffset, const char* pWhat, std::string Expected,
                       std::string Found) {
  const std::u16string Path = In.Path();
  const std::uint64_t nOfMany = KeyOf(Path, UINT64_MAX, pWhat);
  if (!m_bSecond) {
    const std::uint32_t nCount = ++m_Counts[{Path, pWhat}];
    if (nCount <= kMostOfAKind) m_Keys.push_back(KeyOf(Path, nOffset, pWhat));
    if (nCount == kMostOfAKind + 1) m_Keys.push_back(nOfMany);
    return;
  }
  const bool bBefore =
      std::ranges::binary_search(m_Keys, KeyOf(Path, nOffset, pWhat)) || std::ranges::binary_search(m_Keys, nOfMany);
  if (!bBefore) return;  // it came meanwhile, and may settle as others did
  if (!m_bHeld) m_bHeld = !m_Store.Holders().empty();
  const Grade Of = *m_bHeld ? Grade::Unsettled : Grade::Damage;
  const Finding Suspected{Of, Path, nOffset, pWhat, std::move(Expected), std::move(Found)};
  if (IsToldByItself(Suspected)) Forward(Suspected);
}

void Examiner::Leftover(const FileOf& In, std::uint64_t nOffset, const std::string& What, std::string Expected,
                        std::string Found) {
  Finding Left{Grade::Leftover, In.Path(), nOffset, What, std::move(Expected), std::move(Found)};
  if (!IsToldByItself(Left)) return;
  if (m_bSecond) {
    Forward(Left);
  } else {
    m_Leftovers.push_back(std::move(Left));
  }
}

// The first of a kind in a file are. Of the others it is counted how many there are.
bool Examiner::IsToldByItself(const Finding& Found) {
  const std::uint32_t nCount = ++m_Counts[{Found.File, Found.What}];
  if (nCount <= kMostOfAKind) return true;
  if (nCount == kMostOfAKind + 1) m_Rest.push_back({{Found.Of, Found.File, Found.nOffset, Found.What, {}, {}}, 0});
  for (auto& [Kind, nMore] : m_Rest) {
    if (Kind.File == Found.File && Kind.What == Found.What) ++nMore;
  }
  return false;
}

void Examiner::Settled(Finding Found) {
  if (Found.Of == Grade::Damage) {
    if (!m_bHeld) m_bHeld = !m_Store.Holders().empty();
    if (*m_bHeld) Found.Of = Grade::Unsettled;
  }
  if (!m_bSecond) Forward(Found);  // it is not found again for being looked at again
}

void Examiner::Forward(const Finding& Found) {
  Verified& Totals = *m_pTotals;
  ++(Found.Of == Grade::Damage ? Totals.nDamages : Found.Of == Grade::Leftover ? Totals.nLeftovers : Totals.nUnsettled);
  m_Tell(Found);
}

void Examiner::TellRest() {
  for (auto& [Kind, nMore] : m_Rest) {
    Kind.Found = std::to_string(nMore) + " more of these from here on";
    Forward(Kind);
  }
  m_Rest.clear();
}

bool Examiner::LooksAgain(bool* pbLooked) {
  if (!*pbLooked) return *pbLooked = true;
  return m_bSecond && m_Patience.Wait();
}

bool Examiner::Count(std::uint64_t nBytes) {
  if (m_bSecond || Stopped()) return !Stopped();
  m_nDone += nBytes;
  m_pTotals->nBytes += nBytes;
  if (m_Going != nullptr && !m_Going(m_nDone, std::max(m_nTotal, m_nDone))) m_pTotals->bWhole = false;
  return !Stopped();
}

// ---- Reading ------------------------------------------------------------------------------------------------

Window::Window(const File* pFile, FileOf What, Examiner* pTell)
    : m_pFile(pFile), m_What(std::move(What)), m_pTell(pTell), m_Bytes(new std::uint8_t[kSize]) {}

std::span<const std::uint8_t> Window::Fill(std::uint64_t nOffset, std::uint32_t nSize) {
  m_nStart = nOffset;
  m_nValid = 0;
  const os::SystemError nError = m_pFile->Read(nOffset, m_Bytes.get(), kSize, &m_nValid);
  if (nError != os::kSuccess) m_pTell->Suspect(m_What, nOffset, "the system refuses to read it");
  const std::uint64_t nEnd = nOffset + m_nValid;
  if (nEnd > m_nCounted) {
    (void)m_pTell->Count(nEnd - std::max(m_nCounted, nOffset));  // who reads asks whether it has ended
    m_nCounted = nEnd;
  }
  return {m_Bytes.get(), std::min(nSize, m_nValid)};
}

// ---- The order ----------------------------------------------------------------------------------------------

namespace {

std::uint64_t BytesIn(const os::FolderHandle& pFolder) {
  std::uint64_t nBytes = 0;
  const os::SystemError nError = os::FindFiles(pFolder, u"*", [&nBytes](const os::FoundFile& Found) {
    if (!Found.bFolder) nBytes += Found.nSize;
    return true;
  });
  return nError == os::kSuccess ? nBytes : 0;  // it is for the time left alone
}

class Verification {
 public:
  Verification(const Store& Of, const VerifyRequest& What, const Report& Tell, const Progress& Going,
               std::vector<Database> Databases, std::uint64_t nTotal, Verified* pTotals)
      : m_Request(What), m_Databases(std::move(Databases)), m_Tell(Of, Tell, Going, nTotal, pTotals) {}

  void Run() {
    if (!m_Request.Only) {
      Look([this] { VerifyIndex(&m_Tell); });
      LookAtObjects({m_Tell.Of().Folder(), {}, 0, true});
    }
    for (const Database& One : m_Databases) LookAtDatabase(One);
    if (m_Again.empty() || m_Tell.Stopped()) return;
    m_Tell.WaitToSettle();
    for (const auto& [LookAgain, Suspected] : m_Again) {
      if (m_Tell.Stopped()) return;
      m_Tell.BeginSecond(Suspected);
      LookAgain();
      m_Tell.EndSecond();
    }
  }

 private:
  void Look(const std::function<void()>& Part) {
    if (m_Tell.Stopped()) return;
    m_Tell.BeginFirst();
    Part();
    Examiner::Suspicion Found;
    if (m_Tell.EndFirst(&Found)) m_Again.emplace_back(Part, std::move(Found));
  }

  void LookAtObjects(const ObjectsPart& What) {
    Look([this, What] { VerifyObjects(What, &m_Tell); });
  }

  void LookAtDatabase(const Database& What) {
    const auto pParts = std::make_shared<std::vector<ObjectsPart>>();
    Look([this, &What, pParts] { *pParts = VerifyChain(What, m_Request, &m_Tell); });
    for (const ObjectsPart& One : *pParts) LookAtObjects(One);
  }

  const VerifyRequest& m_Request;
  const std::vector<Database> m_Databases;
  Examiner m_Tell;
  std::vector<std::pair<std::function<void()>, Examiner::Suspicion>> m_Again;
};

}  // namespace

ResultCode Verify(const Store& Of, const VerifyRequest& What, const Report& Tell, const Progress& Going,
                  Verified* pTotals) {
  *pTotals = {};
  std::vector<Database> Databases = What.Only ? std::vector<Database>{*What.Only} : Of.Databases();
  std::uint64_t nTotal = 0;
  if (Going != nullptr && !What.Only) nTotal += BytesIn(Of.Folder());
  for (const Database& One : Databases) {
    os::FolderHandle pFolder;
    const os::SystemError nError = Of.OpenFolder(One, &pFolder);
    if (nError != os::kSuccess && What.Only) return ResultFromSystemError(nError);
    if (nError == os::kSuccess && Going != nullptr) nTotal += BytesIn(pFolder);
  }
  Verification(Of, What, Tell, Going, std::move(Databases), nTotal, pTotals).Run();
  return errOK;
}

}  // namespace lumbra::inspect
