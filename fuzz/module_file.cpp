// Any file is read as a module: it is one, or there is a reason. Where the input has metadata, its digest is made to
// fit in a second attempt, so that what it vouches for is looked at.
#include "host/module_file.h"
#include "events/md5.h"
#include "fuzz.h"

namespace lumbra::fuzz {
namespace {

void Read(const Bytes& Content) {
  const fs::path Path = Folder() / "module";
  WriteFile(Path, Content);
  host::ModuleFile Module;
  const host::ModuleProblem Problem = host::ReadModuleFile(Path, &Module);
  Require(Problem || host::WhyForeign(Module) || Module.Format == "ELF", "this system loads shared objects alone");
  Require(!Problem == Problem.Text.empty(), "a problem has a reason");
}

// True where there is metadata.
bool Seal(Bytes* pContent) {
  constexpr std::ptrdiff_t kDigest = offsetof(tMODULE_METADATA, Digest);
  const auto At =
      std::search(pContent->begin(), pContent->end(), std::begin(kMetadataSignature1), std::end(kMetadataSignature1));
  if (pContent->end() - At < static_cast<std::ptrdiff_t>(sizeof(tMODULE_METADATA))) return false;
  Md5 Computed;
  Computed.Update(&*At, kDigest);
  std::ranges::copy(Computed.Digest(), At + kDigest);
  return true;
}

}  // namespace
}  // namespace lumbra::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
  using namespace lumbra::fuzz;
  Bytes Content(pData, pData + nSize);
  Read(Content);
  if (Seal(&Content)) Read(Content);
  return 0;
}
