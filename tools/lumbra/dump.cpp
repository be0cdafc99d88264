// lumbra dump: a file of a store in words.
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "event_time.h"
#include "failure.h"
#include "ids.h"
#include "inspect/dump.h"
#include "machine.h"
#include "platform/result.h"

namespace lumbra::tool {
namespace {

// What an event of the tool's own size is, if it is one.
std::string DescribeOwnEvent(std::span<const std::uint8_t> Bytes) {
  Event One{};
  if (Bytes.size() != sizeof(One)) return {};
  std::memcpy(&One, Bytes.data(), sizeof(One));
  return "time " + DescribeTime(One.nTime) + ", object " + FormatId(One.nObject) + ", value " +
         std::to_string(One.nValue) + ", kind " + std::to_string(One.nKind);
}

}  // namespace

int Dump(const CommonOptions& /*Common*/, const DumpOptions& Options) {
  const std::filesystem::path Path = AbsolutePath(Options.File);
  const std::string What = "read " + Printable(TextOf(Path));
  os::FolderHandle pFolder;
  Check(ResultFromSystemError(os::OpenFolder(Path.parent_path().u16string(), {}, &pFolder)), What);
  const auto Print = [](const std::string& Line) {
    return std::puts(Line.c_str()) >= 0 && !Interrupted();
  };
  WatchForInterrupt();
  bool bSound = true;
  const os::SystemError nError =
      inspect::Dump(pFolder, Path.filename().u16string(), {Print, DescribeOwnEvent}, &bSound);
  if (nError == os::kFileNotFound) throw Failure(What, errOBJECT_NOT_FOUND, "there is no such file");
  if (nError == os::kAccessDenied) throw Failure(What, errACCESS_DENIED, "it is no plain file, or may not be read");
  Check(ResultFromSystemError(nError), What);
  if (Interrupted()) return kExitInterrupted;
  return bSound ? kExitOk : kExitIncomplete;
}

}  // namespace lumbra::tool
