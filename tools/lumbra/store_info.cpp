#include "store_info.h"

#include <cinttypes>
#include <cstdio>
#include <functional>
#include <nlohmann/json.hpp>

#include "event_time.h"
#include "failure.h"
#include "holder.h"
#include "host/text.h"
#include "quantities.h"

namespace lumbra::tool {
namespace {

using nlohmann::ordered_json;

constexpr std::uint64_t kPerSecond = 10000000;  // of a FILETIME

// How far back a database reaches: what its limits keep. Nothing without a segment whose birth is known.
std::optional<std::uint64_t> AgeOf(const DatabaseInfo& Info, std::uint64_t nNow) {
  if (Info.nOldest == 0) return {};
  return nNow > Info.nOldest ? (nNow - Info.nOldest) / kPerSecond : 0;
}

// ---- Table ------------------------------------------------------------------------------------------------

std::string TimeOrDash(std::uint64_t nTime) {
  return nTime != 0 ? DescribeTime(nTime) : "-";
}

void PrintSegments(const DatabaseInfo& Info) {
  std::printf("\n%s\n%10s  %10s", Info.Name.Describe().c_str(), "segment", "events");
  for (const char* const pName : kSegmentFiles) std::printf("  %12s", (std::string(pName) + " bytes").c_str());
  std::puts("  born");
  for (const SegmentInfo& One : Info.Segments) {
    std::printf("%10" PRIu32 "  %10" PRIu64, One.nNumber, One.nEvents);
    for (const std::uint64_t nBytes : One.Bytes) std::printf("  %12" PRIu64, nBytes);
    std::printf("  %s\n", TimeOrDash(One.nBirth).c_str());
  }
}

void PrintTimes(const StoreInfo& Of) {
  std::printf("\n%-16s  %-28s  %s\n", "folder", "lowest time", "highest time");
  for (const DatabaseInfo& Info : Of.Databases) {
    std::printf("%-16s  %-28s  %s\n", Printable(Info.Name.Folder()).c_str(),
                Info.Times ? DescribeTime(Info.Times->nLowest).c_str() : "-",
                Info.Times ? DescribeTime(Info.Times->nHighest).c_str() : "-");
  }
}

// ---- JSON -------------------------------------------------------------------------------------------------

ordered_json TimeOrNull(std::uint64_t nTime) {
  const std::optional<std::string> Time = nTime != 0 ? FormatTime(nTime) : std::nullopt;
  return Time ? ordered_json(*Time) : ordered_json();
}

ordered_json SegmentsAsJson(const DatabaseInfo& Info) {
  ordered_json Listed = ordered_json::array();
  for (const SegmentInfo& One : Info.Segments) {
    ordered_json Bytes;
    for (std::size_t i = 0; i < One.Bytes.size(); ++i) Bytes[kSegmentFiles[i]] = One.Bytes[i];
    Listed.push_back(
        {{"number", One.nNumber}, {"events", One.nEvents}, {"bytes", Bytes}, {"born", TimeOrNull(One.nBirth)}});
  }
  return Listed;
}

ordered_json DatabaseAsJson(const DatabaseInfo& Info, const StoreInfo& Of) {
  ordered_json One = {{"id", nullptr}, {"name", nullptr}, {"folder", Info.Name.Folder()}};
  if (Info.Id) One["id"] = *Info.Id;
  if (!Info.Name.Number) One["name"] = Info.Name.Name;
  One["event_size"] = Info.nEventSize;
  One["records"] = Info.nRecords;
  One["bytes"] = Info.nBytes;
  One["segments"] = Info.nSegments;
  One["oldest"] = TimeOrNull(Info.nOldest);
  One["reaches_back"] = nullptr;
  if (const std::optional<std::uint64_t> Age = AgeOf(Info, Of.nNow)) One["reaches_back"] = *Age;
  if (Of.bTimes) {
    One["lowest_time"] = Info.Times ? TimeOrNull(Info.Times->nLowest) : ordered_json();
    One["highest_time"] = Info.Times ? TimeOrNull(Info.Times->nHighest) : ordered_json();
  }
  if (Of.bSegments) One["segment_list"] = SegmentsAsJson(Info);
  return One;
}

// ---- Prometheus -------------------------------------------------------------------------------------------

// A label's value: in quotes, in which three characters stand behind a '\'.
std::string Quoted(const std::string& Value) {
  std::string Text = "\"";
  for (const char c : host::ToUtf8(host::ToUtf16(Value))) {
    if (c == '\\' || c == '"') Text += '\\';
    if (c == '\n') {
      Text += "\\n";
    } else {
      Text += c;
    }
  }
  return Text + '"';
}

// Seconds since 1970, as they all are there.
std::string UnixSeconds(std::uint64_t nFileTime) {
  constexpr double kSecondsTo1970 = 11644473600;
  char Text[32];
  std::snprintf(Text, sizeof(Text), "%.3f", static_cast<double>(nFileTime) / kPerSecond - kSecondsTo1970);
  return Text;
}

// The samples of a metric stand behind one another, below its description.
class Metrics {
 public:
  explicit Metrics(const StoreInfo& Of) : m_Of(Of), m_Store("store=" + Quoted(Printable(Of.Folder))) {}

