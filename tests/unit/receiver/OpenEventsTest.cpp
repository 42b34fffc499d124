#include <chrono>
#include <gtest/gtest.h>

#include "idle/OpenEvents.h"
#include "queues/QueueObject.h"
#include "support/Queues.h"
#include "support/SharedObject.h"

using korvex::receiver::OpenEvents;
using korvex::receiver::QueueObject;
using korvex::test::SharedObject;
using std::chrono::seconds;

TEST(OpenEvents, TellsOnceThatAQueueWasOpened) {
  const SharedObject object(korvex::test::uniqueQueueName());
  OpenEvents events;
  events.listenTo(object.name());
  EXPECT_FALSE(events.await({}));
  for (int i = 0; i < 3; ++i) QueueObject opened(object.name());
  EXPECT_TRUE(events.await(seconds(60)));
  EXPECT_FALSE(events.await({}));
}
