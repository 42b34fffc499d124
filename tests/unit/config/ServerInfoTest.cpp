#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <type_traits>

#include "korvex/ServerInfo.h"
#include "support/OstreamFormat.h"

using korvex::ServerInfo;

namespace {

constexpr unsigned char kNoType = 255;
constexpr unsigned char kSha256 = 3;

const char* const kAlwaysThere =
    "ServerName=srv, User=u, AgentCfg=cfg, CurrentRoute=r1, RecommendedRoute=r2, KeyDir=/k";

ServerInfo freshRecord() { return ServerInfo("srv", "u", "pw", "cfg", "r1", "r2", "/k"); }

std::string printed(const ServerInfo& info) {
  std::ostringstream stream;
  stream << info;
  return stream.str();
}

/// What a fresh record without a fingerprint type prints behind the six strings.
std::string printedBehindStrings(ServerInfo info) {
  info.setFPType(kNoType);
  const std::string line = printed(info);
  EXPECT_EQ(line.substr(0, std::string(kAlwaysThere).size()), kAlwaysThere);
  return line.substr(std::string(kAlwaysThere).size());
}

ServerInfo recordWithNumbers() {
  ServerInfo info = freshRecord();
  info.setFlags(0xABCDEF);
  info.setReconnectTimeout(30);
  info.setBandwidthLimit(-5);
  info.setFPType(65);
  info.setClusterMode(255);
  return info;
}

/// Takes the given number of characters, then refuses all others.
class ShortBuffer : public std::streambuf {
 public:
  explicit ShortBuffer(int room) : left_(room) {}

 private:
  int_type overflow(int_type character) override {
    if (left_-- > 0) return traits_type::not_eof(character);
    throw std::runtime_error("no room");
  }

  int left_;
};

}  // namespace

TEST(ServerInfoType, IsAPlainValueMadeFromSevenStrings) {
  static_assert(!std::is_default_constructible<ServerInfo>::value, "has no empty state");
  static_assert(!std::is_polymorphic<ServerInfo>::value, "nothing overrides it");
  static_assert(std::is_copy_constructible<ServerInfo>::value, "");
  static_assert(std::is_nothrow_move_constructible<ServerInfo>::value,
                "a hand-written copy or destructor would have switched the move off");
}

TEST(ServerInfoType, AccessorsHaveTheTypesCallersWereBuiltWith) {
  static_assert(std::is_same<decltype(&ServerInfo::getServerName),
                             const std::string& (ServerInfo::*)() const>::value,
                "");
  static_assert(
      std::is_same<decltype(&ServerInfo::getFlags), unsigned int (ServerInfo::*)() const>::value,
      "");
  static_assert(
      std::is_same<decltype(&ServerInfo::getReconnectTimeout), int (ServerInfo::*)() const>::value,
      "");
  static_assert(
      std::is_same<decltype(&ServerInfo::getFPType), unsigned char (ServerInfo::*)() const>::value,
      "");
  static_assert(
      std::is_same<decltype(&ServerInfo::setFPType), void (ServerInfo::*)(unsigned char)>::value,
      "");
  static_assert(
      std::is_same<decltype(&ServerInfo::hasClusterMode), bool (ServerInfo::*)() const>::value, "");
}

TEST(ServerInfoFresh, KeepsTheSevenStringsInOrder) {
  const ServerInfo info = freshRecord();
  EXPECT_EQ(info.getServerName(), "srv");
  EXPECT_EQ(info.getUser(), "u");
  EXPECT_EQ(info.getPasswd(), "pw");
  EXPECT_EQ(info.getAgentCfg(), "cfg");
  EXPECT_EQ(info.getCurrentRoutingTable(), "r1");
  EXPECT_EQ(info.getRecommendRoutingTable(), "r2");
  EXPECT_EQ(info.getKeyDir(), "/k");
}

TEST(ServerInfoFresh, HoldsTheAbsentValues) {
  const ServerInfo info = freshRecord();
  EXPECT_EQ(info.getFlags(), 0u);
  EXPECT_EQ(info.getReconnectTimeout(), -1);
  EXPECT_EQ(info.getBandwidthLimit(), 0);
  EXPECT_EQ(info.getLocalIp(), "");
  EXPECT_EQ(info.getInterfaceIp(), "");
  EXPECT_EQ(info.getInterfaceName(), "");
  EXPECT_EQ(info.getFPType(), 1);
  EXPECT_EQ(info.getClusterMode(), 4294967295u);
  EXPECT_EQ(info.getClusterName(), "");
}

