// The table of what is mapped, on its own: against a model, under pins, and while threads change
// it.
#include "trelshm/mapping.h"

#include <atomic>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "segment_fixture.h"

namespace {

using namespace trel;

constexpr uint32_t kSize = 0x2000;

ShmDomainHandle_t* handleAt(uintptr_t base, PLATHIPCMemory* memory = nullptr) {
  void* block = nullptr;
  EXPECT_EQ(0u, _platMemAlloc(&block, 0, sizeof(ShmDomainHandle_t), 1, "", 0));
  const auto handle = static_cast<ShmDomainHandle_t*>(block);
  *handle = {reinterpret_cast<void*>(base), memory ? 2u : 3u, 0, memory};
  return handle;
}

void drop(ShmDomainHandle_t* handle) {
  const Unmapped unmapped = leaveMapping(handle);
  EXPECT_NE(Unmapped::failed, unmapped);
  void* block = handle;
  if (unmapped == Unmapped::now) _platMemFree(&block, 0, 0, "", 0);
}

// Ranges that lie beside each other or nest, as a model: the innermost is the last that begins.
TEST(Mapping, EachAddressHasTheBoundsOfTheInnermost) {
  struct Range {
    uintptr_t start, end;
    ShmDomainHandle_t* handle;
    ShmSegInfo_t info;
    uint32_t count;
  };
  std::vector<std::unique_ptr<Range>> model;
  std::mt19937 random(5);
  const auto below = [&](uint32_t limit) { return random() % limit; };
  for (int step = 0; step < 4000; ++step) {
    if (model.size() < below(300)) {
      uintptr_t start = 0x100000 + below(500) * 0x1000, size = 0x1000;
      const uint32_t depth = below(3);  // in the first quarter of a range, or of its first quarter
      for (uint32_t i = 0; i < depth; ++i) start += (size /= 4);
      if (std::any_of(model.begin(), model.end(), [&](auto& r) { return r->start == start; }))
        continue;
      model.emplace_back(new Range{start, start + size, handleAt(start), {}, 0});
      Range* made = model.back().get();
      ASSERT_TRUE(enterMapping(made->handle, size, below(2)));
      const auto key = static_cast<uint32_t>(start);
      EXPECT_TRUE(
          publishAttachment(made->handle, {key, &made->info, &made->count, false, nullptr}));
    } else if (!model.empty()) {
      std::swap(model[below(static_cast<uint32_t>(model.size()))], model.back());
      if (below(2)) hideAttachment(&model.back()->info);
      drop(model.back()->handle);
      model.pop_back();
    }
    for (int look = 0; look < 8; ++look) {
      const uintptr_t address = 0x100000 + below(500 * 0x1000);
      const Range* inner = nullptr;
      for (auto& r : model)
        if (r->start <= address && address < r->end && (!inner || r->start > inner->start))
          inner = r.get();
      const auto at = reinterpret_cast<const void*>(address);
      ASSERT_EQ(inner ? inner->end - address : ~uint64_t{0}, bytesMappedFrom(at)) << step;
      Mapping found{};
      ASSERT_EQ(inner != nullptr, findMapping(at, &found));
      if (!inner) continue;
      ASSERT_EQ(inner->handle, found.handle);
      ASSERT_EQ(isReadOnly(at), !found.writable);
      ASSERT_TRUE(findAttachment(static_cast<uint32_t>(inner->start), &found));
      ASSERT_EQ(&inner->info, found.attachment);
      ASSERT_TRUE(findAttachment(&inner->info, &found));
      ASSERT_EQ(&inner->count, found.attachCount);
    }
  }
  for (auto& range : model) drop(range->handle);
  Mapping found{};
  EXPECT_FALSE(findAttachment(0x100000u, &found));
  EXPECT_EQ(0u, bytesMapped());
}

// Of two attachments of one key the writable one is found, whichever came first.
TEST(Mapping, WritableComesFirst) {
  for (const bool writableFirst : {true, false}) {
    ShmDomainHandle_t* handles[2] = {handleAt(0x10000), handleAt(0x20000)};
    ShmSegInfo_t infos[2] = {};
    uint32_t counts[2] = {};
    Mapping found{};
    for (const size_t i : {size_t{0}, size_t{1}}) {
      ASSERT_TRUE(enterMapping(handles[i], kSize, (i == 0) == writableFirst));
      EXPECT_TRUE(publishAttachment(handles[i], {7, &infos[i], &counts[i], false, nullptr}));
    }
    const size_t first = writableFirst ? 0 : 1;
    EXPECT_TRUE(findAttachment(7, &found));
    EXPECT_EQ(&infos[first], found.attachment);
    hideAttachment(&infos[first]);
    EXPECT_TRUE(findAttachment(7, &found));
    EXPECT_EQ(&infos[1 - first], found.attachment);
    for (ShmDomainHandle_t* handle : handles) drop(handle);
    EXPECT_FALSE(findAttachment(7, &found));
  }
}

struct Mapped : testing::Test {
  Key key;
  PLATHIPCMemory first;
  uint32_t attachCount = 0;

