// ZeroMQ, push and pull over its ipc transport.
#include <cstring>
#include <stdexcept>
#include <string>
#include <zmq.h>

#include "Transports.h"

namespace bench {
namespace {

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string(what) + ": " + zmq_strerror(zmq_errno()));
}

/// A context with one socket.
class Socket {
 public:
  Socket(int type, const Settings& settings) : context_(zmq_ctx_new()) {
    check(context_ != nullptr, "zmq_ctx_new");
    socket_ = zmq_socket(context_, type);
    check(socket_ != nullptr, "zmq_socket");
    // Single records keep the default of 1000 messages under way.
    if (settings.framing == Framing::Record) return;
    const int depth = static_cast<int>(settings.depth);
    check(zmq_setsockopt(socket_, ZMQ_SNDHWM, &depth, sizeof depth) == 0, "ZMQ_SNDHWM");
    check(zmq_setsockopt(socket_, ZMQ_RCVHWM, &depth, sizeof depth) == 0, "ZMQ_RCVHWM");
  }
  ~Socket() {
    zmq_close(socket_);
    zmq_ctx_term(context_);
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  void* get() const { return socket_; }

 private:
  void* context_;
  void* socket_;
};

class ZeroMqSender : public Sender {
 public:
  ZeroMqSender(const Settings& settings, const std::string& address) : socket_(ZMQ_PUSH, settings) {
    check(zmq_connect(socket_.get(), address.c_str()) == 0, "zmq_connect");
  }

  void send(Bytes head, Bytes body) override {
    zmq_msg_t message;
    check(zmq_msg_init_size(&message, head.size + body.size) == 0, "zmq_msg_init_size");
    auto* const bytes = static_cast<unsigned char*>(zmq_msg_data(&message));
    std::memcpy(bytes, head.data, head.size);
    if (body.size != 0) std::memcpy(bytes + head.size, body.data, body.size);
    check(zmq_msg_send(&message, socket_.get(), 0) >= 0, "zmq_msg_send");
  }

 private:
  Socket socket_;
};

class ZeroMqReceiver : public Receiver {
 public:
  ZeroMqReceiver(const Settings& settings, const std::string& address)
      : socket_(ZMQ_PULL, settings) {
    check(zmq_bind(socket_.get(), address.c_str()) == 0, "zmq_bind");
    zmq_msg_init(&message_);
  }
  ~ZeroMqReceiver() override { zmq_msg_close(&message_); }

  Bytes receive() override {
    check(zmq_msg_recv(&message_, socket_.get(), 0) >= 0, "zmq_msg_recv");
    return {static_cast<const unsigned char*>(zmq_msg_data(&message_)), zmq_msg_size(&message_)};
  }

 private:
  Socket socket_;
  zmq_msg_t message_;
};

class ZeroMqTransport : public Transport {
 public:
  explicit ZeroMqTransport(const Settings& settings)
      : settings_(settings), address_("ipc://@" + settings.name) {}

  std::unique_ptr<Producer> openProducer() override {
    return makeProducer(settings_, std::make_unique<ZeroMqSender>(settings_, address_));
  }

  std::unique_ptr<Receiver> openReceiver() override {
    return std::make_unique<ZeroMqReceiver>(settings_, address_);
  }

 private:
  Settings settings_;
  std::string address_;  ///< abstract: leaves no file behind
};

}  // namespace

std::unique_ptr<Transport> makeZeroMq(const Settings& settings) {
  return std::make_unique<ZeroMqTransport>(settings);
}

}  // namespace bench
