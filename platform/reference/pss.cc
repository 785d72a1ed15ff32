// Persistent store. In memory for tests; LMDB for programs. Reads see what the running turn of the main loop has written;
// a turn's writes are one transaction, committed by pss_flush. Without a sync per commit a killed process loses nothing,
// because the pages are the kernel's; only a crash of the machine can lose the last turns.
#include "pss.h"

#include <lmdb.h>

#include <algorithm>
#include <map>

#include "internal.h"

struct ksink_pss {};

namespace ref {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kMapSize = size_t{1} << 30;

// What both forms do.
class Store {
 public:
  virtual ~Store() = default;
  virtual bool update(const Bytes &key, const Bytes &value) = 0;
  virtual bool erase(const Bytes &key) = 0;
  // First record at or after a key, or strictly after it.
  virtual bool seek(const Bytes &key, bool after, Bytes *found, Bytes *value) = 0;
  virtual void flush() {}
};

class MemoryStore : public Store {
 public:
  bool update(const Bytes &key, const Bytes &value) override {
    records_[key] = value;
    return true;
  }
  bool erase(const Bytes &key) override {
    records_.erase(key);
    return true;
  }
  bool seek(const Bytes &key, bool after, Bytes *found, Bytes *value) override {
    const auto at = after ? records_.upper_bound(key) : records_.lower_bound(key);
    if (at == records_.end()) return false;
    *found = at->first;
    *value = at->second;
    return true;
  }

 private:
  std::map<Bytes, Bytes> records_;
};

class LmdbStore : public Store {
 public:
  ~LmdbStore() override {
    flush();
    if (environment_ != nullptr) mdb_env_close(environment_);
  }

  bool open(const std::string &path) {
    if (mdb_env_create(&environment_) != 0) return false;
    if (mdb_env_set_mapsize(environment_, kMapSize) != 0) return false;
    if (mdb_env_open(environment_, path.c_str(), MDB_NOSYNC | MDB_NOTLS, 0600) != 0) return false;
    MDB_txn *transaction;
    if (mdb_txn_begin(environment_, nullptr, 0, &transaction) != 0) return false;
    if (mdb_dbi_open(transaction, nullptr, MDB_CREATE, &database_) != 0) {
      mdb_txn_abort(transaction);
      return false;
    }
    return mdb_txn_commit(transaction) == 0;
  }

  bool update(const Bytes &key, const Bytes &value) override {
    MDB_val k = view(key), v = view(value);
    return begin() && mdb_put(transaction_, database_, &k, &v, 0) == 0;
  }

  bool erase(const Bytes &key) override {
    MDB_val k = view(key);
    if (!begin()) return false;
    const int error = mdb_del(transaction_, database_, &k, nullptr);
    return error == 0 || error == MDB_NOTFOUND;
  }

  bool seek(const Bytes &key, bool after, Bytes *found, Bytes *value) override {
    MDB_cursor *cursor;
    if (!begin() || mdb_cursor_open(transaction_, database_, &cursor) != 0) return false;
    MDB_val k = view(key), v;
    int error = mdb_cursor_get(cursor, &k, &v, MDB_SET_RANGE);
    if (error == 0 && after && bytes(k) == key) error = mdb_cursor_get(cursor, &k, &v, MDB_NEXT);
    if (error == 0) {
      *found = bytes(k);
      *value = bytes(v);
    }
    mdb_cursor_close(cursor);
    return error == 0;
  }

  void flush() override {
    if (transaction_ == nullptr) return;
    if (mdb_txn_commit(transaction_) != 0) syslog_log(3, "pss: a transaction cannot be committed");
    transaction_ = nullptr;
  }

 private:
  static MDB_val view(const Bytes &from) { return {from.size(), const_cast<uint8_t *>(from.data())}; }
  static Bytes bytes(const MDB_val &from) {
    const auto *begin = static_cast<const uint8_t *>(from.mv_data);
    return {begin, begin + from.mv_size};
  }
  bool begin() { return transaction_ != nullptr || mdb_txn_begin(environment_, nullptr, 0, &transaction_) == 0; }

  MDB_env *environment_ = nullptr;
  MDB_dbi database_ = 0;
  MDB_txn *transaction_ = nullptr;
};

ksink_pss handle;
std::unique_ptr<Store> store = std::make_unique<MemoryStore>();
bool stateful = false;
// The record returned last; what callers point into.
Bytes last_key, last_value;

Bytes to_bytes(const void *data, uint32_t size) {
  const auto *begin = static_cast<const uint8_t *>(data);
  return {begin, begin + size};
}

int hand_out(const Bytes &from, bool after, const void **key, const void **value, uint32_t *length) {
  Bytes found, content;
  if (!store->seek(from, after, &found, &content)) return 0;
  last_key = std::move(found);
  last_value = std::move(content);
  *key = last_key.data();
  *value = last_value.data();
  *length = static_cast<uint32_t>(last_value.size());
  return 1;
}

}  // namespace

void pss_use_memory() { store = std::make_unique<MemoryStore>(); }

bool pss_use_directory(const std::string &path) {
  auto opened = std::make_unique<LmdbStore>();
  if (!opened->open(path)) return false;
  store = std::move(opened);
  return true;
}

void pss_flush() { store->flush(); }
void set_stateful_restart(bool on) { stateful = on; }

std::vector<std::pair<Bytes, Bytes>> pss_records() {
  std::vector<std::pair<Bytes, Bytes>> out;
  Bytes key{0}, found, value;
  for (bool after = false; store->seek(key, after, &found, &value); after = true) {
    out.emplace_back(found, value);
    key = found;
  }
  return out;
}

void pss_reset() {
  pss_use_memory();
  stateful = false;
  last_key.clear();
  last_value.clear();
  pim_ha_handle = &handle;
}

}  // namespace ref

using namespace ref;

ksink_pss *pim_ha_handle = &handle;

int ksink_pss_update(ksink_pss *, const void *key, uint32_t key_size, const void *value, uint32_t length) {
  return key_size == PSS_KEY_SIZE && store->update(to_bytes(key, key_size), to_bytes(value, length)) ? 1 : 0;
}

int ksink_pss_fetch(ksink_pss *, const void *key, uint32_t key_size, const void **value, uint32_t *length) {
  Bytes found, content;
  const Bytes wanted = to_bytes(key, key_size);
  if (!store->seek(wanted, false, &found, &content) || found != wanted) return 0;
  last_value = std::move(content);
  *value = last_value.data();
  *length = static_cast<uint32_t>(last_value.size());
  return 1;
}

int ksink_pss_delete(ksink_pss *, const void *key, uint32_t key_size) {
  return store->erase(to_bytes(key, key_size)) ? 1 : 0;
}

int ksink_pss_delete_range(ksink_pss *, const void *prefix, uint32_t prefix_size) {
  const Bytes begin = to_bytes(prefix, prefix_size);
  Bytes found, value;
  while (store->seek(begin, false, &found, &value) && found.size() >= begin.size() &&
         std::equal(begin.begin(), begin.end(), found.begin()))
    if (!store->erase(found)) return 0;
  return 1;
}

int ksink_pss_get_first(ksink_pss *, const void **key, const void *prefix, uint32_t prefix_size, const void **value,
                        uint32_t *length) {
  return hand_out(to_bytes(prefix, prefix_size), false, key, value, length);
}

int ksink_pss_get_next(ksink_pss *, const void **key, const void **value, uint32_t *length) {
  return hand_out(Bytes(last_key), true, key, value, length);
}

int sysmgr_is_stateful_restart() { return stateful ? 1 : 0; }
