"""Which sources are changed, and which test programs should notice.

The one place to adapt when files move. An area's tests are tried in the order of its stages; what
those let live goes to the slow programs.
"""

import re
from dataclasses import dataclass

from programs import Program

SHARDS = 6


def unit_program(path):
    # Unchanged, none takes more than a tenth of a second. This limit does not depend on how busy
    # the machine is.
    return Program(path, ("--gtest_fail_fast", "--gtest_brief=1"), core_seconds=3)


def tool_program(path, shards=1):
    # These mostly wait for other threads and for files. The limit ends one that computes forever.
    return Program(path, ("--gtest_fail_fast", "--gtest_brief=1"), core_seconds=20, shards=shards)


def slow_program(path):
    return Program(path, ("--gtest_fail_fast", "--gtest_brief=1"), shards=SHARDS)


@dataclass(frozen=True)
class Area:
    """Sources that the same programs test."""

    name: str
    sources: tuple  # patterns of paths
    wanted_percent: int
    stages: tuple   # of programs, those that kill most first: linking the others is spared then
    slow: tuple
    ground: str     # what the verdicts of the stages depend on beside the file of a test

    def programs(self):
        return [program for stage in self.stages for program in stage] + list(self.slow)

    def slow_for(self, name):
        """The slow programs in the order in which they should be tried for this source."""
        likely = [program for part, program in MOST_LIKELY if part in name]
        return sorted(self.slow, key=lambda program: program not in likely)

    def has(self, name):
        return any(re.fullmatch(pattern, name) for pattern in self.sources)


PROPERTY = "tests/property/korvex_property_tests"
LIBRARY_GROUND = (r"(src|include|platform|cmake|tests/support)/.*|CMakeLists\.txt"
                  r"|tests/(unit|property)/([^/]*/)?[^/]*(?<!Test)\.(h|cpp)")
TOOLS_GROUND = (r"(src|include|platform|receiver|tools|cmake|tests/support)/.*"
                r"|CMakeLists\.txt|tests/unit/([^/]*/)?[^/]*(?<!Test)\.(h|cpp)")

SEND_TESTS = slow_program("tests/integration/korvex_send_integration_tests")
STRANGE_OBJECT_TESTS = slow_program("tests/integration/korvexd_strange_object_tests")
STATUS_TESTS = slow_program("tests/integration/korvex_status_tests")
EXEC_TESTS = slow_program("tests/integration/korvexd_exec_tests")
DAEMON_TESTS = slow_program("tests/integration/korvexd_integration_tests")
LIMIT_TESTS = slow_program("tests/integration/korvexd_limit_tests")
OPERATING_TESTS = slow_program("tests/integration/korvexd_operating_tests")

# Which of an area's slow programs is tried first for a source: the others are mostly spared then.
MOST_LIKELY = (("/status/", STATUS_TESTS), ("/exec/", EXEC_TESTS), ("/send/", SEND_TESTS),
               ("/metrics/", OPERATING_TESTS), ("/log/", OPERATING_TESTS))

AREAS = (
    Area("library",
         (r"src/.*\.(cpp|h)", r"include/korvex/[^/]*\.h"),
         95,
         (tuple(unit_program(f"tests/unit/korvex_{name}_tests")
                for name in ("unit", "system_call")),
          tuple(unit_program(f"tests/unit/korvex_{name}_tests")
                for name in ("lock", "pause", "allocation", "reservation")),
          (Program(PROPERTY, ("--gtest_filter=*KeptScript*", "--gtest_brief=1")),
           Program(PROPERTY, ("--gtest_fail_fast", "--gtest_brief=1"),
                   {"RC_PARAMS": "seed=1 max_success=200 noshrink=1"}))),
         (slow_program("tests/unit/receiver/korvex_receiver_unit_tests"),
          slow_program("tests/unit/korvex/korvex_tool_unit_tests"),
          slow_program("tests/integration/korvex_strange_object_tests"),
          STRANGE_OBJECT_TESTS, DAEMON_TESTS, SEND_TESTS, LIMIT_TESTS),
         LIBRARY_GROUND),
    Area("receiver",
         (r"receiver/.*\.(cpp|h)",),
         90,
         ((tool_program("tests/unit/receiver/korvex_receiver_stale_queue_tests"),
           tool_program("tests/unit/receiver/korvex_receiver_unit_tests", SHARDS)),
          (tool_program("tests/unit/receiver/korvex_receiver_memory_tests"),
           tool_program("tests/unit/korvexd/korvexd_rename_tests"),
           tool_program("tests/unit/korvexd/korvexd_unit_tests"),
           tool_program("tests/unit/korvex/korvex_tool_unit_tests", SHARDS))),
         (DAEMON_TESTS, STRANGE_OBJECT_TESTS, EXEC_TESTS, SEND_TESTS, OPERATING_TESTS,
          STATUS_TESTS, LIMIT_TESTS),
         TOOLS_GROUND),
    Area("daemon",
         (r"tools/korvexd/.*\.(cpp|h)",),
         90,
         (tuple(tool_program(f"tests/unit/korvexd/korvexd_{name}_tests")
                for name in ("unit", "system_call")),
          tuple(tool_program(f"tests/unit/korvexd/korvexd_{name}_tests")
                for name in ("rename", "writeback", "log_loss", "age", "refused_digest",
                              "engine_end"))),
         (DAEMON_TESTS, slow_program("tests/integration/korvexd_failing_sink_tests"), EXEC_TESTS,
          STRANGE_OBJECT_TESTS, SEND_TESTS, OPERATING_TESTS, STATUS_TESTS, LIMIT_TESTS),
         TOOLS_GROUND),
    Area("tool",
         (r"tools/(korvex|common)/.*\.(cpp|h)",),
         90,
         ((tool_program("tests/unit/common/korvex_common_unit_tests"),
           tool_program("tests/unit/korvex/korvex_tool_system_call_tests")),
          (tool_program("tests/unit/korvex/korvex_tool_unit_tests", SHARDS),)),
         (SEND_TESTS, STATUS_TESTS, EXEC_TESTS, DAEMON_TESTS, OPERATING_TESTS,
          STRANGE_OBJECT_TESTS, LIMIT_TESTS),
         TOOLS_GROUND),
)


def area_of(name):
    """The area of a source; None for a file that nobody changes."""
    return next((area for area in AREAS if area.has(name)), None)
