#ifndef KORVEX_SUPPORT_STATUS_H
#define KORVEX_SUPPORT_STATUS_H

#include <qmx/error.h>

// The status codes that the library raises. Producers compare the numbers.
namespace korvex {

constexpr ov_status_t kStatusNoRoom = 4;
constexpr ov_status_t kStatusInvalidArgument = 9;
constexpr ov_status_t kStatusTimedOut = 15;
constexpr ov_status_t kStatusCorrupt = 32;
constexpr ov_status_t kStatusWrongState = 44;
constexpr ov_status_t kStatusTooLarge = 85;
constexpr ov_status_t kStatusDoesNotFit = 89;

}  // namespace korvex

#endif
