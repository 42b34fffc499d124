#ifndef KORVEX_TOOL_VERIFY_H
#define KORVEX_TOOL_VERIFY_H

#include <iosfwd>
#include <string>
#include <vector>

#include "Ending.h"
#include "Progress.h"
#include "StopSignal.h"

namespace CLI {
class App;
}

namespace korvex::tool {

/// What the command line of `korvex verify` says.
struct VerifyOptions {
  unsigned jobs = 0;  ///< threads; 0 is one for each core
  bool quick = false;
  bool quiet = false;
  bool json = false;
  std::vector<std::string> folders;
};

/// Declares the subcommand; `options` is filled when the command line is parsed.
CLI::App* declareVerify(CLI::App& tool, VerifyOptions& options);

/// Checks stored streams against their manifests. The listing goes to `out`, and folders that
/// cannot be read are reported on `errors`.
Ending runVerify(const VerifyOptions& options, const StopSignal& stop, Progress progress,
                 std::ostream& out, std::ostream& errors);

}  // namespace korvex::tool

#endif
