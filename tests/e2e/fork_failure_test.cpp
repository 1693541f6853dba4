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
  EXPECT_EQ(daemon.writes(),
            (std::vector<std::string>{"put /configuration/network/hostname studio\\r", "apply\\r",
                                      "save\\r"}));
  for (const LogLine& line : log.lines()) EXPECT_EQ(line.pid, result.pid);
  EXPECT_EQ(
      log.entries(),
      (Log{{LOG_USER | LOG_INFO, "Setting parameter /configuration/network/hostname to studio"},
           {LOG_USER | LOG_WARNING, "Failed to fork child process, continuing in parent process"},
           {LOG_USER | LOG_INFO, "Applied and saved the parameter settings"}}));
}

}  // namespace
