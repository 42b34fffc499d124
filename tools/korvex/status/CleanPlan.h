#ifndef KORVEX_TOOL_CLEAN_PLAN_H
#define KORVEX_TOOL_CLEAN_PLAN_H

#include <cstddef>
#include <string>
#include <vector>

namespace korvex::tool {

/// A pair of queues or one half-made queue, and whether it can be removed.
struct CleanItem {
  enum class Kind { Pair, HalfMade };

  std::string name;
  Kind kind = Kind::Pair;
  std::string found;          ///< what is known of it, for people
  std::string obstacle = {};  ///< why it stays; empty when it may go
  bool isRemoved = false;

  bool isToGo() const { return obstacle.empty() && !isRemoved; }
};

struct CleanPlan {
  std::vector<CleanItem> items;
  std::size_t unexamined = 0;  ///< processes that may use the queues; this user cannot tell
};

/// Looks at what there is, all of it for an empty name, and takes no lock: a daemon that starts
/// meanwhile must not find its queues claimed. So the outcome is certain only at the removal.
CleanPlan planCleaning(const std::string& queue);

/// Removes what may go. What cannot be removed after all gets an obstacle.
void removeItems(std::vector<CleanItem>& items);

}  // namespace korvex::tool

#endif
