#ifndef KORVEX_TOOL_INSPECT_SUMMARY_H
#define KORVEX_TOOL_INSPECT_SUMMARY_H

#include <array>
#include <cstdint>
#include <korvex/ShmCommon.h>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "inspect/CaptureFile.h"

namespace korvex::tool {

/// "open", "segment data", "segment end", "close", "stop"; "unknown" for any other type.
const char* recordTypeName(std::uint32_t type) noexcept;

/// The summary of all captured batches.
class InspectSummary {
 public:
  /// A file comes next, readable or not. In the order of inBatchOrder().
  void addFile(const CaptureFile& file);

  // These concern the file that came last.
  void addBatch(bool isDamaged);
  void addRecord(const qmx_shm_message_t& header);

  /// For people, several lines.
  std::string text() const;

  /// Into an object, as members of their own.
  void addTo(nlohmann::ordered_json& object) const;

 private:
  struct Gap {
    std::uint64_t first;
    std::uint64_t last;
  };

  /// The batches of one queue, or one file without a number.
  struct Capture {
    std::string name;
    std::optional<std::uint64_t> firstBatch;
    std::optional<std::uint64_t> lastBatch;
    std::vector<Gap> missing;
    std::optional<std::uint64_t> firstSequence;
    std::optional<std::uint64_t> lastSequence;
  };

  static constexpr std::size_t kTypes = 6;  ///< the last one is for unknown types

  static std::string lineOf(const Capture& capture);
  static nlohmann::ordered_json jsonOf(const Capture& capture);
  std::uint64_t records() const;

  std::uint64_t files_ = 0;
  std::uint64_t batches_ = 0;
  std::uint64_t damaged_ = 0;
  std::array<std::uint64_t, kTypes> recordsOfType_ = {};
  std::uint64_t dataBytes_ = 0;
  std::vector<Capture> captures_;
};

}  // namespace korvex::tool

#endif
