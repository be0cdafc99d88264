// Builds the tree of an object store anew, from its id records: what it finds by name is found again.
#pragma once

#include <string>

#include "platform/os.h"
#include "salvage/plan.h"

namespace lumbra::salvage {

// Carries out a step that rebuilds a tree. Nobody holds the files meanwhile; errSHARING_VIOLATION where somebody does.
ResultCode RebuildTree(const std::u16string& Store, const os::FolderRules& Rules, const Step& Of);

}  // namespace lumbra::salvage
