// lumbra verify: reads everything of a store, and says what contradicts the format or itself.
#include <cstdio>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "failure.h"
#include "host/text.h"
#include "inspect/verify.h"
#include "machine.h"
#include "progress.h"
#include "reading.h"
#include "schema.h"

namespace lumbra::tool {
namespace {

using inspect::Finding;
using inspect::Grade;

const char* NameOf(Grade Of) {
  switch (Of) {
    case Grade::Damage:
      return "damage";
    case Grade::Leftover:
      return "leftover";
    case Grade::Unsettled:
      break;
  }
  return "unsettled";
}

// "damage     01/00000001_objid.dat at 1234: what it is (expected x, found y)"
void PrintLine(const Finding& Found) {
  std::string Compared;
  if (!Found.Expected.empty()) Compared = "expected " + Found.Expected;
  if (!Found.Found.empty()) Compared += (Compared.empty() ? "" : ", ") + std::string("found ") + Found.Found;
  if (!Compared.empty()) Compared = " (" + Compared + ")";
  std::printf("%-9s  %s at %llu: %s\n", NameOf(Found.Of), Printable(host::ToUtf8(Found.File)).c_str(),
              static_cast<unsigned long long>(Found.nOffset), host::PrintableSentence(Found.What + Compared).c_str());
}

void PrintJson(const nlohmann::ordered_json& Line) {
  const std::string Text = Line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  std::puts(host::PrintableJson(Text).c_str());
}

void PrintFindingAsJson(const Finding& Found) {
  const auto OrNull = [](const std::string& Text) {
    return Text.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(Text);
  };
  PrintJson({{"grade", NameOf(Found.Of)},
             {"file", host::ToUtf8(Found.File)},
             {"offset", Found.nOffset},
             {"what", Found.What},
             {"expected", OrNull(Found.Expected)},
             {"found", OrNull(Found.Found)}});
}

void PrintTotals(const inspect::Verified& Totals) {
  const auto Count = [](std::uint64_t nCount, const char* pOne, const char* pMany) {
    return std::to_string(nCount) + ' ' + (nCount == 1 ? pOne : pMany);
  };
  std::printf("%s, %s, %s and %s read: %s\n", Count(Totals.nFiles, "file", "files").c_str(),
              Count(Totals.nBytes, "byte", "bytes").c_str(), Count(Totals.nEvents, "event", "events").c_str(),
              Count(Totals.nObjects, "object", "objects").c_str(),
              (Count(Totals.nDamages, "damage", "damages") + ", " + std::to_string(Totals.nUnsettled) + " unsettled, " +
               Count(Totals.nLeftovers, "leftover", "leftovers"))
                  .c_str());
}

// Where the events of a database hold ids, as its schema says. One that does not fit is told, and goes without.
std::vector<std::uint32_t> IdFieldsOf(const inspect::Store& Store, const inspect::Database& Of,
                                      std::uint32_t nEventSize) {
  std::vector<std::uint32_t> Places;
  try {
    for (const Field& One : SchemaOf(Store, Of, {}, nEventSize).Fields) {
      if (One.Type == FieldType::Id) Places.push_back(One.nOffset);
    }
  } catch (const Failure& Reason) {
    ReportFailure(Reason);
  }
  return Places;
}

int StatusOf(const inspect::Verified& Totals) {
  if (!Totals.bWhole) return kExitInterrupted;
  if (Totals.nDamages != 0) return kExitIncomplete;
  return Totals.nUnsettled != 0 ? kExitUnsettled : kExitOk;
}

}  // namespace

int Verify(const CommonOptions& Common, const VerifyOptions& Options) {
  if (Options.bManifest) return VerifyManifest(Common);
  const std::unique_ptr<inspect::Store> pStore = OpenToRead(Common);
  inspect::VerifyRequest Request;
  if (Options.Database) Request.Only = Require(*pStore, *Options.Database);
  Request.IdFields = [&pStore](const inspect::Database& Of, std::uint32_t nEventSize) {
    return IdFieldsOf(*pStore, Of, nEventSize);
  };
  Progress Shown("bytes");
  const auto Tell = [&](const Finding& Found) {
    Shown.End();
    if (Options.bJson) {
      PrintFindingAsJson(Found);
    } else {
      PrintLine(Found);
    }
  };
  const auto Going = [&Shown](std::uint64_t nDone, std::uint64_t nTotal) {
    Shown.Tell(nDone, nDone, nTotal);
    return !Interrupted();
  };
  WatchForInterrupt();
  inspect::Verified Totals;
  Check(inspect::Verify(*pStore, Request, Tell, Going, &Totals), "verify " + Printable(Common.Store));
  Shown.End();
  if (!Options.bJson) PrintTotals(Totals);
  if (Options.bJson)
    PrintJson({{"files", Totals.nFiles},
               {"bytes", Totals.nBytes},
               {"events", Totals.nEvents},
               {"objects", Totals.nObjects},
               {"damages", Totals.nDamages},
               {"unsettled", Totals.nUnsettled},
               {"leftovers", Totals.nLeftovers},
               {"whole", Totals.bWhole}});
  return StatusOf(Totals);
}

}  // namespace lumbra::tool
