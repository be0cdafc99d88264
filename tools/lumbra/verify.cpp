// lumbra verify: reads everything of a store, and says what contradicts the format or itself.
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "event_time.h"
#include "failure.h"
#include "format/event_file.h"
#include "host/text.h"
#include "inspect/verify.h"
#include "machine.h"
#include "reading.h"

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

// On a terminal, how far it has come.
class Ticker {
 public:
  ~Ticker() {
    if (m_bShown) std::fputs("\r\x1B[K", stderr);
  }

  void Tell(std::uint64_t nDone, std::uint64_t nTotal) {
    const auto Now = std::chrono::steady_clock::now();
    if (!m_bTerminal || Now - m_Last < std::chrono::milliseconds(200)) return;
    m_Last = Now;
    const double nSeconds = std::chrono::duration<double>(Now - m_Start).count();
    if (nDone == 0 || nSeconds < 0.5) return;
    const double nRate = static_cast<double>(nDone) / nSeconds;
    m_bShown = true;
    std::fprintf(stderr, "\r\x1B[K%.0f of %.0f MB, %.0f MB/s, %.0f s left", static_cast<double>(nDone) / 1e6,
                 static_cast<double>(nTotal) / 1e6, nRate / 1e6, static_cast<double>(nTotal - nDone) / nRate);
    std::fflush(stderr);
  }

  void MakeRoom() {
    if (m_bShown) std::fputs("\r\x1B[K", stderr);
    m_bShown = false;
  }

 private:
  const bool m_bTerminal = ErrorsGoToTerminal();
  const std::chrono::steady_clock::time_point m_Start = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point m_Last;
  bool m_bShown = false;
};

// The tool's own events hold the id of an object at one place.
std::vector<std::uint32_t> IdFieldsOf(const inspect::Database& /*Of*/, std::uint32_t nEventSize) {
  if (nEventSize != sizeof(Event)) return {};
  return {kObjectIdInEvent};
}

int StatusOf(const inspect::Verified& Totals) {
  if (!Totals.bWhole) return kExitInterrupted;
  if (Totals.nDamages != 0) return kExitIncomplete;
  return Totals.nUnsettled != 0 ? kExitUnsettled : kExitOk;
}

}  // namespace

int Verify(const CommonOptions& Common, const VerifyOptions& Options) {
  const std::unique_ptr<inspect::Store> pStore = OpenToRead(Common);
  inspect::VerifyRequest Request;
  if (Options.Database) Request.Only = Require(*pStore, *Options.Database);
  Request.IdFields = IdFieldsOf;
  Ticker Shown;
  const auto Tell = [&](const Finding& Found) {
    Shown.MakeRoom();
    if (Options.bJson) {
      PrintFindingAsJson(Found);
    } else {
      PrintLine(Found);
    }
  };
  const auto Going = [&Shown](std::uint64_t nDone, std::uint64_t nTotal) {
    Shown.Tell(nDone, nTotal);
    return !Interrupted();
  };
  WatchForInterrupt();
  inspect::Verified Totals;
  Check(inspect::Verify(*pStore, Request, Tell, Going, &Totals), "verify " + Printable(Common.Store));
  Shown.MakeRoom();
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
