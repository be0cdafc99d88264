// Any file of a store in words, field by field with offsets, whatever is wrong with it.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "platform/os.h"

namespace lumbra::inspect {

struct DumpRequest {
  std::function<bool(const std::string& Line)> Print;  // without a line's end; false ends it

  // What an event of somebody's own layout means, in words; empty where that is not known. May be null.
  std::function<std::string(std::span<const std::uint8_t> Event)> DescribeEvent;
};

// What the file is, is told by its name, and by its first bytes; these count where the two contradict each other, and a
// file that is none of a store's is shown in hexadecimal. What belongs to a file of names and data is looked for in the
// id records beside it. *pbSound: nothing contradicts. An error of the system when the file cannot be opened or read.
os::SystemError Dump(const os::FolderHandle& pFolder, std::u16string_view Name, const DumpRequest& What, bool* pbSound);

}  // namespace lumbra::inspect
