#include "korvex/ServerInfo.h"

#include <charconv>
#include <ostream>
#include <string_view>

namespace korvex {
namespace {

constexpr std::uint8_t kFingerprintSha256 = 3;

/// The "0x" is part of the label, and the digits bypass the stream's formatting: base, case and
/// grouping that the caller has set affect only the other numbers.
void printFlags(std::ostream& stream, unsigned int flags) {
  char digits[8];
  const char* const end = std::to_chars(digits, digits + sizeof digits, flags, 16).ptr;
  stream << ", Flags=0x" << std::string_view(digits, static_cast<std::size_t>(end - digits));
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
  // Otherwise a field width would pad the first label.
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
  // Lower case, unlike the other labels, because programs that read these lines look for it.
  // Widened, or the byte would print as a character.
  if (info.hasFPType()) stream << ", fptype=" << static_cast<int>(info.getFPType());
  if (info.hasClusterMode()) stream << ", ClusterMode=" << info.getClusterMode();
  if (info.hasClusterName()) stream << ", ClusterName=" << info.getClusterName();
  return stream;
}

}  // namespace korvex
