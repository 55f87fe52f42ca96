// tvl catalog: the subcommands run end to end with a temporary home, their output lines, their
// JSON, and the messages and statuses of what goes wrong.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/RunTool.h"
#include "support/TempTree.h"
#include "tarvolin/catalog/CatalogInfo.h"
#include "tarvolin/catalog/CatalogLayout.h"

namespace tarvolin {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::runTool;
using testing::TempTree;
using testing::ToolResult;
using testing::writeFile;

class CatalogCommandTest : public ::testing::Test {
 protected:
  ToolResult run(std::vector<std::string> args) {
    args.insert(args.begin(), "catalog");
    return runTool(args, home_.root().string());
  }
  // Adds `folder` and returns the new id (from the JSON form).
  std::string add(const fs::path& folder, const std::string& name) {
    ToolResult result = run({"add", folder.string(), "--name", name, "--json"});
    EXPECT_EQ(result.status, 0) << result.err;
    return json::parse(result.out)["id"].get<std::string>();
  }
  CatalogLayout layout() const { return {CatalogLayout::rootIn(home_.root())}; }

  TempTree home_;
};

TEST_F(CatalogCommandTest, AddListSearchRemove) {
  TempTree tree{"photos/", "music/"};
  writeFile(tree / "photos/beach-2023.jpg", std::string(100, 'x'));
  writeFile(tree / "photos/beach-notes.txt", "abc");
  writeFile(tree / "music/song.mp3", "12345");

  ToolResult added = run({"add", tree.root().string(), "--name", "Holiday"});
  ASSERT_EQ(added.status, 0) << added.err;
  EXPECT_EQ(added.err, "");  // no progress line: standard error is not a terminal
  ASSERT_EQ(layout().catalogIDs().size(), 1u);
  std::string id = layout().catalogIDs().front();
  EXPECT_EQ(id.size(), 36u);
  EXPECT_EQ(added.out, "Cataloguing " + tree.root().string() + "\xE2\x80\xA6\nAdded catalog " + id +
                           " \"Holiday\": 3 files, 2 folders, 108 bytes\n");
  EXPECT_EQ(layout().catalogIDs(), std::vector<std::string>{id});
  EXPECT_TRUE(fs::exists(layout().trigramURL(id)));
  EXPECT_FALSE(fs::exists(layout().markerURL(id)));
  CatalogInfo info = CatalogInfo::read(layout().infoURL(id));
  EXPECT_EQ(info.rootPath(), tree.root().string());
  // One record per path component above the root's own, after the empty-named top record.
  std::string rootPath = info.rootPath();
  EXPECT_EQ(info.rootRecordID, std::count(rootPath.begin(), rootPath.end(), '/'));

  ToolResult listed = run({"list"});
  ASSERT_EQ(listed.status, 0) << listed.err;
  // The date is the one stored; whether the volume counts as mounted depends on the machine.
  std::string stored = json::parse(testing::readFile(layout().infoURL(id)))["lastCatalogued"];
  std::string expected = id + "  folder  Holiday\n    " + tree.root().string() + "  (%s)\n" +
                         "    3 files, 2 folders, 108 bytes, catalogued " + stored + "\n";
  std::string mounted = expected, offline = expected;
  mounted.replace(mounted.find("%s"), 2, "mounted");
  offline.replace(offline.find("%s"), 2, "offline");
  EXPECT_TRUE(listed.out == mounted || listed.out == offline) << listed.out;

  ToolResult found = run({"search", "beach"});
  ASSERT_EQ(found.status, 0) << found.err;
  std::string prefix = "  [Holiday";
  EXPECT_NE(found.out.find("] " + (tree / "photos/beach-2023.jpg").string() + "\n"),
            std::string::npos)
      << found.out;
  EXPECT_EQ(found.out.rfind(prefix, 0), 0u) << found.out;
  EXPECT_NE(
      testing::maskMilliseconds(found.out).find("\n2 matches in 1 catalogs in Tms (showing 2)\n"),
      std::string::npos)
      << found.out;

  ToolResult removed = run({"remove", id});
  EXPECT_EQ(removed.status, 0);
  EXPECT_EQ(removed.out, "Removed catalog " + id + "\n");
  EXPECT_FALSE(fs::exists(layout().directory(id)));
  EXPECT_EQ(run({"remove", id}).err, "tvl: no catalog with id " + id + "\n");
}

TEST_F(CatalogCommandTest, SearchRanksAcrossCatalogsAndMarksOfflineOnes) {
  TempTree first{"deep/er/still/"}, second;
  writeFile(first / "deep/er/still/report.txt", "1");
  writeFile(second / "report.txt", "2");
  writeFile(second / "old-report.txt", "3");
  std::string a = add(first.root(), "First");
  std::string b = add(second.root(), "Second");

  ToolResult found = run({"search", "report", "--json"});
  ASSERT_EQ(found.status, 0) << found.err;
  json document = json::parse(found.out);
  EXPECT_EQ(document["matches"], 3);
  EXPECT_EQ(document["catalogs"], 2);
  ASSERT_EQ(document["results"].size(), 3u);
  // Exact names first (the shallower one ahead), then the word-boundary match.
  EXPECT_EQ(document["results"][0]["path"], (second / "report.txt").string());
  EXPECT_EQ(document["results"][1]["path"], (first / "deep/er/still/report.txt").string());
  EXPECT_EQ(document["results"][2]["path"], (second / "old-report.txt").string());
  EXPECT_EQ(document["results"][1]["catalog"], a);
  EXPECT_EQ(document["results"][0]["name"], "Second");
  // No volume of the catalogs is known as mounted here (no UUID matches), so both are offline.
  for (const json& result : document["results"]) EXPECT_TRUE(result["offline"].is_boolean());

  // A damaged catalog is skipped with a message; the others still answer.
  writeFile(layout().indexURL(a), "garbage");
  ToolResult partial = run({"search", "report"});
  EXPECT_EQ(partial.status, 0);
  EXPECT_EQ(partial.err, "tvl: skipping catalog " + a +
                             " \"First\": its index is damaged; run `tvl catalog update " + a +
                             "`\n");
  EXPECT_NE(testing::maskMilliseconds(partial.out).find("2 matches in 1 catalogs"),
            std::string::npos);
  (void)b;
}

TEST_F(CatalogCommandTest, ExportImportRoundTrip) {
  TempTree tree{"a/b/c.txt", "a/d.txt"};
  std::string id = add(tree.root(), "Tree");
  TempTree out;
  fs::path file = out / "tree.tarvolincatalog";
  ToolResult exported = run({"export", id, file.string()});
  ASSERT_EQ(exported.status, 0) << exported.err;
  EXPECT_EQ(exported.out, "Exported catalog " + id + " \"Tree\" to " + file.string() + "\n");

  ToolResult imported = run({"import", file.string(), "--json"});
  ASSERT_EQ(imported.status, 0) << imported.err;
  json info = json::parse(imported.out);
  std::string newID = info["id"];
  EXPECT_NE(newID, id);
  EXPECT_EQ(info["name"], "Tree");
  EXPECT_EQ(info["fileCount"], 2);
  EXPECT_EQ(layout().catalogIDs().size(), 2u);
  EXPECT_EQ(CatalogInfo::read(layout().infoURL(newID)).id, newID);

  json found = json::parse(run({"search", "c.txt", "--json"}).out);
  ASSERT_EQ(found["results"].size(), 2u);
  EXPECT_EQ(found["results"][0]["path"], found["results"][1]["path"]);
}

TEST_F(CatalogCommandTest, ImportFailuresHaveTheirOwnMessages) {
  TempTree files;
  writeFile(files / "plain.tarvolincatalog", "just text");
  ToolResult notZip = run({"import", (files / "plain.tarvolincatalog").string()});
  EXPECT_EQ(notZip.status, 1);
  EXPECT_EQ(notZip.err,
            "tvl: " + (files / "plain.tarvolincatalog").string() + " is not a catalog archive\n");
  ToolResult missing = run({"import", (files / "none.tarvolincatalog").string()});
  EXPECT_EQ(missing.status, 1);
  EXPECT_TRUE(layout().catalogIDs().empty());

  // A newer format: export a catalog whose description says version 2.
  TempTree tree{"x.txt"};
  std::string id = add(tree.root(), "T");
  json document = json::parse(testing::readFile(layout().infoURL(id)));
  document["formatVersion"] = 2;
  writeFile(layout().infoURL(id), document.dump());
  fs::path file = files / "newer.tarvolincatalog";
  ToolResult refused = run({"export", id, file.string()});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err, "tvl: catalog " + id +
                             " was written by a newer version (format v2); this build reads v1\n");
}

