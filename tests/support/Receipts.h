#ifndef TESTS_SUPPORT_RECEIPTS_H
#define TESTS_SUPPORT_RECEIPTS_H

namespace korvex::test {

// What a daemon answers when it has stored nothing, or "abc".
constexpr char kEmptyReceipt[] = "stored bytes=0 xxh128=99aa06d3014798d86001c324468d497f";
constexpr char kAbcReceipt[] = "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950";

}  // namespace korvex::test

#endif
