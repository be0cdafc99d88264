#include "host/module_file.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "format/md5.h"
#include "host/module_image.h"
#include "lumbra/lumbra.h"

namespace lumbra::host {

// ---- What can be wrong ------------------------------------------------------------------------------------

ModuleProblem NoModule(const std::string& Why) {
  return {errIMAGE_BAD_SIGNATURE, "is no module: " + Why};
}

ModuleProblem CutShort() {
  return {errDATA_CORRUPTED, "is cut short"};
}

ModuleProblem Damaged(const std::string& What) {
  return {errDATA_CORRUPTED, What};
}

ModuleProblem NoMetadata() {
  return {errMETA_INFORMATION_NOT_FOUND, "has no Lumbra metadata"};
}

namespace {

// ---- Formats and machines ---------------------------------------------------------------------------------

struct Machine {
  const char* pName;
  std::size_t nPointerSize;
  std::uint16_t nElf;
  std::uint16_t nPe;
};
constexpr Machine kMachines[] = {
    {"x86", 4, 3, 0x014C}, {"x86-64", 8, 62, 0x8664}, {"ARM", 4, 40, 0x01C4}, {"ARM64", 8, 183, 0xAA64}};

struct Format {
  const char* pName;
  std::string_view Magic;
  ModuleProblem (*pRead)(FileBytes* pFile, ModuleImage* pImage);
  std::uint16_t Machine::*pMachine;
};
constexpr Format kFormats[] = {
    {"ELF", "\x7F\x45\x4C\x46", &ReadElfImage, &Machine::nElf},
    {"PE", "MZ", &ReadPeImage, &Machine::nPe},
};

#ifdef _WIN32
constexpr std::string_view kFormatHere = "PE";
#else
constexpr std::string_view kFormatHere = "ELF";
#endif

#if defined(__x86_64__)
constexpr std::string_view kMachineHere = "x86-64";
#elif defined(__i386__)
constexpr std::string_view kMachineHere = "x86";
#elif defined(__aarch64__)
constexpr std::string_view kMachineHere = "ARM64";
#elif defined(__arm__)
constexpr std::string_view kMachineHere = "ARM";
#else
#error "this machine has no name in kMachines"
#endif

const Format* FormatOf(FileBytes* pFile) {
  char Magic[4] = {};
  pFile->Read(0, &Magic);  // a file of fewer bytes is of no format
  for (const Format& Known : kFormats) {
    if (std::string_view(Magic, sizeof(Magic)).starts_with(Known.Magic)) return &Known;
  }
  return nullptr;
}

std::string NameOfMachine(const Format& Of, const ModuleImage& Image) {
  for (const Machine& Known : kMachines) {
    if (Known.*Of.pMachine == Image.nMachine && Known.nPointerSize == Image.nPointerSize) return Known.pName;
  }
  char Number[8];
  std::snprintf(Number, sizeof(Number), "0x%X", static_cast<unsigned>(Image.nMachine));
  return Number;
}

// ---- Metadata ---------------------------------------------------------------------------------------------

bool HasSignature(const tMODULE_METADATA& Metadata) {
  return std::memcmp(Metadata.Signature1, kMetadataSignature1, sizeof(kMetadataSignature1)) == 0 &&
         std::memcmp(Metadata.Signature2, kMetadataSignature2, sizeof(kMetadataSignature2)) == 0;
}

bool HasDigest(const tMODULE_METADATA& Metadata) {
  Md5 Computed;
  Computed.Update(&Metadata, offsetof(tMODULE_METADATA, Digest));
  return Computed.Digest() == Metadata.Digest;
}

bool HasOurRecords(const tMODULE_METADATA& Metadata) {
  return Metadata.nModuleSize == sizeof(Metadata.Module) && Metadata.Module.nKind == kMetadataModule &&
         Metadata.nInterfaceSize == sizeof(Metadata.Interface) && Metadata.Interface.nKind == kMetadataInterface &&
         Metadata.nConstantId == propINTERFACE_CONSTANT && Metadata.nConstantSize == sizeof(Metadata.nConstant) &&
         Metadata.nCommentId == propINTERFACE_COMMENT && Metadata.nCommentSize == sizeof(Metadata.Comment) &&
         Metadata.Comment[sizeof(Metadata.Comment) - 1] == 0;
}

ModuleProblem ReadMetadata(FileBytes* pFile, const FilePlace& At, tMODULE_METADATA* pMetadata) {
  if (At.nSize != sizeof(*pMetadata)) return Damaged("its metadata is damaged (size)");
  if (!pFile->Read(At.nOffset, pMetadata)) return CutShort();
  if (!HasSignature(*pMetadata)) return Damaged("its metadata is damaged (signature)");
  if (!HasDigest(*pMetadata)) return Damaged("its metadata is damaged (MD5)");
  if (!HasOurRecords(*pMetadata)) return {errVERSION_INVALID, "its metadata has records that are not known here"};
  if (pMetadata->Module.nPluginId != kLumbraPluginId || pMetadata->Interface.nPluginId != kLumbraPluginId) {
    return {errINTERFACE_NOT_SUPPORTED, "is a module, but not Lumbra's"};
  }
  return {};
}

}  // namespace

ModuleProblem ReadModuleFile(const std::filesystem::path& Path, ModuleFile* pModule) {
  std::shared_ptr<const HeldFile> pHeld;
  if (ModuleProblem Problem = HeldFile::Open(Path, &pHeld)) return Problem;
  FileBytes File(pHeld);
  const Format* const pFormat = FormatOf(&File);
  if (pFormat == nullptr) return NoModule("neither ELF nor PE");
  ModuleImage Image;
  if (ModuleProblem Problem = pFormat->pRead(&File, &Image)) return Problem;
  tMODULE_METADATA Metadata;
  if (ModuleProblem Problem = ReadMetadata(&File, Image.Metadata, &Metadata)) return Problem;
  *pModule = {Path, pFormat->pName, NameOfMachine(*pFormat, Image), Metadata, pHeld};
  return {};
}

ModuleProblem WhyForeign(const ModuleFile& Module) {
  if (Module.Format == kFormatHere && Module.Machine == kMachineHere) return {};
  return {errNOT_SUPPORTED, "is for " + Module.Format + " on " + Module.Machine + ", this program for " +
                                std::string(kFormatHere) + " on " + std::string(kMachineHere)};
}

}  // namespace lumbra::host
