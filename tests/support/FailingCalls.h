#ifndef TESTS_SUPPORT_FAILING_CALLS_H
#define TESTS_SUPPORT_FAILING_CALLS_H

#include <atomic>
#include <string>
#include <vector>

namespace korvex::test {

/// The page that a test shares with a program whose calls are to fail.
struct FailureOrder {
  enum class Kind {
    Single,
    Lasting,
    Hanging  ///< until the next order, and then the call is made
  };

  std::atomic<int> callsUntilFailure;  ///< 0: none fails
  std::atomic<int> error;
  std::atomic<Kind> kind;
  std::atomic<bool> happened;
};

/// Names of the variables that tell the preloaded library what to do.
constexpr const char* kFailingFolderVariable = "KORVEX_TEST_FAILING_FOLDER";
constexpr const char* kFailureOrderVariable = "KORVEX_TEST_FAILURE_ORDER";

/// Makes a program's system calls in one folder fail, as those on a full, broken or read-only disk
/// do.
///
/// The program runs with a preloaded library: of its calls that open, make, write, sync or rename
/// anything in the folder, the ordered one fails.
class FailingCalls {
 public:
  /// `orders` is a file that does not exist yet.
  FailingCalls(const std::string& folder, const std::string& orders);
  ~FailingCalls();
  FailingCalls(const FailingCalls&) = delete;
  FailingCalls& operator=(const FailingCalls&) = delete;

  /// What to put before a command.
  std::vector<std::string> prefix() const;

  /// The call with this number from now on (1 is the next) fails with this errno; with `Lasting`
  /// all later ones too, until the next order. With `Hanging` it does not return until then.
  void fail(int call, int error, FailureOrder::Kind kind);

  /// Whether a call failed, or hangs, since fail().
  bool hasHappened() const { return order_->happened; }

  /// Nothing fails from now on. Returns whether anything did since fail().
  bool stop();

 private:
  std::string folder_;
  std::string orders_;
  FailureOrder* order_;
};

}  // namespace korvex::test

#endif
