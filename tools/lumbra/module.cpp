// lumbra module: what a module says of itself.
#include "host/module_file.h"

#include <cstdio>
#include <span>

#include "commands.h"
#include "failure.h"
#include "machine.h"

namespace lumbra::tool {
namespace {

void PrintText(const char* pName, const std::string& Text) {
  std::printf("%-18s  %s\n", pName, Text.c_str());
}

void PrintHex(const char* pName, std::uint32_t nValue) {
  std::printf("%-18s  0x%04X\n", pName, nValue);
}

std::string HexDigits(std::span<const std::uint8_t> Bytes) {
  std::string Digits;
  for (const std::uint8_t n : Bytes) {
    for (const int nDigit : {n >> 4, n & 15}) Digits += "0123456789abcdef"[nDigit];
  }
  return Digits;
}

}  // namespace

int Module(const CommonOptions& /*Common*/, const ModuleOptions& Options) {
  host::ModuleFile File;
  if (const host::ModuleProblem Problem = host::ReadModuleFile(PathOf(Options.File), &File)) {
    throw Failure("read " + Printable(Options.File), Problem.nCode, Problem.Text);
  }
  const tMODULE_METADATA& Metadata = File.Metadata;
  PrintText("file", Printable(Options.File));
  PrintText("format", File.Format);
  PrintText("machine", File.Machine);
  PrintHex("plug-in id", Metadata.Module.nPluginId);
  PrintHex("interface id", Metadata.Interface.nInterfaceId);
  PrintText("interface constant", std::to_string(Metadata.nConstant));
  PrintText("interface comment", host::PrintableSentence(Metadata.Comment));  // in quotes of its own
  PrintText("MD5", HexDigits(Metadata.Digest));
  return kExitOk;
}

}  // namespace lumbra::tool
