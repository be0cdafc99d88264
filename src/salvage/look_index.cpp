// The index of names: what it holds, and what the folders of the named databases say of themselves.
#include <algorithm>
#include <set>

#include "format/file_names.h"
#include "format/named_index_file.h"
#include "salvage/look_parts.h"

namespace lumbra::salvage {
namespace {

// The name of an item; nothing for one that the store cannot have written.
std::optional<std::string> NameIn(const std::string& Item) {
  const std::string Name = Item.substr(0, Item.find('\0'));
  const bool bText = std::ranges::all_of(Name, [](char c) { return c > 0; });
  return !Name.empty() && Name.size() <= kMaxIndexNameLength && bText ? std::optional(Name) : std::nullopt;
}

class IndexLook {
 public:
  IndexLook(FolderView& Files, const std::map<std::u16string, std::optional<std::uint32_t>>& Named, Plan* pPlan)
      : m_Files(Files), m_pPlan(pPlan) {
    for (const auto& [Folder, Id] : Named) {
      m_Folders.insert(IndexKey(Folder));
      if (Id) m_Known[*Id - kFirstNamedDatabase].push_back(IndexKey(Folder));
    }
  }

  void Look() {
    const FolderView::File* const pFile = m_Files.Find(kIndexFile);
    if (pFile == nullptr && m_Known.empty()) return;
    constexpr std::uint32_t kLongest = 1 << 20;  // of which all old bytes are kept
    if (pFile != nullptr && pFile->nSize > kLongest) return Report("far longer than an index can be; left as it is");
    const std::string Content = m_Files.Read(kIndexFile, 0, kLongest);
    const std::string Head = Content.substr(0, kIndexBlockSize);
    const bool bMarked = Head == BytesOf(kCorruptedIndexSignature);
    for (std::size_t nAt = kIndexBlockSize; nAt + kIndexBlockSize <= Content.size() && m_Items.size() < kMaxIndexNames;
         nAt += kIndexBlockSize)
      m_Items.push_back(NameIn(Content.substr(nAt, kIndexBlockSize)));
    if (!TakeFromFolders()) return;
    TakeTurnedBitsBack(Content);
    std::string Mended = BytesOf(bMarked ? kCorruptedIndexSignature : kIndexSignature);
    for (std::size_t i = 0; i < m_Items.size(); ++i) {
      // A name that nobody has any more keeps the ids behind it at their places.
      Mended += BytesOf(MakeIndexBlock(m_Items[i].value_or("(lost " + std::to_string(kFirstNamedDatabase + i) + ')')));
    }
    const bool bEmptyAnyway = m_Items.empty() && Content.size() <= kIndexBlockSize;
    if (Mended == Content || bEmptyAnyway) return;
    const std::string Why =
        "names of databases are damaged or missing; taken from its whole items, and from the folders";
    const Step::Kind What = pFile == nullptr ? Step::Kind::Create : Step::Kind::Replace;
    m_pPlan->Steps.push_back({What, {}, kIndexFile, 0, Content, Mended, Why});
  }

 private:
  // Puts the names that folders have by their ids into the items that are missing, damaged or of nobody. False where
  // they contradict each other or a good item: that is for a person to decide.
  bool TakeFromFolders() {
    bool bAgree = true;
    constexpr std::size_t kFew = 8;  // items that can be lost at the end; an index that is full takes no name any more
    for (const auto& [nPosition, Keys] : m_Known) {
      if (nPosition >= m_Items.size() + kFew) {
        Report("a folder claims the id " + std::to_string(kFirstNamedDatabase + nPosition) + ", far behind its end");
        continue;
      }
      if (m_Items.size() <= nPosition) m_Items.resize(nPosition + 1);
      std::optional<std::string>& Item = m_Items[nPosition];
      if (Item && std::ranges::find(Keys, *Item) != Keys.end()) continue;
      const bool bOthers = Item && IsFolder(*Item);  // the item's own folder says another id, or none
      if (Keys.size() == 1 && !bOthers && !Holds(Keys.front())) {
        Item = Keys.front();
        continue;
      }
      bAgree = false;
      Report("several databases claim the id " + std::to_string(kFirstNamedDatabase + nPosition) + "; left as it is");
    }
    return bAgree;
  }

  // A folder does not say its id after the database was cleared. Its name stands in the item that is one bit apart, and
  // that no folder has.
  void TakeTurnedBitsBack(const std::string& Content) {
    for (const std::string& Folder : m_Folders) {
      if (Holds(Folder)) continue;
      const std::string Whole = BytesOf(MakeIndexBlock(Folder));
      for (std::size_t i = 0; i < m_Items.size(); ++i) {
        const std::string There = Content.substr(std::min(Content.size(), (i + 1) * kIndexBlockSize), kIndexBlockSize);
        const bool bOfOther = m_Items[i] && IsFolder(*m_Items[i]);
        if (!bOfOther && There.size() == Whole.size() && BitsApart(There, Whole) == 1) m_Items[i] = Folder;
      }
    }
  }

  void Report(const std::string& Why) { m_pPlan->Steps.push_back({.File = kIndexFile, .Why = Why}); }

  bool IsFolder(const std::string& Key) const { return m_Folders.contains(Key); }
  bool Holds(const std::string& Key) const { return std::ranges::find(m_Items, std::optional(Key)) != m_Items.end(); }

  FolderView& m_Files;
  Plan* m_pPlan;
  std::vector<std::optional<std::string>> m_Items;
  std::set<std::string> m_Folders;
  std::map<std::size_t, std::vector<std::string>> m_Known;  // names of folders, by the place that their id has
};

}  // namespace

void LookAtIndex(FolderView& Files, const std::map<std::u16string, std::optional<std::uint32_t>>& Named, Plan* pPlan) {
  IndexLook(Files, Named, pPlan).Look();
}

}  // namespace lumbra::salvage