TEST(ServerInfoFresh, HasNothingButAFingerprintType) {
  const ServerInfo info = freshRecord();
  EXPECT_FALSE(info.hasFlags());
  EXPECT_FALSE(info.hasReconnectTimeout());
  EXPECT_FALSE(info.hasBandwidthLimit());
  EXPECT_FALSE(info.hasLocalIp());
  EXPECT_FALSE(info.hasInterfaceIp());
  EXPECT_FALSE(info.hasInterfaceName());
  EXPECT_TRUE(info.hasFPType());
  EXPECT_FALSE(info.hasClusterMode());
  EXPECT_FALSE(info.hasClusterName());
}

TEST(ServerInfoPresence, FlagsArePresentUnlessZero) {
  ServerInfo info = freshRecord();
  info.setFlags(4294967295u);
  EXPECT_TRUE(info.hasFlags());
  EXPECT_EQ(info.getFlags(), 4294967295u);
  EXPECT_EQ(printedBehindStrings(info), ", Flags=0xffffffff");
  info.setFlags(0);
  EXPECT_FALSE(info.hasFlags());
  EXPECT_EQ(printedBehindStrings(info), "");
}

TEST(ServerInfoPresence, OnlyMinusOneIsNoReconnectTimeout) {
  ServerInfo info = freshRecord();
  info.setReconnectTimeout(0);
  EXPECT_TRUE(info.hasReconnectTimeout());
  EXPECT_EQ(printedBehindStrings(info), ", ReconnectTimeout=0");
  info.setReconnectTimeout(-2);
  EXPECT_TRUE(info.hasReconnectTimeout());
  EXPECT_EQ(printedBehindStrings(info), ", ReconnectTimeout=-2");
  info.setReconnectTimeout(-1);
  EXPECT_FALSE(info.hasReconnectTimeout());
  EXPECT_EQ(printedBehindStrings(info), "");
}

TEST(ServerInfoPresence, NegativeBandwidthLimitsCount) {
  ServerInfo info = freshRecord();
  info.setBandwidthLimit(-5);
  EXPECT_TRUE(info.hasBandwidthLimit());
  EXPECT_EQ(info.getBandwidthLimit(), -5);
  EXPECT_EQ(printedBehindStrings(info), ", BandwidthLimit=-5");
  info.setBandwidthLimit(0);
  EXPECT_FALSE(info.hasBandwidthLimit());
  EXPECT_EQ(printedBehindStrings(info), "");
}

TEST(ServerInfoPresence, AddressesAndNamesArePresentUnlessEmpty) {
  ServerInfo info = freshRecord();
  info.setLocalIp("10.0.0.1");
  info.setInterfaceIp("10.0.0.2");
  info.setInterfaceName("eth0");
  info.setClusterName("east");
  EXPECT_TRUE(info.hasLocalIp() && info.hasInterfaceIp());
  EXPECT_TRUE(info.hasInterfaceName() && info.hasClusterName());
  EXPECT_EQ(printedBehindStrings(info),
            ", LocalIp=10.0.0.1, InterfaceIp=10.0.0.2, InterfaceName=eth0, ClusterName=east");
  info.setLocalIp("");
  info.setInterfaceIp("");
  info.setInterfaceName("");
  info.setClusterName("");
  EXPECT_FALSE(info.hasLocalIp() || info.hasInterfaceIp());
  EXPECT_FALSE(info.hasInterfaceName() || info.hasClusterName());
  EXPECT_EQ(printedBehindStrings(info), "");
}

TEST(ServerInfoPresence, EachStringSettingHasAFieldOfItsOwn) {
  ServerInfo info = freshRecord();
  info.setInterfaceIp("10.0.0.2");
  EXPECT_EQ(info.getInterfaceIp(), "10.0.0.2");
  EXPECT_EQ(info.getLocalIp() + info.getInterfaceName() + info.getClusterName(), "");
  EXPECT_EQ(printedBehindStrings(info), ", InterfaceIp=10.0.0.2");
}

TEST(ServerInfoPresence, FingerprintType255IsHiddenAndStillRead) {
  ServerInfo info = freshRecord();
  info.setFPType(255);
  EXPECT_FALSE(info.hasFPType());
  EXPECT_EQ(info.getFPType(), 255);
  EXPECT_EQ(printed(info), kAlwaysThere);
}