  void Begin(const char* pName, const char* pHelp) {
    m_pName = pName;
    std::printf("# HELP lumbra_%s %s\n# TYPE lumbra_%s gauge\n", pName, pHelp, pName);
  }
  void Sample(const std::string& Labels, const std::string& Value) const {
    std::printf("lumbra_%s{%s%s} %s\n", m_pName, m_Store.c_str(), Labels.c_str(), Value.c_str());
  }

  // Of the store; of each database that has such a value.
  void OfStore(const char* pName, const char* pHelp, std::uint64_t nValue) {
    Begin(pName, pHelp);
    Sample("", std::to_string(nValue));
  }
  template <class ValueOf>
  void OfDatabases(const char* pName, const char* pHelp, ValueOf Value) {
    Begin(pName, pHelp);
    for (const DatabaseInfo& Info : m_Of.Databases) {
      if (const std::optional<std::string> Text = Value(Info)) Sample(LabelOf(Info), *Text);
    }
  }
  template <class Print>
  void OfSegments(const char* pName, const char* pHelp, Print PrintOne) {
    Begin(pName, pHelp);
    for (const DatabaseInfo& Info : m_Of.Databases) {
      for (const SegmentInfo& One : Info.Segments)
        PrintOne(LabelOf(Info) + ",segment=\"" + std::to_string(One.nNumber) + '"', One);
    }
  }

 private:
  static std::string LabelOf(const DatabaseInfo& Info) {
    return ",database=" + Quoted(Info.Name.Number ? std::to_string(*Info.Name.Number) : Printable(Info.Name.Name));
  }

  const StoreInfo& m_Of;
  const std::string m_Store;
  const char* m_pName = "";
};

std::optional<std::string> KnownTime(std::uint64_t nTime) {
  return nTime != 0 ? std::optional(UnixSeconds(nTime)) : std::nullopt;
}

}  // namespace

void PrintInfoAsTable(const StoreInfo& Of) {
  std::printf("%s%s\n", Printable(Of.Folder).c_str(), Of.bCorrupted ? "  (damaged; see lumbra check)" : "");
  if (Of.bLooksFromOutside) {
    const std::string Who = Describe(Of.Holders);
    std::printf("%s\n", Who.empty() ? "holder: unknown" : ("held by " + Who).c_str());
  }
  std::puts("");
  if (Of.nSetAside != 0) std::printf("set aside by healing: %" PRIu64 " bytes; see lumbra repair\n\n", Of.nSetAside);
  std::printf("%3s  %-16s  %-16s  %10s  %10s  %14s  %8s  %-28s  %s\n", "id", "name", "folder", "event size", "records",
              "bytes", "segments", "oldest segment", "reaches back");
  for (const DatabaseInfo& Info : Of.Databases) {
    const std::optional<std::uint64_t> Age = AgeOf(Info, Of.nNow);
    std::printf("%3s  %-16s  %-16s  %10u  %10" PRIu64 "  %14" PRIu64 "  %8zu  %-28s  %s\n",
                Info.Id ? std::to_string(*Info.Id).c_str() : "-",
                Info.Name.Number ? "-" : Printable(Info.Name.Name).c_str(), Printable(Info.Name.Folder()).c_str(),
                Info.nEventSize, Info.nRecords, Info.nBytes, Info.nSegments, TimeOrDash(Info.nOldest).c_str(),
                Age ? DescribeAge(*Age).c_str() : "-");
  }
  if (Of.bTimes) PrintTimes(Of);
  if (!Of.bSegments) return;
  for (const DatabaseInfo& Info : Of.Databases) PrintSegments(Info);
}

void PrintInfoAsJson(const StoreInfo& Of) {
  ordered_json Listed = ordered_json::array();
  for (const DatabaseInfo& Info : Of.Databases) Listed.push_back(DatabaseAsJson(Info, Of));
  ordered_json All = {
      {"store", Of.Folder}, {"corrupted", Of.bCorrupted}, {"set_aside", Of.nSetAside}, {"databases", Listed}};
  if (Of.bLooksFromOutside) {
    All["holders"] = ordered_json::array();
    for (const inspect::Holder& One : Of.Holders)
      All["holders"].push_back({{"pid", One.nProcess}, {"program", One.Program}, {"user", One.User}});
  }
  std::puts(host::PrintableJson(All.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)).c_str());
}

