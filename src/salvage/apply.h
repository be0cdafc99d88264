// Carries out a plan, and takes it back. Nothing is deleted: what is taken out of the way moves to
// "set-aside/<UTC time>-<counter>/" in the folder of the database, or in that of the store for the files there, beside
// a record of what was done with all old bytes, "healing.json". It is on the disk before the first change.
#pragma once

#include <string>

#include "platform/os.h"
#include "salvage/plan.h"

namespace lumbra::salvage {

// Looks at a store and heals it, holding its files as the component does: where another process holds one, the store is
// left alone, and the plan says so; one that does not look sound is waited for up to 200 ms, and where the component
// would then get at its shared files, errSHARING_VIOLATION. *pDone receives the plan, whose steps say whether they were
// done: none is when the look refuses the store; after a failure, errSHARING_VIOLATION where somebody holds a file that
// was to change, those before it. Killed at any point and run again, it ends the same.
ResultCode Heal(const std::u16string& Store, const os::FolderRules& Rules, const Wishes& Wanted, Plan* pDone);

// Moves all files of a database, by its folder in the store's, out of the way: the component begins it anew then, ids
// included. Killed on its way, it leaves the beginning of the chain. errSHARING_VIOLATION while the database is open.
ResultCode SetDatabaseAside(const std::u16string& Store, const os::FolderRules& Rules, const std::u16string& Folder);

// What the live pair of the shared objects holds now, in a few bytes.
ResultCode DigestOfLivePair(const std::u16string& Store, const os::FolderRules& Rules, std::string* pDigest);

// Puts the pair of files that compaction has written in the place of the live one, which moves to "set-aside", unless
// that is not any more what it was at the compaction (errSTATE_INVALID). Killed at any point, it is finished by the
// next healing; no host that does not heal may open the store before. *pDone receives the plan. errNOT_FOUND without a
// pair.
ResultCode ReplaceByCompacted(const std::u16string& Store, const os::FolderRules& Rules, const std::string& Live,
                              Plan* pDone);

// Takes back what was done at a time, which is the name of its folder in "set-aside", in every folder of the store.
// What has changed since is left as it is, and said; but a tree that was built anew goes with what it has learnt since,
// as the old one finds nothing and is built anew again. Killed on its way, it is to be called again: a compacted pair
// that is half taken back keeps the store from being opened until then. errNOT_FOUND when nothing was done then.
ResultCode Undo(const std::u16string& Store, const os::FolderRules& Rules, const std::string& Time,
                std::vector<std::string>* pLeft);

}  // namespace lumbra::salvage
