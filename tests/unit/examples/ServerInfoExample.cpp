#include <iostream>
#include <korvex/ServerInfo.h>

int main() {
  korvex::ServerInfo info("backup1", "alice", "secret", "agent.cfg", "west", "east", "/etc/keys");
  std::cout << info << '\n';

  info.setFlags(0x1F);
  info.setReconnectTimeout(30);
  info.setInterfaceName("eth0");
  info.setFPType(3);      // SHA-256 from now on,
  info.setLastFPType(1);  // while the last run used another type
  std::cout << info << '\n';

  if (info.hasReconnectTimeout()) std::cout << "wait for " << info.getReconnectTimeout() << '\n';
  if (info.reuseMD5ForSHA256()) std::cout << "old fingerprints serve once more\n";
}
