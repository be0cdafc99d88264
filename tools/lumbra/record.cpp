// lumbra record: events from JSON Lines.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "event_time.h"
#include "failure.h"
#include "ids.h"
#include "machine.h"
#include "recorder.h"

namespace lumbra::tool {
namespace {

using nlohmann::json;

// What is wrong with a line.
class BadLine : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Line {
  Event Recorded;
  std::uint32_t nType;
  std::string Name;
};

template <class Number>
Number NumberOf(const json& Object, const char* pKey, Number nDefault) {
  const auto Found = Object.find(pKey);
  if (Found == Object.end()) return nDefault;
  const bool bFits = Found->is_number_unsigned() && Found->get<std::uint64_t>() <= std::numeric_limits<Number>::max();
  if (!bFits)
    throw BadLine(std::string("\"") + pKey + "\" must be a whole number from 0 to " +
                  std::to_string(std::numeric_limits<Number>::max()));
  return Found->get<Number>();
}

std::uint32_t TypeOf(const json& Object) {
  const auto Found = Object.find("type");
  if (Found == Object.end()) return typeFile;
  if (Found->is_number()) return NumberOf<std::uint8_t>(Object, "type", 0);
  if (Found->is_string()) {
    if (const std::optional<std::uint32_t> Type = TypeOfName(Found->get<std::string>())) return *Type;
  }
  throw BadLine("\"type\" must be file, folder, key, value, volume, name or a number from 0 to 255");
}

std::uint64_t TimeOf(const json& Object) {
  const auto Found = Object.find("time");
  if (Found == Object.end()) return Now();
  const std::optional<std::uint64_t> Time = Found->is_string() ? ParseTime(Found->get<std::string>()) : std::nullopt;
  if (!Time) throw BadLine("\"time\" must be a time like 2026-11-24T13:34:00Z");
  return *Time;
}

Line ParseLine(const std::string& Text) {
  const json Object = json::parse(Text, nullptr, false);
  if (!Object.is_object()) throw BadLine("not a JSON object");
  const auto Name = Object.find("name");
  if (Name == Object.end() || !Name->is_string() || Name->get<std::string>().empty()) {
    throw BadLine("\"name\" must be there and hold a text");
  }
  const Event Recorded{TimeOf(Object), 0, NumberOf<std::uint64_t>(Object, "value", 0),
                       NumberOf<std::uint32_t>(Object, "kind", 0), 0};
  return {Recorded, TypeOf(Object), Name->get<std::string>()};
}

// The lines of a file or of standard input. An interrupt ends them.
class LineReader {
 public:
  explicit LineReader(const std::string& Path)
      : m_Name(Path.empty() ? "standard input" : Path), m_pFile(Path.empty() ? stdin : OpenStream(Path, "rb")) {
    if (m_pFile == nullptr)
      throw Failure("read " + Path, errno == ENOENT ? errFILE_NOT_FOUND : errACCESS_DENIED, std::strerror(errno));
  }
  ~LineReader() {
    if (m_pFile != stdin) std::fclose(m_pFile);
  }
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  bool Next(std::string* pLine) {
    pLine->clear();
    int c = EOF;
    SayInputIsRead(true);
    while (!Interrupted() && (c = std::getc(m_pFile)) != EOF && c != '\n') *pLine += static_cast<char>(c);
    SayInputIsRead(false);
    const bool bFailed = c == EOF && std::ferror(m_pFile) != 0;
    if (Interrupted() || (bFailed && errno == EINTR)) return false;
    if (bFailed) throw Failure("read " + m_Name, errREAD_FAILED, std::strerror(errno));
    return c != EOF || !pLine->empty();
  }

 private:
  std::string m_Name;
  std::FILE* m_pFile;
};

bool IsBlank(const std::string& Text) {
  return Text.find_first_not_of(" \t\r") == std::string::npos;
}

}  // namespace

int Record(const CommonOptions& Common, const RecordOptions& Options) {
  LineReader Lines(Options.File);
  Session Store(Common, Missing::Create);
  const std::uint32_t nDatabase = Store.OpenEventDatabase(Options.Database, Missing::Create);
  Store.SetLimits(nDatabase, Options.Limits);
  WatchForInterrupt();
  Recorder Records(&Store, nDatabase);
  bool bAllGood = true;
  try {
    std::string Text;
    for (std::uint64_t nLine = 1; Lines.Next(&Text); ++nLine) {
      if (IsBlank(Text)) continue;
      try {
        const Line Parsed = ParseLine(Text);
        std::string Reason;
        if (!Records.Record(Parsed.Recorded, Parsed.nType, Parsed.Name, &Reason)) throw BadLine(Reason);
      } catch (const BadLine& Bad) {
        std::fprintf(stderr, "line %llu: %s\n", static_cast<unsigned long long>(nLine), Bad.what());
        bAllGood = false;
      }
    }
  } catch (const Failure&) {
    Records.PrintSummary();
    throw;
  }
  Records.PrintSummary();
  Store.Flush();
  if (Interrupted()) return kExitInterrupted;
  return bAllGood ? kExitOk : kExitFailed;
}

}  // namespace lumbra::tool
