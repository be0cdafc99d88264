// A module's file, read without running any of its code: on every system the files of every system.
#pragma once

#include <filesystem>
#include <string>

#include "lumbra/metadata.h"
#include "lumbra/result_code.h"

namespace lumbra::host {

// Why a module is not read or not loaded: a code, and on one line the end of a sentence that its file's name starts:
// "is cut short". Converts to false where there is no problem.
struct ModuleProblem {
  ResultCode nCode = errOK;
  std::string Text;

  explicit operator bool() const { return Failed(nCode); }
};

struct ModuleFile {
  std::filesystem::path Path;
  std::string Format;   // "ELF" or "PE"
  std::string Machine;  // "x86-64", "x86", "ARM64" or "ARM", the number of any other as "0x..."
  tMODULE_METADATA Metadata;
};

// Reads the file of a module of ours, and checks that it is whole and its metadata sound. Stores *pModule on success
// only. Takes memory for the file's tables, not for all of it.
ModuleProblem ReadModuleFile(const std::filesystem::path& Path, ModuleFile* pModule);

// Why this program cannot load a module: it is for another system or machine.
ModuleProblem WhyForeign(const ModuleFile& Module);

}  // namespace lumbra::host
