#include "config_client/map_utils.h"

#include <gtest/gtest.h>

namespace {

const ParameterMap kBase = {{"/a", "1"}, {"/b", "2"}, {"/c", ""}};

TEST(MapUtilsTest, SelectEntries) {
  const std::pair<std::vector<ParameterPath>, ParameterMap> rows[] = {
      {{}, {}}, {{"/c", "/a", "/x"}, {{"/a", "1"}, {"/c", ""}}}, {{"/b", "/b"}, {{"/b", "2"}}}};
  for (const auto& [names, selected] : rows) EXPECT_EQ(selected, selectEntries(kBase, names));
}

TEST(MapUtilsTest, ChangedAndAddedEntriesInTheOtherMapsOrder) {
  const ParameterMap other = {{"/0", "new"}, {"/a", "1"}, {"/b", "two"}, {"/c", "x"}, {"/d", ""}};
  EXPECT_EQ((ParameterList{{"/b", "two"}, {"/c", "x"}}), changedEntries(kBase, other));
  EXPECT_EQ((ParameterList{{"/0", "new"}, {"/d", ""}}), addedEntries(kBase, other));
  EXPECT_EQ(ParameterList{}, changedEntries(other, other));
  EXPECT_EQ((ParameterList{{"/a", "1"}, {"/b", "2"}, {"/c", ""}}), addedEntries({}, kBase));
  EXPECT_EQ(ParameterList{}, changedEntries(kBase, {{"/a", "1"}, {"/c", ""}}));
}

}  // namespace
