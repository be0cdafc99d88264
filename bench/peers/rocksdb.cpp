// RocksDB: its log is written at once and never synced. Nothing is compressed, since nobody else does.
#include <rocksdb/cache.h>
#include <rocksdb/db.h>
#include <rocksdb/filter_policy.h>
#include <rocksdb/table.h>
#include <rocksdb/write_batch.h>

#include "merge_tree.h"

namespace lumbra::peers {
namespace {

struct Rocksdb {
  using Database = rocksdb::DB;
  using Iterator = rocksdb::Iterator;
  using ReadOptions = rocksdb::ReadOptions;
  using Slice = rocksdb::Slice;
  using Status = rocksdb::Status;
  using WriteBatch = rocksdb::WriteBatch;
  using WriteOptions = rocksdb::WriteOptions;

  Rocksdb() {
    rocksdb::BlockBasedTableOptions Table;
    Table.block_cache = rocksdb::NewLRUCache(kCacheSize);
    Table.filter_policy.reset(rocksdb::NewBloomFilterPolicy(10));
    Options.create_if_missing = true;
    Options.compression = rocksdb::kNoCompression;
    Options.table_factory.reset(rocksdb::NewBlockBasedTableFactory(Table));
  }

  rocksdb::Options Options;
};

}  // namespace

std::unique_ptr<Peer> OpenRocksdb(const Place& Where) {
  return std::make_unique<MergeTree<Rocksdb>>(Where);
}

}  // namespace lumbra::peers
