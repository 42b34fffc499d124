#ifndef TESTS_SUPPORT_RECEIPTS_H
#define TESTS_SUPPORT_RECEIPTS_H

#include <string>

namespace korvex::test {

// What a daemon answers when it has stored nothing, or "abc".
const std::string kEmptyReceipt = "stored bytes=0 xxh128=99aa06d3014798d86001c324468d497f";
const std::string kAbcReceipt = "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950";

}  // namespace korvex::test

#endif
