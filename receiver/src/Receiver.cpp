#include "korvex/receiver/Receiver.h"

#include "QueueServer.h"

namespace korvex::receiver {

class Receiver::Implementation : public QueueServer {
  using QueueServer::QueueServer;
};

Receiver::Receiver(Settings settings, SinkFactory openSink, Observer& observer)
    : implementation_(
          std::make_unique<Implementation>(std::move(settings), std::move(openSink), observer)) {}

Receiver::~Receiver() = default;

void Receiver::run(const std::atomic<bool>& stop) noexcept { implementation_->run(stop); }

void Receiver::change(const Settings& settings, SinkFactory openSink) {
  implementation_->change(settings, std::move(openSink));
}

void Receiver::retire() noexcept { implementation_->retire(); }

bool Receiver::hasRetired() const noexcept { return implementation_->hasRetired(); }

bool Receiver::step() noexcept { return implementation_->serveOnce(); }

const std::string& Receiver::queue() const noexcept { return implementation_->queue(); }

const Counters& Receiver::counters() const noexcept { return implementation_->counters(); }

}  // namespace korvex::receiver