void PrintInfoForPrometheus(const StoreInfo& Of) {
  Metrics Out(Of);
  Out.OfStore("store_corrupted", "Whether damaged data was met at some time.", Of.bCorrupted ? 1 : 0);
  Out.OfStore("store_findings", "What this look found wrong with the heads of files and the numbers of segments.",
              Of.nFindings);
  Out.OfStore("store_set_aside_bytes", "Bytes that healing has set aside.", Of.nSetAside);
  Out.OfStore("store_holders", "Processes that are known to hold the store; 0 where none is known.", Of.Holders.size());
  Out.OfDatabases("database_event_size_bytes", "Size of an event.",
                  [](const DatabaseInfo& Info) { return std::optional(std::to_string(Info.nEventSize)); });
  Out.OfDatabases("database_records", "Events that the database holds.",
                  [](const DatabaseInfo& Info) { return std::optional(std::to_string(Info.nRecords)); });
  Out.OfDatabases("database_bytes", "Size of the files of all segments.",
                  [](const DatabaseInfo& Info) { return std::optional(std::to_string(Info.nBytes)); });
  Out.OfDatabases("database_segments", "Segments that the database holds.",
                  [](const DatabaseInfo& Info) { return std::optional(std::to_string(Info.nSegments)); });
  Out.OfDatabases("database_oldest_segment_timestamp_seconds", "When the oldest segment was made.",
                  [](const DatabaseInfo& Info) { return KnownTime(Info.nOldest); });
  if (Of.bTimes) {
    Out.OfDatabases("database_lowest_time_seconds", "The lowest time of an event.", [](const DatabaseInfo& Info) {
      return Info.Times ? std::optional(UnixSeconds(Info.Times->nLowest)) : std::nullopt;
    });
    Out.OfDatabases("database_highest_time_seconds", "The highest time of an event.", [](const DatabaseInfo& Info) {
      return Info.Times ? std::optional(UnixSeconds(Info.Times->nHighest)) : std::nullopt;
    });
  }
  if (!Of.bSegments) return;
  Out.OfSegments("segment_events", "Events of a segment.", [&Out](const std::string& Labels, const SegmentInfo& One) {
    Out.Sample(Labels, std::to_string(One.nEvents));
  });
  Out.OfSegments("segment_bytes", "Size of a file of a segment.", [&Out](const std::string& Labels, const auto& One) {
    for (std::size_t i = 0; i < One.Bytes.size(); ++i)
      Out.Sample(Labels + ",file=\"" + kSegmentFiles[i] + '"', std::to_string(One.Bytes[i]));
  });
  Out.OfSegments("segment_birth_timestamp_seconds", "When a segment was made.",
                 [&Out](const std::string& Labels, const SegmentInfo& One) {
                   if (const std::optional<std::string> Time = KnownTime(One.nBirth)) Out.Sample(Labels, *Time);
                 });
}

}  // namespace lumbra::tool
