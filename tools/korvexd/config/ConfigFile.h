#ifndef KORVEXD_CONFIG_FILE_H
#define KORVEXD_CONFIG_FILE_H

#include <string>
#include <vector>

#include "korvexd/config/Value.h"

namespace korvexd {

/// What a configuration file says, table by table, and everything that is wrong with it. The
/// values are for use when nothing is.
struct ConfigFile {
  struct Queue {
    std::string name;  ///< without leading slash
    Origin origin;
    Layer values;
  };

  Layer daemon;
  Layer defaults;
  std::vector<Queue> queues;  ///< in the order of the file
  std::vector<Mistake> mistakes;
};

/// Reads TOML. After a syntax error the rest of the file cannot be parsed.
ConfigFile parseConfigFile(const std::string& text);

/// Throws SystemError when the file cannot be read, std::runtime_error when it is a folder, a pipe
/// or anything else but a file.
ConfigFile readConfigFile(const std::string& path);

}  // namespace korvexd

#endif
