// How far a database goes at one moment. Everything that is read of it is answered for that, whatever is added
// meanwhile.
//
// The sizes are taken in the order in which nothing can be missing that an event needs: of the events first, then of
// the id records, then of the names and data. The writer writes in the opposite order.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "format/segments_file.h"
#include "inspect/finding.h"
#include "inspect/store.h"
#include "lumbra/result_code.h"
#include "platform/os.h"

namespace lumbra::inspect {

inline constexpr std::uint64_t kNoBirth = UINT64_MAX;

struct SegmentExtent {
  std::uint32_t nNumber;
  std::uint64_t nEvents;    // whole ones
  std::uint64_t nBirth;     // of its file of events: a number that was made again has another one; 0: not known
  std::uint64_t nIdsBirth;  // the same, of the id records of its objects; kNoBirth when the segment went meanwhile
  bool bOver;               // no event comes any more: the next segment holds one
};

// The end of an object store's files.
struct ObjectsExtent {
  std::uint64_t nIdsSize = 0;  // bytes, 0 where the file is missing
  std::uint64_t nDataSize = 0;
};
ObjectsExtent MeasureObjects(const os::FolderHandle& pFolder, std::u16string_view Ids, std::u16string_view Data);

struct Horizon {
  std::uint32_t nEventSize = 0;         // bytes; 0 when there are no events, and no file tells their size
  std::uint64_t nLife = 0;              // when "segments.dat" was made, which clearing does anew; 0: not known
  std::uint32_t nFirst = 0;             // what "segments.dat" calls the oldest segment, 0 for none
  std::vector<SegmentExtent> Segments;  // oldest first; a number that is left out is of a segment that is missing

  // When the folder was listed last.
  std::chrono::steady_clock::time_point Listed = std::chrono::steady_clock::time_point::min();
};

// What "segments.dat" says at one moment, without waiting until it makes sense. Where it says nothing, nFirst is 0, and
// behind no segment: a call that failed, and bytes that contradict the format, condemn none.
struct ChainHead {
  std::uint32_t nFirst = 0;               // the oldest segment, 0 for none
  std::uint32_t nEventSize = 0;           // bytes
  std::uint64_t nLife = 0;                // when the file was made, which clearing does anew; 0: not known
  std::optional<SegmentsFault> Wrong;     // why it says nothing
  os::SystemError nError = os::kSuccess;  // why it was not read
};
ChainHead ReadChainHead(const os::FolderHandle& pFolder);

// Takes it. A chain that is being changed is waited for a moment; where "segments.dat" is missing or damaged then, or
// leads nowhere, that is reported, and the newest run of segments that are there is taken; a segment that is missing
// in between is reported, too. An empty one, and errOK, for a database that has none; a failure when the system does
// not let us look.
//
// For those who follow: segments before nFrom are left out, where the chain goes so far. With the horizon before this
// one the folder is not listed each time, so that what comes behind many missing segments is seen up to a second late.
ResultCode TakeHorizon(const Store& Of, const Database& What, const Report& Tell, Horizon* pHorizon,
                       std::uint32_t nFrom = 0, const Horizon& Before = {});

}  // namespace lumbra::inspect
