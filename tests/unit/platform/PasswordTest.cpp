#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iomanip>
#include <iostream>
#include <korvex/Logger.h>
#include <korvex/ServerInfo.h>
#include <korvex/ShmBatch.h>
#include <korvex/ShmWriter.h>
#include <korvex/UniqueIdGenerator.h>
#include <qmx/log.h>
#include <qmx/sink.h>
#include <qmx/trace.h>
#include <sstream>
#include <stdexcept>
#include <string>

#include "unit/platform/Support.h"
#include "unit/platform/SyslogDouble.h"

using korvex::ServerInfo;
using testing::HasSubstr;
using testing::Not;

namespace {

// Printable, without any character that an output might escape or break at.
const std::string kCanary = "canary9876543210password";

ServerInfo recordWithPassword() {
  return ServerInfo("server.example", "somebody", kCanary, "agent", "route", "better", "/keys");
}

/// The same with everything else set that can be set.
ServerInfo fullRecord() {
  ServerInfo info = recordWithPassword();
  info.setFlags(0xff);
  info.setReconnectTimeout(30);
  info.setBandwidthLimit(1000);
  info.setLocalIp("192.0.2.1");
  info.setInterfaceIp("192.0.2.2");
  info.setInterfaceName("eth0");
  info.setFPType(3);
  info.setLastFPType(1);
  info.setClusterMode(1);
  info.setClusterName("cluster");
  return info;
}

std::string printed(const ServerInfo& info, const std::function<void(std::ostream&)>& prepare) {
  std::ostringstream stream;
  prepare(stream);
  stream << info;
  return stream.str();
}

/// Takes the given number of characters and then fails as its owner asked for.
class ShortBuffer : public std::streambuf {
 public:
  explicit ShortBuffer(std::size_t room) : left_(room) {}

 private:
  int_type overflow(int_type character) override {
    if (left_ == 0) throw std::runtime_error("no room");
    --left_;
    return traits_type::not_eof(character);
  }

  std::size_t left_;
};

/// The text of what printing throws that stops after so many characters.
std::string errorOfPrinting(const ServerInfo& info, std::size_t room) {
  ShortBuffer buffer(room);
  std::ostream stream(&buffer);
  stream.exceptions(std::ios::badbit | std::ios::failbit);
  try {
    stream << info;
  } catch (const std::exception& error) {
    return error.what();
  }
  return "";
}

/// Everything that a product does with its record, with lines at each level.
void logEverywhere(const ServerInfo& info) {
  std::ostringstream line;
  line << info;
  const std::string text = line.str();
  korvex::server::Logger logger(info.getServerName());
  for (const auto level : {korvex::server::LOGLEVEL_INFO, korvex::server::LOGLEVEL_AUTH,
                           korvex::server::LOGLEVEL_WARNING, korvex::server::LOGLEVEL_ERROR}) {
    logger.log(level, "connect", 1, "%s", text.c_str());
  }
  logger.logTrace("connect", "%s", text.c_str());
  InfoA(1, "%s", text.c_str());
  __TraceA("%s", text.c_str());
}

/// Everything else of the library that may write, fed with what the record tells freely.
void useTheLibrary(const ServerInfo& info) {
  const AutoTrace trace("useTheLibrary");
  korvex::UniqueIdGenerator::getInstance()->generateId(info.getUser());
  try {
    korvex::ShmWriter(info.getUser(), "korvex-no-such-queue", 1, 1, true);
  } catch (const std::exception& error) {
    ErrorA(1, "%s", error.what());
  }
  korvex::ShmBatch batch(100);
  std::cout << batch << info << std::endl;
  std::cerr << info << std::endl;
}

}  // namespace

