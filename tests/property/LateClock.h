#ifndef TESTS_PROPERTY_LATE_CLOCK_H
#define TESTS_PROPERTY_LATE_CLOCK_H

/// In this program the clock of whole seconds stands in the year 1901. Deadlines are counted from
/// it, so every deadline has passed, whatever the timeout: nothing here ever waits for room.
namespace late_clock {

/// How often the clock was read.
unsigned reads();

}  // namespace late_clock

#endif
