// Persistent store: one ordered map in memory, with an LMDB database behind it when there is a directory.
//
// Reads and writes touch the map alone, so every thread sees what any other has written. Keys that were written are
// remembered, and pss_flush brings them to the database in one transaction per turn of the main loop: a transaction
// belongs to the thread that began it, and module threads write too. A write outside a turn asks for one.
//
// What a process leaves behind is for the one that takes up its state: a start without that begins with an empty store,
// since choices that nobody claims would be handed out twice.
//
// A killed process loses at most the turn that it was in. A commit writes the data through to the disk and leaves the
// root page to the system (MDB_NOMETASYNC): a crash of the machine may lose the last turns, but never the database.
#include "platform/pss.h"

#include <lmdb.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include "platform/diag.h"
#include "platform/pim.h"
#include "platform/reference/internal.h"
#include "platform/reference/observer.h"
#include "platform/reference/pss.h"
#include "platform/reference/testing/services.h"

struct ksink_pss {};

namespace ref {
namespace {

using Bytes = std::vector<uint8_t>;
using Records = std::map<Bytes, Bytes>;

constexpr size_t map_size = size_t{1} << 30;  // bytes of address space; LMDB's file grows with what it holds only
constexpr uint32_t severity_error = 3, severity_notice = 5;

class Database {
 public:
  ~Database() {
    if (environment_ != nullptr) mdb_env_close(environment_);
  }

  // Opens the database in a directory and reads what it holds. An error of LMDB; 0 on success.
  int open(const std::string &path, Records *records) {
    int error = mdb_env_create(&environment_);
    if (error == 0) error = mdb_env_set_mapsize(environment_, map_size);
    if (error == 0) error = mdb_env_open(environment_, path.c_str(), MDB_NOMETASYNC, 0600);
    if (error == 0) error = check_size();
    if (error != 0) return error;
    return transact([&](MDB_txn *transaction) {
      const int opened = mdb_dbi_open(transaction, nullptr, MDB_CREATE, &database_);
      return opened != 0 ? opened : read(transaction, records);
    });
  }

  // Brings these keys in line with the records.
  int write(const Records &records, const std::set<Bytes> &keys) {
    return transact([&](MDB_txn *transaction) {
      int error = 0;
      for (auto key = keys.begin(); error == 0 && key != keys.end(); ++key)
        error = write_one(transaction, *key, records.find(*key), records.end());
      return error;
    });
  }

 private:
  template <typename Work>
  int transact(Work work) {
    MDB_txn *transaction;
    if (const int error = mdb_txn_begin(environment_, nullptr, 0, &transaction); error != 0) return error;
    if (const int error = work(transaction); error != 0) {
      mdb_txn_abort(transaction);
      return error;
    }
    return mdb_txn_commit(transaction);
  }

  // A file that ends before its last page would end the process when that page is read.
  int check_size() const {
    MDB_envinfo info;
    MDB_stat statistics;
    struct stat file {};
    int descriptor = -1;
    int error = mdb_env_info(environment_, &info);
    if (error == 0) error = mdb_env_stat(environment_, &statistics);
    if (error == 0) error = mdb_env_get_fd(environment_, &descriptor);
    if (error != 0) return error;
    if (fstat(descriptor, &file) != 0) return errno;
    // A new file holds its two first pages only.
    const uint64_t pages = info.me_last_txnid == 0 ? 0 : uint64_t{info.me_last_pgno} + 1;
    return static_cast<uint64_t>(file.st_size) < pages * statistics.ms_psize ? MDB_CORRUPTED : 0;
  }

  int read(MDB_txn *transaction, Records *records) const {
    MDB_cursor *cursor;
    if (const int error = mdb_cursor_open(transaction, database_, &cursor); error != 0) return error;
    MDB_val key, value;
    int error;
    while ((error = mdb_cursor_get(cursor, &key, &value, MDB_NEXT)) == 0)
      if (key.mv_size == PSS_KEY_SIZE) (*records)[bytes(key)] = bytes(value);
    mdb_cursor_close(cursor);
    return error == MDB_NOTFOUND ? 0 : error;
  }

  int write_one(MDB_txn *transaction, const Bytes &key, Records::const_iterator at, Records::const_iterator end) const {
    MDB_val k = view(key);
    if (at == end) {
      const int error = mdb_del(transaction, database_, &k, nullptr);
      return error == MDB_NOTFOUND ? 0 : error;
    }
    MDB_val v = view(at->second);
    return mdb_put(transaction, database_, &k, &v, 0);
  }

  static MDB_val view(const Bytes &from) { return {from.size(), const_cast<uint8_t *>(from.data())}; }
  static Bytes bytes(const MDB_val &from) {
    const auto *begin = static_cast<const uint8_t *>(from.mv_data);
    return {begin, begin + from.mv_size};
  }

