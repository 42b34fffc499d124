#include <gtest/gtest.h>

#include "send/SendReport.h"

using korvex::tool::SendReport;

TEST(SendReport, SummarizesInOneLine) {
  SendReport report;
  report.bytes = 1050000000;
  report.segments = 3;
  report.seconds = 0.5;
  report.message = "stored and verified";
  EXPECT_EQ(report.summary(),
            "sent 1050000000 bytes in 3 segments, 0.5 s, 2.1 GB/s: stored and verified");
}

TEST(SendReport, IsOneJsonObject) {
  SendReport report;
  report.bytes = 10;
  report.segments = 2;
  report.seconds = 0.5;
  report.xxh128 = "00ff";
  report.isVerified = true;
  report.message = "stored and verified";
  EXPECT_EQ(report.json(),
            R"({"bytes":10,"segments":2,"seconds":0.5,"bytesPerSecond":20.0,"xxh128":"00ff",)"
            R"("verified":true,"status":0,"message":"stored and verified","exitCode":0})");
}

TEST(SendReport, HasNoRateWithoutTime) { EXPECT_EQ(SendReport().bytesPerSecond(), 0.0); }

TEST(SendReportUntrusted, PutsAnythingIntoTheMessage) {
  SendReport report;
  report.message = "cannot read '\"\n\xff'";
  EXPECT_NE(report.json().find(R"("message":"cannot read '\"\n)"
                               "\xef\xbf\xbd'\""),
            std::string::npos)
      << report.json();
}
