// The catalog description: its JSON form, the version probe before the rest, optional keys,
// dates, path joining, and the catalogs root's listing.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/TempTree.h"
#include "tarvolin/catalog/CatalogError.h"
#include "tarvolin/catalog/CatalogInfo.h"
#include "tarvolin/catalog/CatalogLayout.h"
#include "tarvolin/catalog/detail/IsoDate.h"

namespace tarvolin {
namespace {

using nlohmann::json;
using std::chrono::sys_days;
using std::chrono::sys_seconds;
using testing::readFile;
using testing::TempTree;
using testing::writeFile;

CatalogInfo fullInfo() {
  CatalogInfo info;
  info.id = "A1B2";
  info.kind = CatalogInfo::Kind::drive;
  info.volumeUUID = "1234-ABCD";
  info.relativeRoot = "";
  info.name = "Photos \xC3\xA9t\xC3\xA9";
  info.lastMountPath = "/media/me/Photos";
  info.capacityBytes = 500'000'000'000;
  info.freeBytes = 12;
  info.fileCount = 3;
  info.folderCount = 2;
  info.totalBytes = 18'446'744'073'709'551'615u;
  info.rootRecordID = 3;
  info.lastConnected = sys_seconds{sys_days{std::chrono::year{2024} / 3 / 5}} +
                       std::chrono::hours{14} + std::chrono::seconds{429};
  info.lastCatalogued = sys_seconds{std::chrono::seconds{0}};
  return info;
}

CatalogInfo decodeText(const std::string& text) {
  return CatalogInfo::decode({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
}

CatalogError errorOf(const std::string& text) {
  try {
    decodeText(text);
  } catch (const CatalogError& error) {
    return error;
  }
  ADD_FAILURE() << "decoded: " << text;
  return CatalogError::damagedIndex({});
}

TEST(CatalogInfoTest, WritesSortedPrettyJsonAndReadsItBack) {
  TempTree tree;
  CatalogInfo info = fullInfo();
  std::filesystem::path path = tree / "deeper/A1B2/info.json";  // parent folders made
  info.write(path);
  std::string text = readFile(path);
  EXPECT_EQ(text,
            "{\n"
            "  \"capacityBytes\": 500000000000,\n"
            "  \"fileCount\": 3,\n"
            "  \"folderCount\": 2,\n"
            "  \"formatVersion\": 1,\n"
            "  \"freeBytes\": 12,\n"
            "  \"id\": \"A1B2\",\n"
            "  \"kind\": \"drive\",\n"
            "  \"lastCatalogued\": \"1970-01-01T00:00:00Z\",\n"
            "  \"lastConnected\": \"2024-03-05T14:07:09Z\",\n"
            "  \"lastMountPath\": \"/media/me/Photos\",\n"
            "  \"name\": \"Photos \xC3\xA9t\xC3\xA9\",\n"
            "  \"relativeRoot\": \"\",\n"
            "  \"rootRecordID\": 3,\n"
            "  \"totalBytes\": 18446744073709551615,\n"
            "  \"volumeUUID\": \"1234-ABCD\"\n"
            "}\n");
  EXPECT_EQ(CatalogInfo::read(path), info);
  EXPECT_FALSE(std::filesystem::exists(path.string() + ".tmp"));
}

TEST(CatalogInfoTest, AbsentOptionalsAreLeftOutAndComeBackAbsent) {
  CatalogInfo info{.id = "x", .kind = CatalogInfo::Kind::efu, .name = "list"};
  json document = json::parse(info.encode());
  for (const char* key :
       {"capacityBytes", "freeBytes", "rootRecordID", "lastConnected", "lastCatalogued"}) {
    EXPECT_FALSE(document.contains(key)) << key;
  }
  EXPECT_EQ(decodeText(info.encode()), info);
  // null is read as absent too.
  document["rootRecordID"] = nullptr;
  EXPECT_EQ(decodeText(document.dump()), info);
}

TEST(CatalogInfoTest, VersionIsCheckedBeforeTheRest) {
  json document = json::parse(fullInfo().encode());
  document["formatVersion"] = 2;
  EXPECT_EQ(errorOf(document.dump()), CatalogError::unsupportedFormat(2));
  // A newer document of another shape still reports its version.
  EXPECT_EQ(errorOf(R"({"formatVersion": 7, "kind": 12})"), CatalogError::unsupportedFormat(7));
  // Older and odd versions are read; unknown keys are ignored.
  for (int version : {1, 0, -3}) {
    document["formatVersion"] = version;
    document["addedLater"] = {1, 2};
    EXPECT_EQ(decodeText(document.dump()).formatVersion, version);
  }
}

TEST(CatalogInfoTest, MalformedDocumentsAreUnreadable) {
  json valid = json::parse(fullInfo().encode());
  std::vector<std::pair<std::string, std::string>> cases = {
      {"not json", "{formatVersion: 1"},
      {"empty", ""},
      {"array", "[1]"},
      {"no version", R"({"id": "x"})"},
      {"version as text", R"({"formatVersion": "1"})"},
      {"version fraction", R"({"formatVersion": 1.5})"},
  };
  auto without = [&](const char* key) {
    json copy = valid;
    copy.erase(key);
    return copy.dump();
  };
  auto with = [&](const char* key, json value) {
    json copy = valid;
    copy[key] = std::move(value);
    return copy.dump();
  };
  cases.push_back({"missing id", without("id")});
  cases.push_back({"missing totalBytes", without("totalBytes")});
  cases.push_back({"unknown kind", with("kind", "tape")});
  cases.push_back({"negative totalBytes", with("totalBytes", -1)});
  cases.push_back({"rootRecordID past u32", with("rootRecordID", 4294967296LL)});
  cases.push_back({"fileCount past i64", with("fileCount", 18446744073709551615ULL)});
  cases.push_back({"date without zone", with("lastConnected", "2024-03-05T14:07:09")});
  cases.push_back({"date with fraction", with("lastConnected", "2024-03-05T14:07:09.5Z")});
  cases.push_back({"February 30", with("lastCatalogued", "2024-02-30T00:00:00Z")});
  cases.push_back({"name as number", with("name", 5)});
  for (const auto& [label, text] : cases) {
    EXPECT_EQ(errorOf(text), CatalogError::unreadableInfo()) << label;
  }
}

TEST(CatalogInfoTest, ReadFailuresAreUnreadable) {
  TempTree tree{"folder/"};
  for (const char* name : {"missing.json", "folder"}) {
    try {
      CatalogInfo::read(tree / name);
      ADD_FAILURE() << name;
    } catch (const CatalogError& error) {
      EXPECT_EQ(error, CatalogError::unreadableInfo()) << name;
    }
  }
}

TEST(CatalogInfoTest, DatesAcceptOffsetsAndKeepTheSecond) {
  auto at = [](const char* text) { return detail::parseIsoDate(text); };
  sys_seconds noonUtc =
      sys_seconds{sys_days{std::chrono::year{2021} / 6 / 1}} + std::chrono::hours{12};
  EXPECT_EQ(at("2021-06-01T12:00:00Z"), noonUtc);
  EXPECT_EQ(at("2021-06-01T14:00:00+02:00"), noonUtc);
  EXPECT_EQ(at("2021-06-01T06:30:00-0530"), noonUtc);
  EXPECT_EQ(at("2021-06-01T12:00:00z"), std::nullopt);
  EXPECT_EQ(at("2021-06-01 12:00:00Z"), std::nullopt);
  EXPECT_EQ(at("2021-06-01T24:00:00Z"), std::nullopt);
  EXPECT_EQ(at("2021-06-01T12:00:00Zjunk"), std::nullopt);
  EXPECT_EQ(detail::formatIsoDate(noonUtc), "2021-06-01T12:00:00Z");
  EXPECT_EQ(detail::formatIsoDate(sys_seconds{std::chrono::seconds{-1}}), "1969-12-31T23:59:59Z");
}

TEST(CatalogInfoTest, JoinAndRootPath) {
  EXPECT_EQ(CatalogInfo::join("/", "Users/x"), "/Users/x");
  EXPECT_EQ(CatalogInfo::join("/Volumes/Disk", ""), "/Volumes/Disk");
  EXPECT_EQ(CatalogInfo::join("/Volumes/Disk", "a/b"), "/Volumes/Disk/a/b");
  EXPECT_EQ(CatalogInfo::join("/", ""), "/");
  CatalogInfo info{.relativeRoot = "Photos", .lastMountPath = "/media/usb"};
  EXPECT_EQ(info.rootPath(), "/media/usb/Photos");
}

TEST(CatalogLayoutTest, FileNamesAndCatalogIDs) {
  TempTree tree;
  CatalogLayout layout{tree / "Catalogs"};
  EXPECT_TRUE(layout.catalogIDs().empty());  // the root does not exist yet
  EXPECT_EQ(layout.infoURL("b"), tree / "Catalogs/b/info.json");
  EXPECT_EQ(layout.indexURL("b"), tree / "Catalogs/b/index.bin");
  EXPECT_EQ(layout.markerURL("b"), tree / "Catalogs/b/index.bin.inprogress");
  EXPECT_EQ(layout.trigramURL("b"), tree / "Catalogs/b/trigram.cache");
  EXPECT_EQ(CatalogLayout::rootIn("/home/me"),
            "/home/me/Library/Application Support/Tarvolin/Catalogs");

  tree.add("Catalogs/b/info.json");
  tree.add("Catalogs/a/info.json");
  tree.add("Catalogs/unfinished/index.bin");
  tree.add("Catalogs/stray-file");
  EXPECT_EQ(layout.catalogIDs(), (std::vector<std::string>{"a", "b"}));

  std::string id = CatalogLayout::newID();
  EXPECT_EQ(id.size(), 36u);
  EXPECT_NE(id, CatalogLayout::newID());
}

}  // namespace
}  // namespace tarvolin
