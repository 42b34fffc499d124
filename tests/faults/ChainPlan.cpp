#include "ChainPlan.h"

#include "Source.h"

namespace korvex::test {
namespace {

using std::chrono::microseconds;

constexpr std::uint64_t kLargest = std::uint64_t{4} << 20;  // more than queue and pipe can hold
constexpr std::uint64_t kSmall = std::uint64_t{64} << 10;
constexpr unsigned kMostLingering = 4000;
constexpr unsigned kSlowRead = 2000;
constexpr unsigned kSlowStore = 8000;
constexpr microseconds kLongestGap{5000};

class Dice {
 public:
  explicit Dice(std::mt19937_64& dice) : dice_(dice) {}

  std::uint64_t upTo(std::uint64_t most) {
    return std::uniform_int_distribution<std::uint64_t>(0, most)(dice_);
  }
  unsigned upTo(unsigned most) { return static_cast<unsigned>(upTo(std::uint64_t{most})); }
  microseconds upTo(microseconds most) {
    return microseconds(upTo(static_cast<std::uint64_t>(most.count())));
  }
  bool isOneOf(unsigned number) { return upTo(number - 1) == 0; }

 private:
  std::mt19937_64& dice_;
};

std::vector<Part> drawVictims(Dice& dice, Victims victims) {
  const auto anyPart = [&] { return static_cast<Part>(dice.upTo(4U)); };
  if (victims == Victims::Guardians) return {Part::Daemon, Part::Keeper};
  const Part first = anyPart();
  if (dice.isOneOf(2)) return {first};
  const auto isGuardian = [](Part part) { return part == Part::Daemon || part == Part::Keeper; };
  Part second = anyPart();
  while (second == first || (isGuardian(first) && isGuardian(second))) second = anyPart();
  return {first, second};
}

/// When the engine finishes, the command has ended.
Moment drawMoment(Dice& dice, const ChainPlan& plan) {
  return static_cast<Moment>(dice.upTo(plan.kills(Part::Command) ? 2U : 3U));
}

microseconds longestDelay(const ChainPlan& plan, const ChainStore::Spans& spans) {
  switch (plan.moment) {
    case Moment::Start:
      return spans.start;
    case Moment::Midstream:
      return spans.midstream;
    case Moment::Close:
      return spans.end + microseconds(plan.lingering);
    case Moment::Finish:
      return spans.end + microseconds(plan.pace.beforeStore + plan.pace.afterStore);
  }
  return {};
}

}  // namespace

ChainPlan drawChainPlan(std::mt19937_64& numbers, Victims victims, const ChainStore::Spans& spans) {
  Dice dice(numbers);
  ChainPlan plan = {};
  plan.size = 16 + 8 * dice.upTo((dice.isOneOf(4) ? kSmall : kLargest) / 8 - 2);
  plan.lingering = dice.upTo(kMostLingering);
  plan.pace = {dice.isOneOf(3) ? dice.upTo(kSlowRead) : 0, dice.upTo(kSlowStore),
               dice.upTo(kSlowStore)};
  plan.victims = drawVictims(dice, victims);
  plan.moment = drawMoment(dice, plan);
  plan.piece = dice.upTo(Source::piecesOf(plan.size));
  plan.delay = dice.upTo(longestDelay(plan, spans));
  plan.gap = dice.isOneOf(2) ? microseconds(0) : dice.upTo(kLongestGap);
  plan.isDaemonLate = dice.isOneOf(16);
  return plan;
}

std::string nameOf(Part part) {
  switch (part) {
    case Part::Command:
      return "command";
    case Part::Sender:
      return "sender";
    case Part::Daemon:
      return "daemon";
    case Part::Keeper:
      return "keeper";
    case Part::Engine:
      return "engine";
  }
  return "";
}

std::string nameOf(Moment moment) {
  switch (moment) {
    case Moment::Start:
      return "at the start";
    case Moment::Midstream:
      return "in midstream";
    case Moment::Close:
      return "around the close";
    case Moment::Finish:
      return "while the engine finishes";
  }
  return "";
}

}  // namespace korvex::test
