#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tarvolin/watch/detail/UnwatchedFolders.h"

namespace tarvolin::watch_detail {
namespace {

using Paths = std::vector<std::string>;

// Each step is applied to a fresh set holding `start`; siblings whose names extend a folder's
// ("b-c", "b.d", "b c" sort between "b" and "b/...") are never taken for folders below it.
TEST(UnwatchedFoldersTest, KeepsOnlyTopFoldersThroughAddsRenamesAndForgets) {
  struct Case {
    const char* what;
    Paths start;
    std::function<void(UnwatchedFolders&)> change;
    Paths expected;
  };
  const std::vector<Case> cases = {
      {"below a kept folder", {"/r/b"}, [](auto& u) { u.add("/r/b/x/y"); }, {"/r/b"}},
      {"the same folder again", {"/r/b"}, [](auto& u) { u.add("/r/b"); }, {"/r/b"}},
      {"above kept folders",
       {"/r/b/x", "/r/b/y/z", "/r/b-c", "/r/b.d", "/r/b c"},
       [](auto& u) { u.add("/r/b"); },
       {"/r/b", "/r/b c", "/r/b-c", "/r/b.d"}},
      {"the root of everything", {"/r/b", "/s"}, [](auto& u) { u.add("/"); }, {"/"}},
      {"below the root of everything", {"/"}, [](auto& u) { u.add("/r"); }, {"/"}},
      {"forget a folder and below",
       {"/r/b", "/r/b-c", "/r/a/b"},
       [](auto& u) { u.forget("/r/b"); },
       {"/r/a/b", "/r/b-c"}},
      {"forget a parent of kept folders",
       {"/r/a/x", "/r/a/y", "/r/ab"},
       [](auto& u) { u.forget("/r/a"); },
       {"/r/ab"}},
      {"rename a kept folder's parent",
       {"/r/a/x", "/r/a/y/z", "/r/ab"},
       [](auto& u) { u.rename("/r/a", "/r/moved"); },
       {"/r/ab", "/r/moved/x", "/r/moved/y/z"}},
      {"rename into a kept folder",
       {"/r/a/x", "/r/dest"},
       [](auto& u) { u.rename("/r/a", "/r/dest/a"); },
       {"/r/dest"}},
      {"rename of a folder not kept",
       {"/r/a"},
       [](auto& u) { u.rename("/r/q", "/r/z"); },
       {"/r/a"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    UnwatchedFolders folders;
    for (const std::string& path : c.start) folders.add(path);
    c.change(folders);
    EXPECT_EQ(folders.list(), c.expected);
  }
}

TEST(UnwatchedFoldersTest, AddSaysWhenTheListWasEmpty) {
  UnwatchedFolders folders;
  EXPECT_TRUE(folders.add("/r/a"));
  EXPECT_FALSE(folders.add("/r/b"));
  EXPECT_FALSE(folders.add("/r/a/below"));
  folders.forget("/r");
  EXPECT_TRUE(folders.list().empty());
  EXPECT_TRUE(folders.add("/r/c"));  // empty again: the next one counts as the first
  folders.clear();
  EXPECT_TRUE(folders.list().empty());
}

}  // namespace
}  // namespace tarvolin::watch_detail
