// Handle tables through the exported interface.
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "snanode/node.h"

namespace {

struct TableFixture : ::testing::Test {
  uint32_t table = 0;
  int items[64] = {};
  void SetUp() override {
    vtm_table_init(&table, 0);
    ASSERT_NE(table, 0u);
  }
  void TearDown() override { vtm_table_terminate(table); }
  std::vector<uint32_t> used() {
    std::vector<uint32_t> handles;
    void *pointer = nullptr;
    for (uint32_t h = vtm_get_next_used(table, 0, &pointer); h != 0;
         h = vtm_get_next_used(table, h, &pointer))
      handles.push_back(h);
    return handles;
  }
};

TEST(HandleTableSet, TablesHaveDistinctNonZeroHandles) {
  std::set<uint32_t> seen;
  std::vector<uint32_t> tables;
  for (int i = 0; i < 10; ++i) {
    uint32_t t = 0;
    vtm_table_init(&t, 0);
    ASSERT_NE(t, 0u);
    EXPECT_TRUE(seen.insert(t).second);
    tables.push_back(t);
  }
  for (uint32_t t : tables) vtm_table_terminate(t);
}

TEST(HandleTableSet, TerminatedTableRefusesWork) {
  uint32_t t = 0;
  vtm_table_init(&t, 0);
  int x = 0;
  uint32_t h = vtm_get_free_entry(t, &x);
  ASSERT_NE(h, 0u);
  vtm_table_terminate(t);
  EXPECT_EQ(vtm_get_pointer(t, h), nullptr);
  EXPECT_EQ(vtm_get_free_entry(t, &x), 0u);
  void *p = &x;
  EXPECT_EQ(vtm_get_next_used(t, 0, &p), 0u);
  EXPECT_EQ(p, nullptr);
  vtm_release_entry(t, h);  // harmless
}

TEST_F(TableFixture, HandlesIncreaseFromOneAndMapToTheirPointers) {
  for (uint32_t i = 0; i < 5; ++i) {
    EXPECT_EQ(vtm_get_free_entry(table, &items[i]), i + 1);
  }
  for (uint32_t i = 0; i < 5; ++i) EXPECT_EQ(vtm_get_pointer(table, i + 1), &items[i]);
  EXPECT_EQ(vtm_get_pointer(table, 0), nullptr);
  EXPECT_EQ(vtm_get_pointer(table, 6), nullptr);
}

TEST_F(TableFixture, ReleasedHandleIsNotReusedAtOnce) {
  struct Step {
    bool release;   // release `handle`, or take a new entry and expect `handle`
    uint32_t handle;
  };
  const Step steps[] = {
      {false, 1}, {false, 2}, {false, 3}, {true, 2}, {false, 4},
      {true, 1},  {false, 5}, {true, 5},  {false, 6}, {false, 7},
  };
  for (const Step &s : steps) {
    if (s.release) {
      vtm_release_entry(table, s.handle);
      EXPECT_EQ(vtm_get_pointer(table, s.handle), nullptr) << s.handle;
    } else {
      EXPECT_EQ(vtm_get_free_entry(table, &items[s.handle]), s.handle);
    }
  }
  EXPECT_EQ(used(), (std::vector<uint32_t>{3, 4, 6, 7}));
}

TEST_F(TableFixture, EnumeratesInIncreasingHandleOrder) {
  for (int i = 0; i < 10; ++i) vtm_get_free_entry(table, &items[i]);
  for (uint32_t h : {2u, 5u, 6u, 10u}) vtm_release_entry(table, h);
  EXPECT_EQ(used(), (std::vector<uint32_t>{1, 3, 4, 7, 8, 9}));
  void *pointer = nullptr;
  EXPECT_EQ(vtm_get_next_used(table, 4, &pointer), 7u);
  EXPECT_EQ(pointer, &items[6]);
  EXPECT_EQ(vtm_get_next_used(table, 9, &pointer), 0u);
  EXPECT_EQ(vtm_get_next_used(table, 0xFFFFFFFFu, &pointer), 0u);
  EXPECT_EQ(vtm_get_next_used(table, 5, nullptr), 7u) << "pointer_out may be null";
}

TEST_F(TableFixture, EmptyTableEnumeratesNothing) {
  void *pointer = &items[0];
  EXPECT_EQ(vtm_get_next_used(table, 0, &pointer), 0u);
  EXPECT_EQ(pointer, nullptr);
}

TEST_F(TableFixture, NullPointerEntriesAreLive) {
  uint32_t h = vtm_get_free_entry(table, nullptr);
  ASSERT_NE(h, 0u);
  EXPECT_EQ(used(), std::vector<uint32_t>{h});
}

TEST_F(TableFixture, GrowsWithoutLimitAndSurvivesChurn) {
  std::vector<int> storage(20000);
  std::vector<uint32_t> handles;
  for (size_t i = 0; i < storage.size(); ++i) {
    uint32_t h = vtm_get_free_entry(table, &storage[i]);
    ASSERT_EQ(h, i + 1);
    handles.push_back(h);
  }
  // Release every other one, then all but the last few of the rest.
  for (size_t i = 0; i < handles.size(); i += 2) vtm_release_entry(table, handles[i]);
  for (size_t i = 1; i + 10 < handles.size(); i += 2) vtm_release_entry(table, handles[i]);
  std::vector<uint32_t> expected;
  for (size_t i = 1; i < handles.size(); i += 2)
    if (i + 10 >= handles.size()) expected.push_back(handles[i]);
  EXPECT_EQ(used(), expected);
  for (uint32_t h : expected) EXPECT_EQ(vtm_get_pointer(table, h), &storage[h - 1]);
  EXPECT_EQ(vtm_get_free_entry(table, &storage[0]), 20001u);
}

}  // namespace
