#include "korvex/receiver/Observer.h"
#include "korvex/receiver/Sink.h"

// The interfaces' vtables are emitted here, so that all binaries share them.
namespace korvex::receiver {

Sink::~Sink() = default;

void Sink::check() {}

std::string Sink::place() const { return ""; }

Observer::~Observer() = default;

void Observer::messageReceived(std::uint64_t, const unsigned char*, std::size_t) noexcept {}
void Observer::streamOpened(const std::string&) noexcept {}
void Observer::streamComplete(const StreamSummary&, const std::string&) noexcept {}
void Observer::streamIncomplete(const StreamSummary&, const std::string&,
                                const std::string&) noexcept {}
void Observer::abandoningFailed(const std::string&) noexcept {}
void Observer::batchRefused(std::uint64_t, const BatchCheck&) noexcept {}
void Observer::recordRefused(const std::string&) noexcept {}
void Observer::queuesLost(const std::string&) noexcept {}
void Observer::queuesNotReplaced(const std::string&) noexcept {}
void Observer::queuesReplaced() noexcept {}
void Observer::settingsChanged() noexcept {}

void Observer::settingsNotChanged(const std::string&) noexcept {}

void Observer::messagesLeft(std::size_t) noexcept {}
void Observer::working() noexcept {}
void Observer::waiting() noexcept {}

}  // namespace korvex::receiver