TEST(Password, IsNoPartOfThePrintedForm) {
  for (const ServerInfo& info : {recordWithPassword(), fullRecord()}) {
    ASSERT_EQ(info.getPasswd(), kCanary);
    EXPECT_THAT(printed(info, [](std::ostream&) {}), HasSubstr("User=somebody"));
    for (const auto& prepare : std::initializer_list<std::function<void(std::ostream&)>>{
             [](std::ostream&) {},
             [](std::ostream& stream) { stream << std::hex << std::showbase; },
             [](std::ostream& stream) { stream << std::setw(200) << std::setfill('*'); },
             [](std::ostream& stream) { stream << std::oct << std::uppercase << std::unitbuf; }}) {
      EXPECT_THAT(printed(info, prepare), Not(HasSubstr(kCanary)));
    }
  }
}

TEST(Password, IsNoPartOfAPrintedCopy) {
  const ServerInfo original = fullRecord();
  const ServerInfo copied(original);
  ServerInfo assigned("s", "u", "other", "", "", "", "");
  assigned = original;
  const ServerInfo moved(std::move(assigned));
  for (const ServerInfo* info : {&copied, &moved}) {
    ASSERT_EQ(info->getPasswd(), kCanary);
    EXPECT_THAT(printed(*info, [](std::ostream&) {}), Not(HasSubstr(kCanary)));
  }
}

TEST(Password, IsInNoErrorOfPrinting) {
  const ServerInfo info = fullRecord();
  const std::size_t whole = printed(info, [](std::ostream&) {}).size();
  for (std::size_t room = 0; room < whole; ++room) {
    const std::string error = errorOfPrinting(info, room);
    ASSERT_NE(error, "") << "after " << room << " characters";
    EXPECT_THAT(error, Not(HasSubstr(kCanary)));
  }
}

/// With every kind of destination that lines may have.
class PasswordInLog : public testing::Test {
 protected:
  void SetUp() override { qmx::setTracing(true); }
  void TearDown() override {
    qmx::setTracing(false);
    qmx::logToStandardError();
  }

  /// What the process writes meanwhile, on both standard streams.
  static std::string outputOf(const std::function<void()>& action) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    action();
    std::cout.flush();
    return testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
  }

  static void act() {
    logEverywhere(fullRecord());
    useTheLibrary(fullRecord());
  }
};

TEST_F(PasswordInLog, IsNeitherOnStandardOutputNorOnStandardError) {
  const std::string output = outputOf(act);
  EXPECT_THAT(output, HasSubstr("User=somebody"));
  EXPECT_THAT(output, HasSubstr("useTheLibrary: enter"));
  EXPECT_THAT(output, Not(HasSubstr(kCanary)));
}

TEST_F(PasswordInLog, IsNotInALogFile) {
  const TemporaryFolder folder;
  qmx::logToFile(folder.path("log"));
  EXPECT_THAT(outputOf(act), Not(HasSubstr(kCanary)));
  EXPECT_THAT(contentOf(folder.path("log")), HasSubstr("User=somebody"));
  EXPECT_THAT(contentOf(folder.path("log")), Not(HasSubstr(kCanary)));
}

TEST_F(PasswordInLog, IsNotInWhatAReceiverOfLinesGets) {
  std::string lines;
  qmx::logToCallback([&lines](const qmx::Line& line) { lines += std::string(line.text) + "\n"; });
  EXPECT_THAT(outputOf(act), Not(HasSubstr(kCanary)));
  qmx::logToStandardError();
  EXPECT_THAT(lines, HasSubstr("User=somebody"));
  EXPECT_THAT(lines, Not(HasSubstr(kCanary)));
}

TEST_F(PasswordInLog, IsNotInTheSystemLog) {
  qmx::logToSystemLog("producer");
  korvex::test::syslog_double::take();
  EXPECT_THAT(outputOf(act), Not(HasSubstr(kCanary)));
  const std::vector<std::string> calls = korvex::test::syslog_double::take();
  EXPECT_THAT(calls, testing::Contains(HasSubstr("User=somebody")));
  EXPECT_THAT(calls, testing::Each(Not(HasSubstr(kCanary))));
}
