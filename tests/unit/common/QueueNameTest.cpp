#include <gtest/gtest.h>
#include <korvex/receiver/Receiver.h>
#include <set>

#include "common/QueueName.h"
#include "support/HostileNames.h"

using korvex::common::fileNameOf;
using korvex::common::jsonNameOf;
using korvex::common::plainQueueName;
using korvex::receiver::queueNameDefect;
using korvex::test::hostileNames;

TEST(QueueName, MayStartWithOneSlash) {
  EXPECT_EQ(queueNameDefect("/a"), "");
  EXPECT_EQ(plainQueueName("/a"), "a");
  EXPECT_EQ(plainQueueName("a"), "a");
}

TEST(QueueName, IsRefusedWithAnotherSlash) {
  for (const char* name : {"//a", "a/b", "a/", "/a/", "../a", "/../a", "a/../b", "/dev/shm/a"}) {
    EXPECT_EQ(queueNameDefect(name),
              "it holds a slash, which is allowed only as the first character")
        << name;
  }
}

TEST(QueueName, IsRefusedWhenEmpty) {
  EXPECT_EQ(queueNameDefect(""), "it is empty");
  EXPECT_EQ(queueNameDefect("/"), "it is empty");
}

TEST(QueueName, IsRefusedWhenItNamesAFolder) {
  for (const char* name : {".", "..", "/.", "/.."}) {
    EXPECT_EQ(queueNameDefect(name), "it is the name of a folder") << name;
  }
}

TEST(QueueName, LeavesRoomForTheResponseQueue) {
  EXPECT_EQ(queueNameDefect(std::string(247, 'a')), "");
  EXPECT_EQ(queueNameDefect("/" + std::string(247, 'a')), "");
  EXPECT_EQ(queueNameDefect(std::string(248, 'a')),
            "its response queue's name would have 256 characters, expected at most 255");
}

TEST(FileName, KeepsOrdinaryNames) { EXPECT_EQ(fileNameOf("Ab-9_z.q"), "Ab-9_z.q"); }

TEST(FileName, EncodesEverythingElse) { EXPECT_EQ(fileNameOf("a b%\xff/"), "a%20b%25%FF%2F"); }

TEST(FileName, EncodesALeadingDotOnly) {
  EXPECT_EQ(fileNameOf(".a.b"), "%2Ea.b");
  EXPECT_EQ(fileNameOf(".."), "%2E.");
}

TEST(FileNameUntrusted, NeverLeavesTheFolder) {
  for (const std::string& name : hostileNames()) {
    const std::string file = fileNameOf(name);
    EXPECT_FALSE(file.empty()) << name;
    EXPECT_NE(file.front(), '.') << name;
    EXPECT_EQ(file.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                     "0123456789._-%"),
              std::string::npos)
        << name;
  }
}

TEST(FileNameUntrusted, DiffersForDifferentNames) {
  std::set<std::string> files;
  const std::set<std::string> names(hostileNames().begin(), hostileNames().end());
  for (const std::string& name : names) files.insert(fileNameOf(name));
  EXPECT_EQ(files.size(), names.size());
}

TEST(JsonName, IsTheNameWhereJsonCanHoldIt) {
  for (const char* name : {"a", "a b\n\"", "\xc3\xa4", "\xf0\x9f\x92\xbe"}) {
    EXPECT_EQ(jsonNameOf(name), name);
  }
}

TEST(JsonName, DiffersForDifferentNames) {
  EXPECT_EQ(jsonNameOf("\xff"), "%FF");
  EXPECT_EQ(jsonNameOf("%FF"), "%25FF");
  std::set<std::string> found;
  const std::set<std::string> names(hostileNames().begin(), hostileNames().end());
  for (const std::string& name : names) found.insert(jsonNameOf(name));
  EXPECT_EQ(found.size(), names.size());
}

TEST(JsonName, IsTheFileNameElse) {
  EXPECT_EQ(jsonNameOf("a \xff"), "a%20%FF");
  EXPECT_EQ(jsonNameOf("\xed\xa0\x80"), "%ED%A0%80");
}
