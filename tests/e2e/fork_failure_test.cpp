// When the write service cannot fork, the one process applies and saves
// before it ends, and says so in the log.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include "support/cgi_process.h"
#include "support/simulator.h"
#include "support/syslog_capture.h"

namespace {

TEST(ForkFailure, TheSameProcessAppliesAndSaves) {
  Simulator daemon(defaultTree());  // on which the rules record nothing
  SyslogCapture log;
  ASSERT_EQ(chmod("/tmp/cffs_uds", 0777), 0);
  ASSERT_EQ(chmod("/dev/log", 0666), 0);
  CgiRequest request = getRequest("write=/configuration/network/hostname&value=studio");
  request.forkFails = true;
  CgiResult result = runCgi(request);

  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(
      result.output,
      "Content-Type: application/json\n\n{ \"write\": "
      "\"\\/configuration\\/network\\/hostname\", \"value\": \"studio\", \"reply\": \"\" }\n");
  // Apply and save were sent before the program ended, not by a child.
  std::vector<std::string> wire;
  for (const std::string& request : daemon.transcript()) {
    if (request.rfind("ls ", 0) != 0) wire.push_back(request);
  }
  EXPECT_EQ(wire, (std::vector<std::string>{"put /configuration/network/hostname studio\\r",
                                            "apply\\r", "save\\r"}));
  std::vector<std::pair<int, std::string>> lines;
  for (const LogLine& line : log.lines()) {
    EXPECT_EQ(line.pid, result.pid);
    lines.emplace_back(line.priority, line.message);
  }
  EXPECT_EQ(
      lines,
      (std::vector<std::pair<int, std::string>>{
          {LOG_USER | LOG_INFO, "Setting parameter /configuration/network/hostname to studio"},
          {LOG_USER | LOG_WARNING, "Failed to fork child process, continuing in parent process"},
          {LOG_USER | LOG_INFO, "Applied and saved the parameter settings"}}));
}

}  // namespace
