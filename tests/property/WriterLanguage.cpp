#include "property/WriterLanguage.h"

#include <algorithm>
#include <stdexcept>

namespace korvex::test {
namespace {

QueueLimits limitsOf(std::uint64_t messages, std::uint64_t messageSize) {
  return {std::max<std::uint64_t>(messages, 1), std::max<std::uint64_t>(messageSize, 1)};
}

}  // namespace

const Language& writerLanguage() {
  static const Language language{
      "writer",
      {{"queues",
        {{"size", 300}, {"depth", 2}, {"replySize", 132}, {"replyDepth", 2}, {"missing", 0}},
        false},
       {"construct", {{"timeout", 30}, {"stopTimeout", 0}, {"benchmark", 0}}, true},
       {"destroy", {}, false},
       {"open", {}, false},
       {"close", {}, false},
       {"stop", {{"useStopTimeout", 0}}, false},
       {"algorithm", {{"state", 0}, {"p1", 0}, {"p2", 0}, {"p3", 0}}, false},
       {"segment", {{"length", 0}, {"data", 1}}, false},
       {"end", {}, false},
       {"write", headerAnd({{"data", 0}, {"timeout", 0}, {"flush", 0}}), false},
       {"flush", {{"timeout", 0}}, false},
       {"take", {}, false},
       {"drain", {}, false},
       {"fill", {{"priority", 0}}, false},
       {"locale", {{"grouping", 0}}, false},
       {"reply", {{"status", 0}, {"size", 132}, {"priority", 0}}, true}}};
  return language;
}

void WriterWorld::act(const Operation& operation) {
  const std::string verb = operation.verb->name;
  if (verb == "queues") return makeQueues(operation);
  if (verb == "construct") {
    destroy();
    say(logged());
    return construct({operation.text, operation.low("timeout"), operation.low("stopTimeout"),
                      operation["benchmark"] != 0});
  }
  if (verb == "reply") return reply(operation);
  if (verb == "locale") return setGrouping(operation["grouping"] != 0);
  if (verb == "take") return take();
  if (verb == "drain") return drain();
  if (verb == "fill") return fill(operation.low("priority"));
  if (response()) actOnWriter(operation);
}

void WriterWorld::actOnWriter(const Operation& operation) {
  const std::string verb = operation.verb->name;
  if (verb == "destroy") return destroy();
  if (verb == "open") return open();
  if (verb == "close") return close();
  if (verb == "stop") return stop(operation["useStopTimeout"] != 0);
  if (verb == "algorithm") {
    return setAlgorithm(
        {operation.low("state"), {operation["p1"], operation["p2"], operation["p3"]}});
  }
  if (verb == "segment") {
    const Bytes data = dataOf(operation.low("length"), operation["data"]);
    return writeSegment({{}, data, operation["data"] == 0}, operation["length"]);
  }
  if (verb == "end") return endSegment();
  if (verb == "write") {
    return write(itemOf(operation), operation.low("timeout"), operation["flush"] != 0);
  }
  if (verb == "flush") return flush(operation.low("timeout"));
  throw std::logic_error("nobody knows " + verb);
}

void WriterWorld::showState() {
  say(logged());
  for (const QueueEnd* queue : {sendQueue(), replyQueue()}) {
    say(queue == nullptr ? ", no queue" : ", queue holds " + std::to_string(queue->messages()));
  }
  const std::optional<Bytes> last = response();
  say(last ? ", writer" : ", no writer");
  if (last) show(*last);
}

void WriterWorld::makeQueues(const Operation& operation) {
  destroy();
  const QueueLimits send = limitsOf(operation["depth"], operation["size"]);
  const QueueLimits reply = limitsOf(operation["replyDepth"], operation["replySize"]);
  const std::uint64_t missing = operation["missing"];
  makeQueues(missing == 1 ? std::nullopt : std::optional(send),
             missing == 2 ? std::nullopt : std::optional(reply));
}

void WriterWorld::take() {
  if (sendQueue() == nullptr) return;
  const std::optional<QueueMessage> message = sendQueue()->take();
  if (!message) return;
  say("message of priority " + std::to_string(message->priority) + "; ");
  show(message->bytes);
}

void WriterWorld::drain() {
  while (sendQueue() != nullptr && sendQueue()->messages() > 0) take();
}

/// With what a foreign producer puts into the send queue.
void WriterWorld::fill(unsigned priority) {
  while (sendQueue() != nullptr && sendQueue()->send({priority, Bytes(1, 'x')})) {
  }
}

/// Its first `size` bytes, as far as they fit.
void WriterWorld::reply(const Operation& operation) {
  if (replyQueue() == nullptr) return;
  Bytes bytes = replyBytes(operation.low("status"), operation.text);
  bytes.resize(
      std::min<std::uint64_t>({operation["size"], replyQueue()->messageSize(), bytes.size()}));
  replyQueue()->send({operation.low("priority"), bytes});
}

}  // namespace korvex::test
