#include "qmx/error.h"

Ov_ErrnoException::Ov_ErrnoException(ov_status_t status, const std::string& message,
                                     const std::string& location)
    : status_(status), message_(message), location_(location) {}

Ov_ErrnoException::Ov_ErrnoException(const Ov_ErrnoException&) = default;

Ov_ErrnoException& Ov_ErrnoException::operator=(const Ov_ErrnoException&) = default;

Ov_ErrnoException::~Ov_ErrnoException() noexcept = default;

const char* Ov_ErrnoException::what() const noexcept { return message_.c_str(); }
