#ifndef TESTS_INTEGRATION_ENGINES_ENGINES_H
#define TESTS_INTEGRATION_ENGINES_ENGINES_H

#include <ostream>

namespace korvex::test {

/// A real backup engine: how it stores a stream, and how its own tools show what it has stored.
///
/// The scripts run in the store's folder, the daemon too.
struct Engine {
  const char* name;
  const char* program;
  const char* serverProgram;  ///< what the engine stores in, when that is a server
  const char* server;         ///< starts it, on any free port; it writes its address
  const char* prepare;        ///< makes an empty store
  const char* command;        ///< for `korvexd --exec`
  const char* list;           ///< writes the name of each thing stored, a line each
  const char* restore;        ///< writes the bytes of the one with the name $1
  const char* check;          ///< fails when the store is damaged
};

inline std::ostream& operator<<(std::ostream& out, const Engine& engine) {
  return out << engine.name;
}

inline constexpr const char* kResticBackup =
    "restic backup --quiet --no-cache --stdin --stdin-filename data";
inline constexpr const char* kResticList = "restic list snapshots --no-cache --no-lock";
inline constexpr const char* kResticRestore = "restic dump --no-cache --no-lock \"$1\" data";
// Without a lock, for one that was killed has left its own.
inline constexpr const char* kResticCheck = "restic check --quiet --no-cache --no-lock";

inline constexpr Engine kEngines[] = {
    {"Restic", "restic", "", "", "restic init --quiet --no-cache", kResticBackup, kResticList,
     kResticRestore, kResticCheck},
    {"ResticOverRest", "restic", "rclone", "exec rclone serve restic --addr 127.0.0.1:0 .",
     "restic init --quiet --no-cache", kResticBackup, kResticList, kResticRestore, kResticCheck},
    {"Borg", "borg", "", "", "borg init --encryption none",
     R"(sh -c 'exec borg create --checkpoint-interval 0 "::$KORVEX_STREAM" -')",
     "borg list --short --consider-checkpoints", R"(borg extract --stdout "::$1")", "borg check"},
    {"RcloneToS3", "rclone", "s3rver",
     "exec s3rver --directory . --address 127.0.0.1 --port 0 --configure-bucket streams", ":",
     R"(sh -c 'exec rclone rcat ":s3:streams/$KORVEX_STREAM"')", "rclone lsf :s3:streams",
     R"(rclone cat ":s3:streams/$1")", ":"},
    {"RcloneToAPath", "rclone", "", "", ":",
     R"(sh -c 'rclone rcat "$KORVEX_STREAM.partial" && )"
     R"(mv "$KORVEX_STREAM.partial" "$KORVEX_STREAM"')",
     "find . -type f ! -name '*.partial*'", R"(cat "$1")", ":"},
    {"Zstd", "zstd", "", "", ":",
     R"(sh -c 'zstd -qo "$KORVEX_STREAM.partial" && mv "$KORVEX_STREAM.partial" )"
     R"("$KORVEX_STREAM.zst"')",
     "find . -name '*.zst'", R"(zstd -dc "$1")", "find . -name '*.zst' -exec zstd -tq {} +"},
};

}  // namespace korvex::test

#endif
