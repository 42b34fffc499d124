#include "korvex/ServerInfo.h"

#include <boost/io/ios_state.hpp>

#include <ostream>

namespace korvex {
namespace {

constexpr std::uint8_t kFingerprintSha256 = 3;

/// The "0x" is the label's, so that it is there exactly once and in lower case whatever the caller
/// has set. The base must not leak: the numbers behind follow the caller's.
void printFlags(std::ostream& stream, unsigned int flags) {
  const boost::io::ios_flags_saver restoreAtEnd(stream);
  stream << ", Flags=0x" << std::hex << std::noshowbase << std::nouppercase << flags;
}

}  // namespace

ServerInfo::ServerInfo(const std::string& serverName, const std::string& user,
                       const std::string& passwd, const std::string& agentCfg,
                       const std::string& currentRoutingTable,
                       const std::string& recommendRoutingTable, const std::string& keyDir)
    : serverName_(serverName),
      user_(user),
      passwd_(passwd),
      agentCfg_(agentCfg),
      currentRoutingTable_(currentRoutingTable),
      recommendRoutingTable_(recommendRoutingTable),
      keyDir_(keyDir),
      flags_(0),
      reconnectTimeout_(-1),
      bandwidthLimit_(0),
      fpType_(1),
      lastFPType_(kFingerprintSha256),
      clusterMode_(0xFFFFFFFF) {}

bool ServerInfo::reuseMD5ForSHA256() const {
  return lastFPType_ != kFingerprintSha256 && fpType_ == kFingerprintSha256;
}

std::ostream& operator<<(std::ostream& stream, const ServerInfo& info) {
  // A width would tear the first label from its value.
  stream.width(0);
  stream << "ServerName=" << info.getServerName() << ", User=" << info.getUser()
         << ", AgentCfg=" << info.getAgentCfg()
         << ", CurrentRoute=" << info.getCurrentRoutingTable()
         << ", RecommendedRoute=" << info.getRecommendRoutingTable()
         << ", KeyDir=" << info.getKeyDir();
  if (info.hasFlags()) printFlags(stream, info.getFlags());
  if (info.hasReconnectTimeout()) stream << ", ReconnectTimeout=" << info.getReconnectTimeout();
  if (info.hasBandwidthLimit()) stream << ", BandwidthLimit=" << info.getBandwidthLimit();
  if (info.hasLocalIp()) stream << ", LocalIp=" << info.getLocalIp();
  if (info.hasInterfaceIp()) stream << ", InterfaceIp=" << info.getInterfaceIp();
  if (info.hasInterfaceName()) stream << ", InterfaceName=" << info.getInterfaceName();
  // Lower case unlike the other labels: programs that read these lines look for it so. The byte is
  // widened, or it would print as a character.
  if (info.hasFPType()) stream << ", fptype=" << static_cast<int>(info.getFPType());
  if (info.hasClusterMode()) stream << ", ClusterMode=" << info.getClusterMode();
  if (info.hasClusterName()) stream << ", ClusterName=" << info.getClusterName();
  return stream;
}

}  // namespace korvex
