#include "ChainLane.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include "Source.h"
#include "support/Await.h"
#include "support/EngineProcesses.h"

namespace korvex::test {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::microseconds kPeriod{100};
constexpr int kKilled = -SIGKILL;
constexpr int kFailed = 1;
constexpr int kNoReceipt = 3;
constexpr int kHangs = -1000;
constexpr std::chrono::seconds kEndOfAll{10};

/// The child that this process has now, or had when it was looked at; 0 for none. Much faster than
/// a look at all processes.
pid_t childOf(pid_t parent) {
  const fs::path tasks = "/proc/" + std::to_string(parent) + "/task";
  std::error_code gone;
  for (const auto& task : fs::directory_iterator(tasks, gone)) {
    pid_t child = 0;
    if (std::ifstream(task.path() / "children") >> child) return child;
  }
  return 0;
}

/// Held by a descriptor, so that another process that gets its id is not killed in its place.
class Victim {
 public:
  explicit Victim(pid_t id) : descriptor_(static_cast<int>(::syscall(SYS_pidfd_open, id, 0U))) {}
  ~Victim() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  Victim(Victim&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Victim& operator=(Victim&&) = delete;

  /// False when it is gone.
  bool kill() const {
    return ::syscall(SYS_pidfd_send_signal, descriptor_, SIGKILL, nullptr, 0U) == 0;
  }

 private:
  int descriptor_;
};

/// Texts that blame somebody.
struct Blame {
  const char* text;
  Part part;
};

constexpr Blame kBlames[] = {{"was ended by signal 9", Part::Command},
                             {"the engine's keeper was killed", Part::Keeper},
                             {"the engine was killed by signal 9", Part::Engine}};

bool isDocumented(int code) {
  return code == 0 || code == kFailed || code == kNoReceipt || code == kKilled;
}

std::string textOf(int code) {
  if (code == 0) return "sender says stored";
  if (code == kNoReceipt) return "sender cannot tell";
  return code == kKilled ? "sender killed" : "sender says failed";
}

}  // namespace

ChainLane::ChainLane(const Settings& settings, std::string engine, Victims victims)
    : Lane(settings), engine_(std::move(engine)), victims_(victims) {}

/// Keepers kill what is left of engines, once the daemon is gone.
ChainLane::~ChainLane() {
  daemon_.reset();
  if (!eventually([this] { return processesFor(settings_.name).empty(); }, kEndOfAll)) killLeft();
}

void ChainLane::prepare() { store_ = makeChainStore(engine_, (folder_ / "store").string()); }

std::vector<std::string> ChainLane::daemonCommand() const {
  std::vector<std::string> command = {"/usr/bin/env"};
  for (const std::string& variable : store_->variables()) command.push_back(variable);
  command.insert(command.end(), {settings_.daemon, "--exec", store_->command()});
  return command;
}

void ChainLane::strike() {
  ChainPlan plan = drawChainPlan(dice_, victims_, store_->spans());
  store_->slowDown(plan.pace);
  Stream stream = start(plan);
  if (awaitMoment(plan, stream) && kill(plan, stream)) {
    ++tally_.kills;
  } else {
    count("  nobody was there to kill");
    plan.victims.clear();
  }
  if (plan.kills(Part::Daemon)) {
    daemon_->killNow();
    if (plan.isDaemonLate) stream.sender->wait();
    startDaemon();
    awaitServing();
  }
  finish(plan, stream);
  sendNext(plan);
  awaitNobody();
  if (store_->isCheap()) lookAtStore();
}

/// All that takes part has the queue's name in its environment, to be found by it.
ChainLane::Stream ChainLane::start(const ChainPlan& plan) {
  const std::uint64_t number = nextNumber_++;
  const std::string progress = (folder_ / ("progress-" + std::to_string(number))).string();
  auto counter = std::make_unique<SharedCounter>(progress);
  // With a daemon that is late, it is these times that the sender waits for.
  const bool isHurried = plan.kills(Part::Daemon) && plan.isDaemonLate;
  const std::vector<std::string> command = {"/usr/bin/env",
                                            "KORVEX_QUEUE=" + settings_.name,
                                            KORVEX_PROGRAM,
                                            "send",
                                            "--queue",
                                            settings_.name,
                                            "--json",
                                            "--timeout",
                                            isHurried ? "2" : "30",
                                            "--receipt-timeout",
                                            isHurried ? "6" : "30",
                                            "--from-command",
                                            "--",
                                            settings_.self,
                                            "--source",
                                            progress,
                                            "--number",
                                            std::to_string(number),
                                            "--size",
                                            std::to_string(plan.size),
                                            "--lingering",
                                            std::to_string(plan.lingering)};
  return {number, Source::piecesOf(plan.size), std::move(counter),
          std::make_unique<Process>(command)};
}

/// False when the stream was over before.
bool ChainLane::awaitMoment(const ChainPlan& plan, Stream& stream) const {
  const auto hasCome = [&] {
    switch (plan.moment) {
      case Moment::Start:
        return true;
      case Moment::Midstream:
        return stream.progress->value() >= plan.piece;
      case Moment::Close:
        return stream.progress->value() >= stream.pieces;
      case Moment::Finish:
        return stream.progress->value() > stream.pieces && store_->hasRead(plan.size);
    }
    return false;
  };
  const auto end = Clock::now() + kPatience;
  while (!hasCome()) {
    if (stream.sender->wait(std::chrono::milliseconds(0)) || Clock::now() >= end) return false;
    std::this_thread::sleep_for(kPeriod);
  }
  return true;
}

/// Waits until all victims are there, and counts whom it has killed. False for nobody.
bool ChainLane::kill(const ChainPlan& plan, Stream& stream) {
  std::vector<Victim> victims;
  for (const Part part : plan.victims) {
    pid_t id = 0;
    while ((id = find(part, stream)) == 0) {
      if (stream.sender->wait(std::chrono::milliseconds(0))) return false;
      std::this_thread::sleep_for(kPeriod);
    }
    victims.emplace_back(id);
    if (find(part, stream) != id) return false;
  }
  std::this_thread::sleep_for(plan.delay);
  std::string names;
  for (std::size_t i = 0; i < victims.size(); ++i) {
    if (i > 0 && plan.gap.count() > 0) std::this_thread::sleep_for(plan.gap);
    if (victims[i].kill()) names += (names.empty() ? "" : " and ") + nameOf(plan.victims[i]);
  }
  if (names.empty()) return false;
  count("killed: " + names);
  count("killed " + nameOf(plan.moment));
  return true;
}

pid_t ChainLane::find(Part part, const Stream& stream) const {
  switch (part) {
    case Part::Command:
      return childOf(stream.sender->id());
    case Part::Sender:
      return stream.sender->id();
    case Part::Daemon:
      return daemon_->id();
    case Part::Keeper:
      return childOf(daemon_->id());
    case Part::Engine:
      const pid_t keeper = childOf(daemon_->id());
      return keeper == 0 ? 0 : childOf(keeper);
  }
  return 0;
}

/// Waits for the sender, and notes how it ended.
void ChainLane::finish(const ChainPlan& plan, Stream& stream) {
  const auto code = stream.sender->wait();
  if (!code) {
    complain("a sender did not end");
    stream.sender->killNow();
  }
  const auto said = nlohmann::json::parse(stream.sender->output(), nullptr, false);
  sent_.push_back({index_, stream.number, plan, code.value_or(kHangs),
                   said.is_object() ? said.value("message", "") : "",
                   stream.progress->value() > stream.pieces});
  fs::remove(folder_ / ("progress-" + std::to_string(stream.number)));
}

/// The chain works again. A sender that was killed may have left a locked queue; then the daemon
/// makes it again, and a stream that was begun on the old one is lost.
void ChainLane::sendNext(const ChainPlan& plan) {
  ChainPlan next = {};
  next.size = 16 + 8 * between(0, 20000);
  const auto end = Clock::now() + kPatience;
  for (;;) {
    Stream stream = start(next);
    finish(next, stream);
    if (sent_.back().code == 0) return;
    if (!plan.kills(Part::Sender) || Clock::now() >= end) {
      return complain("the next stream failed: " + sent_.back().message);
    }
    count("  next stream failed and was sent again");
  }
}

void ChainLane::awaitNobody() {
  if (!eventually([this] { return processesFor(settings_.name).empty(); })) {
    complain("processes were left behind");
    killLeft();
  }
  if (!eventually([this] { return childOf(daemon_->id()) == 0; })) {
    complain("the daemon has a child that nobody waits for");
  }
}

void ChainLane::killLeft() const {
  for (const pid_t process : processesFor(settings_.name)) ::kill(process, SIGKILL);
}

void ChainLane::lookAtEnd() { lookAtStore(); }

void ChainLane::lookAtStore() {
  store_->show([this](const auto& name, const auto& bytes) { lookAtStored(name, bytes); });
  for (const Sent& sent : sent_) judge(sent);
  sent_.clear();
}

void ChainLane::judge(const Sent& sent) {
  const bool isStored = stored_.count(sent.number) != 0;
  const ChainPlan& plan = sent.plan;
  const bool mayFailStored =
      plan.kills(Part::Daemon) || plan.kills(Part::Keeper) || plan.kills(Part::Engine);
  if (!plan.victims.empty()) {
    count("  " + textOf(sent.code) + (isStored ? ", stored" : ", not stored"));
  }
  if (sent.code == 0 && !isStored) complainOf(sent, "was not stored, its sender says it was");
  if (isStored && !sent.isCommandDone) complainOf(sent, "was stored before its command had ended");
  if (isStored && sent.code > 0 && !mayFailStored) complainOf(sent, "was stored for no one");
  if (sent.code == kNoReceipt && !plan.kills(Part::Daemon)) complainOf(sent, "got no receipt");
  if (sent.code == kKilled && !plan.kills(Part::Sender)) complainOf(sent, "lost its sender");
  if (!isDocumented(sent.code)) complainOf(sent, "had a sender that broke");
  for (const Blame& blame : kBlames) {
    const bool isBlamed = sent.message.find(blame.text) != std::string::npos;
    if (isBlamed && !plan.kills(blame.part)) complainOf(sent, "blames who lives");
  }
}

void ChainLane::complainOf(const Sent& sent, const std::string& what) {
  complain(sent.index, "stream " + std::to_string(sent.number) + " " + what + " (exit code " +
                           std::to_string(sent.code) + ", " + sent.message + ")");
}

}  // namespace korvex::test
