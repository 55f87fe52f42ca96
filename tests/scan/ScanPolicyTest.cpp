#include <gtest/gtest.h>

#include "tarvolin/scan/ScanPolicy.h"
#include "tarvolin/scan/detail/DescentFilter.h"

namespace tarvolin {
namespace {

// "é" precomposed and decomposed: canonically equivalent, different bytes.
const std::string kComposed = "Jos\xC3\xA9";
const std::string kDecomposed = "Jose\xCC\x81";

TEST(ScanPolicyTest, IsExcludedComparesWholeComponents) {
  ScanPolicy dev{{"/dev"}};
  EXPECT_TRUE(dev.isExcluded("/dev"));
  EXPECT_TRUE(dev.isExcluded("/dev/fd"));
  EXPECT_FALSE(dev.isExcluded("/devices"));
  EXPECT_FALSE(dev.isExcluded("/"));
  EXPECT_TRUE(ScanPolicy{}.isExcluded("/x/Foo.noindex/bar"));
  EXPECT_FALSE(ScanPolicy{{"/dev/"}}.isExcluded("/dev/fd")) << "entries are used as given";
  // As text: canonically equivalent paths match, and the prefix must end on a character.
  ScanPolicy user{{"/Users/" + kComposed}};
  EXPECT_TRUE(user.isExcluded("/Users/" + kDecomposed + "/Music"));
  EXPECT_FALSE(ScanPolicy{{"/a"}}.isExcluded("/a/\xCC\x81x")) << "a mark joins the separator";
}

TEST(ScanPolicyTest, ShouldDescendRules) {
  ScanPolicy policy{ScanPolicy::defaultExclusions()};
  const std::pair<std::string, bool> cases[] = {
      {"/Volumes/Disk/Backups.backupdb", false},
      {"/Volumes/Disk/Photos.sparsebundle", false},
      {"/Volumes/Disk/Old.backupbundle", false},
      {"/Volumes/Disk/.Trashes", false},
      {"/Volumes/Disk/2024-01-31-235959.backup", false},
      {"/Volumes/Disk/2024-01-31-23595.backup", true},  // 16 characters before ".backup"
      {"/Volumes/Disk/2024_01-31-235959.backup", true},
      {"/Volumes/Disk/2024-01-31-23595\xD9\xA9.backup", true},  // an Arabic-Indic digit
      {"/Users/me/Photos.noindex", false},
      {"/Users/me/.noindex", false},
      {"/Users/me/Photos.noindex\xCC\x81", true},  // the mark makes the last character "x́"
      {"/Users/me/Photos.NOINDEX", true},
      {"/proc", false},
      {"/sys", false},
      {"/run", false},
      {"/proc/1", true},  // no prefix test: the scanner never reaches it
      {"/procx", true},
      {"/Users/me/Documents", true},
      {"/", true},
  };
  for (const auto& [path, expected] : cases) {
    EXPECT_EQ(policy.shouldDescend(path), expected) << path;
  }
  EXPECT_FALSE(ScanPolicy{{"/Users/" + kComposed}}.shouldDescend("/Users/" + kDecomposed));
  // The Kelvin sign is canonically "K".
  EXPECT_FALSE(ScanPolicy{{"/K"}}.shouldDescend("/\xE2\x84\xAA"));
}

TEST(ScanPolicyTest, NameTests) {
  EXPECT_FALSE(ScanPolicy::isAppBundle(".app"));
  EXPECT_FALSE(ScanPolicy::isAppBundle("Mail.APP"));
  EXPECT_TRUE(ScanPolicy::isAppBundle("Mail.app"));
  EXPECT_TRUE(ScanPolicy::isAppBundle("x.app"));

  EXPECT_TRUE(ScanPolicy::isTimeMachineSnapshot("2024-01-31-235959.backup"));
  EXPECT_FALSE(ScanPolicy::isTimeMachineSnapshot("2024-01-31-2359590.backup"));
  EXPECT_FALSE(ScanPolicy::isTimeMachineSnapshot("2024-01-31-235959.backups"));
  EXPECT_FALSE(ScanPolicy::isTimeMachineSnapshot("2024-01-31-235959"));

  EXPECT_FALSE(ScanPolicy::isNoIndexDirectory(""));
  EXPECT_FALSE(ScanPolicy::isNoIndexDirectory("/"));
  EXPECT_TRUE(ScanPolicy::isNoIndexDirectory("a.noindex/b"));
  EXPECT_FALSE(ScanPolicy::isBackupOrSystemStore(""));
  EXPECT_TRUE(ScanPolicy::isBackupOrSystemStore("/.fseventsd/x/y"));

  EXPECT_TRUE(ScanPolicy::isTimeMachineDestination({"a", "Backups.backupdb"}));
  EXPECT_TRUE(ScanPolicy::isTimeMachineDestination({"2024-01-31-235959.backup"}));
  EXPECT_FALSE(ScanPolicy::isTimeMachineDestination(std::vector<std::string>{}));
  EXPECT_FALSE(ScanPolicy::isTimeMachineDestination({".Trashes", "Backups"}));
  auto unreadable = [](const std::string&) { return std::optional<std::vector<std::string>>(); };
  EXPECT_FALSE(ScanPolicy::isTimeMachineDestination("/Volumes/X", unreadable));

  EXPECT_TRUE(ScanPolicy::isSystemPath("/usr"));
  EXPECT_TRUE(ScanPolicy::isSystemPath("/usr/lib"));
  EXPECT_FALSE(ScanPolicy::isSystemPath("/usrlocal"));
}

TEST(ScanPolicyTest, StockPolicies) {
  auto users = [](const std::string& path) -> std::optional<std::vector<std::string>> {
    if (path != "/Users") return std::nullopt;
    return std::vector<std::string>{"alice", "bob", ".localized", "Shared"};
  };
  ScanPolicy::PathSet others =
      ScanPolicy::otherUserPrivateFolders("/Users", "/Users/alice/", users);
  ScanPolicy::PathSet expected;
  for (const char* folder : {"Desktop", "Documents", "Downloads", "Library", "Movies", "Music",
                             "Pictures", "Applications", ".Trash"}) {
    expected.insert(std::string("/Users/bob/") + folder);
  }
  EXPECT_EQ(others, expected);
  auto unreadable = [](const std::string&) { return std::optional<std::vector<std::string>>(); };
  EXPECT_TRUE(ScanPolicy::otherUserPrivateFolders("/Users", "/Users/alice", unreadable).empty());

  EXPECT_EQ(ScanPolicy::defaultExclusions().size(), 10u);
  ScanPolicy withSystem = ScanPolicy::fullDisk("/Users/alice", true, users);
  ScanPolicy withoutSystem = ScanPolicy::fullDisk("/Users/alice", false, users);
  EXPECT_FALSE(withSystem.excluded.contains("/usr"));
  EXPECT_TRUE(withoutSystem.excluded.contains("/usr"));
  EXPECT_TRUE(withSystem.excluded.contains("/Users/bob/Library"));
  EXPECT_TRUE(withSystem.excluded.contains("/dev"));
  EXPECT_EQ(withSystem.excluded.size(), 10u + 9u);

  ScanPolicy privacy = ScanPolicy::excludingTCCProtectedPaths("/Users/alice/");
  EXPECT_TRUE(privacy.excluded.contains("/Volumes"));
  EXPECT_TRUE(privacy.excluded.contains("/Users/alice/Library/Application Support/Tarvolin"));
  EXPECT_EQ(privacy.excluded.size(), 10u + 31u + 1u);

  EXPECT_EQ(privacy.adding({}), privacy);
  EXPECT_TRUE(ScanPolicy{}.adding({"/a", "/b"}).shouldDescend("/c"));
  EXPECT_FALSE(ScanPolicy{}.adding({"/a", "/b"}).shouldDescend("/b"));
}

// The scanner tests only the last component of a child path; it must answer like the full test
// for every child of the root or of a directory the full test lets the scanner enter.
TEST(ScanPolicyTest, ScannerFilterAgreesWithTheFullTest) {
  ScanPolicy policy{ScanPolicy::defaultExclusions()};
  policy = policy.adding({"/data/skip", "/data/" + kComposed, "/K"});
  const std::string roots[] = {"",
                               "/data",
                               "/Volumes/B/Backups.backupdb",
                               "/x/a.noindex",
                               "/x/a.noindex\xCC\x81",
                               "/data/" + kDecomposed,
                               "//data"};
  const std::string names[] = {"skip",
                               "proc",
                               "sys",
                               "a.noindex",
                               ".noindex",
                               "b.sparsebundle",
                               ".Trashes",
                               "2024-01-31-235959.backup",
                               "plain",
                               "x.app",
                               kComposed,
                               kDecomposed,
                               "\xE2\x84\xAA",
                               "bad\xFF.noindex",
                               "bad\xFF",
                               "dir.noindex\xCC\x81",
                               "\xD9\x80.noindex",
                               "\xD8\x80.noindex"};  // U+0600 joins the character after it
  for (const std::string& root : roots) {
    detail::DescentFilter filter(policy, root);
    for (const std::string& name : names) {
      std::string child = root + "/" + name;
      EXPECT_EQ(filter.shouldDescend(child, name), policy.shouldDescend(child))
          << "root '" << root << "', name '" << name << "'";
    }
  }
}

// The cheap last-byte test is built from the policy's own lists: every store name and every name
// with a blocking suffix must still reach the full test and be refused.
TEST(ScanPolicyTest, ScannerFilterBlocksEveryStoreAndSuffix) {
  for (std::string_view ending : ScanPolicy::descentBlockingEndings()) {
    // A store name blocks as it is, a suffix after a stem; a snapshot only in its shape.
    std::string whole(ending), withStem = "name" + whole;
    if (ending == ".backup") whole = withStem = "2024-01-31-235959.backup";
    bool blocked = detail::DescentFilter::nameBlocksDescent(whole) ||
                   detail::DescentFilter::nameBlocksDescent(withStem);
    EXPECT_TRUE(blocked) << ending;
    EXPECT_FALSE(ScanPolicy{}.shouldDescend("/v/" + whole) &&
                 ScanPolicy{}.shouldDescend("/v/" + withStem))
        << ending;
  }
  EXPECT_FALSE(detail::DescentFilter::nameBlocksDescent("name.backup"));
  EXPECT_FALSE(detail::DescentFilter::nameBlocksDescent("plain"));
}

}  // namespace
}  // namespace tarvolin
