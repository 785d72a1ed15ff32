// Persistent store, in memory and in a directory. mvpn-contract-test walks it.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

#include "platform/pss.h"
#include "platform/reference/pss.h"
#include "platform/reference/runtime.h"
#include "platform/reference/testing/services.h"
#include "platform/thread.h"
#include "tests/reference/runtime_test.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Key = std::array<uint8_t, PSS_KEY_SIZE>;
using Model = std::map<Key, Bytes>;

Key key_of(uint8_t kind, uint8_t vrf, uint8_t number) {
  Key key{};
  key[0] = kind;
  key[7] = vrf;
  key[19] = number;
  return key;
}

class Directory {
 public:
  Directory() {
    std::string name = (std::filesystem::temp_directory_path() / "records.XXXXXX").string();
    if (mkdtemp(name.data()) != nullptr) path = name;
  }
  ~Directory() { std::filesystem::remove_all(path); }
  std::string path;
};

class Store : public RuntimeTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    ref::set_stateful_restart(true);
    if (GetParam()) {
      ASSERT_TRUE(ref::pss_use_directory(directory_.path));
    }
  }

  static int put(const Key &key, const Bytes &value) {
    return ksink_pss_update(nullptr, key.data(), PSS_KEY_SIZE, value.data(), static_cast<uint32_t>(value.size()));
  }
  static Model stored() {
    Model found;
    for (const auto &[key, value] : ref::pss_records()) {
      Key copy{};
      std::copy(key.begin(), key.end(), copy.begin());
      found[copy] = value;
    }
    return found;
  }

  Directory directory_;
};

TEST_P(Store, AgreesWithAMap) {
  std::mt19937 random(1);
  Model model;
  for (int step = 0; step < 3000; step++) {
    const Key key = key_of(static_cast<uint8_t>(14 + random() % 4), static_cast<uint8_t>(random() % 3),
                           static_cast<uint8_t>(random() % 8));
    switch (random() % 8) {
      case 0: {
        const uint32_t size = random() % 9;  // 0: everything
        EXPECT_NE(ksink_pss_delete_range(nullptr, key.data(), size), 0);
        std::erase_if(model, [&](const auto &item) { return std::memcmp(item.first.data(), key.data(), size) == 0; });
        break;
      }
      case 1:
      case 2:
        EXPECT_NE(ksink_pss_delete(nullptr, key.data(), PSS_KEY_SIZE), 0);
        model.erase(key);
        break;
      case 3:
        ref::pss_flush();
        break;
      default:
        model[key] = Bytes(random() % 40, static_cast<uint8_t>(step));
        ASSERT_NE(put(key, model[key]), 0);
    }
    const void *value = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(ksink_pss_fetch(nullptr, key.data(), PSS_KEY_SIZE, &value, &length) != 0, model.contains(key));
    if (model.contains(key)) {
      ASSERT_EQ(length, model[key].size());
      ASSERT_TRUE(std::equal(model[key].begin(), model[key].end(), static_cast<const uint8_t *>(value)));
    }
    if (step % 50 == 0) {
      ASSERT_EQ(stored(), model);
    }
  }
  if (!GetParam()) return;
  ref::pss_flush();
  ASSERT_TRUE(ref::pss_use_directory(directory_.path));
  EXPECT_EQ(stored(), model);
}

TEST_P(Store, KeysOfAnotherSizeAreRefused) {
  const Key key = key_of(16, 0, 0);
  EXPECT_EQ(ksink_pss_update(nullptr, key.data(), PSS_KEY_SIZE - 1, key.data(), 1), 0);
  EXPECT_TRUE(ref::pss_records().empty());
}

INSTANTIATE_TEST_SUITE_P(Forms, Store, ::testing::Bool(),
                         [](const auto &form) { return form.param ? "Directory" : "Memory"; });

class StoreDirectory : public Store {};
INSTANTIATE_TEST_SUITE_P(Forms, StoreDirectory, ::testing::Values(true));

// The main thread commits what a thread of the module wrote, and is asked to.
TEST_P(StoreDirectory, OtherThreadsWriteAndTheMainLoopCommits) {
  bool asked = false;
  ref::set_waker([&asked] { asked = true; });
  pthread_t thread;
  ASSERT_EQ(quillon_pthread_create(
                &thread, nullptr,
                [](void *) -> void * {
                  put(key_of(16, 1, 1), {1});
                  return nullptr;
                },
                nullptr, "writer"),
            0);
  tsp_before_yield();
  pthread_join(thread, nullptr);
  tsp_after_yield();
  EXPECT_TRUE(asked);
  put(key_of(16, 1, 2), {2});
  ref::pss_flush();
  ASSERT_TRUE(ref::pss_use_directory(directory_.path));
  EXPECT_EQ(ref::pss_records().size(), 2u);
}

TEST_P(StoreDirectory, KilledProcessKeepsWhatWasCommitted) {
  ref::pss_use_memory();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (!ref::pss_use_directory(directory_.path)) _exit(1);
    put(key_of(16, 1, 1), {1});
    put(key_of(16, 1, 2), {2});
    ref::pss_flush();
    const Key second = key_of(16, 1, 2);
    ksink_pss_delete(nullptr, second.data(), PSS_KEY_SIZE);
    put(key_of(16, 1, 3), {3});
    kill(getpid(), SIGKILL);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  ASSERT_TRUE(ref::pss_use_directory(directory_.path));
  EXPECT_EQ(stored(), (Model{{key_of(16, 1, 1), {1}}, {key_of(16, 1, 2), {2}}}));
}

TEST_P(StoreDirectory, WhatIsNoStoreIsRefused) {
  EXPECT_FALSE(ref::pss_use_directory(directory_.path + "/absent"));
  const Directory other;
  std::ofstream(other.path + "/data.mdb") << std::string(10000, 'x');
  EXPECT_FALSE(ref::pss_use_directory(other.path));
  EXPECT_NE(put(key_of(16, 0, 0), {}), 0);  // memory serves
}

TEST_P(StoreDirectory, ACutFileIsRefused) {
  for (uint32_t i = 0; i < 500; i++) put(key_of(16, 1, i), Bytes(100, 7));
  ref::pss_flush();
  ref::pss_use_memory();
  const std::string file = directory_.path + "/data.mdb";
  const auto size = std::filesystem::file_size(file);
  for (const uintmax_t left : {size - 1, size - 4096, uintmax_t{5000}}) {
    std::filesystem::resize_file(file, left);
    EXPECT_FALSE(ref::pss_use_directory(directory_.path)) << left << " of " << size << " bytes";
  }
}

TEST_P(StoreDirectory, AColdStartForgetsWhatIsStored) {
  put(key_of(16, 1, 1), {1});
  ref::pss_flush();
  ref::set_stateful_restart(false);
  ASSERT_TRUE(ref::pss_use_directory(directory_.path));
  EXPECT_TRUE(ref::pss_records().empty());
  ref::pss_flush();
  ref::set_stateful_restart(true);
  ASSERT_TRUE(ref::pss_use_directory(directory_.path));
  EXPECT_TRUE(ref::pss_records().empty());
}

}  // namespace
