// Any line of JSON is an event or a BadLine; the time of an event is shown and read back as the same.
#include "record_line.h"

#include "event_time.h"
#include "fuzz.h"

namespace lumbra::fuzz {
namespace {

void Parse(const std::string& Text) {
  try {
    const tool::RecordLine Line = tool::ParseRecordLine(Text);
    Require(!Line.Name.empty() && Line.nType <= 255 && Line.Recorded.nObject == 0, "a line is an event about a name");
    const std::optional<std::string> Shown = tool::FormatTime(Line.Recorded.nTime);  // an offset leads out of 9999
    if (Shown) Require(tool::ParseTime(*Shown) == Line.Recorded.nTime, "a time stays the same: " + *Shown);
  } catch (const tool::BadLine& Bad) {
    Require(Bad.what()[0] != 0, "a bad line has a reason");
  }
}

}  // namespace
}  // namespace lumbra::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
  lumbra::fuzz::Parse({reinterpret_cast<const char*>(pData), nSize});
  return 0;
}
