#ifndef KORVEXD_EXTRA_DIGEST_H
#define KORVEXD_EXTRA_DIGEST_H

namespace korvexd {

/// The digest that is computed of a stored stream beside its XXH3.
enum class ExtraDigest { None, Sha256 };

}  // namespace korvexd

#endif
