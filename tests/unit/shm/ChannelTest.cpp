#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <type_traits>

#include "korvex/Channel.h"
#include "korvex/ShmWriter.h"

using korvex::Channel;
using korvex::ChannelWriter;
using korvex::ShmWriter;

static_assert(std::is_abstract<Channel>::value, "an interface");
static_assert(std::is_abstract<ChannelWriter>::value, "an interface");
static_assert(!std::is_abstract<ShmWriter>::value, "overrides everything");
static_assert(std::has_virtual_destructor<Channel>::value, "deleted through the interface");
static_assert(std::is_base_of<Channel, ChannelWriter>::value, "binary interface");
static_assert(std::is_base_of<ChannelWriter, ShmWriter>::value, "binary interface");
static_assert(!std::is_convertible<std::string, ShmWriter>::value, "a name is no writer");
static_assert(!std::is_copy_constructible<ShmWriter>::value, "one writer per stream");
static_assert(!std::is_copy_assignable<Channel>::value, "would open a closed channel");
static_assert(!std::is_copy_assignable<ChannelWriter>::value, "would open a closed writer");
static_assert(sizeof(Channel) == 48, "table pointer, open flag, name");
static_assert(sizeof(ChannelWriter) == sizeof(Channel), "adds no members");

namespace {

/// The smallest channel writer; tells what became of it.
class Probe : public ChannelWriter {
 public:
  using Channel::isOpen;
  using Channel::name;

  explicit Probe(const std::string& channelName, bool* destroyed = nullptr)
      : ChannelWriter(channelName), destroyed_(destroyed) {}
  ~Probe() override {
    if (destroyed_ != nullptr) *destroyed_ = true;
  }

  void close() override {}
  void open() override {}
  void setSegmentAlg(korvex_seg_state_t, unsigned long, unsigned long, unsigned long) override {}
  void writeSegment(const unsigned char*, unsigned long) override {}
  void endSegment() override {}
  void stop(bool) override {}

 private:
  bool* destroyed_;
};

std::ptrdiff_t offsetIn(const Channel& channel, const void* member) {
  return static_cast<const char*>(member) - reinterpret_cast<const char*>(&channel);
}

/// The place of a virtual operation in its class's table. The Itanium C++ ABI stores one more than
/// its offset in bytes in the first word of the pointer to member; an even word is no virtual one.
/// ARM's variant marks the second word instead.
template <typename Operation>
std::uintptr_t slotOf(Operation operation) {
  std::uintptr_t words[2];
  static_assert(sizeof operation == sizeof words, "pointer to member of the Itanium C++ ABI");
  std::memcpy(words, &operation, sizeof words);
#ifdef __aarch64__
  words[0] += words[1] % 2;
#endif
  EXPECT_EQ(words[0] % 2, 1u) << "not virtual";
  return (words[0] - 1) / sizeof(void*);
}

}  // namespace

TEST(ChannelState, StartsClosedWithItsName) {
  const Probe probe("nightly backup");
  EXPECT_FALSE(probe.isOpen);
  EXPECT_EQ(probe.name, "nightly backup");
}

TEST(ChannelState, NameIsACopy) {
  std::string name = "before";
  const Probe probe(name);
  name = "after";
  EXPECT_EQ(probe.name, "before");
}

TEST(ChannelState, OpenFlagAndNameFollowTheTablePointer) {
  const Probe probe("x");
  EXPECT_EQ(offsetIn(probe, &probe.isOpen), 8);
  EXPECT_EQ(offsetIn(probe, &probe.name), 16);
}

TEST(ChannelState, IsDestroyedThroughTheRootInterface) {
  bool destroyed = false;
  Channel* const channel = new Probe("x", &destroyed);
  delete channel;
  EXPECT_TRUE(destroyed);
}

TEST(ChannelSlots, CloseIsFirst) {
  EXPECT_EQ(slotOf(&Channel::close), 0u);
  EXPECT_EQ(slotOf(&ShmWriter::close), 0u);
}

TEST(ChannelSlots, OperationsOfTheWriterInterfaceFollowTheDestructors) {
  EXPECT_EQ(slotOf(&ChannelWriter::close), 0u);
  EXPECT_EQ(slotOf(&ChannelWriter::open), 3u);
  EXPECT_EQ(slotOf(&ChannelWriter::setSegmentAlg), 4u);
  EXPECT_EQ(slotOf(&ChannelWriter::writeSegment), 5u);
  EXPECT_EQ(slotOf(&ChannelWriter::endSegment), 6u);
  EXPECT_EQ(slotOf(&ChannelWriter::stop), 7u);
}

TEST(ChannelSlots, ShmWriterKeepsTheOrder) {
  EXPECT_EQ(slotOf(&ShmWriter::open), 3u);
  EXPECT_EQ(slotOf(&ShmWriter::setSegmentAlg), 4u);
  EXPECT_EQ(slotOf(&ShmWriter::writeSegment), 5u);
  EXPECT_EQ(slotOf(&ShmWriter::endSegment), 6u);
  EXPECT_EQ(slotOf(&ShmWriter::stop), 7u);
}

// A pointer to a destructor cannot be had, so the table itself is read: slot 1 destroys, slot 2
// destroys and frees.
TEST(ChannelSlots, DestructorsAreSecondAndThird) {
  using Destructor = void (*)(Channel*);
  for (const std::size_t slot : {1u, 2u}) {
    bool destroyed = false;
    Channel* const channel = new Probe("x", &destroyed);
    Destructor* table;
    std::memcpy(&table, static_cast<const void*>(channel), sizeof table);
    table[slot](channel);
    EXPECT_TRUE(destroyed) << "slot " << slot;
    if (slot == 1) ::operator delete(static_cast<void*>(channel));
  }
}
