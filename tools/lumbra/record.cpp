// lumbra record: events from JSON Lines.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>

#include "commands.h"
#include "failure.h"
#include "machine.h"
#include "progress.h"
#include "record_line.h"
#include "recorder.h"

namespace lumbra::tool {
namespace {

// The lines of a file or of standard input. An interrupt ends them. Of one that is too long no more is kept.
class LineReader {
 public:
  explicit LineReader(const std::string& Path)
      : m_Name(Path.empty() ? "standard input" : Printable(Path)),
        m_pFile(Path.empty() ? stdin : OpenStream(Path, "rb")) {
    if (m_pFile == nullptr)
      throw Failure("read " + Printable(Path), errno == ENOENT ? errFILE_NOT_FOUND : errACCESS_DENIED,
                    std::strerror(errno));
    std::error_code Unknown;  // as for what is no file
    if (!Path.empty()) m_nTotal = std::filesystem::file_size(PathOf(Path), Unknown);
    if (Unknown) m_nTotal = 0;
  }
  ~LineReader() {
    if (m_pFile != stdin) std::fclose(m_pFile);
  }
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  static constexpr std::size_t kMaxLine = std::size_t{1} << 20;  // bytes

  // A line that is too long has more bytes than kMaxLine.
  bool Next(std::string* pLine) {
    pLine->clear();
    int c = EOF;
    SayInputIsRead(true);
    while (!Interrupted() && (c = std::getc(m_pFile)) != EOF && c != '\n') {
      if (pLine->size() <= kMaxLine) *pLine += static_cast<char>(c);
    }
    SayInputIsRead(false);
    m_nRead += pLine->size() + 1;
    const bool bFailed = c == EOF && std::ferror(m_pFile) != 0;
    if (Interrupted() || (bFailed && errno == EINTR)) return false;
    if (bFailed) throw Failure("read " + m_Name, errREAD_FAILED, std::strerror(errno));
    return c != EOF || !pLine->empty();
  }

  // Bytes that were read, and all of them; 0 when that is not known.
  std::uint64_t Read() const { return m_nRead; }
  std::uint64_t Total() const { return m_nTotal; }

 private:
  std::string m_Name;
  std::FILE* m_pFile;
  std::uint64_t m_nRead = 0;
  std::uint64_t m_nTotal = 0;
};

// Tells once of each field of lines that means nothing here: a mistyped one would be left out unnoticed.
class UnknownFields {
 public:
  void Tell(std::uint64_t nLine, const std::vector<std::string>& Names) {
    constexpr std::size_t kMostTold = 100;
    for (const std::string& Name : Names) {
      if (m_Told.size() == kMostTold || !m_Told.insert(Name).second) continue;
      std::fprintf(stderr, "line %llu: no event has a field %s; it is left out wherever it stands\n",
                   static_cast<unsigned long long>(nLine), Printable(Name).c_str());
    }
  }

 private:
  std::set<std::string> m_Told;
};

bool IsBlank(const std::string& Text) {
  return Text.find_first_not_of(" \t\r") == std::string::npos;
}

}  // namespace

int Record(const CommonOptions& Common, const RecordOptions& Options) {
  LineReader Lines(Options.File);
  Session Store(Common, Missing::Create);
  const std::uint32_t nDatabase = Store.OpenEventDatabase(Options.Database, Missing::Create);
  Store.SetLimits(nDatabase, WithSegmentLimits(Options.Limits));
  WatchForInterrupt();
  Recorder Records(&Store, nDatabase);
  UnknownFields Unknown;
  bool bAllGood = true;
  Progress Shown("events");
  try {
    std::string Text;
    for (std::uint64_t nLine = 1; Lines.Next(&Text); ++nLine) {
      if (IsBlank(Text)) continue;
      try {
        if (Text.size() > LineReader::kMaxLine) throw BadLine("longer than 1 MiB");
        const RecordLine Parsed = ParseRecordLine(Text);
        Unknown.Tell(nLine, Parsed.Unknown);
        std::string Reason;
        if (!Records.Record(Parsed.Recorded, Parsed.nType, Parsed.Name, &Reason)) throw BadLine(Reason);
        Shown.Tell(Records.Count(), Lines.Read(), Lines.Total());
      } catch (const BadLine& Bad) {
        Shown.End();
        std::fprintf(stderr, "line %llu: %s\n", static_cast<unsigned long long>(nLine),
                     host::PrintableSentence(Bad.what()).c_str());
        bAllGood = false;
      }
    }
  } catch (...) {
    Shown.End();
    Records.PrintSummary();
    Store.TryToFlush();
    throw;
  }
  Shown.End();
  Records.PrintSummary();
  Store.Flush();
  if (Interrupted()) return kExitInterrupted;
  return bAllGood ? kExitOk : kExitFailed;
}

}  // namespace lumbra::tool
