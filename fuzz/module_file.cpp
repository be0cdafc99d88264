// Any file is read as a module: it is one, or there is a reason. Where the input has metadata, its digest is made to
// fit in a second attempt, so that what it vouches for is looked at.
#include "host/module_file.h"
#include "format/md5.h"
#include "fuzz.h"

namespace lumbra::fuzz {
namespace {

void Read(const std::string& Content) {
  const std::filesystem::path Path = Folder() / "module";
  std::ofstream(Path, std::ios::binary) << Content;
  host::ModuleFile Module;
  const host::ModuleProblem Problem = host::ReadModuleFile(Path, &Module);
  Require(Problem || host::WhyForeign(Module) || Module.Format == "ELF", "this system loads shared objects alone");
  Require(!Problem == Problem.Text.empty(), "a problem has a reason");
}

// True where there is metadata.
bool Seal(std::string* pContent) {
  constexpr std::size_t kDigest = offsetof(tMODULE_METADATA, Digest);
  const std::string Signature(std::begin(kMetadataSignature1), std::end(kMetadataSignature1));
  const std::size_t nAt = pContent->find(Signature);
  if (nAt == std::string::npos || pContent->size() - nAt < sizeof(tMODULE_METADATA)) return false;
  Md5 Computed;
  Computed.Update(pContent->data() + nAt, kDigest);
  std::ranges::copy(Computed.Digest(), pContent->begin() + static_cast<std::ptrdiff_t>(nAt + kDigest));
  return true;
}

}  // namespace
}  // namespace lumbra::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
  using namespace lumbra::fuzz;
  std::string Content = Input(pData, nSize).Rest();
  Read(Content);
  if (Seal(&Content)) Read(Content);
  return 0;
}
