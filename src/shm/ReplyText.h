#ifndef KORVEX_SHM_REPLY_TEXT_H
#define KORVEX_SHM_REPLY_TEXT_H

#include <cstring>
#include <string>

#include "korvex/ShmCommon.h"

namespace korvex {

/// A reply's text. A daemon may use all 128 bytes of the field, without a NUL.
inline std::string replyText(const qmx_shm_response_t& untrusted) {
  return {untrusted.message, ::strnlen(untrusted.message, sizeof untrusted.message)};
}

}  // namespace korvex

#endif
