#include "salvage/plan.h"

#include <utf8.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include "format/file_names.h"

namespace lumbra::salvage {
namespace {

using nlohmann::json;

// Names of databases and files are UTF-16 without lone surrogates.
std::string ToUtf8(const std::u16string& Text) {
  std::string Result;
  utf8::utf16to8(Text.begin(), Text.end(), std::back_inserter(Result));
  return Result;
}
std::u16string ToUtf16(const std::string& Text) {
  std::u16string Result;
  utf8::utf8to16(Text.begin(), Text.end(), std::back_inserter(Result));
  return Result;
}

std::string ToHex(const std::string& Bytes) {
  std::string Digits;
  for (const char c : Bytes) {
    const auto n = static_cast<unsigned char>(c);
    for (const int nDigit : {n >> 4, n & 15}) Digits += "0123456789abcdef"[nDigit];
  }
  return Digits;
}
std::string FromHex(const std::string& Digits) {
  std::string Bytes;
  for (std::size_t i = 0; i + 1 < Digits.size(); i += 2)
    Bytes += static_cast<char>(std::stoi(Digits.substr(i, 2), nullptr, 16));
  return Bytes;
}

// Who writes a record of his own must not reach another file by it.
bool IsFileOfStore(const std::u16string& Name) {
  constexpr std::u16string_view kOwn[] = {kIndexFile,        kSharedTreeFile,    kSharedIdsFile, kSharedDataFile,
                                          kCompactedIdsFile, kCompactedDataFile, kReplacingFile};
  return IsFileOfDatabase(Name) || std::ranges::find(kOwn, Name) != std::end(kOwn);
}

constexpr const char* kKinds[] = {"report", "patch", "create", "replace", "set aside", "rename", "rebuild"};

}  // namespace

bool Plan::Acts() const {
  return std::ranges::any_of(Steps, &Step::Acts);
}

std::string Describe(const Step& Of) {
  std::string Path = ToUtf8(Of.Folder);
  if (!Path.empty() && !Of.File.empty()) Path += '/';
  return Path + ToUtf8(Of.File) + ": " + Of.Why;
}

std::string Summary(const Plan& Of) {
  const auto Count = [&Of](bool (*pIsMeant)(const Step&)) {
    return std::to_string(std::ranges::count_if(Of.Steps, pIsMeant));
  };
  return Count([](const Step& One) { return One.Acts() && One.What != Step::Kind::SetAside; }) + " healed, " +
         Count([](const Step& One) { return One.What == Step::Kind::SetAside; }) + " set aside, " +
         Count([](const Step& One) { return !One.Acts(); }) + " left as they are";
}

bool IsTimeOfHealing(const std::string& Name) {
  constexpr std::size_t kShortest = 18;
  return Name.size() >= kShortest && Name[8] == 'T' && Name[15] == 'Z' && Name[16] == '-' &&
         Name.find_first_not_of("0123456789TZ-") == std::string::npos;
}

namespace {

constexpr std::string_view kBack = "back ";

}  // namespace

std::string WriteReplacement(const Replacement& Of) {
  return (Of.bBack ? std::string(kBack) : std::string()) + Of.Time + '\n';
}

Replacement ReadReplacement(const std::string& Text) {
  const bool bBack = Text.starts_with(kBack);
  std::string Time = Text.substr(bBack ? kBack.size() : 0);
  if (Time.ends_with('\n')) Time.pop_back();
  if (!IsTimeOfHealing(Time)) return {};
  return {std::move(Time), bBack};
}

std::string WriteSteps(const std::vector<Step>& Steps) {
  json All = json::array();
  for (const Step& One : Steps) {
    All.push_back({{"what", kKinds[static_cast<int>(One.What)]},
                   {"folder", ToUtf8(One.Folder)},
                   {"file", ToUtf8(One.File)},
                   {"offset", One.nOffset},
                   {"before", ToHex(One.Before)},
                   {"after", ToHex(One.After)},
                   {"why", One.Why}});
  }
  return All.dump(1) + '\n';
}

std::vector<Step> ReadSteps(const std::string& Text) try {
  std::vector<Step> Steps;
  for (const json& One : json::parse(Text)) {
    const auto Kind = std::ranges::find(kKinds, One.at("what").get<std::string>());
    if (Kind == std::end(kKinds)) return {};
    Steps.push_back({static_cast<Step::Kind>(Kind - std::begin(kKinds)), ToUtf16(One.at("folder")),
                     ToUtf16(One.at("file")), One.at("offset"), FromHex(One.at("before")), FromHex(One.at("after")),
                     One.at("why")});
    const Step& Read = Steps.back();
    const bool bRename = Read.What == Step::Kind::Rename;
    if (!IsFileOfStore(Read.File) || (bRename && !IsFileOfStore(ToUtf16(Read.After)))) return {};
  }
  return Steps;
} catch (const std::exception&) {  // somebody has written it
  return {};
}

}  // namespace lumbra::salvage