TEST(ServerInfoPresence, FingerprintTypeZeroCounts) {
  ServerInfo info = freshRecord();
  info.setFPType(0);
  EXPECT_TRUE(info.hasFPType());
  EXPECT_EQ(printed(info), std::string(kAlwaysThere) + ", fptype=0");
}

TEST(ServerInfoPresence, ClusterModeZeroCountsAndAllOnesDoNot) {
  ServerInfo info = freshRecord();
  info.setClusterMode(0);
  EXPECT_TRUE(info.hasClusterMode());
  EXPECT_EQ(printedBehindStrings(info), ", ClusterMode=0");
  info.setClusterMode(4294967294u);
  EXPECT_EQ(printedBehindStrings(info), ", ClusterMode=4294967294");
  info.setClusterMode(4294967295u);
  EXPECT_FALSE(info.hasClusterMode());
  EXPECT_EQ(printedBehindStrings(info), "");
}

TEST(ServerInfoFingerprints, ReusesOnlyWhenSha256FollowsAnotherType) {
  ServerInfo info = freshRecord();
  EXPECT_FALSE(info.reuseMD5ForSHA256());
  info.setFPType(kSha256);
  EXPECT_FALSE(info.reuseMD5ForSHA256()) << "the previous run is taken for SHA-256 at first";
  info.setLastFPType(1);
  EXPECT_TRUE(info.reuseMD5ForSHA256());
  info.setLastFPType(kNoType);
  EXPECT_TRUE(info.reuseMD5ForSHA256());
  info.setFPType(1);
  EXPECT_FALSE(info.reuseMD5ForSHA256());
}

TEST(ServerInfoFingerprints, TheLastTypeIsNeitherReadNorPrinted) {
  ServerInfo info = freshRecord();
  info.setLastFPType(77);
  EXPECT_EQ(info.getFPType(), 1);
  EXPECT_EQ(printed(info), std::string(kAlwaysThere) + ", fptype=1");
}

TEST(ServerInfoCopy, IsIndependentAndCarriesTheLastTypeAlong) {
  ServerInfo original = freshRecord();
  original.setFPType(kSha256);
  original.setLastFPType(1);
  ServerInfo copy("other", "", "", "", "", "", "");
  copy = original;
  original.setLastFPType(kSha256);
  original.setClusterName("east");
  EXPECT_EQ(copy.getPasswd(), "pw");
  EXPECT_TRUE(copy.reuseMD5ForSHA256());
  EXPECT_FALSE(copy.hasClusterName());
}

TEST(ServerInfoPrinted, EmptyStringsKeepTheirLabels) {
  EXPECT_EQ(printed(ServerInfo("", "", "", "", "", "", "")),
            "ServerName=, User=, AgentCfg=, CurrentRoute=, RecommendedRoute=, KeyDir=, fptype=1");
}

TEST(ServerInfoPrinted, SettingsFollowTheStrings) {
  ServerInfo info = freshRecord();
  info.setFlags(255);
  info.setReconnectTimeout(30);
  info.setClusterMode(0);
  EXPECT_EQ(printed(info), std::string(kAlwaysThere) +
                               ", Flags=0xff, ReconnectTimeout=30, fptype=1, ClusterMode=0");
}

TEST(ServerInfoPrinted, EverythingComesInOneOrder) {
  ServerInfo info = recordWithNumbers();
  info.setClusterName("east");
  info.setInterfaceName("eth0");
  info.setInterfaceIp("10.0.0.2");
  info.setLocalIp("10.0.0.1");
  EXPECT_EQ(printed(info),
            std::string(kAlwaysThere) +
                ", Flags=0xabcdef, ReconnectTimeout=30, BandwidthLimit=-5, LocalIp=10.0.0.1"
                ", InterfaceIp=10.0.0.2, InterfaceName=eth0, fptype=65, ClusterMode=255"
                ", ClusterName=east");
}

TEST(ServerInfoPrinted, NeverShowsThePassword) {
  const ServerInfo info("srv", "u", "open sesame", "cfg", "r1", "r2", "/k");
  EXPECT_EQ(info.getPasswd(), "open sesame");
  EXPECT_THAT(printed(info), testing::Not(testing::HasSubstr("sesame")));
}

