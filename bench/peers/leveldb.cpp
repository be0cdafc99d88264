// LevelDB: its log is written at once and never synced. Nothing is compressed, since nobody else does.
#include <leveldb/cache.h>
#include <leveldb/db.h>
#include <leveldb/filter_policy.h>
#include <leveldb/write_batch.h>

#include "merge_tree.h"

namespace lumbra::peers {
namespace {

struct Leveldb {
  using Database = leveldb::DB;
  using Iterator = leveldb::Iterator;
  using ReadOptions = leveldb::ReadOptions;
  using Slice = leveldb::Slice;
  using Status = leveldb::Status;
  using WriteBatch = leveldb::WriteBatch;
  using WriteOptions = leveldb::WriteOptions;

  Leveldb() : pCache(leveldb::NewLRUCache(kCacheSize)), pFilter(leveldb::NewBloomFilterPolicy(10)) {
    Options.create_if_missing = true;
    Options.compression = leveldb::kNoCompression;
    Options.block_cache = pCache.get();
    Options.filter_policy = pFilter.get();
  }

  std::unique_ptr<leveldb::Cache> pCache;
  std::unique_ptr<const leveldb::FilterPolicy> pFilter;
  leveldb::Options Options;
};

}  // namespace

std::unique_ptr<Peer> OpenLeveldb(const Place& Where) {
  return std::make_unique<MergeTree<Leveldb>>(Where);
}

}  // namespace lumbra::peers
