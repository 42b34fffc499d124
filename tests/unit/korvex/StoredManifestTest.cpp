#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "Failure.h"
#include "unit/korvex/GoodManifest.h"
#include "verify/StoredManifest.h"

namespace {

using korvex::test::goodManifest;
using korvex::test::kSha256;
using korvex::test::kXxh128;
using korvex::tool::Failure;
using korvex::tool::parseManifest;
using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

std::string defectOf(const std::string& text) {
  try {
    parseManifest(text);
  } catch (const Failure& failure) {
    return failure.what();
  }
  return "";
}

std::string defectWith(const std::string& name, const json& value) {
  json changed = goodManifest();
  changed[name] = value;
  return defectOf(changed.dump());
}

}  // namespace

TEST(StoredManifest, ReadsWhatADaemonWrites) {
  const auto found = parseManifest(goodManifest().dump());
  EXPECT_TRUE(found.isComplete);
  EXPECT_EQ(found.bytes, 3u);
  EXPECT_EQ(found.sha256, kSha256);
  EXPECT_EQ(found.xxh128, kXxh128);
}

TEST(StoredManifest, ReadsWhyAStreamIsIncomplete) {
  json incomplete = goodManifest();
  incomplete["state"] = "incomplete";
  incomplete["reason"] = "the daemon ended";
  const auto found = parseManifest(incomplete.dump());
  EXPECT_FALSE(found.isComplete);
  EXPECT_EQ(found.reason, "the daemon ended");
}

TEST(StoredManifest, ReadsWhichDigestsThereAre) {
  json manifest = goodManifest();
  manifest["digest"] = "sha256";
  EXPECT_EQ(parseManifest(manifest.dump()).sha256, kSha256);
  manifest.erase("sha256");
  EXPECT_EQ(defectOf(manifest.dump()), "sha256 is missing");
  manifest["digest"] = "xxh128";
  EXPECT_EQ(parseManifest(manifest.dump()).sha256, "");
  manifest["digest"] = "md5";
  EXPECT_EQ(defectOf(manifest.dump()), R"(digest is "md5", expected "sha256" or "xxh128")");
}

TEST(StoredManifest, IgnoresMembersOfLaterVersions) { EXPECT_EQ(defectWith("more", {1, 2}), ""); }

TEST(StoredManifest, TakesTheLargestNumber) {
  EXPECT_EQ(defectWith("bytes", 18446744073709551615u), "");
}

TEST(StoredManifestUntrusted, RefusesEveryMemberThatIsMissing) {
  const json whole = goodManifest();
  for (const auto& member : whole.items()) {
    json cut = goodManifest();
    cut.erase(member.key());
    EXPECT_EQ(defectOf(cut.dump()), member.key() + " is missing");
  }
}

TEST(StoredManifestUntrusted, RefusesEveryMemberOfAnotherKind) {
  const json whole = goodManifest();
  for (const auto& member : whole.items()) {
    for (const json& value : {json(), json(true), json(-1), json(1.5), json::array(),
                              json::object(), json(std::string(100, 'x'))}) {
      const bool isAnyText = member.key() == "queue" || member.key() == "reason";
      if (isAnyText && value.is_string()) continue;
      EXPECT_THAT(defectWith(member.key(), value), StartsWith(member.key() + " is ")) << value;
    }
  }
}

TEST(StoredManifestUntrusted, NamesWhatItFoundAndExpected) {
  EXPECT_EQ(defectWith("format", 2), "format is 2, expected 1");
  EXPECT_EQ(defectWith("bytes", -1), "bytes is -1, expected a number from 0 to 2^64 - 1");
  EXPECT_EQ(defectWith("state", "done"),
            "state is \"done\", expected \"complete\" or \"incomplete\"");
  EXPECT_EQ(defectWith("queue", json::array()), "queue is an array, expected a text");
  EXPECT_EQ(defectWith("xxh128", "\x1b"),
            "xxh128 is \"\\u001b\", expected 32 lower-case hex digits");
  EXPECT_EQ(defectWith("opened", "now"),
            "opened is \"now\", expected a time such as \"2026-11-21T00:56:23Z\"");
}

TEST(StoredManifestUntrusted, QuotesEightyCharactersAtMost) {
  const std::string text(79, 'x');
  EXPECT_THAT(defectWith("state", text.substr(1)),
              StartsWith("state is \"" + text.substr(1) + "\", expected "));
  EXPECT_THAT(defectWith("state", text), StartsWith("state is \"" + text + "..., expected "));
}

TEST(StoredManifestUntrusted, RefusesDigestsThatAreNotHex) {
  const std::string shorter = kSha256.substr(1);
  for (const std::string& text : {shorter, kSha256 + "0", "A" + shorter, "g" + shorter}) {
    EXPECT_THAT(defectWith("sha256", text), HasSubstr("expected 64 lower-case hex digits"));
  }
}

TEST(StoredManifestUntrusted, RefusesTimesOfAnotherForm) {
  for (const char* text : {"2026-11-21 00:56:23Z", "2026-11-21T00:56:23", "2026-11-21T00:56:2aZ",
                           "2026-11-21T00:56:23ZZ", ""}) {
    EXPECT_THAT(defectWith("closed", text), HasSubstr("expected a time")) << text;
  }
}

TEST(StoredManifestUntrusted, RefusesWhatIsNoObject) {
  EXPECT_EQ(defectOf("[]"), "it is an array, expected an object");
  EXPECT_EQ(defectOf("null"), "it is null, expected an object");
}

TEST(StoredManifestUntrusted, RefusesWhatIsNoJson) {
  for (const std::string& text :
       {std::string(), std::string("{"), std::string("\0", 1), std::string("\xff"),
        std::string("{} x"), std::string(R"({"bytes":1e999})")}) {
    EXPECT_THAT(defectOf(text), StartsWith("not JSON: ")) << text;
  }
  EXPECT_THAT(defectOf("{"), StartsWith("not JSON: parse error at line 1"));
}

TEST(StoredManifestUntrusted, RefusesNumbersAbove64Bits) {
  std::string text = goodManifest().dump();
  text.replace(text.find("\"bytes\":3"), 9, "\"bytes\":18446744073709551616");
  EXPECT_THAT(defectOf(text), StartsWith("bytes is 1.8446744073709552e+19, expected a number"));
}

TEST(StoredManifestUntrusted, OutlivesDeepNesting) {
  const std::string deep = std::string(400000, '[') + std::string(400000, ']');
  EXPECT_EQ(defectOf(deep), "it is an array, expected an object");
  std::string inside = goodManifest().dump();
  inside.replace(inside.find("\"bytes\":3"), 9, "\"bytes\":" + deep);
  EXPECT_THAT(defectOf(inside), StartsWith("bytes is an array"));
  EXPECT_THAT(defectOf(std::string(1000000, '[')), StartsWith("not JSON: "));
}