TEST(ServerInfoPrinted, StringsAreNeitherQuotedNorEscaped) {
  const ServerInfo info("a, User=b", "\"\n", "", "", "", "", "");
  EXPECT_THAT(printed(info), testing::StartsWith("ServerName=a, User=b, User=\"\n, AgentCfg="));
}

TEST(ServerInfoPrinted, AllNumbersButTheFlagsFollowTheStreamsBase) {
  std::ostringstream hexadecimal;
  hexadecimal << std::hex << recordWithNumbers();
  EXPECT_THAT(hexadecimal.str(),
              testing::EndsWith(", Flags=0xabcdef, ReconnectTimeout=1e, BandwidthLimit=fffffffb"
                                ", fptype=41, ClusterMode=ff"));
  std::ostringstream octal;
  octal << std::oct << recordWithNumbers();
  EXPECT_THAT(octal.str(),
              testing::EndsWith(", Flags=0xabcdef, ReconnectTimeout=36"
                                ", BandwidthLimit=37777777773, fptype=101, ClusterMode=377"));
}

TEST(ServerInfoPrinted, FlagsHaveOneLowerCasePrefixUnderAnySetting) {
  std::ostringstream stream;
  stream << std::hex << std::showbase << std::uppercase << recordWithNumbers();
  EXPECT_THAT(stream.str(),
              testing::EndsWith(", Flags=0xabcdef, ReconnectTimeout=0X1E, BandwidthLimit=0XFFFFFFFB"
                                ", fptype=0X41, ClusterMode=0XFF"));
}

TEST(ServerInfoPrinted, ASignAskedForBelongsToTheSignedNumbers) {
  std::ostringstream stream;
  stream << std::showpos << recordWithNumbers();
  EXPECT_THAT(stream.str(),
              testing::EndsWith(", Flags=0xabcdef, ReconnectTimeout=+30, BandwidthLimit=-5"
                                ", fptype=+65, ClusterMode=255"));
}

TEST(ServerInfoPrinted, LeavesTheFlagsOfTheStreamAlone) {
  std::ostringstream fresh;
  fresh << recordWithNumbers();
  EXPECT_EQ(fresh.flags(), std::ostringstream().flags());
  std::ostringstream set;
  set << std::oct << std::showbase << std::uppercase << std::left;
  const std::ios::fmtflags before = set.flags();
  set << recordWithNumbers();
  EXPECT_EQ(set.flags(), before);
}

TEST(ServerInfoPrinted, LeavesTheFlagsAloneWhenTheStreamThrows) {
  const int upToTheLabel = static_cast<int>(std::string(kAlwaysThere).size()) + 10;
  ShortBuffer buffer(upToTheLabel);
  std::ostream stream(&buffer);
  stream.exceptions(std::ios::badbit);
  const std::ios::fmtflags before = stream.flags();
  EXPECT_THROW(stream << recordWithNumbers(), std::runtime_error);
  EXPECT_EQ(stream.flags(), before);
}

TEST(ServerInfoPrinted, AWidthPadsNothingAndIsSpent) {
  std::ostringstream stream;
  stream << std::setfill('*') << std::left << std::setw(200) << freshRecord() << '|';
  EXPECT_EQ(stream.str(), std::string(kAlwaysThere) + ", fptype=1|");
}

TEST(ServerInfoPrinted, AWidthIsSpentOnAnEmptyFirstString) {
  std::ostringstream stream;
  stream << std::setfill('*') << std::setw(200) << ServerInfo("", "", "", "", "", "", "") << '|';
  EXPECT_EQ(stream.str(),
            "ServerName=, User=, AgentCfg=, CurrentRoute=, RecommendedRoute=, KeyDir=, fptype=1|");
}

TEST(ServerInfoPrinted, FlagsAreNotGroupedByTheStreamsLocale) {
  std::ostringstream stream;
  stream.imbue(groupingLocale());
  ServerInfo info = recordWithNumbers();
  info.setReconnectTimeout(30000);
  stream << info;
  EXPECT_THAT(stream.str(), testing::HasSubstr(", Flags=0xabcdef, ReconnectTimeout=30.000, "));
}

TEST(ServerInfoPrinted, GivesTheStreamBack) {
  std::ostringstream stream;
  EXPECT_EQ(&(stream << freshRecord()), &stream);
}
