#include <atomic>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <stdexcept>

#include "korvexd/sink/DigestedBlocks.h"

using korvexd::DigestedBlocks;

namespace {

std::atomic<unsigned> calls{0};
unsigned refused = 0;

}  // namespace

/// In place of the crypto library's function.
extern "C" int EVP_DigestUpdate(EVP_MD_CTX*, const void*, size_t) {
  return ++calls == refused ? 0 : 1;
}

// It would be the digest of something else.
TEST(RefusedDigest, OfAnyBlockLeavesTheStreamWithout) {
  constexpr unsigned kBlocks = 6;  // enough that some are digested before anybody asks
  for (refused = 1; refused <= kBlocks; ++refused) {
    calls = 0;
    DigestedBlocks blocks(korvexd::ExtraDigest::Sha256);
    for (unsigned i = 0; i < kBlocks; ++i) {
      blocks.current();
      blocks.submit(DigestedBlocks::kBlockSize);
    }
    EXPECT_THROW(blocks.hex(), std::runtime_error) << "block " << refused;
  }
}
