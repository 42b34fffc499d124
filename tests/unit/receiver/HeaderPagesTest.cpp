#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <unistd.h>

#include "idle/HeaderPages.h"
#include "queues/QueueObject.h"
#include "support/Queues.h"
#include "support/SharedObject.h"

using korvex::receiver::HeaderPages;
using korvex::receiver::QueueObject;
using korvex::test::mappingsOf;
using korvex::test::SharedObject;

namespace {

const SharedObject& objectWith(const char* text, SharedObject& object) {
  object.write(0, korvex::test::Bytes(text, text + std::strlen(text)));
  object.resize(::sysconf(_SC_PAGESIZE));
  return object;
}

}  // namespace

TEST(HeaderPages, MapsThePagesOfManyObjectsSideBySide) {
  HeaderPages pages;
  SharedObject one(korvex::test::uniqueQueueName());
  SharedObject two(korvex::test::uniqueQueueName());
  char* const first = static_cast<char*>(pages.take());
  char* const second = static_cast<char*>(pages.take());
  ASSERT_TRUE(HeaderPages::map(first, QueueObject(objectWith("one", one).name()).descriptor()));
  ASSERT_TRUE(HeaderPages::map(second, QueueObject(objectWith("two", two).name()).descriptor()));
  EXPECT_EQ(second - first, ::sysconf(_SC_PAGESIZE));
  EXPECT_STREQ(first, "one");
  EXPECT_STREQ(second, "two");
}

TEST(HeaderPages, AreAsManyAsAreWanted) {
  HeaderPages pages;
  std::set<void*> taken;
  for (int i = 0; i < 1200; ++i) taken.insert(pages.take());
  EXPECT_EQ(taken.size(), 1200U);
  EXPECT_EQ(taken.count(nullptr), 0U);
}

TEST(HeaderPages, AreGivenBackWithoutWhatWasThere) {
  HeaderPages pages;
  SharedObject object(korvex::test::uniqueQueueName());
  void* const page = pages.take();
  ASSERT_TRUE(HeaderPages::map(page, QueueObject(objectWith("text", object).name()).descriptor()));
  ASSERT_EQ(mappingsOf(object.name()), 1U);
  pages.give(page);
  EXPECT_EQ(mappingsOf(object.name()), 0U);
  EXPECT_EQ(pages.take(), page);
}

TEST(HeaderPages, AreUnmappedAtTheEnd) {
  SharedObject object(korvex::test::uniqueQueueName());
  {
    HeaderPages pages;
    ASSERT_TRUE(HeaderPages::map(pages.take(),
                                 QueueObject(objectWith("text", object).name()).descriptor()));
  }
  EXPECT_EQ(mappingsOf(object.name()), 0U);
}

TEST(HeaderPages, MapNothingWithoutRoomOrObject) {
  HeaderPages pages;
  EXPECT_FALSE(HeaderPages::map(nullptr, STDIN_FILENO));
  EXPECT_FALSE(HeaderPages::map(pages.take(), QueueObject().descriptor()));
  pages.give(nullptr);
  EXPECT_NE(pages.take(), nullptr);
}
