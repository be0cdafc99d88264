// A module's file, read without running any of its code: on every system the files of every system.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "host/held_file.h"
#include "lumbra/metadata.h"
#include "lumbra/result_code.h"

namespace lumbra::host {

struct ModuleFile {
  std::filesystem::path Path;
  std::string Format;   // "ELF" or "PE"
  std::string Machine;  // "x86-64", "x86", "ARM64" or "ARM", the number of any other as "0x..."
  tMODULE_METADATA Metadata;
  std::shared_ptr<const HeldFile> pHeld = nullptr;  // open: what is loaded is what was read
};

// Reads the file of a module of ours, and checks that it is whole and its metadata sound. Stores *pModule on success
// only. Takes memory for the file's tables, not for all of it.
ModuleProblem ReadModuleFile(const std::filesystem::path& Path, ModuleFile* pModule);

// Why this program cannot load a module: it is for another system or machine.
ModuleProblem WhyForeign(const ModuleFile& Module);

}  // namespace lumbra::host