  Mapped() {
    const PLATIPCMemoryCreateParam param = {PLAT_STRUCTURE_TAG, key.id(), kSize, 0, 0600, 0};
    EXPECT_EQ(0u, first.create(&param));
  }
  ~Mapped() override { first.destroy(); }

  ShmDomainHandle_t* map() {
    auto* memory = new PLATHIPCMemory;
    void* base = nullptr;
    EXPECT_EQ(0u, memory->attach(key, nullptr));
    EXPECT_EQ(0u, memory->getAddress(&base));
    ShmDomainHandle_t* handle = handleAt(reinterpret_cast<uintptr_t>(base), memory);
    EXPECT_TRUE(enterMapping(handle, kSize, true));
    return handle;
  }
  uint64_t mappings() const {
    shmid_ds state{};
    EXPECT_EQ(0u, first.getInfo(&state));
    return state.shm_nattch;
  }
};

TEST_F(Mapped, StaysUntilTheLastPin) {
  ShmDomainHandle_t* handle = map();
  const auto* const at = static_cast<const volatile uint8_t*>(handle->base);
  std::atomic<int> step{0};
  std::thread other([&] {
    Pins pins;
    Mapping found{};
    EXPECT_EQ(0u, pins.around(handle->base, &found));
    EXPECT_TRUE(found.isNew);
    EXPECT_EQ(0u, Pins().around(handle->base, &found));
    EXPECT_FALSE(found.isNew);
    for (step = 1; step != 2;) std::this_thread::yield();
    EXPECT_EQ(0, *at);
  });
  while (step != 1) std::this_thread::yield();
  EXPECT_EQ(Unmapped::later, leaveMapping(handle));
  EXPECT_EQ(~uint64_t{0}, bytesMappedFrom(const_cast<const uint8_t*>(at)));
  EXPECT_EQ(2u, mappings());
  EXPECT_EQ(0, inOtherProcess([&] { EXPECT_EQ(3u, mappings()) << "it has no pins"; }));
  step = 2;
  other.join();
  EXPECT_EQ(1u, mappings());
}

// More than a look has room for at first.
TEST(Mapping, OneLookPinsMany) {
  std::vector<ShmDomainHandle_t*> handles;
  for (uintptr_t i = 1; i <= 200; ++i) handles.push_back(handleAt(i * 0x10000));
  for (ShmDomainHandle_t* handle : handles) ASSERT_TRUE(enterMapping(handle, kSize, true));
  {
    Pins pins;
    Mapping found{};
    for (int round = 0; round < 2; ++round)
      for (const ShmDomainHandle_t* handle : handles) {
        ASSERT_EQ(0u, pins.around(handle->base, &found));
        EXPECT_EQ(round == 0, found.isNew);
      }
    for (ShmDomainHandle_t* handle : handles) EXPECT_EQ(Unmapped::later, leaveMapping(handle));
  }
  for (int i = 0; i < 200; ++i) ASSERT_TRUE(enterMapping(handles[0] = handleAt(0x10000), 1, true));
  EXPECT_EQ(200u, bytesMapped());
}

TEST_F(Mapped, ThreadsLookAndPinWhileOthersUnmap) {
  std::atomic<int> running{2};
  std::vector<std::thread> threads;
  for (uint32_t i = 0; i < 2; ++i)
    threads.emplace_back([&, i] {
      for (int round = 0; round < 1000; ++round) {
        ShmDomainHandle_t* handle = map();
        ShmSegInfo_t info = {};
        uint32_t count = 0;
        EXPECT_TRUE(publishAttachment(handle, {i + 1, &info, &count, false, nullptr}));
        EXPECT_EQ(kSize, bytesMappedFrom(handle->base));
        drop(handle);
      }
      --running;
    });
  for (int i = 0; i < 2; ++i)
    threads.emplace_back([&] {
      while (running)
        for (const uint32_t wanted : {1u, 2u}) {
          Pins pins;
          Mapping found{};
          if (pins.attachment(wanted, &found) != 0) continue;
          EXPECT_EQ(found.start + kSize, found.end);
          EXPECT_EQ(0, *reinterpret_cast<const volatile uint8_t*>(found.start)) << "still there";
        }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(1u, mappings());
}

}  // namespace
