// nng, push and pull over its ipc transport.
#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <stdexcept>
#include <string>

#include "Transports.h"

namespace bench {
namespace {

void check(int error, const char* what) {
  if (error != 0) throw std::runtime_error(std::string(what) + ": " + nng_strerror(error));
}

class NngSender : public Sender {
 public:
  explicit NngSender(const Settings& settings) {
    check(nng_push0_open(&socket_), "nng_push0_open");
    if (settings.framing != Framing::Record) {
      check(nng_socket_set_int(socket_, NNG_OPT_SENDBUF, static_cast<int>(settings.depth)),
            "NNG_OPT_SENDBUF");
    }
    const std::string address = "abstract://" + settings.name;
    check(nng_dial(socket_, address.c_str(), nullptr, 0), "nng_dial");
  }
  ~NngSender() override { nng_close(socket_); }

  void send(Bytes head, Bytes body) override {
    nng_msg* message = nullptr;
    check(nng_msg_alloc(&message, 0), "nng_msg_alloc");
    check(nng_msg_reserve(message, head.size + body.size), "nng_msg_reserve");
    check(nng_msg_append(message, head.data, head.size), "nng_msg_append");
    if (body.size != 0) check(nng_msg_append(message, body.data, body.size), "nng_msg_append");
    check(nng_sendmsg(socket_, message, 0), "nng_sendmsg");
  }

 private:
  nng_socket socket_ = NNG_SOCKET_INITIALIZER;
};

class NngReceiver : public Receiver {
 public:
  explicit NngReceiver(const Settings& settings) {
    check(nng_pull0_open(&socket_), "nng_pull0_open");
    check(nng_socket_set_size(socket_, NNG_OPT_RECVMAXSZ, 0), "NNG_OPT_RECVMAXSZ");
    const std::string address = "abstract://" + settings.name;
    check(nng_listen(socket_, address.c_str(), nullptr, 0), "nng_listen");
  }
  ~NngReceiver() override {
    nng_msg_free(message_);
    nng_close(socket_);
  }

  Bytes receive() override {
    nng_msg_free(message_);
    message_ = nullptr;
    check(nng_recvmsg(socket_, &message_, 0), "nng_recvmsg");
    return {static_cast<const unsigned char*>(nng_msg_body(message_)), nng_msg_len(message_)};
  }

 private:
  nng_socket socket_ = NNG_SOCKET_INITIALIZER;
  nng_msg* message_ = nullptr;
};

class NngTransport : public Transport {
 public:
  explicit NngTransport(const Settings& settings) : settings_(settings) {}

  std::unique_ptr<Producer> openProducer() override {
    return makeProducer(settings_, std::make_unique<NngSender>(settings_));
  }

  std::unique_ptr<Receiver> openReceiver() override {
    return std::make_unique<NngReceiver>(settings_);
  }

 private:
  Settings settings_;
};

}  // namespace

std::unique_ptr<Transport> makeNng(const Settings& settings) {
  return std::make_unique<NngTransport>(settings);
}

}  // namespace bench