  MDB_env *environment_ = nullptr;
  MDB_dbi database_ = 0;
};

struct State {
  Records records;
  std::unique_ptr<Database> database;  // null: memory only
  std::set<Bytes> unwritten;           // keys that the database does not have yet
  bool failing = false;                // the last commit failed
  bool stateful = false;
  Bytes last_key, last_value;  // what was handed out last; callers point into it
};
State state;
ksink_pss handle;

Bytes to_bytes(const void *data, uint32_t size) {
  const auto *begin = static_cast<const uint8_t *>(data);
  return {begin, begin + size};
}

void note_change(const Bytes &key) {
  if (state.database == nullptr) return;
  if (state.unwritten.empty()) wake_main_loop();
  state.unwritten.insert(key);
}

Records::iterator erase(Records::iterator at) {
  note_change(at->first);
  return state.records.erase(at);
}

void forget_all() {
  while (!state.records.empty()) erase(state.records.begin());
}

int hand_out(Records::const_iterator at, const void **key, const void **value, uint32_t *length) {
  if (at == state.records.end()) return 0;
  state.last_key = at->first;
  state.last_value = at->second;
  *key = state.last_key.data();
  *value = state.last_value.data();
  *length = static_cast<uint32_t>(state.last_value.size());
  return 1;
}

bool begins_with(const Bytes &key, const Bytes &prefix) {
  return key.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), key.begin());
}

}  // namespace

void pss_use_memory() {
  pss_flush();
  const bool stateful = state.stateful;
  state = State{};
  state.stateful = stateful;
}

bool pss_use_directory(const std::string &path) {
  pss_use_memory();  // first: a process must not have one database open twice
  auto database = std::make_unique<Database>();
  if (const int error = database->open(path, &state.records); error != 0) {
    syslog_log(severity_error, "pss: %s: %s", path.c_str(), mdb_strerror(error));
    state.records.clear();
    return false;
  }
  state.database = std::move(database);
  if (!state.stateful) forget_all();
  return true;
}

// A store that fails fails every turn; what changes is said.
static void tell_failing(int error) {
  if (observer() != nullptr) return observer()->store_changed(error == 0 ? "" : mdb_strerror(error));
  if (error != 0)
    syslog_log(severity_error, "pss: records cannot be written, tried again every turn: %s", mdb_strerror(error));
  else
    syslog_log(severity_notice, "pss: records are written again");
}

void pss_flush() {
  if (state.database == nullptr || state.unwritten.empty()) return;
  const int error = state.database->write(state.records, state.unwritten);
  if (error == 0) state.unwritten.clear();
  if (const bool failing = error != 0; std::exchange(state.failing, failing) != failing) tell_failing(error);
}

void set_stateful_restart(bool on) { state.stateful = on; }

std::vector<std::pair<Bytes, Bytes>> pss_records() { return {state.records.begin(), state.records.end()}; }

void pss_reset() {
  pss_use_memory();
  state.stateful = false;
  pim_ha_handle = &handle;
}

}  // namespace ref

using namespace ref;

ksink_pss *pim_ha_handle = &handle;

int ksink_pss_update(ksink_pss *, const void *key, uint32_t key_size, const void *value, uint32_t length) {
  if (key_size != PSS_KEY_SIZE) return 0;
  const Bytes stored_key = to_bytes(key, key_size);
  state.records[stored_key] = to_bytes(value, length);
  note_change(stored_key);
  return 1;
}

int ksink_pss_fetch(ksink_pss *, const void *key, uint32_t key_size, const void **value, uint32_t *length) {
  const auto found = state.records.find(to_bytes(key, key_size));
  if (found == state.records.end()) return 0;
  state.last_value = found->second;
  *value = state.last_value.data();
  *length = static_cast<uint32_t>(state.last_value.size());
  return 1;
}

int ksink_pss_delete(ksink_pss *, const void *key, uint32_t key_size) {
  const auto found = state.records.find(to_bytes(key, key_size));
  if (found != state.records.end()) erase(found);
  return 1;
}

int ksink_pss_delete_range(ksink_pss *, const void *prefix, uint32_t prefix_size) {
  const Bytes begin = to_bytes(prefix, prefix_size);
  auto at = state.records.lower_bound(begin);
  while (at != state.records.end() && begins_with(at->first, begin)) at = erase(at);
  return 1;
}

int ksink_pss_get_first(ksink_pss *, const void **key, const void *prefix, uint32_t prefix_size, const void **value,
                        uint32_t *length) {
  return hand_out(state.records.lower_bound(to_bytes(prefix, prefix_size)), key, value, length);
}

int ksink_pss_get_next(ksink_pss *, const void **key, const void **value, uint32_t *length) {
  return hand_out(state.records.upper_bound(state.last_key), key, value, length);
}

int sysmgr_is_stateful_restart() { return state.stateful ? 1 : 0; }
