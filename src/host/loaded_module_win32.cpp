#include <windows.h>

#include <string>

#include "host/loaded_module.h"
#include "host/system_win32.h"

namespace lumbra::host {
namespace {

// The entry of a DLL that exports nothing: its entry point, as the headers in memory tell it. Null without one.
ModuleEntry EntryPointOf(HMODULE pModule) {
  const auto* const pImage = reinterpret_cast<const BYTE*>(pModule);
  const auto* const pDos = reinterpret_cast<const IMAGE_DOS_HEADER*>(pImage);
  const auto* const pHeaders = reinterpret_cast<const IMAGE_NT_HEADERS*>(pImage + pDos->e_lfanew);
  const DWORD nEntry = pHeaders->OptionalHeader.AddressOfEntryPoint;
  return nEntry == 0 ? nullptr : reinterpret_cast<ModuleEntry>(const_cast<BYTE*>(pImage) + nEntry);
}

// The path of the file that is open, whatever its name leads to by then, in the form that is taken to the letter. Empty
// when the system does not tell.
std::wstring PlaceOf(const HeldFile& File) {
  std::wstring Place(MAX_PATH, L'\0');
  for (;;) {
    const auto nRoom = static_cast<DWORD>(Place.size());
    const auto pFile = reinterpret_cast<HANDLE>(File.Handle());
    const DWORD nLength = GetFinalPathNameByHandleW(pFile, Place.data(), nRoom, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    Place.resize(nLength);
    if (nLength < nRoom) return Place;
  }
}

// The path by which the system loads the very file that was read. With its folder: a bare name would be looked for
// among the system's libraries. And with a point in its name: to one without, the system adds ".dll". A point at the
// end, which it takes away again, prevents that, but for paths that it takes to the letter: empty for those that have
// no other form.
std::wstring PathToLoad(const std::wstring& Place) {
  if (Place.find(L'.', Place.find_last_of(L'\\') + 1) != std::wstring::npos) return Place;
  constexpr std::wstring_view kLiteral = L"\\\\?\\";
  constexpr std::wstring_view kLiteralShare = L"\\\\?\\UNC\\";
  const std::wstring Plain =
      Place.starts_with(kLiteralShare) ? L"\\\\" + Place.substr(kLiteralShare.size()) : Place.substr(kLiteral.size());
  return Plain.size() + 1 < MAX_PATH && FullPath(Plain) == Plain ? Plain + L'.' : std::wstring();
}

}  // namespace

void LoadedModule::Unloader::operator()(void* pModule) const {
  FreeLibrary(static_cast<HMODULE>(pModule));
}

ModuleProblem LoadedModule::Load(const ModuleFile& File) {
  if (ModuleProblem Problem = WhyForeign(File)) return Problem;
  const std::wstring Place = PlaceOf(*File.pHeld);
  if (Place.empty()) return {errPATH_NAME_INVALID, "cannot be found again: " + SystemMessage(GetLastError())};
  const std::wstring Path = PathToLoad(Place);
  if (Path.empty())
    return {errPATH_NAME_INVALID, "cannot be loaded by a path of this form, for want of a point in its name"};
  m_pFile = File.pHeld;  // nobody can put another file in its place meanwhile
  // What it needs itself comes from the system's folder, and neither from its own nor from the current one.
  const HMODULE pModule = LoadLibraryExW(Path.c_str(), nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
  const DWORD nError = GetLastError();
  if (pModule == nullptr && nError == ERROR_INVALID_PARAMETER)
    return {errNOT_SUPPORTED, "cannot be loaded safely: this Windows lacks the update KB2533623"};
  if (pModule == nullptr) return {errMODULE_NOT_FOUND, "cannot be loaded: " + SystemMessage(nError)};
  m_pModule.reset(pModule);
  m_pEntry = EntryPointOf(pModule);
  if (m_pEntry != nullptr) return {};
  m_pModule.reset();
  return {errSYMBOL_NOT_FOUND, "has no entry"};
}

}  // namespace lumbra::host