TEST_F(CatalogCommandTest, UsageAndUnknownIDs) {
  EXPECT_EQ(run({}).status, 2);
  ToolResult unknown = run({"frobnicate"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_NE(unknown.err.find("unknown subcommand \"frobnicate\""), std::string::npos);
  ToolResult help = run({"add", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("tvl catalog add PATH [--name NAME] [--json]"), std::string::npos);
  EXPECT_EQ(run({"add"}).status, 2);
  EXPECT_EQ(run({"export", "only-one"}).status, 2);

  ToolResult notFolder = run({"add", "/nonexistent/place"});
  EXPECT_EQ(notFolder.status, 1);
  EXPECT_EQ(notFolder.err, "tvl: /nonexistent/place is not a folder\n");
  for (const char* sub : {"update", "remove"}) {
    ToolResult result = run({sub, "NOPE"});
    EXPECT_EQ(result.status, 1) << sub;
    EXPECT_EQ(result.err, "tvl: no catalog with id NOPE\n") << sub;
  }
  // An id can never reach outside the catalogs root.
  EXPECT_EQ(run({"remove", ".."}).status, 1);
  EXPECT_TRUE(fs::exists(home_.root()));

  ToolResult empty = run({"list", "--json"});
  EXPECT_EQ(empty.out, "[]\n");
}

TEST_F(CatalogCommandTest, UpdateRescansAndKeepsTheID) {
  TempTree tree{"one.txt"};
  std::string id = add(tree.root(), "T");
  writeFile(tree / "two.txt", "22");
  ToolResult updated = run({"update", id, "--json"});
  ASSERT_EQ(updated.status, 0) << updated.err;
  json info = json::parse(updated.out);
  EXPECT_EQ(info["id"], id);
  EXPECT_EQ(info["fileCount"], 2);
  EXPECT_EQ(info["totalBytes"], 2);

  fs::remove_all(tree / "one.txt");
  fs::path root = tree.root();
  fs::rename(root, root.string() + "-gone");
  ToolResult gone = run({"update", id});
  EXPECT_EQ(gone.status, 1);
  EXPECT_EQ(gone.err,
            "tvl: the folder of catalog " + id + " is not available: " + root.string() + "\n");
  fs::rename(root.string() + "-gone", root);
}

TEST_F(CatalogCommandTest, EfuListBecomesAnOfflineCatalog) {
  TempTree files;
  writeFile(files / "server.efu",
            "Filename,Size,Attributes\r\n"
            "\"C:\\Docs\\quarterly-report.txt\",100,32\r\n"
            "\"C:\\Docs\\notes.txt\",20,32\r\n");
  ToolResult imported = run({"efu", (files / "server.efu").string()});
  ASSERT_EQ(imported.status, 0) << imported.err;
  ASSERT_EQ(layout().catalogIDs().size(), 1u);
  EXPECT_EQ(imported.out, "Imported catalog " + layout().catalogIDs().front() +
                              " \"server\": 2 files, 2 folders, 120 bytes\n");

  json found = json::parse(run({"search", "quarterly", "--json"}).out);
  ASSERT_EQ(found["results"].size(), 1u);
  EXPECT_TRUE(found["results"][0]["offline"].get<bool>());
  EXPECT_NE(found["results"][0]["path"].get<std::string>().find("Docs/quarterly-report.txt"),
            std::string::npos);

  writeFile(files / "broken.efu", "Filename,Size\n\"C:\\a.txt\",1\n\"C:\\open,2\n");
  ToolResult broken = run({"efu", (files / "broken.efu").string(), "--name", "B"});
  EXPECT_EQ(broken.status, 1);
  EXPECT_EQ(broken.err, "tvl: " + (files / "broken.efu").string() + ":3: malformed row\n");
  EXPECT_EQ(layout().catalogIDs().size(), 1u);
}

}  // namespace
}  // namespace tarvolin
