#ifndef KORVEX_SERVER_INFO_H
#define KORVEX_SERVER_INFO_H

#include <cstdint>
#include <iosfwd>
#include <string>

#include "korvex/Export.h"

namespace korvex {

/// Everything that a client needs to reach and use a server, as one plain value.
///
/// The seven connection strings are fixed at construction. Every other setting may be absent: it
/// then holds the value that its presence test compares with. Setters check nothing, and storing
/// that value makes a setting absent again. The record only carries its settings; units and the
/// meaning of bits and modes are up to the code that fills and reads it.
///
/// Copies are independent of each other. Concurrent reads are safe; a write needs the record to
/// itself.
class KORVEX_EXPORT ServerInfo {
 public:
  /// Checks nothing. All other settings are absent, but for the fingerprint type.
  ServerInfo(const std::string& serverName, const std::string& user, const std::string& passwd,
             const std::string& agentCfg, const std::string& currentRoutingTable,
             const std::string& recommendRoutingTable, const std::string& keyDir);

  /// @{
  /// The stored value, present or not. A reference is valid until the field is set or the record is
  /// destroyed.
  const std::string& getServerName() const { return serverName_; }
  const std::string& getUser() const { return user_; }
  const std::string& getPasswd() const { return passwd_; }
  const std::string& getAgentCfg() const { return agentCfg_; }
  const std::string& getCurrentRoutingTable() const { return currentRoutingTable_; }
  const std::string& getRecommendRoutingTable() const { return recommendRoutingTable_; }
  const std::string& getKeyDir() const { return keyDir_; }

  unsigned int getFlags() const { return flags_; }
  int getReconnectTimeout() const { return reconnectTimeout_; }
  int getBandwidthLimit() const { return bandwidthLimit_; }
  const std::string& getLocalIp() const { return localIp_; }
  const std::string& getInterfaceIp() const { return interfaceIp_; }
  const std::string& getInterfaceName() const { return interfaceName_; }
  unsigned char getFPType() const { return fpType_; }
  unsigned int getClusterMode() const { return clusterMode_; }
  const std::string& getClusterName() const { return clusterName_; }
  /// @}

  /// 0 means absent: no flag is set.
  bool hasFlags() const { return flags_ != 0; }

  /// 0 and every negative value but -1 count as present.
  bool hasReconnectTimeout() const { return reconnectTimeout_ != -1; }

  /// Negative values count as present.
  bool hasBandwidthLimit() const { return bandwidthLimit_ != 0; }

  /// @{
  /// The empty text means absent.
  bool hasLocalIp() const { return !localIp_.empty(); }
  bool hasInterfaceIp() const { return !interfaceIp_.empty(); }
  bool hasInterfaceName() const { return !interfaceName_.empty(); }
  bool hasClusterName() const { return !clusterName_.empty(); }
  /// @}

  /// True from the start, with type 1; only 255 means absent.
  bool hasFPType() const { return fpType_ != 0xFF; }

  /// 0 is a mode like any other; only 0xFFFFFFFF means absent.
  bool hasClusterMode() const { return clusterMode_ != 0xFFFFFFFF; }

  /// @{
  /// Any value may be stored; the one that means absent makes the setting absent.
  void setFlags(unsigned int flags) { flags_ = flags; }
  void setReconnectTimeout(int timeout) { reconnectTimeout_ = timeout; }
  void setBandwidthLimit(int limit) { bandwidthLimit_ = limit; }
  void setLocalIp(const std::string& address) { localIp_ = address; }
  void setInterfaceIp(const std::string& address) { interfaceIp_ = address; }
  void setInterfaceName(const std::string& name) { interfaceName_ = name; }
  void setClusterMode(unsigned int mode) { clusterMode_ = mode; }
  void setClusterName(const std::string& name) { clusterName_ = name; }
  /// @}

  /// The fingerprint type now in use. Leaves the previous run's type alone.
  void setFPType(unsigned char type) { fpType_ = type; }

  /// The fingerprint type of the previous run. Can be queried only through reuseMD5ForSHA256().
  void setLastFPType(unsigned char type) { lastFPType_ = type; }

  /// True when the record asks for SHA-256 fingerprints (type 3) and the previous run used any
  /// other type.
  bool reuseMD5ForSHA256() const;

 private:
  // The order of the members is part of the binary interface.
  std::string serverName_;
  std::string user_;
  std::string passwd_;
  std::string agentCfg_;
  std::string currentRoutingTable_;
  std::string recommendRoutingTable_;
  std::string keyDir_;
  std::uint32_t flags_;
  std::int32_t reconnectTimeout_;
  std::int32_t bandwidthLimit_;
  std::string localIp_;
  std::string interfaceIp_;
  std::string interfaceName_;
  std::uint8_t fpType_;
  std::uint8_t lastFPType_;
  std::uint32_t clusterMode_;
  std::string clusterName_;
};

/// One diagnostic line for logs, without a line end: never contains the password, omits absent
/// settings.
///
/// Flags are always lower-case hexadecimal after one "0x"; the other numbers follow the stream's
/// settings, which stay unchanged. A field width is consumed without padding anything. Strings are
/// not quoted, so a value that contains ", " makes the line ambiguous.
KORVEX_EXPORT std::ostream& operator<<(std::ostream& stream, const ServerInfo& info);

}  // namespace korvex

#endif
